#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace chassis_sim
{

// A character device of the chassis, as far as its node goes.
struct device_number {
    unsigned int major;
    unsigned int minor;
};

// The number under which the index-th simulated device gets its node. Root gets a number of its
// own; an ordinary user, who may make no device nodes, gets that of a memory device, which is then
// shown under the node's name.
device_number simulated_device_number(unsigned int index);

struct uio_node {
    std::string name;         // what control commands call it, e.g. "uio0"
    std::string node;         // "/dev/uio0"
    std::string removal_attr; // path of the "uio_maps" attribute; empty when there is none
    device_number number;
    bool plugged = true;     // its node is there from the start
    bool irq_control = true; // its driver accepts interrupt control
    int irq_delay_ms = -1;   // each enabling is answered by one interrupt after this long; -1: not
};

struct storage_node {
    std::string node;     // "/dev/nvlog-pod"; made by whoever calls mknod
    std::string contents; // the bytes of the device
};

// Answers, in a process of its own, what the kernel cannot in a private root: opening the nodes of
// simulated devices, and interrupts and removals on the descriptors so opened. The opener gets a
// real descriptor of real memory: maps of a UIO node, and reads and writes of storage, are the
// kernel's own. Works on the system calls themselves (seccomp user notification), so for 64-bit,
// 32-bit and statically linked programs alike.
//
// Descriptors of UIO nodes have numbers of 960 and above, or the highest 64 that the limit on open
// files allows; their interrupts are seen by read, pread and poll, not by select or epoll.
//
// While it runs, a line written to /dev/chassis controls a device:
//   interrupt NAME       its interrupt occurs
//   plug NAME            its node appears
//   remove NAME          it leaves its bus: the removal notice comes, its node and its entry in
//                        /sys/class/uio go, and what is open fails as it does without a driver
//   answer-read NAME N   reads of its node return N; "answer-write" likewise
class device_server
{
public:
    void add(const uio_node &device) { uio_.push_back(device); }
    void add(const storage_node &device) { storage_.push_back(device); }

    // From here on the calling process and its children see the devices added.
    void start();

private:
    std::vector<uio_node> uio_;
    std::vector<storage_node> storage_;
};

// Writes one control line.
void control(const std::string &line);

} // namespace chassis_sim
