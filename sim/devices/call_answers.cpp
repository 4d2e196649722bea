// Finds the node of a path and the opening of a descriptor, which answer.
#include "sim/devices/call_answers.h"

#include "sim/devices/control_node.h"
#include "sim/devices/pci_files.h"
#include "sim/devices/physical_memory.h"
#include "sim/devices/status_reply.h"
#include "sim/devices/storage_node.h"
#include "sim/devices/uio_opening.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace chassis_sim
{

namespace fs = std::filesystem;

call_answers::call_answers(const chassis_nodes &described, devices &all, window_table &windows,
                           register_bus &bus, event_loop &loop, unsigned int first_number)
    : devices_(all), trap_(windows, bus, loop), openings_(first_number)
{
    const opening_services with = {openings_, loop, trap_};
    add_control_nodes(nodes_, {all, windows, bus}, loop);
    add_uio_nodes(nodes_, all, with);
    add_storage_nodes(nodes_, all, openings_);
    add_physical_memory(nodes_, described.memory(), windows, with);
    add_pci_files(nodes_, described.bars(), windows, with);
}

void call_answers::answer(const asked_call &call)
{
    const intercepted what = which_call(call.data()).value_or(intercepted::any);
    switch (what) {
    case intercepted::open:
        return answer_open(call, AT_FDCWD, call.argument(0), call.int_argument(1));
    case intercepted::openat:
        return answer_open(call, call.int_argument(0), call.argument(1), call.int_argument(2));
    case intercepted::openat2: {
        uint64_t flags = 0; // the first member of what the third argument points to
        call.process().read(call.argument(2), &flags, sizeof flags);
        return answer_open(call, call.int_argument(0), call.argument(1), static_cast<int>(flags));
    }
    case intercepted::mknod:
        return answer_mknod(call, AT_FDCWD, call.argument(0));
    case intercepted::mknodat:
        return answer_mknod(call, call.int_argument(0), call.argument(1));
    case intercepted::wait:
        openings_.before_wait(call);
        return call.pass();
    case intercepted::status:
    case intercepted::status_at:
    case intercepted::status_extended:
        return answer_status(call, what);
    case intercepted::trace:
        return answer_trace(call);
    default:
        return answer_on_descriptor(call, what);
    }
}

node *call_answers::node_at(const std::string &path, int flags) const
{
    const auto found = std::find_if(nodes_.begin(), nodes_.end(), [&](const auto &candidate) {
        return candidate->is_at(path, flags);
    });
    return found == nodes_.end() ? nullptr : found->get();
}

void call_answers::answer_open(const asked_call &call, int directory, uint64_t path_address,
                               int flags)
{
    const asking_process::file file = call.process().resolve(directory, path_address, flags);
    if (file.name.empty() || flags & O_PATH)
        return call.pass();
    // A device is known by its number, wherever its node is; what is open, by itself.
    std::string path = file.name;
    if (S_ISCHR(file.mode) && may_make_nodes()) {
        const std::string by_number =
            devices_.node_of({::major(file.device), ::minor(file.device)});
        if (!by_number.empty())
            path = by_number;
    } else if (path[0] != '/' || path.starts_with("/memfd:")) {
        if (const opening *const open = openings_.find(path))
            path = open->node_path();
    }
    node *const found = node_at(path, flags);
    if (!found)
        return call.pass();
    if (file.name[0] == '/' && !call.process().may_open(file.name, flags))
        return call.result(-EACCES);
    found->open(call, path, flags);
}

// An ordinary user's mknod fails; a plain file then stands for the node.
void call_answers::answer_mknod(const asked_call &call, int directory, uint64_t path_address)
{
    const std::string path = call.process().path(directory, path_address);
    const bool ours = std::any_of(devices_.storage.begin(), devices_.storage.end(),
                                  [&](const storage_device &d) { return d.node == path; });
    if (!ours || may_make_nodes() || fs::exists(path))
        return call.pass();
    write_file(path, "");
    call.result(0);
}

void call_answers::answer_status(const asked_call &call, intercepted what)
{
    const bool of_path = what != intercepted::status;
    char first = 0; // of the path: a descriptor's own status has none
    const int fd = call.int_argument(0);
    opening *const open = openings_.find(call.process(), fd);
    if (!open)
        return call.pass();
    if (open->node_path().empty() ||
        (of_path && (!call.process().read(call.argument(1), &first, sizeof first) || first != 0)))
        return open->use(call, fd);
    if (what == intercepted::status_extended)
        return reply_extended_status(call, call.argument(4), open->node_path());
    reply_status(call, call.argument(of_path ? 2 : 1), open->node_path());
}

void call_answers::answer_trace(const asked_call &call) const
{
    if (!trap_.follows(call.int_argument(1)))
        return call.pass();
    complain("no debugger or strace can be attached to a program whose registers are followed");
    call.result(-EPERM);
}

void call_answers::answer_on_descriptor(const asked_call &call, intercepted what)
{
    constexpr size_t of_mmap = 4, of_epoll_ctl = 2;
    const int fd = call.int_argument(what == intercepted::mmap    ? of_mmap
                                     : what == intercepted::epoll ? of_epoll_ctl
                                                                  : 0);
    opening *const open = openings_.find(call.process(), fd);
    if (!open)
        return call.pass();
    switch (what) {
    case intercepted::read:
        return open->read(call, fd, std::nullopt);
    case intercepted::write:
        return open->write(call, fd, std::nullopt);
    case intercepted::read_at:
        return open->read(call, fd, call.position());
    case intercepted::write_at:
        return open->write(call, fd, call.position());
    case intercepted::seek:
        return open->seek(call, fd);
    case intercepted::mmap:
        return open->map(call, fd);
    case intercepted::close:
        openings_.freed(call.process(), fd);
        return open->close(call, fd);
    case intercepted::duplicate:
        return open->duplicate(call, fd, false);
    case intercepted::control: {
        const int command = call.int_argument(1);
        if (command == F_DUPFD || command == F_DUPFD_CLOEXEC)
            return open->duplicate(call, fd, command == F_DUPFD_CLOEXEC);
        return open->use(call, fd);
    }
    default:
        return open->use(call, fd);
    }
}

} // namespace chassis_sim
