// The sysfs texts of two NVRAM blocks, as the POD log and the POST reader look for theirs.
//
// Input: the texts, separated by the byte 0x1e: "name", "dev", "baseaddr", "size" and "mode" of
// nvram0, then of nvram1.
#include "fuzz/post_log.h"
#include "sim/base/files.h"
#include "sim/parts/nvram.h"
#include "sim/parts/post_log.h"
#include "sim/program/private_root.h"

#include <device_access/pod_log_nvram.h>

#include <iterator>

#include <unistd.h>

namespace
{

constexpr const char *attributes[] = {"name", "dev", "baseaddr", "size", "mode"};
constexpr log_type_t block = OFWDIAG_TEST_LOG;

// The log's table is the caller's, so that every run begins with a fresh one.
void use_post_block()
{
    postlog_map_nvram_access(
        fuzz::fresh_post_table(), postlog_dev_file_nvram_init, post_dev_file_nvram_mem_rd,
        postlog_dev_file_nvram_close, postlog_dev_rd_log_index, postlog_dev_rd_log_header,
        postlog_dev_rd_log, postlog_dev_validate_log_header, postlog_dev_validate_log_entry);
    postlog_nvram_dump_all_log_msgs(block);
    const int history = postlog_nvram_open_dir(block);
    time_t ts;
    if (history >= 0)
        postlog_nvram_read_dir(block, history, &ts);
    postlog_nvram_close_dir(block);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    chassis_sim::enter_private_root();
    chassis_sim::post_block log = {"nvlog-diag-test", fuzz::post_block_size, 32, 0, {}};
    log.histories.resize(3);
    log.histories[0] = {{1700000000, 8, "DRAM march: pass"}};
    chassis_sim::write_file("/dev/" + log.name, log.image(chassis_sim::byte_order::little));
    for (unsigned int number : {0u, 1u})
        chassis_sim::make_directory(chassis_sim::nvram_class_dir(number));
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    constexpr size_t count = std::size(attributes);
    const auto texts = fuzz::parts({reinterpret_cast<const char *>(data), size}, 2 * count);
    const fuzz::descriptor_check descriptors;
    for (size_t i = 0; i < texts.size(); ++i) {
        const std::string dir = chassis_sim::nvram_class_dir(static_cast<unsigned int>(i / count));
        fuzz::set_contents((dir + "/" + attributes[i % count]).c_str(), texts[i]);
    }
    use_post_block();
    int fd = -1; // there is no node of the POD log, so it looks for the block and makes one
    if (podlog_nvram_open_dev_file(0, &fd, 1) == 1)
        ::close(fd);
    return 0;
}
