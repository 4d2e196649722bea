/// @file
/// The configuration space of a PCI function: registers, capabilities, links and slots.
/// pci_config.h describes the calls behind it.
#ifndef DEVICE_ACCESS_PCI_CONFIG_HPP
#define DEVICE_ACCESS_PCI_CONFIG_HPP

#include <device_access/deadline.hpp>
#include <device_access/pci.hpp>
#include <device_access/pci_config.h>

namespace device_access
{
inline namespace wrapper
{

/// The widths of registers in configuration space.
template <typename T>
concept config_value = register_value<T> && sizeof(T) <= 4;

/// An entry of a function's capability list.
struct pci_capability {
    uint8_t id;     ///< As PCI assigns them: 0x10 is PCI Express.
    uint8_t offset; ///< Where its registers begin, in bytes.

    /// Equal when both are.
    friend bool operator==(const pci_capability &, const pci_capability &) noexcept = default;
};

/// The capabilities of a function, in the order of its list.
class pci_capabilities
{
public:
    /// The first one.
    const pci_capability *begin() const noexcept { return entries_.data(); }
    /// Behind the last one.
    const pci_capability *end() const noexcept { return begin() + size_; }
    /// How many they are.
    size_t size() const noexcept { return size_; }
    /// Whether there are none.
    bool empty() const noexcept { return size_ == 0; }

    /// Whether the list could not be read to its end, as when the function went meanwhile.
    bool failed() const noexcept { return failed_; }

private:
    friend class pci_config;

    std::array<pci_capability, 48> entries_ = {}; // as many have room
    size_t size_ = 0;
    bool failed_ = false;
};

/// The configuration space of a function. Offsets are in bytes and multiples of the width. A
/// moved-from or closed one fails with EINVAL.
class pci_config
{
public:
    /// Opens it for reading and writing.
    static result<pci_config> open(const pci_id &function)
    {
        void *const handle = pci_config_open(&function);
        return detail::done(handle != nullptr, pci_config(handle), "pci_config_open");
    }

    /// A register's value.
    template <config_value T>
    result<T> read(uint32_t offset) const noexcept
    {
        errno = EIO; // an access that moved too few bytes leaves it alone
        constexpr auto call = sizeof(T) == 1   ? pci_config_read8
                              : sizeof(T) == 2 ? pci_config_read16
                                               : pci_config_read32;
        const uint32_t value = call(offset, get());
        return detail::done(value != UINT32_MAX || errno == 0, static_cast<T>(value),
                            name<T>("pci_config_read8", "pci_config_read16", "pci_config_read32"));
    }

    /// Writes a register.
    template <config_value T>
    result<void> write(uint32_t offset, T value) const noexcept
    {
        return change<T>(pci_config_write8, pci_config_write16, pci_config_write32, value, offset,
                         name<T>("pci_config_write8", "pci_config_write16", "pci_config_write32"));
    }

    /// Sets the bits of the mask in a register: a read and a write.
    template <config_value T>
    result<void> set_bits(uint32_t offset, T mask) const noexcept
    {
        return change<T>(
            pci_config_bitset8, pci_config_bitset16, pci_config_bitset32, mask, offset,
            name<T>("pci_config_bitset8", "pci_config_bitset16", "pci_config_bitset32"));
    }

    /// Clears the bits of the mask in a register: a read and a write.
    template <config_value T>
    result<void> clear_bits(uint32_t offset, T mask) const noexcept
    {
        return change<T>(
            pci_config_bitclr8, pci_config_bitclr16, pci_config_bitclr32, mask, offset,
            name<T>("pci_config_bitclr8", "pci_config_bitclr16", "pci_config_bitclr32"));
    }

    /// The capabilities. A list in a circle ends, too, and functions of multi-function devices have
    /// theirs, unlike with pci_config_find_capability().
    pci_capabilities capabilities() const noexcept
    {
        pci_capabilities found;
        const auto status = read<uint16_t>(0x06);
        const auto type = read<uint8_t>(0x0e);
        constexpr uint16_t has_list = 0x10;
        constexpr uint8_t cardbus = 2;
        found.failed_ = !status || !type;
        if (found.failed_ || !(*status & has_list))
            return found;
        const auto first = read<uint8_t>((*type & 0x7f) == cardbus ? 0x14 : 0x34);
        found.failed_ = !first;
        uint8_t offset = first.value_or(0) & 0xfc;
        while (offset != 0 && found.size_ < found.entries_.size()) {
            const auto entry = read<uint16_t>(offset);
            found.failed_ = !entry || (*entry & 0xff) == 0xff;
            if (found.failed_)
                break;
            found.entries_[found.size_++] = {static_cast<uint8_t>(*entry), offset};
            offset = static_cast<uint8_t>(*entry >> 8) & 0xfc;
        }
        return found;
    }

    /// The first capability with an id; ENOENT when there is none.
    result<pci_capability> find_capability(uint8_t id) const noexcept
    {
        const pci_capabilities all = capabilities();
        for (const pci_capability &one : all)
            if (one.id == id)
                return one;
        return failure{"pci_config_find_capability", all.failed() ? EIO : ENOENT};
    }

    /// Whether it is a PCI Express port with a slot that can do hot-plug; false, too, when that
    /// cannot be read.
    bool has_hotplug_slot() const noexcept { return pcie_config_is_hotplug(get()) == 1; }

    /// Closes it now.
    void close() noexcept { handle_.reset(); }
    /// The handle, which stays owned.
    void *get() const noexcept { return handle_.get(); }

private:
    struct closer {
        void operator()(void *handle) const noexcept { pci_config_close(handle); }
    };
    explicit pci_config(void *handle) noexcept : handle_(handle) {}

    template <config_value T>
    static constexpr const char *name(const char *of8, const char *of16, const char *of32) noexcept
    {
        return sizeof(T) == 1 ? of8 : sizeof(T) == 2 ? of16 : of32;
    }

    template <config_value T>
    result<void> change(int (*of8)(uint8_t, uint32_t, void *),
                        int (*of16)(uint16_t, uint32_t, void *),
                        int (*of32)(uint32_t, uint32_t, void *), T value, uint32_t offset,
                        const char *call) const noexcept
    {
        errno = EIO;
        if constexpr (sizeof(T) == 1)
            return detail::done(of8(value, offset, get()) == 0, call);
        else if constexpr (sizeof(T) == 2)
            return detail::done(of16(value, offset, get()) == 0, call);
        else
            return detail::done(of32(value, offset, get()) == 0, call);
    }

    std::unique_ptr<void, closer> handle_;
};

/// Waits until the link of a PCI Express port is up, for about half a second at most. Errors, for
/// which link_reason() has texts: ETIMEDOUT; ENOLINK when it has trained to no width; EPROTO when
/// it is active, yet training goes on; EIO; ENOENT for what is no PCI Express function.
inline result<void> wait_link_up(const pci_id &port) noexcept
{
    const int waited = pcie_config_wait_link_up(&port);
    if (waited == 0)
        return {};
    return failure{"pcie_config_wait_link_up", waited > 0 ? waited : errno};
}

/// The same, until a deadline: looks every 10 ms, at least once. A port that reports no active link
/// is waited for until its training ends.
template <typename Duration>
result<void> wait_link_up_until(const pci_id &port,
                                std::chrono::time_point<deadline_clock, Duration> deadline)
{
    constexpr const char *call = "pcie_config_wait_link_up";
    const auto config = pci_config::open(port);
    if (!config)
        return config.error();
    const auto pcie = config->find_capability(0x10);
    const auto abilities = pcie.and_then([&](const pci_capability &found) {
        return config->template read<uint32_t>(found.offset + 0x0cu);
    });
    if (!abilities)
        return failure{call, abilities.error().error};
    constexpr uint32_t reports_active = 0x100000;
    constexpr uint16_t active = 0x2000, training = 0x0800, width = 0x03f0;
    for (;;) {
        const auto status = config->template read<uint16_t>(pcie->offset + 0x12u);
        if (!status)
            return failure{call, EIO};
        const bool is_training = *status & training;
        if (*abilities & reports_active ? *status & active : !is_training)
            return is_training       ? result<void>(failure{call, EPROTO})
                   : *status & width ? result<void>()
                                     : failure{call, ENOLINK};
        if (deadline_clock::now() >= deadline)
            return failure{call, ETIMEDOUT};
        const timespec pause = {0, 10000000};
        ::nanosleep(&pause, nullptr);
    }
}

/// The same, for so long.
template <typename Rep, typename Period>
result<void> wait_link_up_for(const pci_id &port, std::chrono::duration<Rep, Period> limit)
{
    return wait_link_up_until(port, detail::deadline_after(limit));
}

/// Why a link is not up, in words; valid as long as strerror(3)'s.
inline const char *link_reason(const failure &error) noexcept
{
    return pcie_config_link_strerror(error.error);
}

} // namespace wrapper
} // namespace device_access

#endif
