// The simulated chassis: a private root with the tree that the library expects, and the real
// kernel behind it. A test builds one at the start of its process, of the parts it needs;
// chassis-sim builds a whole one and runs a command inside.
#pragma once

#include "sim/device_server.h"
#include "sim/hotswap.h"
#include "sim/nvram.h"
#include "sim/pci.h"
#include "sim/pod_log.h"
#include "sim/post_log.h"
#include "sim/private_root.h"
#include "sim/support.h"
#include "sim/uio.h"

namespace chassis_sim
{

// A whole chassis. Times are in milliseconds from its start.
struct chassis_description {
    int uio_appears_ms = 0;     // when the node of uio0 appears; 0: it is there from the start
    int uio_irq_delay_ms = 100; // from the enabling of its interrupt to the interrupt; -1: never
    int uio_removed_ms = -1;    // when it is removed; -1: never
    int link_trains_ms = 0;     // when the link of the root port comes up; -1: never
    int behind_bridge_ms = 20;  // from the enabling of the hot-swap bridge to the device; -1: never
    unsigned int pci_devices = 0; // PCI devices beside those that every chassis has
    pod_logs pod = {};
    std::vector<nvram_image> post = images(sample_post_logs());
    bool nvram_truncated = false; // the second half of the POD log's NVRAM cannot be reached
};

inline constexpr unsigned int most_pci_devices = 7168;

// Builds the chassis around the calling process, which must have one thread.
void build_chassis(const chassis_description &description);

} // namespace chassis_sim
