// The memory that a traced program and its tracer share: what the program does, in a ring. Widths
// and places are the same for programs of 32 and 64 bits.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace devaccess::trace_ring
{

// The environment variable that names its file.
inline constexpr char file_variable[] = "DEVACCESS_TRACE_RING";

enum class action : uint8_t {
    read, // of a register or of the configuration space
    write,
    attach, // a program has loaded the tracer
    open,
    close,
    map, // value: the length
    unmap,
    interrupt, // value: the driver's count, unless that is not known; offset: ns waited
    control,   // of the interrupt: value is what was written
};

inline constexpr uint64_t unknown_count = ~uint64_t{0};

// A record is for the turn that its place in the ring comes up for: 2 * turn while it is free, one
// more when it is written.
struct record {
    std::atomic<uint32_t> turn;
    std::atomic<uint32_t> thread; // set first: who is writing it
    uint64_t time;                // of CLOCK_MONOTONIC, in ns
    uint64_t offset;
    uint64_t value;
    uint16_t window; // number in the table
    action what;
    uint8_t width; // in bytes
    uint32_t unused;
};
static_assert(sizeof(record) == 40);

inline constexpr int32_t no_map = -1;
inline constexpr int32_t configuration = -2;

// A device, or one of its windows.
struct window {
    std::atomic<uint32_t> state; // 0 free, 1 being written, 2 there
    int32_t map;
    char device[56]; // "uio0", "0000:03:00.0", "mem"; empty: not known
};

inline constexpr uint32_t records = 1 << 18;
inline constexpr uint32_t windows = 512; // the last stands for all that find no place

struct ring {
    alignas(64) std::atomic<uint64_t> next;   // ticket of the next record
    alignas(64) std::atomic<uint32_t> closed; // the tracer reads no more
    int32_t tracer;                           // its process
    alignas(64) window table[windows];
    alignas(64) record ring[records];
};

} // namespace devaccess::trace_ring
