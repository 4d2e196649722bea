#include "sim/chassis.h"
#include "support/captured_output.h"
#include "support/descriptors.h"
#include "support/pod_image.h"

#include <device_access/pod_log_nvram.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

static std::vector<useconds_t> pauses;

// The library's calls come here first.
extern "C" int usleep(useconds_t microseconds)
{
    pauses.push_back(microseconds);
    return 0;
}

namespace
{

namespace fs = std::filesystem;
using test_support::captured_output;
using test_support::checked_pod_index;
using test_support::difference;
using test_support::pod_header;
using test_support::words;

constexpr uint32_t magic = 0x1FE2C365;
constexpr char node[] = "/dev/nvlog-pod";

std::string read_file(const std::string &path)
{
    std::ostringstream bytes;
    bytes << std::ifstream(path).rdbuf();
    return bytes.str();
}

// A formatted region of the default size.
std::string formatted(uint32_t magic_number = magic)
{
    std::string image(16384, '\0');
    image.replace(32, 16, checked_pod_index(magic_number, 0, 1600));
    for (uint32_t i = 0; i < 10; ++i)
        image.replace(48 + i * 1600, 20, pod_header(1600, 0, 48 + i * 1600 + 20));
    for (uint32_t i = 0; i < 8; ++i)
        image.replace(16312 + i * 4, 4, words({0x80000000}));
    return image;
}

// A plain file in the place of the device.
void use_file(const std::string &contents)
{
    static bool entered = false;
    if (!entered)
        chassis_sim::enter_private_root();
    entered = true;
    chassis_sim::write_file(node, contents);
}

//--- finding and opening the device ---------------------------------------------------------------

TEST(pod_log_nvram, makes_the_node_of_the_block_it_finds_and_holds_it_alone)
{
    chassis_sim::enter_private_root();
    chassis_sim::device_server server;
    for (unsigned int number : {0u, 1u, 2u}) {
        chassis_sim::nvram_description block;
        block.number = number;
        block.name = number == 0 ? "nvlog-pod2" : number == 1 ? "nvlog-po" : "nvlog-pod";
        chassis_sim::add_nvram(server, block);
    }
    server.start();
    EXPECT_FALSE(fs::exists(node));
    captured_output output;
    const auto descriptors = test_support::open_descriptors();
    EXPECT_EQ(podlog_nvram_init(0, 0), 1);
    EXPECT_TRUE(fs::exists(node));
    podlog_nvram_close(0);
    EXPECT_EQ(test_support::open_descriptors(), descriptors);
    EXPECT_EQ(difference(read_file(node), formatted()), "");
    EXPECT_EQ(output.take_stderr(), "");

    ASSERT_EQ(podlog_nvram_init(0, 1), 1);
    output.take_stdout();
    const pid_t other = ::fork();
    if (other == 0) {
        _nvram_dev_info[0].fd = -1;
        ::_exit(podlog_nvram_init(0, 0) == -1 ? 0 : 1);
    }
    int status;
    ::waitpid(other, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(output.take_stderr() + output.take_stdout(), "") << "a busy device is no news";
}

TEST(pod_log_nvram, says_why_there_is_no_device)
{
    chassis_sim::enter_private_root();
    const std::string no_number = " ERROR: fail to find major/minor number\n";
    const auto name_of = [](unsigned int n) { return chassis_sim::nvram_class_dir(n) + "/name"; };
    captured_output output;
    int fd = 5;
    EXPECT_EQ(podlog_nvram_open_dev_file(0, &fd, 1), 0);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(output.take_stdout(), " No nvram0 dev file!\n");
    EXPECT_EQ(output.take_stderr(), no_number);
    EXPECT_EQ(pauses.size(), 20u) << "one after each attempt";
    const auto [shortest, longest] = std::minmax_element(pauses.begin(), pauses.end());
    EXPECT_GE(*shortest, 500u);
    EXPECT_LE(*longest, 1499u);

    chassis_sim::write_file(node, "");
    ::close(0); // the lowest descriptor is not taken from the first attempts
    EXPECT_EQ(podlog_nvram_open_dev_file(0, &fd, 1), 0);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(::fcntl(0, F_GETFD), -1) << "nor left open";
    EXPECT_EQ(::open("/dev/null", O_RDONLY), 0);
    EXPECT_EQ(output.take_stderr(), no_number);
    output.take_stdout();
    fs::remove(node);

    for (unsigned int n = 0; n < 21; ++n)
        chassis_sim::write_file(name_of(n), n == 20 ? "nvlog-pod\n" : "other\n");
    EXPECT_EQ(podlog_nvram_open_dev_file(0, &fd, 1), 0);
    EXPECT_EQ(output.take_stdout(), "");
    EXPECT_EQ(output.take_stderr(), no_number);
    chassis_sim::write_file(name_of(19), "nvlog-pod\n");
    EXPECT_EQ(podlog_nvram_init(0, 0), -1);
    EXPECT_EQ(output.take_stderr(), no_number) << "no dev attribute";

    chassis_sim::write_file(chassis_sim::nvram_class_dir(19) + "/dev", "1:3\n");
    char nowhere[] = "/dev/missing/node";
    podlog_nvram_set_pod_info(0, nowhere, 16384, 10, 64, 0xFFFFFFE0);
    EXPECT_EQ(podlog_nvram_init(0, 0), -1);
    EXPECT_EQ(output.take_stderr(), "mknod(/dev/missing/node) failed: No such file or directory\n");

    char dangling[] = "/dev/dangling";
    chassis_sim::make_symlink(dangling, "/dev/missing/node");
    podlog_nvram_set_pod_info(0, dangling, 16384, 10, 64, 0xFFFFFFE0);
    for (const char *mode : {"read-write", "read-only"}) {
        EXPECT_EQ(podlog_nvram_init(0, mode == std::string("read-only")), -1);
        const std::string message = output.take_stderr();
        EXPECT_EQ(message.rfind("ERROR: instance(0x", 0), 0u) << message;
        EXPECT_EQ(message.substr(message.find(')')),
                  std::string(") cannot open newly created dev file /dev/dangling for ") + mode +
                      "!\n");
    }
}

TEST(pod_log_nvram, keeps_40_bytes_of_a_name)
{
    chassis_sim::enter_private_root();
    std::string path = "/dev/" + std::string(50, 'n');
    chassis_sim::write_file(path.substr(0, 40), formatted());
    podlog_nvram_set_pod_info(0, path.data(), 16384, 10, 64, 0xFFFFFFE0);
    EXPECT_EQ(std::string(_nvram_dev_info[0].name, 40), path.substr(0, 40));
    EXPECT_EQ(_nvram_dev_info[0].attr, 2);
    EXPECT_EQ(podlog_nvram_init(0, 1), 1);
}

//--- checking the region --------------------------------------------------------------------------

TEST(pod_log_nvram, opens_repairs_or_refuses_by_the_state_of_the_index)
{
    std::string wrong_header = formatted();
    wrong_header[48 + 3 * 1600] ^= 1;
    std::string wrong_checksum = formatted();
    wrong_checksum[36] = 7;
    const std::string zeros(16384, '\0');
    const std::string magic_7 = checked_pod_index(7, 0, 1600);
    const std::string zero_dump =
        "nvram_dump_block_index: \t  magic number = 0x0 \n\t header index "
        "= 0x0\t size = 0x0 \n\t checksum = 0x0\n";
    const std::string zero_crc = "CRC: read = 0x0 expect = 0xcaf3649b\n";
    const std::string refused = "ERROR: podlog_nvram_init: checksum incorrect! cannot open for "
                                "reading!!\n";
    const std::string no_guess = "Can not perform best guess for read-only NVRAM region!\n";
    const std::string warning =
        "WARNING: podlog_nvram_init: Block index structure CRC not matched!\n";
    char expected[9];
    std::snprintf(expected, sizeof expected, "%x",
                  test_support::cksum(wrong_checksum.substr(32, 12)));
    char stored[9];
    std::snprintf(stored, sizeof stored, "%x", test_support::cksum(formatted().substr(32, 12)));
    const std::string crc =
        std::string("CRC: read = 0x") + stored + " expect = 0x" + expected + "\n";
    const std::string dump = std::string("nvram_dump_block_index: \t  magic number = 0x1fe2c365 "
                                         "\n\t header index = 0x7\t size = 0x640 \n\t checksum = "
                                         "0x") +
                             stored + "\n";
    const struct {
        const char *name;
        std::string image;
        int rdonly;
        int result;
        std::string out, err;
    } cases[] = {
        {"good", formatted(), 1, 1, "", ""},
        {"zeros", zeros, 1, -1, zero_dump, refused + zero_crc + no_guess},
        {"zeros to repair", zeros, 0, 1,
         zero_dump + warning + zero_crc +
             "podlog_nvram_reset: reset POD status & fault injection\n",
         ""},
        {"checksum", wrong_checksum, 1, -1, dump, refused + crc + no_guess},
        {"checksum, for writing", wrong_checksum, 0, -1, dump + warning + crc, ""},
        {"header", wrong_header, 0, -1, "", ""},
        {"magic", formatted(7), 0, -1,
         "nvram_check_hdr failed to get_log_hdr_pos, nvram_id 0, subblock_id 0",
         "nvram_get_log_hdr_pos: unexpected magic number 0x7. canot not get the index from the "
         "structure!"},
        {"empty", "", 0, -1, "",
         "ERROR: pod_nvram_mem_rd: cannot read or reach eof!! range=0x20-0x2f\n"
         "ERROR: canot read magic number for NVRAM!\n"},
    };
    for (const auto &c : cases) {
        use_file(c.image);
        const auto descriptors = test_support::open_descriptors();
        std::string out;
        std::string err;
        int result;
        {
            captured_output output;
            result = podlog_nvram_init(0, c.rdonly);
            out = output.take_stdout();
            err = output.take_stderr();
        }
        EXPECT_EQ(result, c.result) << c.name;
        EXPECT_EQ(out, c.out) << c.name;
        EXPECT_EQ(err, c.err) << c.name;
        if (result == 1)
            podlog_nvram_close(0);
        EXPECT_EQ(_nvram_dev_info[0].fd, -1) << c.name;
        EXPECT_EQ(test_support::open_descriptors(), descriptors) << c.name;
        const bool repaired = c.image == zeros && result == 1;
        EXPECT_EQ(difference(read_file(node), repaired ? formatted() : c.image), "") << c.name;
    }
    use_file(formatted());
    pauses.clear();
    EXPECT_EQ(podlog_nvram_init(0, 1), 1);
    EXPECT_EQ(pauses, std::vector<useconds_t>(9, 200)) << "between the checks of two headers";
    podlog_nvram_close(0);

    // An explicit reset brings back what init refuses.
    use_file(wrong_checksum);
    ASSERT_EQ(podlog_nvram_open_dev_file(0, &_nvram_dev_info[0].fd, 0), 1);
    EXPECT_EQ(podlog_nvram_reset(0), 1);
    EXPECT_EQ(difference(read_file(node), formatted()), "");
    podlog_nvram_close(0);

    podlog_nvram_set_magic_number(7);
    use_file(formatted(7));
    EXPECT_EQ(podlog_nvram_init(0, 0), 1);
    EXPECT_EQ(podlog_nvram_reset(0), 1);
    EXPECT_EQ(difference(read_file(node), formatted(7)), "");
}

TEST(pod_log_nvram, reports_misuse_and_refused_transfers)
{
    use_file(formatted());
    captured_output output;
    uint8_t data[8] = {};
    EXPECT_EQ(pod_nvram_mem_rd(1, 0, data, 4), 0);
    EXPECT_EQ(output.take_stderr(), "ERROR: pod_nvram_mem_rd: nvram 1: cannot access device!\n");
    EXPECT_EQ(pod_nvram_mem_wr(2, 0, data, 4), 0);
    EXPECT_EQ(output.take_stderr(), "ERROR: pod_nvram_mem_wr: cannot access device 2!\n");
    podlog_nvram_close(0);
    const std::string closed = output.take_stdout();
    EXPECT_EQ(closed.rfind("podlog_nvram_close: instance(0x", 0), 0u);
    EXPECT_EQ(closed.substr(closed.find(')')), ") already closed previously! \n");

    ASSERT_EQ(podlog_nvram_init(0, 1), 1);
    EXPECT_EQ(podlog_nvram_init(0, 1), -1);
    EXPECT_EQ(output.take_stderr(),
              "ERROR: podlog_nvram_init: nvram 0 current device is currently opened already!\n");
    EXPECT_EQ(pod_nvram_mem_rd(0, 16380, data, 8), 4) << "a short transfer is one";
    EXPECT_EQ(pod_nvram_mem_rd(0, 16384, data, 8), 0);
    EXPECT_EQ(output.take_stderr(),
              "ERROR: pod_nvram_mem_rd: cannot read or reach eof!! range=0x4000-0x4007\n");
    EXPECT_EQ(podlog_nvram_reset(0), -1);
    EXPECT_EQ(output.take_stderr(), "ERROR: pod_nvram_mem_wr: cannot write 16 bytes to 0x20!!\n"
                                    "Failed to write NVRAM index structure!\n");

    // The current history is that of a verified index.
    std::string image = formatted();
    image[36] = 1;
    use_file(image);
    EXPECT_EQ(podlog_nvram_dump_curr_log_msgs(0), -1);
    EXPECT_EQ(output.take_stdout().rfind("nvram_verify_blk_index: incorrect CRC 0x", 0), 0u);
    use_file(formatted(7));
    podlog_nvram_dump_curr_log_msgs(0);
    EXPECT_EQ(output.take_stdout(), "nvram_verify_blk_index: unexpected magic number 0x7! expected "
                                    "0x1fe2c365 podlog_nvram_dump_curr_log_msgs: curr log =-1 \n");
    EXPECT_EQ(podlog_nvram_close_log(0, 0), 1);
    EXPECT_EQ(_nvram_dev_info[0].fd, -1);
}

//--- POD status and fault injection ---------------------------------------------------------------

TEST(pod_log_nvram, keeps_a_status_word_per_instance)
{
    use_file(formatted());
    ASSERT_EQ(podlog_nvram_init(0, 0), 1);
    const struct {
        uint32_t stored, read;
        const char *text;
    } cases[] = {{0, 0, "Passed"},
                 {1, 0x0FFFFFFF, "Unrecognized!"},
                 {0x0FFFFFFF, 0x0FFFFFFF, "Failed"},
                 {0x7FFFFFFF, 0x0FFFFFFF, "Unrecognized!"},
                 {0x80000000, 0x80000000, "Invalid"},
                 {0x80000001, 0x80000000, "Unrecognized!"},
                 {0xFFFFFFFF, 0x80000000, "Unrecognized!"}};
    std::string image = formatted();
    for (const auto &c : cases) {
        // Instance 20 has word 6; the device is number 0, whatever is asked for.
        EXPECT_EQ(podlog_nvram_set_pod_status(1, 20, static_cast<int>(c.stored)), 1);
        image.replace(16312 + 24, 4, words({c.stored}));
        EXPECT_EQ(difference(read_file(node), image), "");
        EXPECT_EQ(podlog_nvram_get_pod_status(0, 20), c.read);
        EXPECT_STREQ(podlog_nvram_convert_pod_status_str(c.stored), c.text);
    }
    EXPECT_EQ(podlog_nvram_set_pod_status(0, 20, 0), 1);
    EXPECT_EQ(podlog_nvram_invalidate_pod_status(0, 20), 1);
    EXPECT_EQ(podlog_nvram_get_pod_status(0, 20), POD_STATUS_INVALID);

    captured_output output;
    int id = 7;
    int index = 7;
    EXPECT_EQ(nvram_get_podstatus_inst_info(21, &id, &index), 1);
    EXPECT_EQ(id, 0);
    EXPECT_EQ(index, 7);
    EXPECT_EQ(nvram_get_podstatus_inst_info(28, &id, &index), 0);
    EXPECT_EQ(id, -1);
    EXPECT_EQ(output.take_stderr(), "ERROR: nvram_get_podstatus_inst_info: invalid inst id 28!\n ");
    EXPECT_EQ(podlog_nvram_get_pod_status(0, 28), POD_STATUS_INVALID);
    EXPECT_EQ(podlog_nvram_set_pod_status(0, 28, 0), -1);
    EXPECT_EQ(podlog_nvram_invalidate_pod_status(1, 22), -1);
    const std::string error = "ERROR: nvram_get_podstatus_inst_mapped_index: invalid nvram id ";
    EXPECT_EQ(output.take_stderr(), error + "0 or inst id 28!\n " + error + "0 or inst id 28!\n " +
                                        error + "1 or inst id 22!\n ");
    EXPECT_NE(output.take_stdout().find(" inst index =  6 mapped to index0 =20 for RPSW1\n"),
              std::string::npos);
    podlog_nvram_close(0);
    EXPECT_EQ(podlog_nvram_get_pod_status(0, 20), POD_STATUS_INVALID);
}

TEST(pod_log_nvram, shows_injected_faults_but_never_reports_them)
{
    use_file(formatted());
    ASSERT_EQ(podlog_nvram_init(0, 0), 1);
    EXPECT_EQ(podlog_nvram_get_faultinject_pos(0), 16344);
    captured_output output;
    EXPECT_EQ(nvram_disp_faultinject_status(0), 1);
    EXPECT_EQ(output.take_stdout(), " no fault was injected\n");
    EXPECT_EQ(podlog_nvram_faultinject_pod_status(0, 22, 0), 1);
    EXPECT_EQ(podlog_nvram_faultinject_pod_status(0, 21, 0), 1);
    EXPECT_EQ(podlog_nvram_faultinject_pod_status(0, 23, 1), 1) << "not set, still clear";
    EXPECT_EQ(podlog_nvram_faultinject_pod_status(0, 28, 0), -1);
    output.take_stdout();
    EXPECT_EQ(read_file(node).substr(16344, 4), words({0x81}));
    EXPECT_EQ(nvram_disp_faultinject_status(0), 1);
    EXPECT_EQ(output.take_stdout(), "   inst 22 ALSW1  mapped index 0: fault injected\n"
                                    "   inst 21 RPSW2  mapped index 7: fault injected\n");
    int injected = 7;
    EXPECT_EQ(podlog_nvram_is_faultinject(0, 22, &injected), 1);
    EXPECT_EQ(injected, 0);
    EXPECT_EQ(podlog_nvram_is_faultinject(0, 22, nullptr), -1);
    EXPECT_EQ(podlog_nvram_faultinject_pod_status(0, 22, 1), 1);
    EXPECT_EQ(read_file(node).substr(16344, 4), words({0x80}));
    EXPECT_EQ(podlog_nvram_clr_all_faultinject(0), 1);
    EXPECT_EQ(difference(read_file(node), formatted()), "");
    podlog_nvram_close(0);
    EXPECT_EQ(podlog_nvram_clr_all_faultinject(0), -1);
    EXPECT_EQ(podlog_nvram_faultinject_pod_status(0, 22, 0), -1);
    EXPECT_EQ(nvram_disp_faultinject_status(0), -1);
}

TEST(pod_log_nvram, takes_over_instance_mappings)
{
    int ids[9] = {5, 6, 7, 8, 9, 10, 11, 12, 13};
    std::string names[9] = {"a", "b", std::string(50, 'c')};
    char *pointers[9];
    for (int i = 0; i < 9; ++i)
        pointers[i] = names[i].data();
    pod_nvram_inst_map_t map;
    podlog_nvram_set_podstatus_info(1, 3, ids, pointers);
    podlog_nvram_get_inst_mapping(1, &map);
    EXPECT_EQ(map.num_inst, 3);
    EXPECT_EQ(map.index0[2], 7);
    EXPECT_EQ(map.index0[3], 0);
    EXPECT_EQ(map.index1[2], -1);
    EXPECT_EQ(std::string(map.name0[0], 40), std::string(40, 'c')) << "the last name";
    EXPECT_STREQ(map.name0[1], "");

    map.index1[0] = 6; // also on index 1: the lower one wins
    std::strcpy(map.name1[0], "twin");
    podlog_nvram_config_inst_mapping(1, &map);
    EXPECT_EQ(nvram_get_podstatus_inst_mapped_index(1, 6), 0);
    captured_output output;
    nvram_dump_podstatus_inst_mapping(1);
    EXPECT_EQ(output.take_stdout(), "nvram_dump_podstatus_inst_mapping: nvram 1 # of inst =3 \n"
                                    " inst index =  0 mapped to index0 = 5 for " +
                                        std::string(40, 'c') +
                                        "\n              mapped to index1 = 6 for twin\n"
                                        " inst index =  1 mapped to index0 = 6 for \n"
                                        " inst index =  2 mapped to index0 = 7 for \n");
    podlog_nvram_set_podstatus_info(1, 9, ids, pointers);
    EXPECT_EQ(nvram_get_podstatus_inst_mapped_index(1, 12), 7);
    EXPECT_EQ(nvram_get_podstatus_inst_mapped_index(1, 13), -1) << "there are 8 words";
    podlog_nvram_set_podstatus_info(1, 0, ids, pointers);
    EXPECT_EQ(nvram_get_podstatus_inst_mapped_index(1, 5), -1);
    podlog_nvram_config_inst_mapping(2, &map);
    podlog_nvram_get_inst_mapping(2, &map);
    EXPECT_EQ(map.num_inst, 0);
    EXPECT_EQ(podlog_nvram_get_faultinject_pos(2), -1);
}

} // namespace
