// Writes tar archives.
#include "tools/base/tar_archive.h"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace devaccess
{
namespace
{

constexpr size_t block = 512;

struct header {
    char name[100];
    char mode[8];
    char owner[8];
    char group[8];
    char size[12];
    char time[12];
    char checksum[8];
    char kind;
    char target[100];
    char format[8]; // "ustar  ", as GNU writes it
    char rest[247];
};
static_assert(sizeof(header) == block);

// In octal, before a NUL.
template <size_t Size>
void put_number(char (&field)[Size], unsigned long long number)
{
    for (size_t digit = Size - 1; digit-- > 0; number /= 8)
        field[digit] = static_cast<char>('0' + number % 8);
}

// As much as there is room for; a longer text has a record of its own before.
template <size_t Size>
void put_text(char (&field)[Size], const std::string &text)
{
    std::memcpy(field, text.data(), std::min(text.size(), Size));
}

} // namespace

void tar_archive::add_file(const std::string &path, const std::string &bytes)
{
    add('0', path, "", 0644, bytes);
}

void tar_archive::add_link(const std::string &path, const std::string &target)
{
    add('2', path, target, 0777, "");
}

void tar_archive::add_long(char kind, const std::string &text)
{
    if (text.size() > sizeof header::name)
        add(kind, "././@LongLink", "", 0644, text + '\0');
}

void tar_archive::add(char kind, const std::string &path, const std::string &target, unsigned mode,
                      const std::string &bytes)
{
    add_long('K', target);
    add_long('L', path);
    header head = {};
    put_text(head.name, path);
    put_text(head.target, target);
    put_number(head.mode, mode);
    put_number(head.owner, 0);
    put_number(head.group, 0);
    put_number(head.size, bytes.size());
    put_number(head.time, static_cast<unsigned long long>(std::max<time_t>(when_, 0)));
    head.kind = kind;
    std::memcpy(head.format, "ustar  ", sizeof head.format);
    std::memset(head.checksum, ' ', sizeof head.checksum);
    const auto *const raw = reinterpret_cast<const unsigned char *>(&head);
    const unsigned sum = std::accumulate(raw, raw + block, 0u);
    head.checksum[sizeof head.checksum - 1] = '\0';
    put_number(head.checksum, sum);
    bytes_.append(reinterpret_cast<const char *>(&head), block).append(bytes);
    bytes_.append((block - bytes.size() % block) % block, '\0');
}

const std::string &tar_archive::finish()
{
    return bytes_.append(2 * block, '\0');
}

} // namespace devaccess
