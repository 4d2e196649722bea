// Decodes the instruction that has met a window, does its accesses, and steps over it.
#include "access_trace/stopped_thread.h"

#include "access_trace/instruction.h"
#include "access_trace/thread_memory.h"

#include <csignal>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include <elf.h>
#include <sys/wait.h>

namespace access_trace
{
namespace
{

constexpr size_t longest_instruction = 15;
constexpr size_t longest_operand = 64;
constexpr uint64_t red_zone = 128; // below the stack pointer, and not ours

bool is_64_bit([[maybe_unused]] const user_regs_struct &registers)
{
#ifdef __x86_64__
    constexpr unsigned long code_of_32_bit = 0x23;
    return registers.cs != code_of_32_bit;
#else
    return false;
#endif
}

// A register of 32 bits has a sign, an address has none.
uint64_t address_in(machine_word value)
{
    return static_cast<uintptr_t>(value);
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

[[noreturn]] void give_up(pid_t thread, const met_window &at, const uint8_t *code, size_t size,
                          bool is_wide)
{
    throw std::runtime_error("cannot follow what " + name_of(thread) + " does at " + at.name +
                             ": " + instruction_text(code, size, is_wide));
}

void move(user_regs_struct &registers, const memory_operand &operand, uint64_t offset, accesses &to)
{
    machine_word *const of_move =
        operand.move_register >= 0 ? &general_register(registers, operand.move_register) : nullptr;
    const unsigned int shift = operand.high_byte ? 8 : 0;
    if (operand.writes) {
        const uint64_t value = of_move ? static_cast<uint64_t>(*of_move) >> shift : operand.number;
        to.write(offset, operand.width, low(value, operand.width));
        return;
    }
    if (!of_move) // a move from memory has a register that it goes to
        return;
    uint64_t value = to.read(offset, operand.width);
    if (operand.extends_sign && value >> (8 * operand.width - 1))
        value |= ~low(~uint64_t{0}, operand.width);
    const auto before = static_cast<uint64_t>(*of_move);
    *of_move = static_cast<machine_word>(operand.high_byte
                                             ? (before & ~uint64_t{0xff00}) | (value & 0xff) << 8
                                             : merged(before, value, operand.move_width));
}

// Any other instruction is executed with a pointer to memory below the client's stack, which has
// what it would have read.
void step_elsewhere(pid_t thread, user_regs_struct registers, const memory_operand &operand,
                    const met_window &at, accesses &to)
{
    const uint64_t elsewhere = (address_in(stack_pointer(registers)) - red_zone - longest_operand) &
                               ~uint64_t{longest_operand - 1};
    const uint64_t distance = elsewhere - at.address;
    uint8_t bytes[longest_operand] = {};
    constexpr size_t word = sizeof(uint32_t); // as wide as a bus that most devices are at
    const size_t piece = operand.width > 8 ? word : operand.width;
    for (size_t i = 0; operand.reads && i < operand.width; i += piece) {
        const uint64_t value = to.read(at.offset + i, piece);
        std::memcpy(bytes + i, &value, piece);
    }
    copy_memory(thread, true, elsewhere, bytes, sizeof bytes);
    machine_word &pointer = general_register(registers, operand.pointer);
    pointer += static_cast<machine_word>(distance);
    trace(PTRACE_SETREGS, thread, 0, &registers);

    uint64_t mask_before = 0, only_trap = ~(uint64_t{1} << (SIGTRAP - 1));
    trace(PTRACE_GETSIGMASK, thread, sizeof mask_before, &mask_before);
    trace(PTRACE_SETSIGMASK, thread, sizeof only_trap, &only_trap);
    trace(PTRACE_SINGLESTEP, thread, 0, nullptr);
    int status = 0;
    if (::waitpid(thread, &status, __WALL) != thread || !WIFSTOPPED(status))
        return; // it was killed
    const bool stepped = WSTOPSIG(status) == SIGTRAP && status >> 16 == 0;
    trace(PTRACE_SETSIGMASK, thread, sizeof mask_before, &mask_before);
    trace(PTRACE_GETREGS, thread, 0, &registers);
    if (!operand.pointer_is_result)
        pointer -= static_cast<machine_word>(distance);
    trace(PTRACE_SETREGS, thread, 0, &registers);
    copy_memory(thread, false, elsewhere, bytes, sizeof bytes);
    for (size_t i = 0; stepped && operand.writes && i < operand.width; i += piece) {
        uint64_t value = 0;
        std::memcpy(&value, bytes + i, piece);
        to.write(at.offset + i, piece, value);
    }
}

} // namespace

long trace(__ptrace_request request, pid_t thread, uint64_t address, void *data)
{
    return ::ptrace(request, thread, reinterpret_cast<void *>(static_cast<uintptr_t>(address)),
                    data);
}

void go_on(pid_t thread, __ptrace_request how, int signal_number)
{
    trace(how, thread, 0, reinterpret_cast<void *>(static_cast<uintptr_t>(signal_number)));
}

std::string name_of(pid_t thread)
{
    std::string name;
    std::getline(std::ifstream("/proc/" + std::to_string(thread) + "/comm"), name);
    return name;
}

bool is_too_wide(pid_t thread)
{
    std::ifstream program("/proc/" + std::to_string(thread) + "/exe", std::ios::binary);
    char identity[EI_NIDENT] = {};
    program.read(identity, sizeof identity);
    return sizeof(machine_word) == 4 && identity[EI_CLASS] == ELFCLASS64;
}

bool answer(pid_t thread, const met_window &at, accesses &to)
{
    user_regs_struct registers;
    uint8_t code[longest_instruction];
    if (trace(PTRACE_GETREGS, thread, 0, &registers) != 0)
        return false;
    const size_t size =
        copy_memory(thread, false, address_in(program_counter(registers)), code, sizeof code);
    const bool wide = is_64_bit(registers);
    std::optional<memory_operand> operand = decode(code, size, wide, false);
    // MOVS has two; the pointer of the one that was met has its address.
    if (operand && operand->pointer_moves &&
        low(general_register(registers, operand->pointer), wide ? 8 : 4) != at.address)
        operand = decode(code, size, wide, true);
    if (!operand || operand->width > longest_operand || operand->width > at.room ||
        (!operand->is_move && operand->pointer < 0))
        give_up(thread, at, code, size, wide);
    if (!operand->is_move) {
        step_elsewhere(thread, registers, *operand, at, to);
        return true;
    }
    move(registers, *operand, at.offset, to);
    program_counter(registers) += static_cast<machine_word>(operand->length);
    trace(PTRACE_SETREGS, thread, 0, &registers);
    return true;
}

} // namespace access_trace
