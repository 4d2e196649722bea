#include "support/captured_output.h"
#include "support/pod_image.h"

#include <device_access/pod_log_eeprom.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

namespace
{

using test_support::captured_output;
using test_support::difference;
using test_support::pod_entry;
using test_support::pod_header;
using test_support::words;

std::string memory(8204, '\0');

int read_memory(uint32_t offset, uint8_t *buffer, uint32_t size)
{
    if (offset + uint64_t{size} > memory.size())
        return -1;
    std::memcpy(buffer, memory.data() + offset, size);
    return static_cast<int>(size);
}

int write_memory(uint32_t offset, uint8_t *buffer, uint32_t size)
{
    if (offset + uint64_t{size} > memory.size())
        return 0;
    std::memcpy(memory.data() + offset, buffer, size);
    return static_cast<int>(size);
}

TEST(pod_log_eeprom, is_reached_through_bound_functions_only)
{
    captured_output output;
    EXPECT_EQ(podlog_eeprom_init(5, 0), -1);
    EXPECT_EQ(output.take_stderr(),
              "ERROR(pod_eeprom_mem_rd): No binded EEPROM 5 read function!\n");
    podlog_bind_eeprom_access_func(5, read_memory, nullptr);
    EXPECT_EQ(podlog_eeprom_init(5, 1), -1);
    EXPECT_EQ(output.take_stderr(),
              "ERROR: podlog_eeprom_init: magic number not initialized! cannot open for reading!!\n"
              "magic number: read = 0x0 expect = 0x1fe2c363\n");
    EXPECT_EQ(podlog_eeprom_init(5, 0), 1) << "the result of formatting does not count";
    EXPECT_EQ(podlog_eeprom_reset(5), -1);
    EXPECT_EQ(output.take_stderr(), "ERROR: No binded EEPROM write function!\n"
                                    "ERROR: No binded EEPROM write function!\n");
    podlog_bind_eeprom_access_func(5, read_memory, write_memory);
    EXPECT_EQ(podlog_eeprom_init(5, 0), 1);
    EXPECT_EQ(podlog_eeprom_init(5, 1), 1) << "there is no open state";
    podlog_unbind_eeprom_access_func(5);
    EXPECT_EQ(podlog_eeprom_init(5, 1), -1);
    EXPECT_EQ(podlog_eeprom_close_dir(5), 1);
    podlog_eeprom_close(5);
}

TEST(pod_log_eeprom, takes_raw_entries_as_they_are)
{
    char name[] = "a name that is longer than its field";
    podlog_eeprom_set_pod_info(1, name, 32 + 2 * 260, 2, 64, 0xFFFFFFFF); // room for 3, exactly
    podlog_bind_eeprom_access_func(1, read_memory, write_memory);
    ASSERT_EQ(podlog_eeprom_init(1, 0), 1);
    std::string image = memory;
    // Exactly the size that is asked for; no NUL anywhere in the message.
    const std::string entry = pod_entry(77, 1234) + std::string(65, 'm');
    const auto raw = std::make_unique<uint8_t[]>(81);
    captured_output output;
    for (int number = 0; number < 4; ++number) {
        std::copy(entry.begin(), entry.end(), raw.get());
        raw[16] = static_cast<uint8_t>('0' + number);
        EXPECT_EQ(podlog_eeprom_add_raw_log(1, raw.get()), number < 1 ? 1 : 0);
        const uint32_t position = 64 + 80 * static_cast<uint32_t>(std::min(number, 1));
        image.replace(position, 80, entry, 0, 80);
        image[position + 16] = static_cast<char>('0' + number);
        image[position + 79] = '\0';
        image.replace(44, 20, pod_header(260, 80, 64));
        EXPECT_EQ(difference(memory, image), "") << number;
        EXPECT_EQ(output.take_stdout(),
                  number < 1 ? ""
                             : "WARNING:\n  hdr pos =0x2c log size =0x104\n  lg pos =0x90\n"
                               "  NVLOG POD LOG (EEPROM) reached log area limit:\n"
                               "  Subsequent entries will overide the last entry\n");
    }

    std::copy(entry.begin(), entry.end(), raw.get());
    for (const int end : {64, 5}) {
        raw[16 + end] = '\0';
        EXPECT_EQ(podlog_eeprom_use_nxt_log(1), 1);
        EXPECT_EQ(podlog_eeprom_add_raw_log(1, raw.get()), 1);
        EXPECT_EQ(memory.substr(end == 64 ? 324 : 64, 80), std::string(raw.get(), raw.get() + 80));
        EXPECT_EQ(raw[79], 'm') << "a message that fits is not cut";
    }
    EXPECT_EQ(podlog_eeprom_use_nxt_log(1), 1);

    memory[304] ^= 1; // the current history's header
    EXPECT_EQ(podlog_eeprom_add_raw_log(1, raw.get()), -1);
    EXPECT_EQ(output.take_stderr(), "ERROR: podlog_eeprom_add_raw_log: failed to get next "
                                    "available log position!\n");
    memory.replace(32, 4, words({0}));
    EXPECT_EQ(podlog_eeprom_add_raw_log(1, raw.get()), -1);
    EXPECT_EQ(output.take_stderr(), "ERROR: eeprom_get_curr_log_hdr_pos: invalid index!\n");
}

//--- a storage that changes under a walk ----------------------------------------------------------

int reads_left;
int read_changing(uint32_t offset, uint8_t *buffer, uint32_t size)
{
    const int result = read_memory(offset, buffer, size);
    if (--reads_left == 0)
        buffer[0] ^= 1;
    return reads_left == -1 ? 0 : result;
}

TEST(pod_log_eeprom, tells_what_went_wrong_in_a_walk)
{
    podlog_bind_eeprom_access_func(0, read_memory, write_memory);
    ASSERT_EQ(podlog_eeprom_init(0, 0), 1);
    uint8_t raw[80] = {};
    std::memcpy(raw, pod_entry(5, 64).data(), 16);
    EXPECT_EQ(podlog_eeprom_add_raw_log(0, raw), 1);
    ASSERT_EQ(podlog_eeprom_open_dir(0), 0);
    podlog_bind_eeprom_access_func(0, read_changing, write_memory);
    captured_output output;
    const struct {
        int reads; // until one is changed; the next fails
        const char *message;
    } cases[] = {{1, "failed to get lg position!\n"},
                 {3, ""},
                 {4, "invalid LOG entry!\n"},
                 {0, "failed to get lg position!\n"}};
    for (const auto &c : cases) {
        time_t ts = -1;
        reads_left = c.reads;
        EXPECT_EQ(podlog_eeprom_read_dir(0, 0, &ts), -1);
        EXPECT_EQ(output.take_stderr(),
                  *c.message ? std::string("ERROR: podlog_eeprom_read_dir: ") + c.message : "");
    }
}

} // namespace
