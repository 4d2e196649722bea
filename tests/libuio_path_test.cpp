#include "support/captured_output.h"
#include "support/libuio_messages.h"

#include <device_access/internal/libuio_path.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

extern "C" {
int libuio_log;
}

namespace
{

using namespace device_access;

TEST(libuio_path, is_cut_with_a_mark_at_39_characters)
{
    const std::string at_limit(39, 'x');
    const std::string ten(10, 'y');
    const std::string thirty(30, 'z');
    struct {
        std::initializer_list<const char *> pieces;
        std::string path;
        std::string message;
    } cases[] = {
        {{}, "", ""},
        {{"/sys/class/uio/", "uio7"}, "/sys/class/uio/uio7", ""},
        {{"/sys/class/uio/uio99999/maps", "/", "map63", "/size"},
         "/sys/class/uio/uio99999/maps/map63/size",
         ""},
        {{at_limit.c_str(), ""}, at_limit, ""},
        {{thirty.c_str(), ten.c_str(), "never"},
         thirty + "^",
         "name too long(39,40): \"" + thirty + "\" + \"" + ten + "\"\n"},
        {{at_limit.c_str(), "1"},
         at_limit + "^",
         "name too long(39,40): \"" + at_limit + "\" + \"1\"\n"},
    };
    for (const auto &c : cases) {
        test_support::captured_output output;
        libuio_path_t buf;
        EXPECT_EQ(libuio_concat_path(buf, c.pieces), c.path);
        EXPECT_EQ(buf.len, c.path.size());
        const std::string shown = test_support::libuio_messages(output.take_stdout());
        EXPECT_EQ(shown, c.message.empty() ? "" : "LOG_ERR libuio_concat_path: " + c.message);
    }
}

TEST(libuio_path, numbers_are_whole_short_and_in_range)
{
    test_support::captured_output output;
    struct {
        const char *name;
        int uio;
        int map;
    } cases[] = {
        {"uio7", 7, -1},      {"/dev/uio12", 12, -1}, {"uio65535", 65535, -1},
        {"uio65536", -1, -1}, {"uio123456", -1, -1},  {"uio", -1, -1},
        {"uio7a", -1, -1},    {"uio+7", -1, -1},      {"uio7/x", -1, -1},
        {"map63", -1, 63},    {"map64", -1, -1},      {"map007", -1, -1},
        {"a/map07", -1, 7},   {"map", -1, -1},        {"map-1", -1, -1},
        {"", -1, -1},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(libuio_extract_inst_id(c.name), c.uio) << c.name;
        EXPECT_EQ(libuio_extract_map_id(c.name), c.map) << c.name;
    }
    EXPECT_EQ(output.take_stdout(), "");
    EXPECT_EQ(libuio_extract_map_id(nullptr), -1);
    EXPECT_EQ(test_support::libuio_messages(output.take_stdout()),
              "LOG_ERR libuio_basename: unexpected NULL\n"
              "LOG_ERR libuio_extract_map_id: name is NULL\n");
}

} // namespace
