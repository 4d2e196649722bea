// The tracer of clients that map windows of registers that behave.
#include "sim/devices/access_trap.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <elf.h>
#include <sys/ptrace.h>
#include <sys/signalfd.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

namespace fs = std::filesystem;

constexpr size_t longest_instruction = 15;
constexpr size_t longest_operand = 64;
constexpr uint64_t red_zone = 128; // below the stack pointer, and not ours

long trace(__ptrace_request request, pid_t thread, uint64_t address, void *data)
{
    return ::ptrace(request, thread, reinterpret_cast<void *>(static_cast<uintptr_t>(address)),
                    data);
}

void go_on(pid_t thread, int signal_number = 0)
{
    trace(PTRACE_CONT, thread, 0, reinterpret_cast<void *>(static_cast<uintptr_t>(signal_number)));
}

// Copies between this process and a client; how many bytes could be.
ssize_t copy(pid_t thread, bool to_client, uint64_t address, void *data, size_t size)
{
    iovec here = {data, size};
    iovec there = {reinterpret_cast<void *>(static_cast<uintptr_t>(address)), size};
    return to_client ? ::process_vm_writev(thread, &here, 1, &there, 1, 0)
                     : ::process_vm_readv(thread, &here, 1, &there, 1, 0);
}

bool is_64_bit([[maybe_unused]] const user_regs_struct &registers)
{
#ifdef __x86_64__
    constexpr unsigned long code_of_32_bit = 0x23;
    return registers.cs != code_of_32_bit;
#else
    return false;
#endif
}

uint64_t low(uint64_t value, size_t width)
{
    return width >= 8 ? value : value & ((uint64_t{1} << 8 * width) - 1);
}

// What a register has after a part of it was loaded.
uint64_t merged(uint64_t before, uint64_t value, size_t width)
{
    if (width >= 4) // 32 bits clear those above them
        return low(value, width);
    return (before & ~low(~uint64_t{0}, width)) | low(value, width);
}

// Whether its registers are too wide for this process.
bool is_too_wide(const asking_process &client)
{
    std::ifstream program("/proc/" + std::to_string(client.thread()) + "/exe", std::ios::binary);
    char identity[EI_NIDENT] = {};
    program.read(identity, sizeof identity);
    return sizeof(machine_word) == 4 && identity[EI_CLASS] == ELFCLASS64;
}

// Whether this process traces it; the number of a thread that has ended may be another's.
bool is_traced(pid_t thread)
{
    constexpr char word[] = "TracerPid:";
    const std::string status = file_text("/proc/" + std::to_string(thread) + "/status");
    const size_t place = status.find(word);
    return place != std::string::npos &&
           std::atoi(status.c_str() + place + sizeof word - 1) == ::getpid();
}

std::string name_of(pid_t thread)
{
    std::string name = file_text("/proc/" + std::to_string(thread) + "/comm");
    return name.substr(0, name.find('\n'));
}

} // namespace

access_trap::access_trap(window_table &windows, register_bus &bus, event_loop &loop)
    : windows_(windows), bus_(bus)
{
    sigset_t told;
    ::sigemptyset(&told);
    ::sigaddset(&told, SIGCHLD);
    ::sigprocmask(SIG_BLOCK, &told, nullptr);
    children_.reset(must(::signalfd(-1, &told, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd"));
    loop.watch(children_.get(), [this] {
        signalfd_siginfo seen;
        while (::read(children_.get(), &seen, sizeof seen) > 0) {
        }
        handle_stops();
    });
}

int access_trap::follow(const asking_process &client)
{
    ranges_.clear();
    try {
        constexpr uint8_t nop = 0x90;
        decode(&nop, sizeof nop, true, false);
    } catch (const failure &error) {
        complain(error.what());
        return EOPNOTSUPP;
    }
    if (is_too_wide(client)) {
        complain("a chassis-sim of 32 bits cannot follow the registers of a 64-bit program");
        return EOPNOTSUPP;
    }
    constexpr uintptr_t options =
        PTRACE_O_TRACECLONE | PTRACE_O_TRACEFORK | PTRACE_O_TRACEVFORK | PTRACE_O_TRACEEXEC;
    const fs::path tasks = "/proc/" + std::to_string(client.id()) + "/task";
    // Threads that are made meanwhile are those of a thread that is not traced yet.
    for (bool found_more = true; found_more;) {
        found_more = false;
        std::error_code gone;
        for (const auto &entry : fs::directory_iterator(tasks, gone)) {
            const pid_t thread = std::stoi(entry.path().filename());
            if (is_traced(thread))
                continue;
            if (trace(PTRACE_SEIZE, thread, 0, reinterpret_cast<void *>(options)) != 0) {
                const int error = errno;
                complain("cannot follow what " + name_of(thread) +
                         " does with its registers: a debugger, strace or the machine's rules for "
                         "ptrace keep others out");
                return error;
            }
            threads_.insert(thread);
            found_more = true;
        }
    }
    return 0;
}

void access_trap::handle_stops()
{
    int status;
    for (pid_t thread; (thread = ::waitpid(-1, &status, __WALL | WNOHANG)) > 0;)
        handle_stop(thread, status);
}

void access_trap::handle_stop(pid_t thread, int status)
{
    if (!WIFSTOPPED(status)) {
        threads_.erase(thread);
        ranges_.erase(thread);
        return;
    }
    threads_.insert(thread); // that of a child that is traced with it, too
    const int signal_number = WSTOPSIG(status);
    switch (status >> 16) {
    case 0:
        return signal_number == SIGBUS ? handle_fault(thread) : go_on(thread, signal_number);
    case PTRACE_EVENT_EXEC: // it has another memory
        threads_.erase(thread);
        ranges_.erase(thread);
        trace(PTRACE_DETACH, thread, 0, nullptr);
        return;
    case PTRACE_EVENT_STOP:
        if (signal_number != SIGTRAP) { // it stays stopped, as its shell wants it
            trace(PTRACE_LISTEN, thread, 0, nullptr);
            return;
        }
        return go_on(thread);
    default:
        return go_on(thread);
    }
}

void access_trap::handle_fault(pid_t thread)
{
    siginfo_t fault;
    trace(PTRACE_GETSIGINFO, thread, 0, &fault);
    const auto address = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(fault.si_addr));
    const std::optional<met> at =
        fault.si_code > 0 ? find(thread, address) : std::nullopt; // else a process has sent it
    bool answered = false;
    try {
        answered = at && answer(thread, address, *at);
    } catch (const std::exception &error) {
        complain(error.what());
    }
    go_on(thread, answered ? 0 : SIGBUS);
}

std::vector<access_trap::range> access_trap::ranges_of(pid_t thread) const
{
    std::vector<range> ranges;
    std::istringstream maps(file_text("/proc/" + std::to_string(thread) + "/maps"));
    for (std::string line; std::getline(maps, line);) {
        unsigned long long start, end, offset;
        const size_t path = line.find('/');
        if (path == std::string::npos ||
            std::sscanf(line.c_str(), "%llx-%llx %*s %llx", &start, &end, &offset) != 3)
            continue;
        if (register_window *const window = windows_.find(line.substr(path)))
            ranges.push_back({start, end, offset, window});
    }
    return ranges;
}

std::optional<access_trap::met> access_trap::find(pid_t thread, uint64_t address)
{
    auto known = ranges_.find(thread);
    for (int looks = 0; looks < 2; ++looks) {
        if (known == ranges_.end() || looks == 1)
            known = ranges_.insert_or_assign(thread, ranges_of(thread)).first;
        for (const range &of : known->second) {
            if (address < of.start || address >= of.end)
                continue;
            const uint64_t offset = of.offset + (address - of.start) - of.window->base();
            return offset < of.window->size() ? std::optional(met{of.window, offset})
                                              : std::nullopt;
        }
    }
    return std::nullopt;
}

bool access_trap::answer(pid_t thread, uint64_t address, const met &at)
{
    user_regs_struct registers;
    uint8_t code[longest_instruction];
    if (trace(PTRACE_GETREGS, thread, 0, &registers) != 0)
        return false;
    const auto size = static_cast<size_t>(
        std::max<ssize_t>(copy(thread, false, program_counter(registers), code, sizeof code), 0));
    const bool wide = is_64_bit(registers);
    std::optional<memory_operand> operand = decode(code, size, wide, false);
    // MOVS has two; the pointer of the one that was met has its address.
    if (operand && operand->pointer_moves &&
        low(general_register(registers, operand->pointer), wide ? 8 : 4) != address)
        operand = decode(code, size, wide, true);
    if (operand && operand->width <= longest_operand &&
        operand->width <= at.window->size() - at.offset) {
        if (!operand->is_move)
            return step_elsewhere(thread, registers, *operand, address, at);
        move(thread, registers, *operand, at);
        program_counter(registers) += static_cast<machine_word>(operand->length);
        trace(PTRACE_SETREGS, thread, 0, &registers);
        return true;
    }
    complain("cannot follow what " + name_of(thread) + " does at " + at.window->name() + ": " +
             instruction_text(code, size, wide));
    return false;
}

void access_trap::move(pid_t thread, user_regs_struct &registers, const memory_operand &operand,
                       const met &at)
{
    machine_word *const of_move =
        operand.move_register >= 0 ? &general_register(registers, operand.move_register) : nullptr;
    const unsigned int shift = operand.high_byte ? 8 : 0;
    if (operand.writes) {
        const uint64_t value = of_move ? static_cast<uint64_t>(*of_move) >> shift : operand.number;
        bus_.write(*at.window, at.offset, operand.width, low(value, operand.width), thread);
        return;
    }
    if (!of_move) // a move from memory has a register that it goes to
        return;
    uint64_t value = bus_.read(*at.window, at.offset, operand.width, thread);
    if (operand.extends_sign && value >> (8 * operand.width - 1))
        value |= ~low(~uint64_t{0}, operand.width);
    const auto before = static_cast<uint64_t>(*of_move);
    *of_move = static_cast<machine_word>(operand.high_byte
                                             ? (before & ~uint64_t{0xff00}) | (value & 0xff) << 8
                                             : merged(before, value, operand.move_width));
}

// Any other instruction is executed with a pointer to memory below the client's stack, which has
// what it would have read.
bool access_trap::step_elsewhere(pid_t thread, user_regs_struct registers,
                                 const memory_operand &operand, uint64_t address, const met &at)
{
    if (operand.pointer < 0) {
        uint8_t code[longest_instruction];
        copy(thread, false, program_counter(registers), code, sizeof code);
        complain("cannot follow what " + name_of(thread) + " does at " + at.window->name() + ": " +
                 instruction_text(code, sizeof code, is_64_bit(registers)));
        return false;
    }
    const uint64_t elsewhere =
        (static_cast<uint64_t>(stack_pointer(registers)) - red_zone - longest_operand) &
        ~uint64_t{longest_operand - 1};
    const uint64_t distance = elsewhere - address;
    uint8_t bytes[longest_operand] = {};
    constexpr size_t word = sizeof(uint32_t); // as wide as a bus that most devices are at
    const size_t piece = operand.width > 8 ? word : operand.width;
    for (size_t i = 0; operand.reads && i < operand.width; i += piece) {
        const uint64_t value = bus_.read(*at.window, at.offset + i, piece, thread);
        std::memcpy(bytes + i, &value, piece);
    }
    copy(thread, true, elsewhere, bytes, sizeof bytes);
    machine_word &pointer = general_register(registers, operand.pointer);
    pointer += static_cast<machine_word>(distance);
    trace(PTRACE_SETREGS, thread, 0, &registers);

    uint64_t mask_before = 0, only_trap = ~(uint64_t{1} << (SIGTRAP - 1));
    trace(PTRACE_GETSIGMASK, thread, sizeof mask_before, &mask_before);
    trace(PTRACE_SETSIGMASK, thread, sizeof only_trap, &only_trap);
    trace(PTRACE_SINGLESTEP, thread, 0, nullptr);
    int status = 0;
    if (::waitpid(thread, &status, __WALL) != thread || !WIFSTOPPED(status))
        return true; // it was killed
    const bool stepped = WSTOPSIG(status) == SIGTRAP && status >> 16 == 0;
    trace(PTRACE_SETSIGMASK, thread, sizeof mask_before, &mask_before);
    trace(PTRACE_GETREGS, thread, 0, &registers);
    if (!operand.pointer_is_result)
        pointer -= static_cast<machine_word>(distance);
    trace(PTRACE_SETREGS, thread, 0, &registers);
    copy(thread, false, elsewhere, bytes, sizeof bytes);
    for (size_t i = 0; stepped && operand.writes && i < operand.width; i += piece) {
        uint64_t value = 0;
        std::memcpy(&value, bytes + i, piece);
        bus_.write(*at.window, at.offset + i, piece, value, thread);
    }
    return stepped;
}

} // namespace chassis_sim
