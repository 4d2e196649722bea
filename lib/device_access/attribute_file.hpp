/// @file
/// Owned descriptors, and the attribute files of sysfs that are read and written through them.
#ifndef DEVICE_ACCESS_ATTRIBUTE_FILE_HPP
#define DEVICE_ACCESS_ATTRIBUTE_FILE_HPP

#include <device_access/pci_sysfs.h>
#include <device_access/result.hpp>

#include <cstdint>
#include <span>

#include <fcntl.h>
#include <unistd.h>

namespace device_access
{
inline namespace wrapper
{

/// A file descriptor that is closed when this ends.
class descriptor
{
public:
    /// Owns fd from now on; -1 is none.
    explicit descriptor(int fd = -1) noexcept : fd_(fd) {}
    /// Closes it.
    ~descriptor() { (void)close(); }
    /// Takes the descriptor over.
    descriptor(descriptor &&other) noexcept : fd_(other.release()) {}
    /// Closes its own, and takes the other's over.
    descriptor &operator=(descriptor &&other) noexcept
    {
        if (this != &other) {
            (void)close();
            fd_ = other.release();
        }
        return *this;
    }

    /// The descriptor, which stays owned; -1 for none.
    int get() const noexcept { return fd_; }
    /// Whether there is one.
    explicit operator bool() const noexcept { return fd_ >= 0; }
    /// The descriptor, which the caller closes from now on.
    int release() noexcept { return std::exchange(fd_, -1); }

    /// Closes it now; none is a success.
    result<void> close() noexcept
    {
        return detail::done(fd_ < 0 || ::close(release()) == 0, "close");
    }

private:
    int fd_;
};

/// An open attribute: a small file of sysfs, read and written whole at its beginning.
class attribute_file
{
public:
    /// Owns an open attribute from now on.
    explicit attribute_file(descriptor file) noexcept : file_(std::move(file)) {}

    /// Its text, as it stands in the file; at most a page less one byte.
    result<std::string> text() const
    {
        char room[page];
        size_t count = 0;
        errno = ENODATA; // an empty file leaves it alone
        const bool read = sysfs_pci_fshow(room, sizeof room, &count, file_.get()) != nullptr;
        return detail::done(read, std::string(room, read ? count : 0), "sysfs_pci_fshow");
    }

    /// The number at its beginning: decimal, hexadecimal after 0x or octal after 0.
    result<int64_t> number() const
    {
        int64_t value = 0;
        errno = ENODATA;
        const ssize_t count = sysfs_pci_fshow_nums(&value, 1, file_.get());
        return detail::done(count == 1, value, "sysfs_pci_fshow_nums");
    }

    /// The numbers at its beginning, as many as there are and have room; how many they are.
    result<size_t> numbers(std::span<int64_t> values) const
    {
        if (values.empty())
            return size_t{0};
        errno = ENODATA;
        const ssize_t count = sysfs_pci_fshow_nums(values.data(), values.size(), file_.get());
        return detail::done(count >= 0, static_cast<size_t>(count), "sysfs_pci_fshow_nums");
    }

    /// Writes a text, which is not empty, in one piece.
    result<void> write(c_string text) const noexcept
    {
        errno = EIO; // what was not taken whole leaves it alone
        return detail::done(sysfs_pci_fstore(text.c_str(), file_.get()) == 0, "sysfs_pci_fstore");
    }

    /// Writes a number: 0 to 9 as a digit, others in hexadecimal.
    result<void> write_number(int64_t value) const noexcept
    {
        errno = EIO;
        return detail::done(sysfs_pci_fstore_num(value, file_.get()) == 0, "sysfs_pci_fstore_num");
    }

    /// The descriptor, which stays owned.
    int get() const noexcept { return file_.get(); }

private:
    static constexpr size_t page = 4096;

    descriptor file_;
};

} // namespace wrapper
} // namespace device_access

#endif
