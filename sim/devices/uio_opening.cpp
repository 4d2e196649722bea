// Opens UIO devices, and answers as their drivers do.
#include "sim/devices/uio_opening.h"

#include "sim/devices/memory.h"
#include "sim/devices/two_faced_opening.h"

#include <cerrno>

#include <fcntl.h>

namespace chassis_sim
{
namespace
{

// Of /dev/uioN.
class uio_opening : public two_faced_opening
{
public:
    uio_opening(uio_device &of, devices &all, const opening_services &with, int flags)
        : two_faced_opening(of, with.table, with.loop, flags), devices_(all), trap_(with.trap),
          node_(of.node)
    {
    }

    std::string node_path() const override { return node_; }

    void map(const asked_call &call, int fd) override;
    void read(const asked_call &call, int fd, position) override;
    void write(const asked_call &call, int fd, position) override;
    void seek(const asked_call &call, int fd) override;

private:
    bool is_to_fail(const asked_call &call, const char *name);
    void tell(uint32_t count) override;
    void shut() override;
    void written(int32_t flag) override;

    devices &devices_;
    access_trap &trap_;
    std::string node_;
    std::vector<asked_call> waiting_; // reads, for the next interrupt
};

bool uio_opening::is_to_fail(const asked_call &call, const char *name)
{
    const int error = device() ? devices_.fault(device()->name, name) : 0;
    if (error != 0)
        call.result(-error);
    return error != 0;
}

void uio_opening::map(const asked_call &call, int fd)
{
    if (!device())
        return call.result(-EINVAL);
    if (is_to_fail(call, "mmap"))
        return;
    const register_window *const window = device()->window_at(call.file_offset(), call.argument(1));
    if (!window)
        return call.result(-EINVAL);
    if (window->behaves())
        if (const int error = trap_.follow(call.process()))
            return call.result(-error);
    show(call, fd, window->mapped());
    call.pass();
}

void uio_opening::read(const asked_call &call, int fd, position)
{
    if (is_to_fail(call, "read"))
        return;
    show_socket(call, fd);
    if (!device())
        return call.result(-EIO);
    if (device()->read_answer)
        return call.result(*device()->read_answer);
    if (call.argument(2) != sizeof(uint32_t))
        return call.result(-EINVAL);
    if (const std::optional<uint32_t> count = take())
        call.result_with(call.argument(1), &*count, sizeof *count);
    else if (is_nonblocking(call, fd))
        call.result(-EAGAIN);
    else
        waiting_.push_back(call);
}

void uio_opening::write(const asked_call &call, int fd, position)
{
    if (is_to_fail(call, "write"))
        return;
    show_socket(call, fd);
    int32_t flag;
    if (!device())
        return call.result(-EINVAL);
    if (device()->write_answer)
        return call.result(*device()->write_answer);
    if (call.argument(2) != sizeof flag)
        return call.result(-EINVAL);
    if (!call.process().read(call.argument(1), &flag, sizeof flag))
        return call.result(-EFAULT);
    call.result(device()->control_interrupt(flag));
}

void uio_opening::seek(const asked_call &call, int fd)
{
    show_socket(call, fd);
    call.result(0);
}

// The first of those that wait still takes it; a signal may have ended a wait.
void uio_opening::tell(uint32_t count)
{
    while (!waiting_.empty()) {
        const asked_call call = waiting_.front();
        waiting_.erase(waiting_.begin());
        if (call.waits())
            return call.result_with(call.argument(1), &count, sizeof count);
    }
    put(count);
}

void uio_opening::shut()
{
    two_faced_opening::shut();
    for (const asked_call &call : std::exchange(waiting_, {}))
        call.result(-EIO);
}

void uio_opening::written(int32_t flag)
{
    if (device())
        device()->control_interrupt(flag);
}

// Of the attribute that tells of the device's removal.
class notice_opening : public two_faced_opening
{
public:
    notice_opening(uio_device &of, opening_table &table, event_loop &loop, int flags)
        : two_faced_opening(of, table, loop, flags),
          text_(make_memory("chassis-notice:" + of.name, 0, "maps\n"))
    {
    }

    void read(const asked_call &call, int fd, position) override
    {
        if (!device())
            return call.result(-ENODEV);
        show(call, fd, text_.get());
        call.pass();
    }
    void seek(const asked_call &call, int fd) override { read(call, fd, std::nullopt); }
    void write(const asked_call &call, int fd, position) override { use(call, fd); }

private:
    void tell(uint32_t) override {}

    owned_fd text_;
};

class uio_node_of : public node
{
public:
    uio_node_of(uio_device &of, devices &all, const opening_services &with)
        : device_(of), devices_(all), with_(with)
    {
    }

    bool is_at(const std::string &path, int) const override
    {
        return path == device_.node && device_.present();
    }
    void open(const asked_call &call, const std::string &, int flags) override
    {
        if (const int error = devices_.fault(device_.name, "open"))
            return call.result(-error);
        const auto made = std::make_shared<uio_opening>(device_, devices_, with_, flags);
        with_.table.forget_closed();
        if (made->hand_out(call, flags & O_CLOEXEC))
            with_.table.add(made);
    }

private:
    uio_device &device_;
    devices &devices_;
    opening_services with_;
};

class notice_node : public node
{
public:
    notice_node(uio_device &of, opening_table &table, event_loop &loop)
        : device_(of), table_(table), loop_(loop)
    {
    }

    bool is_at(const std::string &path, int) const override
    {
        return path == device_.removal_attr && device_.present();
    }
    void open(const asked_call &call, const std::string &, int flags) override
    {
        const auto made = std::make_shared<notice_opening>(device_, table_, loop_, flags);
        if (made->hand_out(call, flags & O_CLOEXEC))
            table_.add(made);
    }

private:
    uio_device &device_;
    opening_table &table_;
    event_loop &loop_;
};

// The attribute that counts the device's interrupts is written when it is looked at.
class event_count_node : public node
{
public:
    explicit event_count_node(const uio_device &of) : device_(of) {}

    bool is_at(const std::string &path, int) const override
    {
        return path == device_.event_attr && device_.present();
    }
    void open(const asked_call &call, const std::string &path, int) override
    {
        write_file(path, std::to_string(device_.count()) + "\n");
        call.pass();
    }

private:
    const uio_device &device_;
};

} // namespace

void add_uio_nodes(node_list &nodes, devices &all, const opening_services &with)
{
    for (uio_device &device : all.uio) {
        nodes.push_back(std::make_unique<uio_node_of>(device, all, with));
        nodes.push_back(std::make_unique<notice_node>(device, with.table, with.loop));
        nodes.push_back(std::make_unique<event_count_node>(device));
    }
}

} // namespace chassis_sim
