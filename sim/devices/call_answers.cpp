// Finds the node of a path and the opening of a descriptor, which answer.
#include "sim/devices/call_answers.h"

#include "sim/devices/control_node.h"
#include "sim/devices/storage_node.h"
#include "sim/devices/uio_opening.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include <fcntl.h>

namespace chassis_sim
{

namespace fs = std::filesystem;

call_answers::call_answers(devices &all, event_loop &loop, unsigned int first_number)
    : devices_(all), openings_(first_number)
{
    add_control_nodes(nodes_, all, loop);
    add_uio_nodes(nodes_, all, openings_, loop);
    add_storage_nodes(nodes_, all, openings_);
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
    default:
        return answer_on_descriptor(call, what);
    }
}

void call_answers::answer_open(const asked_call &call, int directory, uint64_t path_address,
                               int flags)
{
    std::error_code none;
    const std::string path = fs::canonical(call.process().path(directory, path_address), none);
    if (none || flags & O_PATH)
        return call.pass();
    const auto found = std::find_if(nodes_.begin(), nodes_.end(), [&](const auto &candidate) {
        return candidate->is_at(path, flags);
    });
    if (found == nodes_.end())
        return call.pass();
    if (!call.process().may_open(path, flags))
        return call.result(-EACCES);
    (*found)->open(call, path, flags);
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
        return open->read(call, fd);
    case intercepted::write:
        return open->write(call, fd);
    case intercepted::seek:
        return open->seek(call, fd);
    case intercepted::mmap:
        return open->map(call, fd);
    case intercepted::close:
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
