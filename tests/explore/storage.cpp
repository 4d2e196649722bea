#include "storage.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace explore
{
namespace
{

constexpr int descriptor = 900; // of the device's node, or of its file
storage *current;

// Nothing reads the first 32 bytes, so that no state depends on them.
int read_bytes(int64_t position, void *data, size_t size)
{
    if (position < 32)
        return -1;
    const size_t at = std::min(static_cast<size_t>(position), current->image.size());
    return static_cast<int>(current->image.copy(static_cast<char *>(data), size, at));
}

int write_bytes(int64_t position, const void *data, size_t size)
{
    if (position < 0 || static_cast<size_t>(position) + size > current->image.size())
        return -1;
    current->writes.push_back(
        {static_cast<uint32_t>(position), std::string(static_cast<const char *>(data), size)});
    std::memcpy(current->image.data() + position, data, size);
    return static_cast<int>(size);
}

int eeprom_read(uint32_t position, uint8_t *data, uint32_t size)
{
    return read_bytes(position, data, size);
}

int eeprom_write(uint32_t position, uint8_t *data, uint32_t size)
{
    return write_bytes(position, data, size);
}

constexpr test::pod_log_calls nvram_calls = POD_LOG_CALLS(nvram, nullptr);
constexpr test::pod_log_calls file_calls = POD_LOG_CALLS(file, podlog_file_read_raw_log);
constexpr test::pod_log_calls eeprom_calls = POD_LOG_CALLS(eeprom, podlog_eeprom_read_raw_log);

const test::pod_log_calls &calls_of(kind storage)
{
    return storage == kind::nvram ? nvram_calls : storage == kind::file ? file_calls : eeprom_calls;
}

int add_parts(const test::pod_log_calls &calls, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    const int result = calls.add(0, nullptr, nullptr, nullptr, fmt, args);
    va_end(args);
    return result;
}

} // namespace

storage::storage(const layout &shape) : where(shape), calls(calls_of(shape.storage))
{
    current = this;
    std::string path = "the log";
    const uint32_t beyond = where.is_nvram() ? 100 : 32;
    calls.set_pod_info(0, path.data(),
                       static_cast<int>(beyond + where.log_end() - where.header_at(0)),
                       static_cast<int>(where.histories), 64, ~0u);
    podlog_bind_eeprom_access_func(0, eeprom_read, eeprom_write);
    image.assign(where.size(), '\0');
}

int storage::init()
{
    return with_open([] { return 1; });
}

int storage::add(const char *text)
{
    return with_open([&] { return add_parts(calls, "%s", text); });
}

int storage::add_raw(const char *text)
{
    uint8_t entry[16 + 64] = {};
    const std::string header = chassis_sim::pod_entry(1, 64);
    std::copy(header.begin(), header.end(), entry);
    std::strcpy(reinterpret_cast<char *>(entry) + header.size(), text);
    return with_open([&] { return podlog_eeprom_add_raw_log(0, entry); });
}

int storage::next()
{
    return with_open([&] { return calls.use_nxt_log(0); });
}

int storage::set_status()
{
    return with_open([&] { return calls.set_curr_log_status(0, 0); });
}

int storage::reset()
{
    const bool opened = calls.init(0, 0) == 1;
    if (!opened && where.is_nvram())
        podlog_nvram_open_dev_file(0, &podlog::_nvram_dev_info[0].fd, 0);
    const int result = calls.reset(0);
    calls.close(0);
    return result;
}

void storage::write(const std::string &bytes)
{
    for (size_t at = 0; at < bytes.size(); ++at) {
        const size_t begin = at;
        while (at < bytes.size() && image[at] != bytes[at])
            ++at;
        if (at > begin)
            write_bytes(static_cast<int64_t>(begin), &bytes[begin], at - begin);
    }
}

std::string storage::found()
{
    std::vector<int> numbers; // a log is open for one purpose at a time
    std::string text;
    time_t time;
    int history = calls.open_dir(0);
    for (; history >= 0 && numbers.size() <= where.histories;
         history = calls.read_dir(0, history, &time))
        numbers.push_back(history);
    if (history == -1)
        text += '!';
    if (!numbers.empty())
        calls.close_dir(0);
    for (int number : numbers) {
        text.append(std::to_string(number)).append(":");
        char message[65] = {};
        int position = calls.open_log(0, number);
        const bool opened = position > 0;
        while (position > 0 && text.size() < longest_log) {
            position = calls.read_log(0, position, &time, message, 64);
            text.append(text.back() == ':' ? " " : "|").append(position == -1 ? "!" : message);
        }
        if (opened)
            calls.close(0);
        text += ", ";
    }
    return text;
}

} // namespace explore

//--- the library's calls --------------------------------------------------------------------------

using namespace explore;

extern "C" time_t time(time_t *) noexcept
{
    return 1;
}

extern "C" int usleep(useconds_t)
{
    return 0;
}

extern "C" int open(const char *, int, ...)
{
    return descriptor;
}

extern "C" int __open64_2(const char *, int) // what open() is where calls are fortified
{
    return descriptor;
}

extern "C" int close(int)
{
    return 0;
}

extern "C" int mkdir(const char *, mode_t) noexcept
{
    return 0;
}

extern "C" ssize_t pread(int, void *data, size_t size, off_t position)
{
    return read_bytes(position, data, size);
}

extern "C" ssize_t pwrite(int, const void *data, size_t size, off_t position)
{
    return write_bytes(position, data, size);
}
