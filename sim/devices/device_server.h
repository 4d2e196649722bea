#pragma once

#include <string>
#include <utility>
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

inline constexpr char control_path[] = "/dev/chassis";

// What addresses are below. Maps lie at their number times the page size; a map longer than a page
// needs free numbers behind it.
inline constexpr size_t uio_window = size_t{80} << 20;

// What a register of a UIO device has at first; the address is the map's number times the page
// size, and the offset in the map.
struct preset_register {
    uint32_t address = 0;
    uint32_t value = 0;
};

// When a client has written a value to a register, another register gets a value, a millisecond
// later at most.
struct register_answer {
    uint32_t address = 0;
    uint32_t mask = 0xffffffff;
    uint32_t value = 0;
    uint32_t then_address = 0;
    uint32_t then_value = 0;
};

// The n-th call of its kind on a device fails; n of 0: each does.
struct call_fault {
    std::string device; // "uio0", or the name of an NVRAM
    std::string call;   // "open", "read", "write" or "mmap"
    uint32_t nth = 0;
    int error = 0;
    uint32_t seen = 0;
};

// A control line at a time after the start, once or again and again.
struct timed_line {
    int at_ms = 0;
    int every_ms = 0; // 0: once
    std::string line;
};

struct uio_node {
    std::string name;       // what control commands call it, e.g. "uio0"
    std::string node;       // "/dev/uio0"
    std::string device_dir; // of the device on its bus, in sysfs
    std::string event_attr; // the path of its "event" attribute, which counts its interrupts
    // Links to its directories that come and go with it: paths and targets.
    std::vector<std::pair<std::string, std::string>> links;
    std::string removal_attr; // path of the "uio_maps" attribute; empty when there is none
    device_number number;
    bool plugged = true;     // it is there from the start
    bool irq_control = true; // its driver accepts interrupt control
    std::vector<preset_register> registers;
    std::vector<register_answer> answers;
    int irq_delay_ms = -1; // each enabling is answered by one interrupt after this long; -1: not
};

struct storage_node {
    std::string name() const { return node.substr(node.rfind('/') + 1); }
    std::string node;     // "/dev/nvlog-pod"; made by whoever calls mknod
    std::string contents; // the bytes of the device
    bool may_grow = true; // when it is written behind its end, it gets longer
};

// Answers, in a process of its own, what the kernel cannot in a private root: opening the nodes of
// simulated devices, and interrupts and removals on the descriptors so opened. The opener gets
// descriptors of real memory and real sockets: maps of a UIO node, waiting for its interrupts in
// whatever way, and reads and writes of storage, are the kernel's own. Works on the system calls
// themselves (seccomp user notification), so for 64-bit, 32-bit and statically linked programs
// alike. The process lives as long as one that it answers.
//
// Descriptors of UIO nodes have numbers of 768 and above, or the highest 256 that the limit on open
// files allows.
//
// While it runs, a line written to /dev/chassis controls a device; "plug" and "remove" take a PCI
// address too:
//   interrupt NAME       its interrupt occurs
//   plug NAME            it appears: in /sys/class/uio, then its node
//   remove NAME          it leaves its bus: its entry in /sys/class/uio and its node go, the
//   removal
//                        notice comes, and what is open fails as it does without a driver
//   link ID STATE        the link of the port at the PCI address is "up", "training" or "down"
//   answer-read NAME N   reads of its node return N; "answer-write" likewise
// Who opened /dev/chassis for reading too, gets a line for each: "ok" when it is done, or what is
// wrong with it; for others that is said on standard error.
class device_server
{
public:
    void add(const uio_node &device) { uio_.push_back(device); }
    void add(const storage_node &device) { storage_.push_back(device); }
    void add(const call_fault &fault) { faults_.push_back(fault); }
    void add(const timed_line &line) { lines_.push_back(line); }

    // From here on the calling process and its children see the devices added.
    void start();

private:
    std::vector<uio_node> uio_;
    std::vector<storage_node> storage_;
    std::vector<call_fault> faults_;
    std::vector<timed_line> lines_;
};

// Has one control line obeyed; throws a failure when that cannot be done.
void control(const std::string &line);

} // namespace chassis_sim
