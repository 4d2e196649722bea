// Decodes with Zydis, which is loaded when a window of registers is first met.
#include "access_trace/instruction.h"

#include "access_trace/loaded_library.h"

#include <Zydis/Zydis.h>

#include <algorithm>

namespace access_trace
{
namespace
{

// The library that has what the header says.
const char *zydis()
{
    static const std::string name = "libZydis.so." +
                                    std::to_string(ZYDIS_VERSION_MAJOR(ZYDIS_VERSION)) + "." +
                                    std::to_string(ZYDIS_VERSION_MINOR(ZYDIS_VERSION));
    return name.c_str();
}

#define ZYDIS(function)                                                                            \
    (*loaded<decltype(function)>(zydis(), #function, "a program whose accesses are followed"))

struct decoded {
    ZydisDecodedInstruction instruction;
    ZydisDecodedOperand operands[ZYDIS_MAX_OPERAND_COUNT];

    int count() const { return instruction.operand_count; }
};

// The number of the general register that this one is a part of; -1: it is none.
int general_number(ZydisRegister of)
{
    static const auto &enclosing = ZYDIS(ZydisRegisterGetLargestEnclosing);
    static const auto &id = ZYDIS(ZydisRegisterGetId);
    const ZydisRegister whole = enclosing(ZYDIS_MACHINE_MODE_LONG_64, of);
    return whole >= ZYDIS_REGISTER_RAX && whole <= ZYDIS_REGISTER_R15 ? id(whole) : -1;
}

bool is_plain_move(ZydisMnemonic mnemonic)
{
    switch (mnemonic) {
    case ZYDIS_MNEMONIC_MOV:
    case ZYDIS_MNEMONIC_MOVZX:
    case ZYDIS_MNEMONIC_MOVSX:
    case ZYDIS_MNEMONIC_MOVSXD:
    case ZYDIS_MNEMONIC_MOVNTI:
        return true;
    default:
        return false;
    }
}

// MOVS, STOS and LODS.
bool moves_pointers(ZydisMnemonic mnemonic)
{
    constexpr ZydisMnemonic all[] = {
        ZYDIS_MNEMONIC_MOVSB, ZYDIS_MNEMONIC_MOVSW, ZYDIS_MNEMONIC_MOVSD, ZYDIS_MNEMONIC_MOVSQ,
        ZYDIS_MNEMONIC_STOSB, ZYDIS_MNEMONIC_STOSW, ZYDIS_MNEMONIC_STOSD, ZYDIS_MNEMONIC_STOSQ,
        ZYDIS_MNEMONIC_LODSB, ZYDIS_MNEMONIC_LODSW, ZYDIS_MNEMONIC_LODSD, ZYDIS_MNEMONIC_LODSQ};
    return std::find(std::begin(all), std::end(all), mnemonic) != std::end(all);
}

bool is_memory(const ZydisDecodedOperand &operand)
{
    return operand.type == ZYDIS_OPERAND_TYPE_MEMORY && operand.mem.type == ZYDIS_MEMOP_TYPE_MEM &&
           (operand.actions & (ZYDIS_OPERAND_ACTION_MASK_READ | ZYDIS_OPERAND_ACTION_MASK_WRITE));
}

void describe_move(memory_operand &made, const decoded &of)
{
    const ZydisDecodedOperand &other = of.operands[is_memory(of.operands[0]) ? 1 : 0];
    made.extends_sign = of.instruction.mnemonic == ZYDIS_MNEMONIC_MOVSX ||
                        of.instruction.mnemonic == ZYDIS_MNEMONIC_MOVSXD;
    made.is_move = true;
    made.move_width = other.size / 8;
    if (other.type == ZYDIS_OPERAND_TYPE_IMMEDIATE) {
        made.number = other.imm.value.u;
    } else if (other.type == ZYDIS_OPERAND_TYPE_REGISTER) {
        made.move_register = general_number(other.reg.value);
        made.high_byte =
            other.reg.value >= ZYDIS_REGISTER_AH && other.reg.value <= ZYDIS_REGISTER_BH;
        made.is_move = made.move_register >= 0; // segment registers are not moved here
    }
}

// Which register leads to the operand, and whether it has other work in the instruction.
void describe_pointer(memory_operand &made, const decoded &of, const ZydisDecodedOperand &memory)
{
    made.pointer_moves = moves_pointers(of.instruction.mnemonic) &&
                         memory.visibility == ZYDIS_OPERAND_VISIBILITY_HIDDEN;
    made.pointer = general_number(memory.mem.base);
    for (int i = 0; i < of.count() && !made.pointer_moves; ++i) {
        const ZydisDecodedOperand &other = of.operands[i];
        if (other.type != ZYDIS_OPERAND_TYPE_REGISTER ||
            general_number(other.reg.value) != made.pointer)
            continue;
        if (other.actions & ZYDIS_OPERAND_ACTION_MASK_READ)
            made.pointer = -1;
        else
            made.pointer_is_result = true;
    }
    if (general_number(memory.mem.index) == made.pointer)
        made.pointer = -1;
}

std::string text_of(const decoded &of)
{
    ZydisFormatter formatter;
    char text[128] = "?";
    ZYDIS(ZydisFormatterInit)(&formatter, ZYDIS_FORMATTER_STYLE_INTEL);
    ZYDIS(ZydisFormatterFormatInstruction)
    (&formatter, &of.instruction, of.operands, of.instruction.operand_count_visible, text,
     sizeof text, ZYDIS_RUNTIME_ADDRESS_NONE, nullptr);
    return text;
}

} // namespace

namespace
{

bool decode_all(const uint8_t *code, size_t size, bool is_64_bit, decoded &of)
{
    static const auto &init = ZYDIS(ZydisDecoderInit);
    static const auto &decode_full = ZYDIS(ZydisDecoderDecodeFull);
    ZydisDecoder decoder;
    init(&decoder, is_64_bit ? ZYDIS_MACHINE_MODE_LONG_64 : ZYDIS_MACHINE_MODE_LONG_COMPAT_32,
         is_64_bit ? ZYDIS_STACK_WIDTH_64 : ZYDIS_STACK_WIDTH_32);
    return ZYAN_SUCCESS(decode_full(&decoder, code, size, &of.instruction, of.operands));
}

} // namespace

std::string instruction_text(const uint8_t *code, size_t size, bool is_64_bit)
{
    decoded of;
    return decode_all(code, size, is_64_bit, of) ? text_of(of) : "an unknown instruction";
}

std::optional<memory_operand> decode(const uint8_t *code, size_t size, bool is_64_bit, bool second)
{
    decoded of;
    if (!decode_all(code, size, is_64_bit, of))
        return std::nullopt;
    const ZydisDecodedOperand *memory = nullptr;
    for (int i = 0; i < of.count(); ++i)
        if (is_memory(of.operands[i]) && (!memory || second))
            memory = &of.operands[i];
    if (!memory)
        return std::nullopt;
    memory_operand made;
    made.reads = memory->actions & ZYDIS_OPERAND_ACTION_MASK_READ;
    made.writes = memory->actions & ZYDIS_OPERAND_ACTION_MASK_WRITE;
    made.width = memory->size / 8;
    made.length = of.instruction.length;
    if (is_plain_move(of.instruction.mnemonic))
        describe_move(made, of);
    describe_pointer(made, of, *memory);
    return made;
}

machine_word &general_register(user_regs_struct &registers, int number)
{
#ifdef __x86_64__
    machine_word *const all[] = {&registers.rax, &registers.rcx, &registers.rdx, &registers.rbx,
                                 &registers.rsp, &registers.rbp, &registers.rsi, &registers.rdi,
                                 &registers.r8,  &registers.r9,  &registers.r10, &registers.r11,
                                 &registers.r12, &registers.r13, &registers.r14, &registers.r15};
#else
    machine_word *const all[] = {&registers.eax, &registers.ecx, &registers.edx, &registers.ebx,
                                 &registers.esp, &registers.ebp, &registers.esi, &registers.edi};
#endif
    return *all[number];
}

machine_word &program_counter(user_regs_struct &registers)
{
#ifdef __x86_64__
    return registers.rip;
#else
    return registers.eip;
#endif
}

machine_word &stack_pointer(user_regs_struct &registers)
{
#ifdef __x86_64__
    return registers.rsp;
#else
    return registers.esp;
#endif
}

} // namespace access_trace
