// Opens the files that take lines.
#include "sim/devices/control_node.h"

#include "sim/devices/control_line.h"
#include "sim/parts/pci_tree.h"

#include <cstdlib>
#include <filesystem>
#include <set>

#include <fcntl.h>

namespace chassis_sim
{
namespace
{

namespace fs = std::filesystem;

class control_node : public node
{
public:
    explicit control_node(event_loop &loop) : loop_(loop) {}

    void open(const asked_call &call, const std::string &path, int flags) override
    {
        const bool client_reads = (flags & O_ACCMODE) != O_WRONLY;
        const owned_fd line =
            open_control_line(loop_, client_reads,
                              [this, path](const std::string &text) { return obey(path, text); });
        call.descriptor(line.get(), flags & O_CLOEXEC, std::nullopt);
    }

private:
    virtual std::string obey(const std::string &path, const std::string &line) = 0;

    event_loop &loop_;
};

class chassis_node : public control_node
{
public:
    chassis_node(const controlled &what, event_loop &loop) : control_node(loop), what_(what) {}

    bool is_at(const std::string &path, int) const override { return path == control_path; }

private:
    std::string obey(const std::string &, const std::string &line) override
    {
        return chassis_sim::obey(what_, line);
    }

    controlled what_;
};

// The attributes "remove" of functions and "rescan" of all: who reads them finds plain files.
class bus_node : public control_node
{
public:
    using control_node::control_node;

    bool is_at(const std::string &path, int flags) const override
    {
        return (flags & O_ACCMODE) != O_RDONLY &&
               (path == "/sys/bus/pci/rescan" ||
                (path.starts_with("/sys/devices/pci") &&
                 (path.ends_with("/remove") || path.ends_with("/rescan"))));
    }

private:
    std::string obey(const std::string &path, const std::string &line) override
    {
        if (path.ends_with("/rescan")) {
            for (const std::string &id : std::exchange(removed_, {}))
                plug_pci(id);
            return "";
        }
        const std::string id = fs::path(path).parent_path().filename();
        if (std::atoi(line.c_str()) == 0)
            throw failure("1 removes " + id);
        unplug_pci(id);
        removed_.insert(id);
        return "";
    }

    std::set<std::string> removed_; // from the bus, until it is scanned again
};

} // namespace

void add_control_nodes(node_list &nodes, const controlled &what, event_loop &loop)
{
    nodes.push_back(std::make_unique<chassis_node>(what, loop));
    nodes.push_back(std::make_unique<bus_node>(loop));
}

} // namespace chassis_sim
