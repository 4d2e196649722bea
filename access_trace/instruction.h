// What an instruction that has met a window of registers does there, and the machine's registers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <sys/user.h>

namespace access_trace
{

// How an instruction reads or writes the memory that it has met.
struct memory_operand {
    bool reads = false;
    bool writes = false;
    size_t width = 0;  // in bytes
    size_t length = 0; // of the instruction

    // Of a plain move: the register that it loads, or what it stores.
    bool is_move = false;
    bool extends_sign = false;
    int move_register = -1; // the number of a general register; -1: a number, or none of these
    size_t move_width = 0;
    bool high_byte = false; // AH and its like
    uint64_t number = 0;

    // Of any other: the register that can be made to point elsewhere; -1: none can.
    int pointer = -1;
    bool pointer_is_result = false; // and then has a new value
    bool pointer_moves = false;     // as those of MOVS, STOS and LODS do
};

// Decodes the bytes of an instruction. Nothing, when it has no operand in memory. second: which of
// the two that MOVS has.
std::optional<memory_operand> decode(const uint8_t *code, size_t size, bool is_64_bit, bool second);

// The instruction as an assembler writes it.
std::string instruction_text(const uint8_t *code, size_t size, bool is_64_bit);

// The machine's general registers as numbers: rax, rcx, rdx, rbx, rsp, rbp, rsi, rdi, r8...
#ifdef __x86_64__
using machine_word = unsigned long long;
#else
using machine_word = long;
#endif
machine_word &general_register(user_regs_struct &registers, int number);
machine_word &program_counter(user_regs_struct &registers);
machine_word &stack_pointer(user_regs_struct &registers);

} // namespace access_trace
