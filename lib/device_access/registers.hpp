/// @file
/// Registers in mapped memory: windows that are read and written by width, and physical memory.
#ifndef DEVICE_ACCESS_REGISTERS_HPP
#define DEVICE_ACCESS_REGISTERS_HPP

#include <device_access/mmap_device.h>
#include <device_access/regiomap_x86.h>
#include <device_access/result.hpp>

#include <concepts>
#include <cstdint>

#include <sys/mman.h>

namespace device_access
{
inline namespace wrapper
{

/// The widths of registers.
template <typename T>
concept register_value = std::same_as<T, uint8_t> || std::same_as<T, uint16_t> ||
    std::same_as<T, uint32_t> || std::same_as<T, uint64_t>;

/// A mapped window: each access is one of the register's width (two of 32 bits for 64). It does not
/// own the mapping, which must last as long as the window is used. Offsets are in bytes; one that
/// leaves the window is an error of the program, which an assertion finds.
class window
{
public:
    /// The bytes from base on, which are mapped.
    window(void *base, size_t size) noexcept : base_(static_cast<char *>(base)), size_(size) {}

    /// Its length in bytes.
    size_t size() const noexcept { return size_; }
    /// Its first byte, for what the members do not do.
    void *data() const noexcept { return base_; }

    /// The register's value.
    template <register_value T>
    T read(size_t offset) const noexcept
    {
        return load(at(offset, sizeof(T)), T());
    }

    /// Writes the register.
    template <register_value T>
    void write(size_t offset, T value) const noexcept
    {
        store(at(offset, sizeof(T)), value);
    }

    /// Sets the bits of the mask: a read and a write.
    template <register_value T>
    void set_bits(size_t offset, T mask) const noexcept
    {
        write<T>(offset, static_cast<T>(read<T>(offset) | mask));
    }

    /// Clears the bits of the mask: a read and a write.
    template <register_value T>
    void clear_bits(size_t offset, T mask) const noexcept
    {
        write<T>(offset, static_cast<T>(read<T>(offset) & static_cast<T>(~mask)));
    }

private:
    using place = volatile void *;

    static uint8_t load(place from, uint8_t) noexcept { return ioread8(from); }
    static uint16_t load(place from, uint16_t) noexcept { return ioread16(from); }
    static uint32_t load(place from, uint32_t) noexcept { return ioread32(from); }
    static uint64_t load(place from, uint64_t) noexcept { return ioread64(from); }
    static void store(place to, uint8_t value) noexcept { iowrite8(value, to); }
    static void store(place to, uint16_t value) noexcept { iowrite16(value, to); }
    static void store(place to, uint32_t value) noexcept { iowrite32(value, to); }
    static void store(place to, uint64_t value) noexcept { iowrite64(value, to); }

    place at(size_t offset, [[maybe_unused]] size_t width) const noexcept
    {
        assert(offset <= size_ && width <= size_ - offset && "a register outside of its window");
        return base_ + offset;
    }

    char *base_;
    size_t size_;
};

/// A range of physical memory, mapped while this lives.
class physical_memory
{
public:
    /// Maps size bytes at a physical address, a multiple of the page size.
    static result<physical_memory> map(uint64_t address, uint32_t size)
    {
        void *const base = mmap_device_open(address, size);
        const bool mapped = base && base != MAP_FAILED;
        return detail::done(mapped, physical_memory(mapped ? base : nullptr, size),
                            "mmap_device_open");
    }
    /// Unmaps it.
    ~physical_memory() { close(); }
    /// Takes the mapping over.
    physical_memory(physical_memory &&other) noexcept
        : base_(std::exchange(other.base_, nullptr)), size_(other.size_)
    {
    }
    /// Unmaps its own, and takes the other's mapping over.
    physical_memory &operator=(physical_memory &&other) noexcept
    {
        if (this != &other) {
            close();
            base_ = std::exchange(other.base_, nullptr);
            size_ = other.size_;
        }
        return *this;
    }

    /// The memory as a window of registers, while this lives.
    window registers() const noexcept { return {base_, base_ ? size_ : 0}; }

    /// Unmaps it now.
    void close() noexcept { mmap_device_close(std::exchange(base_, nullptr), size_); }

private:
    physical_memory(void *base, uint32_t size) noexcept : base_(base), size_(size) {}

    void *base_;
    uint32_t size_;
};

} // namespace wrapper
} // namespace device_access

#endif
