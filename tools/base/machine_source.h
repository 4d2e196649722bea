// A machine as reading commands see it: this one, or one that an archive of 'devaccess collect'
// has recorded. Paths are those of the machine.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace devaccess
{

// What is true of the machine as a whole, and of the program that looks at it.
struct machine_facts {
    struct unusable_node {
        std::string name; // "uio0"
        std::string problem;
    };

    std::string host;
    time_t time = 0; // when it was looked at
    std::string chassis;
    bool is_rp2 = false;
    std::string kernel;
    std::string lockdown;                // of the kernel: "none", "integrity", "confidentiality"
    std::vector<std::string> parameters; // of the kernel's command line, those on PCI and memory
    std::vector<unusable_node> nodes;    // UIO nodes that cannot be opened
};

class machine_source
{
public:
    machine_source() = default;
    machine_source(const machine_source &) = delete;
    machine_source &operator=(const machine_source &) = delete;
    virtual ~machine_source() = default;

    // The name of its file; empty for this machine.
    virtual std::string archive() const = 0;
    virtual const machine_facts &facts() const = 0;

    // A file's bytes; nothing when there is none. Fails when it is there and cannot be read.
    virtual std::optional<std::string> read(const std::string &path) const = 0;
    // Names in a directory, sorted.
    virtual std::vector<std::string> names_in(const std::string &directory) const = 0;
    // Where a link leads, as it says; empty when it is none.
    virtual std::string target(const std::string &path) const = 0;
    // Without links; empty when there is nothing.
    virtual std::string real_path(const std::string &path) const = 0;

    bool is_archive() const { return !archive().empty(); }
    // A small file, or its first line; empty where it cannot be read.
    std::string text(const std::string &path) const;
    std::string line(const std::string &path) const;
    // " --from FILE", for commands that are suggested; empty for this machine.
    std::string option() const;
};

const machine_source &this_machine();

} // namespace devaccess
