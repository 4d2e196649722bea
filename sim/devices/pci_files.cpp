// Configuration spaces end where they end, and are gone with their function; mappings of BARs lie
// in them.
#include "sim/devices/pci_files.h"

#include "sim/parts/pci_tree.h"

#include <algorithm>
#include <cerrno>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

constexpr char tree[] = "/sys/devices/pci";
constexpr char absent[] = "/.chassis/absent/";

// Opens a file for a client so that its calls are asked about; where no number for that is left,
// they are not.
void hand_out(const asked_call &call, const std::string &path, int flags, opening_table &openings)
{
    constexpr int kept = O_ACCMODE | O_APPEND | O_NONBLOCK | O_SYNC;
    const std::optional<unsigned int> number = openings.free_number(call.process());
    const owned_fd file(::open(path.c_str(), (flags & kept) | O_CLOEXEC));
    if (!number || !file)
        return call.pass();
    call.descriptor(file.get(), flags & O_CLOEXEC, number);
}

class config_opening : public opening
{
public:
    bool is_behind(const std::string &link, const asking_process &, int) const override
    {
        return (link.starts_with(tree) || link.starts_with(absent)) &&
               (link.ends_with("/config") || link.ends_with("/config (deleted)"));
    }

    void read(const asked_call &call, int fd, position) override
    {
        has_gone(call, fd) ? call.result(-ENODEV) : call.pass();
    }

    void write(const asked_call &call, int fd, position at) override
    {
        if (has_gone(call, fd))
            return call.result(-ENODEV);
        const owned_fd file = call.process().copy_of(fd);
        struct stat status;
        if (::fstat(file.get(), &status) != 0)
            return call.pass();
        const auto size = static_cast<uint64_t>(status.st_size);
        const uint64_t from = at ? *at : static_cast<uint64_t>(::lseek(file.get(), 0, SEEK_CUR));
        const uint64_t count = call.argument(2);
        if (from >= size)
            return call.result(count == 0 ? 0 : -EFBIG);
        if (count <= size - from)
            return call.pass();
        // What reaches past the end is not written.
        std::vector<uint8_t> bytes(static_cast<size_t>(size - from));
        if (!call.process().read(call.argument(1), bytes.data(), bytes.size()))
            return call.result(-EFAULT);
        const ssize_t done =
            at ? ::pwrite(file.get(), bytes.data(), bytes.size(), static_cast<off_t>(from))
               : ::write(file.get(), bytes.data(), bytes.size());
        call.result(done < 0 ? -errno : done);
    }

private:
    static bool has_gone(const asked_call &call, int fd)
    {
        const std::string link = call.process().link_of(fd);
        return link.starts_with(absent) || link.ends_with(" (deleted)");
    }
};

class config_node : public node
{
public:
    explicit config_node(opening_table &openings) : openings_(openings) {}

    bool is_at(const std::string &path, int) const override
    {
        return path.starts_with(tree) && path.ends_with("/config");
    }
    void open(const asked_call &call, const std::string &path, int flags) override
    {
        hand_out(call, path, flags, openings_);
    }

private:
    opening_table &openings_;
};

bool is_window_file(const std::string &path)
{
    const size_t slash = path.rfind('/');
    return path.starts_with(tree) && path.compare(slash + 1, 8, "resource") == 0 &&
           path.size() > slash + 9;
}

class window_opening : public opening
{
public:
    // A window that behaves, and the end of its path, "/ID/resourceN".
    struct known_window {
        std::string end;
        register_window *window;
    };
    window_opening(std::vector<known_window> known, const window_table &windows, access_trap &trap)
        : known_(std::move(known)), windows_(windows), trap_(trap)
    {
    }

    bool is_behind(const std::string &link, const asking_process &, int) const override
    {
        return is_window_file(link) || of_faulting(link);
    }

    void map(const asked_call &call, int fd) override
    {
        const std::string link = call.process().link_of(fd);
        const register_window *const window =
            of_faulting(link) ? of_faulting(link)->window : window_of(link);
        struct stat status = {};
        const uint64_t page = 4096;
        const uint64_t size = window                               ? window->size()
                              : ::stat(link.c_str(), &status) == 0 ? uint64_t(status.st_size)
                                                                   : 0;
        const uint64_t end = (size + page - 1) / page * page;
        const uint64_t offset = call.file_offset(), length = call.argument(1);
        if (offset > end || length > end - offset)
            return call.result(-EINVAL);
        if (window) {
            if (const int error = trap_.follow(call.process()))
                return call.result(-error);
            call.replace(fd, window->faulting());
        }
        call.pass();
    }

    void read(const asked_call &call, int fd, position) override { use(call, fd); }
    void write(const asked_call &call, int fd, position) override { use(call, fd); }
    void seek(const asked_call &call, int fd) override { use(call, fd); }
    void use(const asked_call &call, int fd) override
    {
        if (const known_window *const known = of_faulting(call.process().link_of(fd)))
            call.replace(fd, known->window->memory());
        call.pass();
    }

private:
    register_window *window_of(const std::string &path) const
    {
        const auto found = std::find_if(known_.begin(), known_.end(), [&](const auto &known) {
            return path.ends_with(known.end);
        });
        return found == known_.end() ? nullptr : found->window;
    }
    const known_window *of_faulting(const std::string &link) const
    {
        const register_window *const window = windows_.find(link);
        const auto found = std::find_if(known_.begin(), known_.end(),
                                        [&](const auto &known) { return known.window == window; });
        return found == known_.end() ? nullptr : &*found;
    }

    std::vector<known_window> known_;
    const window_table &windows_;
    access_trap &trap_;
};

class window_node : public node
{
public:
    window_node(std::string end, opening_table &openings)
        : end_(std::move(end)), openings_(openings)
    {
    }

    bool is_at(const std::string &path, int) const override
    {
        return is_window_file(path) && path.ends_with(end_);
    }
    void open(const asked_call &call, const std::string &path, int flags) override
    {
        hand_out(call, path, flags, openings_);
    }

private:
    std::string end_;
    opening_table &openings_;
};

} // namespace

void add_pci_files(node_list &nodes, const std::vector<bar_node> &bars, window_table &windows,
                   const opening_services &with)
{
    std::vector<window_opening::known_window> known;
    for (const bar_node &bar : bars) {
        const std::string path = window_path(bar.id, bar.bar);
        owned_fd memory(must(::open(path.c_str(), O_RDWR | O_CLOEXEC), "open " + path));
        register_window &window = windows.add(bar.id + ".bar" + std::to_string(bar.bar),
                                              bar.registers, 0, bar.size, std::move(memory));
        if (!window.behaves())
            continue;
        const std::string end = "/" + bar.id + "/resource" + std::to_string(bar.bar);
        known.push_back({end, &window});
        nodes.push_back(std::make_unique<window_node>(end, with.table));
    }
    nodes.push_back(std::make_unique<config_node>(with.table));
    with.table.add(std::make_shared<config_opening>());
    with.table.add(std::make_shared<window_opening>(std::move(known), windows, with.trap));
}

} // namespace chassis_sim
