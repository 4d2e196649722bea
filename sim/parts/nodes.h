// The devices whose nodes the device server answers for, as the parts of a chassis describe them.
#pragma once

#include "register_map/register_map.h"
#include "sim/parts/recorded_trace.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace chassis_sim
{

// Where control lines are written.
inline constexpr char control_path[] = "/dev/chassis";

struct device_number {
    unsigned int major = 0;
    unsigned int minor = 0;
};

// Whether device nodes can be made here: root may, an ordinary user may not.
bool may_make_nodes();

// The number under which the index-th simulated device gets its node. Root gets a number of its
// own; an ordinary user gets that of a memory device, which is then shown under the node's name.
device_number simulated_device_number(unsigned int index);

// Makes such a node.
void make_node(const std::string &path, const device_number &number);

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

// A register window. It is mapped at the offset of its number times the page size.
struct uio_map_range {
    unsigned int number = 0;
    uint64_t size = 0;
    std::vector<register_map::reg> registers = {};

    static constexpr uint64_t page = 4096;
    uint64_t offset() const { return number * page; }
    uint64_t length() const { return (size + page - 1) / page * page; } // of what can be mapped
};
inline constexpr uint64_t longest_uio_map = uint64_t{1} << 30;

struct uio_node {
    std::string name;       // what control commands call it, e.g. "uio0"
    std::string node;       // "/dev/uio0"
    std::string device_dir; // of the device on its bus, in sysfs
    std::string event_attr; // the path of its "event" attribute, which counts its interrupts
    // Links to its directories that come and go with it: paths and targets.
    std::vector<std::pair<std::string, std::string>> links;
    std::string removal_attr; // path of the "uio_maps" attribute; empty when there is none
    device_number number;
    std::vector<uio_map_range> maps;
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
    bool may_grow = true; // when it is written past its end, it gets longer
    device_number number = {};
};

// A BAR of a PCI function that has registers with names.
struct bar_node {
    std::string id; // of the function
    size_t bar = 0;
    uint64_t size = 0;
    std::vector<register_map::reg> registers;
};

// A range of physical memory that /dev/mem shows.
struct memory_range {
    uint64_t address = 0;
    uint64_t size = 0;
    std::string contents; // of its first bytes; the others are 0
    std::vector<register_map::reg> registers;
    std::string register_map; // the file of more, until it is read
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

// All that a server answers for.
class chassis_nodes
{
public:
    void add(const uio_node &device) { uio_.push_back(device); }
    void add(const storage_node &device) { storage_.push_back(device); }
    void add(const bar_node &bar) { bars_.push_back(bar); }
    void add(const memory_range &range) { memory_.push_back(range); }
    void add(const call_fault &fault) { faults_.push_back(fault); }
    void add(const timed_line &line) { lines_.push_back(line); }
    // Plays a trace, which must outlive the server; NULL: none.
    void play(recorded_trace *trace) { trace_ = trace; }

    const std::vector<uio_node> &uio() const { return uio_; }
    const std::vector<storage_node> &storage() const { return storage_; }
    const std::vector<bar_node> &bars() const { return bars_; }
    const std::vector<memory_range> &memory() const { return memory_; }
    const std::vector<call_fault> &faults() const { return faults_; }
    const std::vector<timed_line> &lines() const { return lines_; }
    recorded_trace *trace() const { return trace_; }

private:
    std::vector<uio_node> uio_;
    std::vector<storage_node> storage_;
    std::vector<bar_node> bars_;
    std::vector<memory_range> memory_;
    std::vector<call_fault> faults_;
    std::vector<timed_line> lines_;
    recorded_trace *trace_ = nullptr;
};

} // namespace chassis_sim
