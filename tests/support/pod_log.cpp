#include "support/pod_log.h"

#include "support/log_text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>

#include <sys/mman.h>
#include <unistd.h>

extern "C" time_t time(time_t *) noexcept
{
    if (test::time_error == 0)
        return test::now;
    errno = test::time_error;
    return -1;
}

extern "C" int usleep(useconds_t length)
{
    ++test::pauses;
    test::shortest_pause = std::min(test::shortest_pause, length);
    test::longest_pause = std::max(test::longest_pause, length);
    return 0;
}

extern "C" int rand() noexcept
{
    static int next = 999;
    return next++;
}

namespace test
{

int eeprom_file(int number)
{
    static std::array<int, 4> files = {-1, -1, -1, -1};
    int &file = files.at(static_cast<size_t>(number));
    if (file < 0 && ((file = ::memfd_create("eeprom", MFD_CLOEXEC)) < 0 || ::ftruncate(file, 8300)))
        std::abort();
    return file;
}

std::string eeprom_path(int number)
{
    return "/proc/self/fd/" + std::to_string(eeprom_file(number));
}

const pod_storage pod_storages[3] = {
    {POD_LOG_CALLS(nvram, nullptr),
     "nvram",
     "/dev/nvlog-pod",
     {0x1FE2C365, 48, 1600, 10, 16384, 16312}},
    {POD_LOG_CALLS(file, podlog_file_read_raw_log),
     "file",
     "/var/pod/pod_alsw1.hex",
     {0x1FE2C363, 44, 1635, 10, 16384, 0}},
    {POD_LOG_CALLS(eeprom, podlog_eeprom_read_raw_log),
     "eeprom",
     "",
     {0x1FE2C363, 44, 4080, 2, 8300, 0}},
};

void PrintTo(const pod_storage &storage, std::ostream *stream)
{
    *stream << storage.name;
}

void pod_storage::describe(uint32_t histories, uint32_t history_size)
{
    const uint32_t size = (is_nvram() ? 100 : 32) + histories * history_size;
    std::string device = path;
    set_pod_info(0, device.data(), static_cast<int>(size), static_cast<int>(histories), 64, ~0u);
    layout = {layout.magic, layout.first_header, history_size,
              histories,    size + 1000,         is_nvram() ? size - 72 : 0};
}

int pod_storage::add_parts(const char *level, const char *diag, const char *ret, const char *fmt,
                           ...) const
{
    va_list args;
    va_start(args, fmt);
    const int result = add(0, const_cast<char *>(level), const_cast<char *>(diag), ret, fmt, args);
    va_end(args);
    return result;
}

// As a walk wants it.
struct device {
    const pod_log_calls &calls;
    int id;

    int open_dir() const { return calls.open_dir(id); }
    int read_dir(int history, time_t *time) const { return calls.read_dir(id, history, time); }
    void close_dir() const { calls.close_dir(id); }
    int open_log(int history) const { return calls.open_log(id, history); }
    int read_log(int position, time_t *time, char *text, uint32_t size) const
    {
        return calls.read_log(id, position, time, text, size);
    }
    void close_log(int) const { calls.close(id); }
};

std::string pod_storage::text(int id) const
{
    return log_text(device{*this, id});
}

std::string words(std::initializer_list<uint32_t> values)
{
    std::string text;
    for (uint32_t value : values)
        text += chassis_sim::number(chassis_sim::byte_order::little, value, 4);
    return text;
}

void put(std::string &image, size_t position, const std::string &record)
{
    image.resize(std::max(image.size(), position + record.size()));
    image.replace(position, record.size(), record);
}

} // namespace test
