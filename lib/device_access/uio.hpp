/// @file
/// UIO devices, real and emulated: register windows, interrupts, removal. libuio.h describes the
/// calls behind it.
#ifndef DEVICE_ACCESS_UIO_HPP
#define DEVICE_ACCESS_UIO_HPP

#include <device_access/attribute_file.hpp>
#include <device_access/deadline.hpp>
#include <device_access/libuio.h>
#include <device_access/libuio_emul.h>
#include <device_access/registers.hpp>
#include <device_access/result.hpp>

#include <algorithm>
#include <memory>
#include <optional>

namespace device_access
{
inline namespace wrapper
{

/// An open device. A removal shuts it, and it is closed in the end all the same. Use it from one
/// thread at a time. After close(), or when it has been moved from, its calls fail with EINVAL.
class uio
{
public:
    /// The clock of its deadlines.
    using clock = deadline_clock;

    /// Opens a device by the path of its node, or a register block by its pseudo node name
    /// "sysfs_pci:REGION.SLOT[.FPGA]". Waits for it without limit, as libuio_open() does.
    static result<uio> open(c_string node)
    {
        libuio_dev_t *const handle = libuio_open(node.c_str());
        return detail::done(handle != nullptr, uio(handle), "libuio_open");
    }

    /// The same, waiting no longer than the limit; a limit of 0 does not wait. Milliseconds count.
    template <typename Rep, typename Period>
    static result<uio> open(c_string node, std::chrono::duration<Rep, Period> limit)
    {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(detail::clamped(limit));
        return open_within(node.c_str(), left);
    }

    /// Owns a handle of libuio_open() from now on.
    static uio adopt(libuio_dev_t *handle) noexcept { return uio(handle); }

    /// Whether it is a pseudo node name.
    static bool is_emulated_name(c_string node) noexcept { return libuio_is_emul(node.c_str()); }

    /// Maps every window that is not mapped and has no bit in `without`, where bit N stands for map
    /// N; the number of new windows. Those before one that cannot be mapped stay mapped.
    result<int> map(uint64_t without = 0) noexcept
    {
        errno = ENODEV; // a device that has gone leaves it alone
        const int mapped = libuio_mmap(get(), without);
        const bool has_failed = mapped < 0 || (mapped == 0 && lacks_map_0(without));
        return has_failed ? result<int>(failure{"libuio_mmap", errno}) : mapped;
    }

    /// Unmaps every window that has no bit in `without`.
    void unmap(uint64_t without = 0) noexcept { libuio_munmap(get(), without); }

    /// A window, until it is unmapped; none when it is not mapped or there is no such map.
    std::optional<window> mapped(unsigned int index) const noexcept
    {
        size_t size = 0;
        void *const base = libuio_get_mapinfo(get(), index, &size);
        return base ? std::optional(window(base, size)) : std::nullopt;
    }

    /// The length of a map in bytes, mapped or not; none when there is no such map.
    std::optional<size_t> map_size(unsigned int index) const noexcept
    {
        constexpr size_t untouched = SIZE_MAX;
        size_t size = untouched;
        (void)libuio_get_mapinfo(get(), index, &size);
        return size == untouched ? std::nullopt : std::optional(size);
    }

    /// One more than the highest map number.
    unsigned int map_limit() const noexcept { return libuio_get_map_limit(get()); }

    /// Lets the next interrupt come, or, with false, none.
    result<void> enable_interrupt(bool enable = true) noexcept { return control(enable); }
    /// Lets no interrupt come.
    result<void> disable_interrupt() noexcept { return control(0); }
    /// Hands any number to the driver, for those that understand more than 0 and 1.
    result<void> control(int32_t flag) noexcept
    {
        return detail::done(libuio_irqcontrol(get(), flag) == 0, "libuio_irqcontrol");
    }

    /// Waits for an interrupt: the driver's count of interrupts so far. Errors that a daemon meets:
    /// ECANCELED for a device that has been removed, which unmaps its windows; EIO when it goes
    /// before the count is read; EINTR.
    result<uint32_t> wait() noexcept { return wait_for_event(nullptr); }
    /// The same, until a deadline; ETIMEDOUT then.
    template <typename Duration>
    result<uint32_t> wait_until(std::chrono::time_point<clock, Duration> deadline) noexcept
    {
        const timespec until = detail::timespec_of(deadline);
        return wait_for_event(&until);
    }
    /// The same, for so long.
    template <typename Rep, typename Period>
    result<uint32_t> wait_for(std::chrono::duration<Rep, Period> limit) noexcept
    {
        return wait_until(detail::deadline_after(limit));
    }
    /// Takes what has come, without waiting: for event loops, when a descriptor has an event.
    result<uint32_t> try_wait() noexcept { return wait_until(clock::time_point()); }

    /// The descriptor to watch for POLLIN, an interrupt; -1 after a removal.
    int interrupt_descriptor() const noexcept { return libuio_get_uio_fd(get()); }
    /// The descriptor to watch for POLLPRI, the removal; -1 after it and where there is none.
    int removal_descriptor() const noexcept { return libuio_get_removed_fd(get()); }

    /// The name that it was opened by, as long as the device is open.
    const char *node() const noexcept { return libuio_get_real_devnode(get()); }
    /// Its directory in /sys/class/uio, as long as the device is open.
    const char *class_directory() const noexcept { return libuio_get_sys_class_dir(get()); }
    /// Its directory on its bus, as long as the device is open.
    const char *device_directory() const noexcept { return libuio_get_sys_device_dir(get()); }

    /// Opens a file of its directory on its bus, with open(2)'s flags.
    result<attribute_file> open_attribute(c_string name, int flags) const
    {
        descriptor file(libuio_open_device_attr(get(), name.c_str(), flags));
        const bool opened = file.get() >= 0;
        return detail::done(opened, attribute_file(std::move(file)), "libuio_open_device_attr");
    }

    /// Whether it is a register block with a pseudo node name.
    bool is_emulated() const noexcept { return handle_ && libuio_is_emul(node()); }
    /// Enables or disables the PCI device of a register block.
    result<void> enable_device(bool enable) noexcept
    {
        return detail::done(libuio_emul_device_enable(get(), enable) == 0,
                            "libuio_emul_device_enable");
    }

    /// Closes it now; its windows end.
    void close() noexcept { handle_.reset(); }

    /// The handle, which stays owned.
    libuio_dev_t *get() const noexcept { return handle_.get(); }
    /// The handle, which the caller closes from now on.
    libuio_dev_t *release() noexcept { return handle_.release(); }

private:
    struct closer {
        void operator()(libuio_dev_t *handle) const noexcept { libuio_close(handle); }
    };
    explicit uio(libuio_dev_t *handle) noexcept : handle_(handle) {}

    // libuio_open_timed() counts the part of a limit below a second as a tenth of it, so that this
    // part is waited for in pieces of which it takes ten times as many nanoseconds.
    static result<uio> open_within(const char *node, std::chrono::milliseconds left)
    {
        using namespace std::chrono_literals;
        const int not_there = libuio_is_emul(node) ? EINVAL : ENOENT;
        for (;;) {
            const auto part = std::min(left % 1s, std::chrono::milliseconds(99ms));
            const timespec limit =
                part > 0ms ? detail::timespec_of(part * 10) : detail::timespec_of(left);
            libuio_dev_t *const handle = libuio_open_timed(node, &limit);
            left -= part > 0ms ? part : left;
            if (handle || errno != not_there || left <= 0ms)
                return detail::done(handle != nullptr, uio(handle), "libuio_open_timed");
        }
    }

    // libuio_mmap() says "none" when map 0 cannot be mapped.
    bool lacks_map_0(uint64_t without) const noexcept
    {
        return !(without & 1) && map_size(0) && !mapped(0);
    }

    result<uint32_t> wait_for_event(const timespec *deadline) noexcept
    {
        uint32_t count = 0;
        const int waited = libuio_irqwait(get(), deadline, &count);
        return detail::done(waited == 0, count, "libuio_irqwait");
    }

    std::unique_ptr<libuio_dev_t, closer> handle_;
};

} // namespace wrapper
} // namespace device_access

#endif
