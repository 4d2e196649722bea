// The POD log in a real NVRAM device.
#include "nvram.h"

#include <device_access/pod_log_nvram.h>

#include <cstdarg>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

namespace guest
{
namespace
{

constexpr char node[] = "/dev/nvlog-pod";
constexpr int block = 3; // where the module puts it

int add(const char *format, ...)
{
    char level[] = "INFO ";
    char test[] = "dram";
    va_list args;
    va_start(args, format);
    const int result = podlog_nvram_add(0, level, test, "ok", format, args);
    va_end(args);
    return result;
}

// All entries of a history, as the library reads them.
std::string entries(int history)
{
    std::string text;
    int position = podlog_nvram_open_log(0, history);
    while (position > 0) {
        char message[64];
        time_t time;
        position = podlog_nvram_read_log(0, position, &time, message, sizeof message);
        text += std::string(message, ::strnlen(message, sizeof message)) + "|";
    }
    podlog_nvram_close_log(0, history);
    return text;
}

void check_writing()
{
    check("pod: the node is not there", ::access(node, F_OK) != 0, "");
    check_equal("pod: an empty device is made a log", podlog_nvram_init(0, 0), 1);
    check_nvram_node(node, block);
    check_equal("pod: entry added", add("pass %d", 1), 1);
    check_equal("pod: second entry added", add("pass %d", 2), 1);
    check_equal("pod: status set", podlog_nvram_set_pod_status(0, 22, 0), 1);
    podlog_nvram_close(0);

    const std::string bytes = read_text(raw_nvram(block));
    check_equal("pod: size of the device", static_cast<long long>(bytes.size()), 16384);
    check_equal("pod: magic number in the device", bytes.substr(32, 4), "\x65\xc3\xe2\x1f");
    check_equal("pod: first message in the device", bytes.substr(84, 24).c_str(),
                "INFO dram  ok  pass 1");
}

void check_reading()
{
    time_t time = 0;
    check_equal("pod: newest history", podlog_nvram_open_dir(0), 0);
    check_equal("pod: no other", podlog_nvram_read_dir(0, 0, &time), -2);
    check("pod: its time", time > 0, "");
    podlog_nvram_close_dir(0);
    check_equal("pod: entries", entries(0), "INFO dram  ok  pass 1|INFO dram  ok  pass 2|");
}

void check_exclusion()
{
    {
        const other_process holder([] { podlog_nvram_init(0, 0); });
        check_equal("pod: another process has it open", podlog_nvram_init(0, 0), -1);
        podlog_nvram_close(0);
        check_equal("pod: nor can it be read", podlog_nvram_open_dir(0), -1);
    }
    check_equal("pod: free again", podlog_nvram_init(0, 0), 1);
    podlog_nvram_close(0);
    {
        const other_process holder([] { static_cast<void>(::open(node, O_RDONLY)); });
        check_equal("pod: who has it open without O_EXCL does not keep others out",
                    podlog_nvram_init(0, 0), 1);
        podlog_nvram_close(0);
    }
}

void add_patiently()
{
    for (int i = 0; i < 8; ++i) {
        while (podlog_nvram_init(0, 0) != 1)
            podlog_nvram_close(0);
        add("from %s", "one of two");
        podlog_nvram_close(0);
    }
}

void check_two_writers()
{
    podlog_nvram_init(0, 0);
    check_equal("pod: next history", podlog_nvram_use_nxt_log(0), 1);
    podlog_nvram_close(0);
    {
        const later other(0, [] { const other_process writer(add_patiently); });
        const other_process writer(add_patiently);
    }
    std::string expected;
    for (int i = 0; i < 16; ++i)
        expected += "INFO dram  ok  from one of two|";
    check_equal("pod: two processes write at once", entries(1), expected);
}

} // namespace

void check_pod_log()
{
    check_writing();
    check_reading();
    check_exclusion();
    check_two_writers();
}

} // namespace guest
