// Reads the link registers, and pairs the ends of links.
#include "tools/pci/link.h"

#include "tools/base/errors.h"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>
#include <linux/pci_regs.h>

namespace devaccess
{
namespace
{

const found_capability *pcie_of(const capability_list &list)
{
    const auto found =
        std::find_if(list.found.begin(), list.found.end(), [](const found_capability &one) {
            return !one.extended && one.id == PCI_CAP_ID_EXP;
        });
    return found == list.found.end() ? nullptr : &*found;
}

// What is in the root complex itself has no link.
bool has_link(uint32_t type)
{
    switch (type) {
    case PCI_EXP_TYPE_ENDPOINT:
    case PCI_EXP_TYPE_LEG_END:
    case PCI_EXP_TYPE_ROOT_PORT:
    case PCI_EXP_TYPE_UPSTREAM:
    case PCI_EXP_TYPE_DOWNSTREAM:
    case PCI_EXP_TYPE_PCI_BRIDGE:
        return true;
    default:
        return false;
    }
}

std::vector<link_end> ends_among(std::span<const config_space> functions)
{
    std::vector<link_end> ends;
    for (const config_space &function : functions)
        try {
            if (auto end = link_end_of(function))
                ends.push_back(std::move(*end));
        } catch (const failure &) { // it has gone, or shows too little
        }
    std::sort(ends.begin(), ends.end(),
              [](const link_end &one, const link_end &other) { return one.id < other.id; });
    return ends;
}

} // namespace

std::optional<link_end> link_end_of(const config_space &config)
{
    const capability_list list = capabilities_of(config);
    const found_capability *const pcie = pcie_of(list);
    if (!pcie)
        return std::nullopt;
    const uint32_t at = pcie->offset;
    const uint32_t type = (config.read(at + PCI_EXP_FLAGS, 16) & PCI_EXP_FLAGS_TYPE) >> 4;
    if (!has_link(type))
        return std::nullopt;
    const uint32_t able = config.read(at + PCI_EXP_LNKCAP, 32);
    const uint32_t status = config.read(at + PCI_EXP_LNKSTA, 16);
    const bool is_port = type == PCI_EXP_TYPE_ROOT_PORT || type == PCI_EXP_TYPE_DOWNSTREAM;
    const link_rate now = {status & PCI_EXP_LNKSTA_CLS,
                           (status & PCI_EXP_LNKSTA_NLW) >> PCI_EXP_LNKSTA_NLW_SHIFT};
    const link_rate most = {able & PCI_EXP_LNKCAP_SLS, (able & PCI_EXP_LNKCAP_MLW) >> 4};
    const bool reports_active = able & PCI_EXP_LNKCAP_DLLLARC;
    const bool is_up = (status & PCI_EXP_LNKSTA_LT) == 0 && now.width > 0 &&
                       (!reports_active || (status & PCI_EXP_LNKSTA_DLLLA) != 0);
    const uint32_t bus = is_port ? config.read(PCI_SECONDARY_BUS, 8) : 0;
    return link_end{config.id(), is_port, bus, is_up, now, most};
}

std::optional<link_rate> pcie_link::possible() const
{
    if (!other)
        return std::nullopt;
    return link_rate{std::min(port.most.speed, other->most.speed),
                     std::min(port.most.width, other->most.width)};
}

bool pcie_link::is_degraded() const
{
    const auto best = possible();
    return port.is_up && best && (port.now.speed < best->speed || port.now.width < best->width);
}

std::vector<pcie_link> links_among(std::span<const config_space> functions)
{
    const std::vector<link_end> ends = ends_among(functions);
    std::vector<pcie_link> links;
    for (const link_end &port : ends) {
        if (!port.is_port)
            continue;
        const std::string bus =
            fmt::format("{}:{:02x}:", port.id.substr(0, port.id.find(':')), port.bus);
        const auto other = std::find_if(ends.begin(), ends.end(), [&](const link_end &end) {
            return !end.is_port && end.id.starts_with(bus);
        });
        links.push_back({port, other == ends.end() ? std::nullopt : std::optional(*other)});
    }
    return links;
}

int64_t transfers_per_second(uint32_t speed)
{
    constexpr int64_t speeds[] = {0,           2500000000,  5000000000, 8000000000,
                                  16000000000, 32000000000, 64000000000};
    return speed < std::size(speeds) ? speeds[speed] : 0;
}

} // namespace devaccess
