// A file with the ranges at their addresses. Outside them it fails as a kernel's does that protects
// its memory.
#include "sim/devices/physical_memory.h"

#include "sim/devices/memory.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

constexpr char path_of_memory[] = "/dev/mem";

class memory_opening : public opening
{
public:
    memory_opening(owned_fd memory, std::vector<register_window *> ranges,
                   const window_table &windows, access_trap &trap)
        : memory_(std::move(memory)), link_(own_link(memory_)), ranges_(std::move(ranges)),
          windows_(windows), trap_(trap)
    {
    }

    owned_fd open() const { return reopen(memory_); }

    bool is_behind(const std::string &link, const asking_process &, int) const override
    {
        const register_window *const window = windows_.find(link);
        return link == link_ ||
               (window && std::find(ranges_.begin(), ranges_.end(), window) != ranges_.end());
    }
    std::string node_path() const override { return path_of_memory; }

    void map(const asked_call &call, int fd) override
    {
        const uint64_t offset = call.file_offset();
        const register_window *const range = range_of(offset, call.argument(1), 4096);
        if (!range)
            return call.result(-EPERM);
        if (range->behaves())
            if (const int error = trap_.follow(call.process()))
                return call.result(-error);
        call.replace(fd, range->mapped());
        call.pass();
    }

    void read(const asked_call &call, int fd, position at) override { use_range(call, fd, at); }
    void write(const asked_call &call, int fd, position at) override { use_range(call, fd, at); }
    void seek(const asked_call &call, int fd) override { use(call, fd); }
    void use(const asked_call &call, int fd) override
    {
        if (call.process().link_of(fd) != link_)
            call.replace(fd, memory_.get());
        call.pass();
    }

private:
    // The range that these bytes lie in, when it may be rounded up to whole pages.
    const register_window *range_of(uint64_t offset, uint64_t length, uint64_t page) const
    {
        for (const register_window *const range : ranges_) {
            const uint64_t start = range->base() / page * page;
            const uint64_t end = (range->base() + range->size() + page - 1) / page * page;
            if (offset >= start && offset < end && length <= end - offset)
                return range;
        }
        return nullptr;
    }

    void use_range(const asked_call &call, int fd, position at)
    {
        const auto offset =
            at ? *at
               : static_cast<uint64_t>(::lseek(call.process().copy_of(fd).get(), 0, SEEK_CUR));
        range_of(offset, call.argument(2), 1) ? use(call, fd) : call.result(-EFAULT);
    }

    owned_fd memory_;
    std::string link_;
    std::vector<register_window *> ranges_;
    const window_table &windows_;
    access_trap &trap_;
};

class memory_node : public node
{
public:
    memory_node(std::shared_ptr<memory_opening> memory, opening_table &openings)
        : memory_(std::move(memory)), openings_(openings)
    {
    }

    bool is_at(const std::string &path, int) const override { return path == path_of_memory; }
    void open(const asked_call &call, const std::string &, int flags) override
    {
        const std::optional<unsigned int> number = openings_.free_number(call.process());
        if (!number)
            return call.result(-EMFILE);
        call.descriptor(memory_->open().get(), flags & O_CLOEXEC, number);
    }

private:
    std::shared_ptr<memory_opening> memory_;
    opening_table &openings_;
};

std::string name_of(const memory_range &range)
{
    char name[32];
    std::snprintf(name, sizeof name, "mem.0x%llx", static_cast<unsigned long long>(range.address));
    return name;
}

} // namespace

void add_physical_memory(node_list &nodes, const std::vector<memory_range> &ranges,
                         window_table &windows, const opening_services &with)
{
    if (ranges.empty())
        return;
    owned_fd memory = make_memory("chassis-mem", 0);
    std::vector<register_window *> made;
    for (const memory_range &range : ranges) {
        const auto end = static_cast<off_t>(range.address + range.size);
        if (::lseek(memory.get(), 0, SEEK_END) < end)
            must(::ftruncate(memory.get(), end), "make physical memory");
        must(static_cast<int>(::pwrite(memory.get(), range.contents.data(), range.contents.size(),
                                       static_cast<off_t>(range.address))),
             "fill physical memory");
        owned_fd own(must(::fcntl(memory.get(), F_DUPFD_CLOEXEC, 0), "dup"));
        made.push_back(&windows.add(name_of(range), range.registers, range.address, range.size,
                                    std::move(own)));
    }
    write_file(path_of_memory, "", 0640);
    const auto opening =
        std::make_shared<memory_opening>(std::move(memory), std::move(made), windows, with.trap);
    nodes.push_back(std::make_unique<memory_node>(opening, with.table));
    with.table.add(opening);
}

} // namespace chassis_sim
