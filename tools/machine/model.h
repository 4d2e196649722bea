// What is known of a machine, this one or one of an archive: what check judges, diff compares and
// report shows.
#pragma once

#include "tools/base/machine_source.h"
#include "tools/base/storage_state.h"
#include "tools/pci/link.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace devaccess
{

struct machine_function {
    std::string id;     // "0000:03:00.0"
    std::string key;    // where it is, whatever numbers buses have: "slot-3/00.0"
    std::string parent; // the bridge above; empty on a root bus
    std::string slot;   // a physical slot that it is in itself
    uint32_t vendor = 0xffff;
    uint32_t device = 0xffff;
    uint32_t class_code = 0;
    std::string driver;
    std::string driver_override;
    std::vector<int> unassigned;                // BARs without an address
    std::map<std::string, uint64_t> errors;     // by "correctable", "nonfatal", "fatal"
    std::map<std::string, std::string> counted; // which of them: "BadTLP 3"
    std::string problem;                        // why its configuration space cannot be read
    bool is_cut = false; // only the first 64 bytes of its configuration space are shown

    std::string ids() const; // "f0ca:0020"
};

struct machine_link {
    pcie_link is;
    const machine_function *port;
    const machine_function *other; // nullptr: none is seen
};

struct machine_slot {
    std::string name;
    std::string address; // "0000:03:00"
    bool has_adapter;    // says its driver
};

struct machine_node {
    std::string name; // "uio0"
    std::string device;
    int windows = 0;     // maps and ports
    std::string problem; // empty where it can be opened
};

struct machine_log {
    std::string kind; // "pod" or "post"
    std::string name;
    storage_state state;
    std::string problem;
    bool is_kept_apart = false; // it is in NVRAM, which is there or broken
    size_t entries = 0;
    std::string check = {}; // the command that tells more
};

struct machine_entry {
    std::string kind;
    std::string name; // of the log
    int history;
    time_t time;
    std::string message; // printable

    auto operator<=>(const machine_entry &) const = default;
};

struct machine_card {
    std::string name;
    std::string status; // "Passed", "Failed" or "Invalid"
    bool fault_injected;
};

enum class model_part {
    all,
    functions, // and links
};

class machine_model
{
public:
    explicit machine_model(const machine_source &machine, model_part part = model_part::all);
    machine_model(const machine_model &) = delete;
    machine_model &operator=(const machine_model &) = delete;

    const machine_facts &facts() const { return facts_; }
    // " --from FILE", for commands that are suggested.
    const std::string &option() const { return option_; }
    const std::vector<machine_function> &functions() const { return functions_; }
    // Of the function at this place in functions().
    const config_space &config(size_t function) const { return configs_[function]; }
    const config_space &config(const machine_function &function) const;
    const std::vector<machine_link> &links() const { return links_; }
    const std::vector<machine_slot> &slots() const { return slots_; }
    const std::vector<machine_node> &nodes() const { return nodes_; }
    const std::vector<machine_log> &logs() const { return logs_; }
    const std::vector<machine_entry> &entries() const { return entries_; }
    const std::vector<machine_card> &cards() const { return cards_; }
    // Whether it has the NVRAM of a chassis, or is said to be one.
    bool is_chassis() const { return is_chassis_; }

    const machine_function *find(const std::string &id) const;
    const machine_function *at(const std::string &key) const;

private:
    void add_functions(const machine_source &machine);
    void add_function(const machine_source &machine, const std::string &id,
                      const std::map<std::string, std::string> &slots);
    void add_slots(const machine_source &machine);
    void add_links(const machine_source &machine);
    void add_nodes(const machine_source &machine);
    void add_pod_logs(const machine_source &machine);
    void add_post_logs(const machine_source &machine);
    std::vector<pcie_link> links_by_attributes(const machine_source &machine) const;

    machine_facts facts_;
    std::string option_;
    bool is_chassis_ = false;
    std::vector<machine_function> functions_;
    std::vector<config_space> configs_;
    std::vector<machine_link> links_;
    std::vector<machine_slot> slots_;
    std::vector<machine_node> nodes_;
    std::vector<machine_log> logs_;
    std::vector<machine_entry> entries_;
    std::vector<machine_card> cards_;
};

// "5.0 GT/s x4"
std::string rate_text(const link_rate &rate);

} // namespace devaccess
