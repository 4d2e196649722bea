#include "support/register_trap.h"

#include "sim/base/files.h"

#include <csignal>
#include <cstdlib>
#include <cstring>

#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

#ifdef __x86_64__
constexpr int instruction_pointer = REG_RIP;
constexpr bool is_64_bit = true;
#else
constexpr int instruction_pointer = REG_EIP;
constexpr bool is_64_bit = false;
#endif
constexpr greg_t trap_flag = 0x100;     // of EFLAGS: trap after the next instruction
constexpr greg_t fault_was_write = 0x2; // of the page fault's error code

[[noreturn]] void die(const char *why)
{
    static_cast<void>(!::write(STDERR_FILENO, why, std::strlen(why)));
    std::abort();
}

bool is_legacy_prefix(unsigned char byte)
{
    return byte == 0xf2 || byte == 0xf3 || byte == 0x2e || byte == 0x36 || byte == 0x3e ||
           byte == 0x26 || byte == 0x64 || byte == 0x65;
}

// How many bytes of memory a move instruction accesses. Compilers make no others of a volatile
// access of one register.
unsigned access_width(const unsigned char *code)
{
    bool is_16_bit = false;
    bool is_wide = false;
    for (;; ++code) {
        if (*code == 0x66)
            is_16_bit = true;
        else if (is_64_bit && (*code & 0xf0) == 0x40)
            is_wide = (*code & 0x08) != 0;
        else if (!is_legacy_prefix(*code))
            break;
    }
    const unsigned operand = is_wide ? 8 : is_16_bit ? 2 : 4;
    switch (*code) {
    case 0x88: // mov to and from memory, 8 bits
    case 0x8a:
    case 0xa0:
    case 0xa2:
    case 0xc6:
        return 1;
    case 0x89: // and of the operand's size
    case 0x8b:
    case 0xa1:
    case 0xa3:
    case 0xc7:
        return operand;
    case 0x0f:
        if (code[1] == 0xb6 || code[1] == 0xbe) // movzx, movsx
            return 1;
        if (code[1] == 0xb7 || code[1] == 0xbf)
            return 2;
        [[fallthrough]];
    default:
        die("register_trap: the access is not a plain move\n");
    }
}

register_trap *active;

} // namespace

struct trap_handlers {
    static void fault(int, siginfo_t *info, void *context)
    {
        auto &registers = static_cast<ucontext_t *>(context)->uc_mcontext.gregs;
        const char *address = static_cast<char *>(info->si_addr);
        if (!active || address < active->window_ || address >= active->window_ + active->size_) {
            ::signal(SIGSEGV, SIG_DFL); // a real fault: it comes again
            return;
        }
        const auto *code =
            reinterpret_cast<const unsigned char *>(registers[instruction_pointer]); // NOLINT
        active->begin(static_cast<size_t>(address - active->window_),
                      registers[REG_ERR] & fault_was_write ? register_access::write
                                                           : register_access::read,
                      access_width(code));
        registers[REG_EFL] |= trap_flag;
    }

    static void step(int, siginfo_t *, void *context)
    {
        auto &registers = static_cast<ucontext_t *>(context)->uc_mcontext.gregs;
        registers[REG_EFL] &= ~trap_flag;
        if (active)
            active->finish();
    }

    static void install(int signal_number, void (*handler)(int, siginfo_t *, void *))
    {
        struct sigaction action = {};
        action.sa_sigaction = handler;
        action.sa_flags = SA_SIGINFO;
        must(::sigaction(signal_number, &action, nullptr), "sigaction");
    }
};

register_trap::register_trap(size_t size, read_model on_read, write_model on_write)
    : size_(size), on_read_(std::move(on_read)), on_write_(std::move(on_write))
{
    const int memory = must(::memfd_create("registers", MFD_CLOEXEC), "memfd_create");
    must(::ftruncate(memory, static_cast<off_t>(size)), "ftruncate");
    const auto map = [&](int protection) {
        void *address = ::mmap(nullptr, size, protection, MAP_SHARED, memory, 0);
        if (address == MAP_FAILED)
            fail("mmap");
        return static_cast<char *>(address);
    };
    window_ = map(PROT_NONE);
    backing_ = map(PROT_READ | PROT_WRITE);
    ::close(memory);
    active = this;
    trap_handlers::install(SIGSEGV, trap_handlers::fault);
    trap_handlers::install(SIGTRAP, trap_handlers::step);
}

register_trap::~register_trap()
{
    active = nullptr;
    ::signal(SIGSEGV, SIG_DFL);
    ::signal(SIGTRAP, SIG_DFL);
    ::munmap(window_, size_);
    ::munmap(backing_, size_);
}

void register_trap::begin(size_t offset, register_access::kind_t kind, unsigned width)
{
    current_ = {kind, offset, width, 0};
    if (kind == register_access::read && on_read_) {
        const uint64_t value = on_read_(offset, width);
        std::memcpy(backing_ + offset, &value, width);
    }
    ::mprotect(window_, size_, PROT_READ | PROT_WRITE);
}

void register_trap::finish()
{
    ::mprotect(window_, size_, PROT_NONE);
    std::memcpy(&current_.value, backing_ + current_.offset, current_.width);
    if (current_.kind == register_access::write && on_write_)
        on_write_(current_.offset, current_.width, current_.value);
    log_.push_back(current_);
}

} // namespace chassis_sim
