#include "sim/devices/device_model.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <linux/sockios.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

namespace fs = std::filesystem;
using std::chrono::milliseconds;

constexpr unsigned int own_major = 243; // of the kernel's range for local use
const char *const stand_ins[] = {"/dev/null", "/dev/zero", "/dev/full", "/dev/urandom"};

// Where the directory of a device is while the device is not there.
std::string aside(const uio_node &device)
{
    return "/.chassis/absent/" + device.name;
}

// The memory device with this number.
std::string stand_in(const device_number &number)
{
    for (const char *path : stand_ins) {
        struct stat status;
        if (::stat(path, &status) == 0 && status.st_rdev == ::makedev(number.major, number.minor))
            return path;
    }
    return "/dev/null";
}

owned_fd make_memory(const std::string &name, size_t size, const std::string &contents = {})
{
    owned_fd memory(
        must(::memfd_create(name.c_str(), MFD_CLOEXEC | MFD_ALLOW_SEALING), "memfd_create"));
    must(::ftruncate(memory.get(), static_cast<off_t>(size)), "ftruncate");
    if (!contents.empty())
        must(static_cast<int>(::pwrite(memory.get(), contents.data(), contents.size(), 0)),
             "pwrite");
    return memory;
}

std::string own_link(const owned_fd &fd)
{
    return fs::read_symlink("/proc/self/fd/" + std::to_string(fd.get())).string();
}

// A new opening of memory, as open(2) on a device gives one.
owned_fd reopen(const owned_fd &memory)
{
    const std::string path = "/proc/self/fd/" + std::to_string(memory.get());
    return owned_fd(must(::open(path.c_str(), O_RDWR | O_CLOEXEC), "reopen " + path));
}

void make_node(const uio_node &device)
{
    const dev_t number = ::makedev(device.number.major, device.number.minor);
    if (may_make_nodes()) {
        must(::mknod(device.node.c_str(), S_IFCHR | 0600, number), "mknod " + device.node);
    } else {
        write_file(device.node, "");
        bind_mount(stand_in(device.number), device.node);
    }
}

} // namespace

bool may_make_nodes()
{
    static const bool may = [] {
        const char probe[] = "/dev/.probe";
        const bool made = ::mknod(probe, S_IFCHR | 0600, ::makedev(own_major, 0)) == 0;
        ::unlink(probe);
        return made;
    }();
    return may;
}

device_number simulated_device_number(unsigned int index)
{
    if (may_make_nodes())
        return {own_major, index};
    struct stat status;
    const char *host = stand_ins[index % std::size(stand_ins)];
    must(::stat(host, &status), host);
    return {::major(status.st_rdev), ::minor(status.st_rdev)};
}

//--- openings -------------------------------------------------------------------------------------

opening::opening(uio_device &of, bool is_notice, int flags)
    : device_(&of), is_notice_(is_notice),
      memory_(is_notice ? make_memory("chassis-notice:" + of.name, 0, "maps\n")
                        : reopen(of.memory)),
      memory_link_(own_link(memory_))
{
    int ends[2];
    must(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), "socketpair");
    near_end_.reset(ends[0]);
    far_end_.reset(ends[1]);
    must(::fcntl(near_end_.get(), F_SETFL, flags & O_NONBLOCK), "fcntl");
    socket_link_ = own_link(near_end_);
}

void opening::hand_out(const asked_call &call, unsigned int number, bool close_on_exec)
{
    const owned_fd socket = near_end();
    clients_.emplace(call.process().id(), number);
    call.descriptor(socket.get(), close_on_exec, number);
    if (with_memory_.empty())
        near_end_.reset();
}

bool opening::is_behind(const std::string &link, const asking_process &client, int fd) const
{
    return link == socket_link_ ||
           (link == memory_link_ && with_memory_.contains({client.id(), fd}));
}

void opening::show_memory(const asked_call &call, int fd)
{
    if (call.process().link_of(fd) != socket_link_)
        return;
    if (!near_end_)
        near_end_ = call.process().copy_of(fd);
    call.replace(fd, memory_.get());
    with_memory_.emplace(call.process().id(), fd);
    mapper_ = call.process().thread();
    shown_ = steady::now();
}

void opening::show_socket(const asked_call &call, int fd)
{
    if (!with_memory_.contains({call.process().id(), fd}))
        return;
    // Another thread may be about to use what it was shown.
    if (call.process().thread() != mapper_)
        std::this_thread::sleep_until(shown_ + milliseconds(1));
    call.replace(fd, near_end_.get());
    clients_.emplace(call.process().id(), fd);
    close(call, fd);
}

void opening::show_sockets(const asked_call &call)
{
    const auto shown = with_memory_;
    for (const auto &[client, fd] : shown)
        show_socket(call, fd);
}

void opening::close(const asked_call &call, int fd)
{
    with_memory_.erase({call.process().id(), fd});
    if (with_memory_.empty())
        near_end_.reset();
}

owned_fd opening::near_end() const
{
    if (near_end_)
        return owned_fd(::fcntl(near_end_.get(), F_DUPFD_CLOEXEC, 0));
    for (const auto &[process, fd] : clients_) {
        const asking_process client(process);
        if (client.link_of(fd) == socket_link_)
            return client.copy_of(fd);
    }
    return owned_fd();
}

bool opening::is_open() const
{
    return bool(near_end());
}

void opening::tell(uint32_t count) const
{
    int unread = 0;
    ::ioctl(far_end_.get(), SIOCOUTQ, &unread);
    if (unread != 0)
        take_back();
    ::send(far_end_.get(), &count, sizeof count, MSG_DONTWAIT | MSG_NOSIGNAL);
}

void opening::take_back() const
{
    uint32_t count;
    ::recv(near_end().get(), &count, sizeof count, MSG_DONTWAIT);
}

void opening::shut()
{
    // A far end that has not read all leaves an error behind, as the kernel does.
    ::send(near_end().get(), "", 1, MSG_DONTWAIT | MSG_NOSIGNAL);
    far_end_.reset();
    device_ = nullptr;
}

//--- UIO devices ----------------------------------------------------------------------------------

uio_device::uio_device(const uio_node &node_) : uio_node(node_)
{
    reset_memory();
    make_directory("/.chassis/absent");
    if (plugged)
        make_node(*this);
    else
        leave_sysfs();
}

void uio_device::plug()
{
    if (present)
        throw failure(name + " is plugged already");
    if (fs::exists(node))
        throw failure("cannot plug " + name + ": " + node + " is there already");
    reset_memory();
    must(::rename(aside(*this).c_str(), device_dir.c_str()), "plug " + device_dir);
    for (const auto &[path, target] : links)
        if (!fs::exists(path))
            make_relative_symlink(path, target);
    present = true;
    make_node(*this);
}

void uio_device::reset_memory()
{
    memory = make_memory("chassis-uio:" + name, uio_window);
    for (const preset_register &preset : registers)
        must(static_cast<int>(::pwrite(memory.get(), &preset.value, sizeof preset.value,
                                       static_cast<off_t>(preset.address))),
             "set a register of " + name);
    answered_.assign(answers.size(), false);
    if (answers.empty())
        return;
    void *const base =
        ::mmap(nullptr, uio_window, PROT_READ | PROT_WRITE, MAP_SHARED, memory.get(), 0);
    if (base == MAP_FAILED)
        fail("map the registers of " + name);
    view_.reset(static_cast<volatile uint32_t *>(base),
                [](auto *old) { ::munmap(const_cast<uint32_t *>(old), uio_window); });
}

void uio_device::answer_registers()
{
    for (size_t i = 0; i < answers.size(); ++i) {
        const register_answer &answer = answers[i];
        const bool asked = (view_.get()[answer.address / 4] & answer.mask) == answer.value;
        if (asked && !answered_[i])
            view_.get()[answer.then_address / 4] = answer.then_value;
        answered_[i] = asked;
    }
}

void uio_device::leave_sysfs()
{
    std::error_code gone_already;
    for (const auto &[path, target] : links)
        if (fs::canonical(path, gone_already) == target)
            fs::remove(path, gone_already);
    fs::rename(device_dir, aside(*this), gone_already);
    present = false;
}

void uio_device::remove()
{
    if (!present)
        throw failure(name + " is not plugged");
    leave_sysfs();
    if (!may_make_nodes())
        ::umount2(node.c_str(), MNT_DETACH);
    std::error_code gone_already;
    fs::remove(node, gone_already);
    for (const auto &open : openings)
        open->shut();
    openings.clear();
    enabled = latched = false;
    count = 0;
    due.reset();
}

void uio_device::interrupt()
{
    if (!present)
        throw failure(name + " is not plugged");
    if (irq_control && !enabled) {
        latched = true;
        return;
    }
    ++count;
    for (const auto &open : openings)
        if (!open->is_notice())
            open->tell(count);
}

int64_t uio_device::control_interrupt(int32_t flag)
{
    if (!irq_control)
        return -ENOSYS;
    enabled = flag != 0;
    due.reset();
    if (enabled && irq_delay_ms >= 0)
        due = steady::now() + milliseconds(irq_delay_ms);
    if (enabled && latched) {
        latched = false;
        interrupt();
    }
    return sizeof flag;
}

//--- storage --------------------------------------------------------------------------------------

storage_device::storage_device(const storage_node &node_)
    : storage_node(node_),
      memory_(make_memory("chassis-storage:" + name(), contents.size(), contents)),
      link_(own_link(memory_))
{
    if (!may_grow)
        must(::fcntl(memory_.get(), F_ADD_SEALS, F_SEAL_GROW), "keep storage from growing");
}

owned_fd storage_device::open(int flags) const
{
    owned_fd opening = reopen(memory_);
    // O_EXCL keeps every other opening out for as long as the device is open.
    const int lock = (flags & O_EXCL) ? LOCK_EX : LOCK_SH;
    if (::flock(opening.get(), lock | LOCK_NB) != 0) {
        opening.reset();
        errno = EBUSY;
    }
    return opening;
}

} // namespace chassis_sim
