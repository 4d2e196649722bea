// Opens NVRAM blocks: the kernel does the rest, but for the calls that are to fail.
#include "sim/devices/storage_node.h"

#include <cerrno>

#include <fcntl.h>

namespace chassis_sim
{
namespace
{

class storage_opening : public opening
{
public:
    storage_opening(devices &all, const storage_device &of) : devices_(all), device_(of) {}

    bool is_behind(const std::string &link, const asking_process &, int) const override
    {
        return device_.is_behind(link);
    }
    void read(const asked_call &call, int, position) override { fail_or_pass(call, "read"); }
    void write(const asked_call &call, int, position) override { fail_or_pass(call, "write"); }

    std::string node_path() const override { return device_.node; }

private:
    void fail_or_pass(const asked_call &call, const char *name)
    {
        const int error = devices_.fault(device_.name(), name);
        error == 0 ? call.pass() : call.result(-error);
    }

    devices &devices_;
    const storage_device &device_;
};

class block_node : public node
{
public:
    block_node(devices &all, const storage_device &of, opening_table &openings)
        : devices_(all), device_(of), openings_(openings)
    {
    }

    bool is_at(const std::string &path, int) const override { return path == device_.node; }

    void open(const asked_call &call, const std::string &, int flags) override
    {
        if (const int error = devices_.fault(device_.name(), "open"))
            return call.result(-error);
        const owned_fd opened = device_.open(flags);
        if (!opened)
            return call.result(-errno);
        // Calls on it are asked about where one is to fail.
        std::optional<unsigned int> number;
        if (devices_.have_faults() && !(number = openings_.free_number(call.process())))
            return call.result(-EMFILE);
        call.descriptor(opened.get(), flags & O_CLOEXEC, number);
    }

private:
    devices &devices_;
    const storage_device &device_;
    opening_table &openings_;
};

} // namespace

void add_storage_nodes(node_list &nodes, devices &all, opening_table &openings)
{
    for (const storage_device &device : all.storage) {
        nodes.push_back(std::make_unique<block_node>(all, device, openings));
        openings.add(std::make_shared<storage_opening>(all, device));
    }
}

} // namespace chassis_sim
