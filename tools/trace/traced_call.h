// A system call of a traced thread, as its tracer sees it.
#pragma once

#include <cstdint>
#include <optional>

#include <sys/types.h>

namespace devaccess
{

enum class call_kind {
    other,
    open,
    openat,
    close,
    duplicate, // its result is a descriptor of the same opening
    read,
    read_at,
    write,
    write_at,
    map,
    unmap,
    protect,
    remap,
    wait, // poll
};

struct traced_call {
    call_kind kind = call_kind::other;
    bool is_wide = true; // of a 64-bit program
    uint64_t arguments[6] = {};

    uint64_t file_offset() const; // of read_at, write_at and map
    int descriptor() const { return static_cast<int>(arguments[kind == call_kind::map ? 4 : 0]); }
};

// The call that the thread is about to make; nothing: it has made one.
std::optional<traced_call> begun_call(pid_t thread);
// The result of the one that it has made.
int64_t call_result(pid_t thread);

// Makes the call of map, before it is made, one of memory that cannot be reached.
void map_nothing(pid_t thread, const traced_call &call);
// Makes that of protect change nothing.
void protect_nothing(pid_t thread, const traced_call &call);
// After the call: puts back what was changed, which programs expect to find.
void restore_arguments(pid_t thread, const traced_call &call);

} // namespace devaccess
