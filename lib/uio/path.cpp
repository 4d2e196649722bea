// Paths of the UIO class directories, and the names of UIO nodes and maps.
#include "lib/uio/path.h"

#include "lib/base/errors.h"
#include "lib/base/unique_fd.h"
#include "lib/uio/libuio_pr.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace device_access
{
namespace
{

constexpr size_t suffix_room = 44;

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// Reads a decimal number below 65536 and moves text past it.
bool take_number(const char *&text, unsigned int &number)
{
    if (!is_digit(*text))
        return false;
    number = 0;
    for (; is_digit(*text); ++text) {
        number = number * 10 + static_cast<unsigned int>(*text - '0');
        if (number >= 65536)
            return false;
    }
    return true;
}

bool take_char(const char *&text, char expected)
{
    if (*text != expected)
        return false;
    ++text;
    return true;
}

// The number of a name that is the 3-character prefix and nothing but digits after it.
int numbered_name(const char *name, const char *prefix, size_t longest, unsigned int limit)
{
    if (std::strlen(name) > longest || std::strncmp(name, prefix, 3) != 0)
        return -1;
    const char *rest = name + 3;
    unsigned int number;
    if (!take_number(rest, number) || *rest != '\0' || number >= limit)
        return -1;
    return static_cast<int>(number);
}

// The text of a class directory's "dev" file: "MAJOR:MINOR\n".
bool parse_device_number(const char *text, uint32_t &number)
{
    unsigned int major;
    unsigned int minor;
    if (!take_number(text, major) || !take_char(text, ':') || !take_number(text, minor) ||
        !take_char(text, '\n'))
        return false;
    number = major << 8 | minor;
    return true;
}

} // namespace

const char *libuio_concat_path(libuio_path_t &buf, std::initializer_list<const char *> pieces)
{
    buf.len = 0;
    buf.str[0] = '\0';
    for (const char *piece : pieces) {
        const size_t length = std::strlen(piece);
        if (length > libuio_path_t::limit - buf.len) {
            LIBUIO_ERR("name too long(%u,%u): \"%s\" + \"%s\"", libuio_path_t::limit,
                       static_cast<unsigned int>(buf.len + length), buf.str, piece);
            buf.str[buf.len++] = '^';
            buf.str[buf.len] = '\0';
            break;
        }
        std::memcpy(buf.str + buf.len, piece, length + 1);
        buf.len += length;
    }
    return buf.str;
}

const char *libuio_basename(const char *name)
{
    if (!name)
        return REFUSE(LIBUIO_ERR, nullptr, "unexpected NULL");
    const char *slash = std::strrchr(name, '/');
    return slash ? slash + 1 : name;
}

int libuio_extract_inst_id(const char *name)
{
    const char *base = libuio_basename(name);
    return base ? numbered_name(base, "uio", 8, 65536) : -1;
}

int libuio_extract_map_id(const char *name)
{
    const char *base = libuio_basename(name);
    if (!base)
        return REFUSE(LIBUIO_ERR, -1, "name is NULL");
    return numbered_name(base, "map", 5, LIBUIO_MAX_MAPS);
}

const char *libuio_make_class_dir(libuio_path_t &buf, const char *basename, dev_t dev_id)
{
    const char *path = libuio_concat_path(buf, {"/sys/class/uio/", basename, "/dev"});
    unique_fd file(::open(path, O_RDONLY | O_CLOEXEC));
    if (!file)
        return REFUSE(LIBUIO_ERR, nullptr, "open(%s) failed: %s", path, error_text());
    char text[20];
    const ssize_t length = ::read(file.get(), text, sizeof text - 1);
    file.reset();
    if (!has_moved(length))
        return REFUSE(LIBUIO_ERR, nullptr, "read(%s) failed: %s", path, error_text());
    text[length] = '\0';

    uint32_t number;
    if (!parse_device_number(text, number))
        return REFUSE(LIBUIO_ERR, nullptr, "read(%s) returns \"%s\"", path, text);
    if (uint64_t{dev_id} != number) {
        LIBUIO_DEBUG("%#lx not matching %s",
                     static_cast<unsigned long>(static_cast<uint32_t>(dev_id)), text);
        return nullptr;
    }
    buf.len -= std::strlen("/dev");
    buf.str[buf.len] = '\0';
    LIBUIO_DEBUG("Made %s", path);
    return path;
}

unique_malloc<char> libuio_locate_real_name(const char *given_name)
{
    struct stat status;
    if (::stat(given_name, &status) != 0)
        return REFUSE(LIBUIO_ERR, nullptr, "stat(%s) failed: %s", given_name, error_text());
    const unique_malloc<char> canonical(::realpath(given_name, nullptr));
    if (!canonical)
        return REFUSE(LIBUIO_ERR, nullptr, "canonicalize_file_name(%s) failed: %s", given_name,
                      error_text());
    const size_t length = std::strlen(canonical.get());
    const size_t size = length + 1 + suffix_room;
    unique_malloc<char> copy(static_cast<char *>(std::calloc(1, size)));
    if (!copy)
        return REFUSE(LIBUIO_ERR, fail(nullptr, ENOMEM), "calloc(%ld) failed for %s",
                      static_cast<long>(size), canonical.get());
    std::memcpy(copy.get(), canonical.get(), length + 1);
    return copy;
}

} // namespace device_access
