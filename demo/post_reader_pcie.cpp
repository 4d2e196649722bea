// Reads the same POST logs out of a PCIe NVRAM controller. The controller is simulated in this very
// program: its register window is memory that sees every access and reacts.
#include "post_walk.h"

#include "sim/nvram_controller.h"
#include "sim/post_log.h"

#include <device_access/post_log_nvram_pcie_access.h>

#include <cstdio>

namespace
{

// Where the controller's NVRAM holds the logs.
constexpr uint32_t addresses[] = {0x8000, 0x18000, 0x20000};

void load_logs(chassis_sim::nvram_controller &controller)
{
    const auto logs = chassis_sim::sample_post_logs();
    for (size_t blk = 0; blk < logs.size(); ++blk)
        controller.store(addresses[blk], logs[blk].image(chassis_sim::byte_order::big));
}

void show_accesses(const std::vector<chassis_sim::register_access> &log)
{
    for (const chassis_sim::register_access &access : log)
        std::printf("  %s 0x%zx: 0x%08llx\n",
                    access.kind == chassis_sim::register_access::read ? "read " : "write",
                    access.offset, static_cast<unsigned long long>(access.value));
}

} // namespace

int main()
{
    chassis_sim::nvram_controller controller;
    controller.set_busy_looks(1);
    load_logs(controller);
    postlog_map_pcie_nvram_access(controller.base());

    std::printf("register accesses of reading a 40-byte entry head:\n");
    nvram_log_t entry;
    if (postlog_rd_log(OFWEVENT_LOG, 24, &entry) != 1)
        return 1;
    show_accesses(controller.take_log());

    // A block closed here stays closed, so each is listed and read in one go.
    for (const log_type_t blk : {OFWEVENT_LOG, OFWDIAG_TEST_LOG, OFWDIAG_ERROR_LOG}) {
        const int newest = list_histories(blk);
        if (newest < 0)
            return 1;
        read_history(blk, newest);
        postlog_nvram_close_log(blk, newest);
    }
}
