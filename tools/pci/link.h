// The links of PCI Express ports: what they do, and what both of their ends can do.
#pragma once

#include "tools/pci/config_space.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace devaccess
{

// As the link registers have it.
struct link_rate {
    uint32_t speed; // 1: 2.5 GT/s, 2: 5 GT/s, 3: 8 GT/s, ...; 0: not told
    uint32_t width; // lanes; 0: not told
};

// What a function says of a link.
struct link_end {
    std::string id;
    bool is_port;   // a root or downstream port: the link leads down from it
    uint32_t bus;   // of a port: the one that the link leads to
    bool is_up;     // of a port
    link_rate now;  // without meaning while the link is down
    link_rate most; // what this end can
};

// Nothing for a function without a link. Fails when the space shows too little.
std::optional<link_end> link_end_of(const config_space &config);

struct pcie_link {
    link_end port;
    std::optional<link_end> other; // the first function at the other end, if one is seen

    // What is possible: of both maxima the lower. One end's alone says nothing, as a card of four
    // lanes in a slot of sixteen is no trouble. Nothing while there is no other end.
    std::optional<link_rate> possible() const;
    // It is up, but slower or narrower than is possible.
    bool is_degraded() const;
};

// Those of all ports among the functions of one machine, in order of the ports' ids.
std::vector<pcie_link> links_among(std::span<const config_space> functions);

// 0 for a speed that no register means.
int64_t transfers_per_second(uint32_t speed);

} // namespace devaccess
