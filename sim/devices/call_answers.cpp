#include "sim/devices/call_answers.h"

#include "sim/parts/pci.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>

#include <fcntl.h>
#include <sys/socket.h>

namespace chassis_sim
{
namespace
{

namespace fs = std::filesystem;

constexpr unsigned int numbers = uio_descriptors;

} // namespace

uio_device &devices::named(const std::string &name)
{
    const auto found = std::find_if(uio.begin(), uio.end(),
                                    [&name](const uio_device &d) { return d.name == name; });
    if (found == uio.end())
        throw failure("there is no device '" + name + "'");
    return *found;
}

int devices::fault(const std::string &name, const std::string &call)
{
    for (call_fault &fault : faults)
        if (fault.device == name && fault.call == call &&
            (++fault.seen == fault.nth || fault.nth == 0))
            return fault.error;
    return 0;
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
    case intercepted::mmap:
        return answer_mmap(call);
    case intercepted::wait:
        return answer_wait(call);
    default:
        return answer_on_descriptor(call, what);
    }
}

void call_answers::answer_open(const asked_call &call, int directory, uint64_t path_address,
                               int flags)
{
    std::error_code none;
    const fs::path path = fs::canonical(call.process().path(directory, path_address), none);
    if (none || flags & O_PATH)
        return call.pass();
    const auto obey = flags & O_ACCMODE ? written_to(path) : nullptr;
    const auto is_refused = [&] { return !call.process().may_open(path, flags); };
    if (obey && is_refused())
        return call.result(-EACCES);
    if (obey || path == control_path)
        return call.descriptor(open_line_((flags & O_ACCMODE) != O_WRONLY, obey).get(),
                               flags & O_CLOEXEC, std::nullopt);
    for (uio_device &device : devices_.uio)
        if (device.present && (path == device.node || path == device.removal_attr))
            return is_refused() ? call.result(-EACCES)
                                : open_uio(call, device, path != device.node, flags);
    for (const uio_device &device : devices_.uio)
        if (device.present && path == device.event_attr)
            write_file(path.string(), std::to_string(device.count) + "\n");
    for (const storage_device &device : devices_.storage)
        if (path == device.node) {
            const int error = is_refused() ? EACCES : devices_.fault(device.name(), "open");
            if (error != 0)
                return call.result(-error);
            const owned_fd opening = device.open(flags);
            // Calls on it are asked about where one is to fail.
            std::optional<unsigned int> number;
            if (!devices_.faults.empty())
                number = free_number(call.process());
            return opening ? call.descriptor(opening.get(), flags & O_CLOEXEC, number)
                           : call.result(-errno);
        }
    call.pass();
}

control_line::obey_line call_answers::written_to(const std::string &path)
{
    const fs::path file = path;
    if (!path.starts_with("/sys/devices/pci") && path != "/sys/bus/pci/rescan")
        return nullptr;
    if (file.filename() == "remove")
        return [this, id = file.parent_path().filename().string()](const std::string &line) {
            if (std::atoi(line.c_str()) == 0)
                throw failure("1 removes " + id);
            unplug_pci(id);
            removed_functions_.insert(id);
        };
    if (file.filename() == "rescan")
        return [this](const std::string &) {
            for (const std::string &id : std::exchange(removed_functions_, {}))
                plug_pci(id);
        };
    return nullptr;
}

void call_answers::open_uio(const asked_call &call, uio_device &device, bool is_notice, int flags)
{
    if (const int error = is_notice ? 0 : devices_.fault(device.name, "open"))
        return call.result(-error);
    std::erase_if(openings_, [](const auto &open) { return !open->device() && !open->is_open(); });
    const auto made = std::make_shared<opening>(device, is_notice, flags);
    openings_.push_back(made);
    device.openings.push_back(made);
    opened_(made);
    made->hand_out(call, free_number(call.process()), flags & O_CLOEXEC);
}

unsigned int call_answers::free_number(const asking_process &process) const
{
    unsigned int number = first_fd_;
    while (number < first_fd_ + numbers - 1 && !process.link_of(static_cast<int>(number)).empty())
        ++number;
    return number;
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

std::shared_ptr<opening> call_answers::opening_of(const asking_process &process, int fd) const
{
    const std::string link = process.link_of(fd);
    const auto found = std::find_if(openings_.begin(), openings_.end(), [&](const auto &open) {
        return open->is_behind(link, process, fd);
    });
    return found == openings_.end() ? nullptr : *found;
}

void call_answers::answer_mmap(const asked_call &call)
{
    const int fd = call.int_argument(4);
    const std::shared_ptr<opening> open = opening_of(call.process(), fd);
    if (open && !open->is_notice()) {
        if (!open->device())
            return call.result(-EINVAL);
        if (const int error = devices_.fault(open->device()->name, "mmap"))
            return call.result(-error);
        open->show_memory(call, fd);
    }
    call.pass();
}

void call_answers::answer_wait(const asked_call &call)
{
    for (const auto &open : openings_)
        open->show_sockets(call);
    call.pass();
}

void call_answers::answer_on_descriptor(const asked_call &call, intercepted what)
{
    const int fd = call.int_argument(what == intercepted::epoll ? 2 : 0);
    const std::shared_ptr<opening> open = opening_of(call.process(), fd);
    const char *const name = what == intercepted::read    ? "read"
                             : what == intercepted::write ? "write"
                                                          : "";
    if (!open) {
        const std::string link = call.process().link_of(fd);
        for (const storage_device &device : devices_.storage)
            if (device.is_behind(link))
                if (const int error = devices_.fault(device.name(), name))
                    return call.result(-error);
        return call.pass();
    }
    if (open->device() && !open->is_notice())
        if (const int error = devices_.fault(open->device()->name, name))
            return call.result(-error);
    const bool reads = what == intercepted::read || what == intercepted::seek;
    if (open->is_notice() && reads) {
        if (!open->device())
            return call.result(-ENODEV);
        open->show_memory(call, fd);
        return call.pass();
    }
    if (what == intercepted::close) {
        open->close(call, fd);
        return call.pass();
    }
    open->show_socket(call, fd);
    const int command = call.int_argument(1);
    const bool duplicates =
        what == intercepted::duplicate ||
        (what == intercepted::control && (command == F_DUPFD || command == F_DUPFD_CLOEXEC));
    if (duplicates)
        return open->hand_out(call, free_number(call.process()),
                              what == intercepted::control && command == F_DUPFD_CLOEXEC);
    if (what == intercepted::read)
        return answer_read(call, open);
    if (what == intercepted::write && !open->is_notice())
        return answer_write(call, *open);
    if (what == intercepted::seek)
        return call.result(0);
    call.pass();
}

void call_answers::answer_read(const asked_call &call, const std::shared_ptr<opening> &open)
{
    const uio_device *device = open->device();
    if (!device)
        return call.result(-EIO);
    if (device->read_answer)
        return call.result(*device->read_answer);
    if (call.argument(2) != sizeof(uint32_t))
        return call.result(-EINVAL);
    reads_.add(call, open);
}

void call_answers::answer_write(const asked_call &call, const opening &open)
{
    uio_device *device = open.device();
    int32_t flag;
    if (!device)
        return call.result(-EINVAL);
    if (device->write_answer)
        return call.result(*device->write_answer);
    if (call.argument(2) != sizeof flag)
        return call.result(-EINVAL);
    if (!call.process().read(call.argument(1), &flag, sizeof flag))
        return call.result(-EFAULT);
    call.result(device->control_interrupt(flag));
}

void call_answers::far_end_is_ready(const std::shared_ptr<opening> &open)
{
    int32_t flag;
    const ssize_t length = ::recv(open->far_end(), &flag, sizeof flag, MSG_DONTWAIT);
    if (length == sizeof flag && open->device())
        open->device()->control_interrupt(flag);
    if (length != 0)
        return;
    if (open->device())
        std::erase(open->device()->openings, open);
    std::erase(openings_, open);
}

} // namespace chassis_sim
