// Reads attribute files of a PCI function, as text or as numbers.
#include <device_access/pci_sysfs.h>

#include "lib/base/errors.h"
#include "lib/base/unique_fd.h"
#include "lib/base/unique_malloc.h"

#include <cctype>
#include <cerrno>
#include <cstdlib>

#include <fcntl.h>
#include <unistd.h>

using namespace device_access;

namespace
{

// Reads at most limit bytes, one less than there is room for in text.
char *read_text(char *text, size_t limit, size_t *count, int fd)
{
    const ssize_t length = ::pread(fd, text, limit, 0);
    if (length < 1)
        return nullptr;
    text[length] = '\0';
    if (count)
        *count = static_cast<size_t>(length);
    return text;
}

unique_malloc<char> read_page(size_t more, size_t *count, int fd)
{
    const auto page_size = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    unique_malloc<char> block = allocate_text(page_size, more);
    if (!block || !read_text(block.get(), page_size - 1, count, fd))
        return nullptr;
    return block;
}

bool is_space(char character)
{
    return std::isspace(static_cast<unsigned char>(character)) != 0;
}

size_t parse_numbers(int64_t *value, size_t limit, const char *text)
{
    size_t stored = 0;
    while (stored < limit) {
        while (is_space(*text))
            ++text;
        if (!*text)
            break;
        char *end;
        const long long number = std::strtoll(text, &end, 0);
        if (*end && !is_space(*end))
            break;
        value[stored++] = number;
        text = end;
    }
    return stored;
}

} // namespace

char *sysfs_pci_fshow(char *attr_value, size_t max, size_t *count, int fd)
{
    if (!attr_value)
        return read_page(max, count, fd).release();
    if (max < 2)
        return fail(nullptr, EINVAL);
    return read_text(attr_value, max - 1, count, fd);
}

char *sysfs_pci_show(char *attr_value, size_t max, size_t *count, const char *attr_name,
                     const sysfs_pci_identity_t *pci_ident)
{
    const unique_fd fd(sysfs_pci_open(attr_name, O_RDONLY | O_CLOEXEC, pci_ident));
    return fd ? sysfs_pci_fshow(attr_value, max, count, fd.get()) : nullptr;
}

ssize_t sysfs_pci_fshow_nums(int64_t *value, size_t num_count, int fd)
{
    if (!value)
        return fail(-1, EINVAL);
    if (num_count > 1) {
        const unique_malloc<char> block = read_page(0, nullptr, fd);
        return block ? static_cast<ssize_t>(parse_numbers(value, num_count, block.get())) : -1;
    }
    char text[32];
    if (!read_text(text, sizeof text - 1, nullptr, fd))
        return -1;
    return static_cast<ssize_t>(parse_numbers(value, 1, text));
}

ssize_t sysfs_pci_show_nums(int64_t *value, size_t num_count, const char *attr_name,
                            const sysfs_pci_identity_t *pci_ident)
{
    const unique_fd fd(sysfs_pci_open(attr_name, O_RDONLY | O_CLOEXEC, pci_ident));
    return fd ? sysfs_pci_fshow_nums(value, num_count, fd.get()) : -1;
}
