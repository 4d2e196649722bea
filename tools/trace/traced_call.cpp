// Tells system calls apart, and changes their arguments.
#include "tools/trace/traced_call.h"

#include "access_trace/instruction.h"
#include "access_trace/stopped_thread.h"

#include <algorithm>

#include <linux/audit.h>
#include <sys/mman.h>

namespace devaccess
{
namespace
{

using access_trace::machine_word;
using access_trace::trace;

// Numbers of 64-bit and of 32-bit programs; -1: it has none.
constexpr struct {
    call_kind kind;
    int wide, narrow;
} calls[] = {
    {call_kind::open, 2, 5},          {call_kind::openat, 257, 295},
    {call_kind::openat, 437, 437},    {call_kind::close, 3, 6},
    {call_kind::duplicate, 32, 41},   {call_kind::duplicate, 33, 63},
    {call_kind::duplicate, 292, 330}, {call_kind::duplicate, 72, 221},
    {call_kind::duplicate, -1, 55},   {call_kind::read, 0, 3},
    {call_kind::read_at, 17, 180},    {call_kind::write, 1, 4},
    {call_kind::write_at, 18, 181},   {call_kind::map, 9, 192},
    {call_kind::unmap, 11, 91},       {call_kind::protect, 10, 125},
    {call_kind::remap, 25, 163},      {call_kind::wait, 7, 168},
    {call_kind::wait, 271, 309},      {call_kind::wait, -1, 414},
};

machine_word &argument(user_regs_struct &registers, [[maybe_unused]] bool is_wide, int number)
{
#ifdef __x86_64__
    machine_word *const wide[] = {&registers.rdi, &registers.rsi, &registers.rdx,
                                  &registers.r10, &registers.r8,  &registers.r9};
    machine_word *const narrow[] = {&registers.rbx, &registers.rcx, &registers.rdx,
                                    &registers.rsi, &registers.rdi, &registers.rbp};
    return is_wide ? *wide[number] : *narrow[number];
#else
    machine_word *const all[] = {&registers.ebx, &registers.ecx, &registers.edx,
                                 &registers.esi, &registers.edi, &registers.ebp};
    return *all[number];
#endif
}

template <typename Change>
void change_registers(pid_t thread, Change change)
{
    user_regs_struct registers;
    if (trace(PTRACE_GETREGS, thread, 0, &registers) != 0)
        return;
    change(registers);
    trace(PTRACE_SETREGS, thread, 0, &registers);
}

__ptrace_syscall_info info_of(pid_t thread)
{
    __ptrace_syscall_info info = {};
    trace(PTRACE_GET_SYSCALL_INFO, thread, sizeof info, &info);
    return info;
}

} // namespace

uint64_t traced_call::file_offset() const
{
    constexpr uint64_t unit = 4096; // of 32-bit programs' mmap2
    if (kind == call_kind::map)
        return is_wide ? arguments[5] : arguments[5] * unit;
    return is_wide ? arguments[3] : (arguments[3] & 0xffffffff) | arguments[4] << 32;
}

std::optional<traced_call> begun_call(pid_t thread)
{
    const __ptrace_syscall_info info = info_of(thread);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY)
        return std::nullopt;
    traced_call call;
    call.is_wide = info.arch == AUDIT_ARCH_X86_64;
    std::copy(std::begin(info.entry.args), std::end(info.entry.args), call.arguments);
    for (const auto &known : calls)
        if (static_cast<int>(info.entry.nr) == (call.is_wide ? known.wide : known.narrow))
            call.kind = known.kind;
    return call;
}

int64_t call_result(pid_t thread)
{
    return info_of(thread).exit.rval;
}

void map_nothing(pid_t thread, const traced_call &call)
{
    change_registers(thread, [&](user_regs_struct &registers) {
        argument(registers, call.is_wide, 2) = PROT_NONE;
        machine_word &flags = argument(registers, call.is_wide, 3);
        flags = (flags & ~machine_word{MAP_TYPE}) | MAP_PRIVATE | MAP_ANONYMOUS;
        argument(registers, call.is_wide, 4) = static_cast<machine_word>(-1);
        argument(registers, call.is_wide, 5) = 0;
    });
}

void protect_nothing(pid_t thread, const traced_call &call)
{
    change_registers(thread, [&](user_regs_struct &registers) {
        argument(registers, call.is_wide, 2) = PROT_NONE;
    });
}

void restore_arguments(pid_t thread, const traced_call &call)
{
    change_registers(thread, [&](user_regs_struct &registers) {
        for (int i = 2; i < 6; ++i)
            argument(registers, call.is_wide, i) = static_cast<machine_word>(call.arguments[i]);
    });
}

} // namespace devaccess
