#include "sim/syscall_filter.h"

#include "sim/support.h"

#include <cstddef>
#include <vector>

#include <linux/audit.h>
#include <linux/filter.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

// The numbers of the kernel's system call tables for both processors that a program may be built
// for; a 64-bit server also serves 32-bit programs.
struct call_number {
    unsigned int on_x86_64;
    unsigned int on_i386;
    intercepted call;
};
constexpr unsigned int none = 0xffff;
constexpr call_number call_numbers[] = {
    {2, 5, intercepted::open},       {257, 295, intercepted::openat},
    {133, 14, intercepted::mknod},   {259, 297, intercepted::mknodat},
    {0, 3, intercepted::read},       {17, 180, intercepted::read},
    {1, 4, intercepted::write},      {18, 181, intercepted::write},
    {7, 168, intercepted::poll},     {271, 309, intercepted::ppoll},
    {none, 414, intercepted::ppoll},
};

bool works_on_descriptor(intercepted call)
{
    return call == intercepted::read || call == intercepted::write;
}

class filter_program
{
public:
    explicit filter_program(unsigned int first_fd) : first_fd_(first_fd) {}

    void add_architecture(unsigned int arch, unsigned int call_number::*number)
    {
        load(offsetof(seccomp_data, arch));
        const size_t skip = code_.size();
        code_.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, arch, 0, 0));
        for (const call_number &entry : call_numbers)
            if (entry.*number != none)
                add_call(entry.*number, works_on_descriptor(entry.call));
        code_.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
        code_[skip].jf = static_cast<unsigned char>(code_.size() - skip - 1);
    }

    std::vector<sock_filter> finish()
    {
        code_.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
        return code_;
    }

private:
    void load(size_t offset)
    {
        code_.push_back(BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<unsigned int>(offset)));
    }

    void add_call(unsigned int number, bool on_descriptor)
    {
        load(offsetof(seccomp_data, nr));
        if (on_descriptor) {
            code_.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 3));
            load(offsetof(seccomp_data, args));
            code_.push_back(BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, first_fd_, 0, 1));
        } else {
            code_.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1));
        }
        code_.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
    }

    unsigned int first_fd_;
    std::vector<sock_filter> code_;
};

} // namespace

int install_syscall_filter(unsigned int first_fd)
{
    filter_program program(first_fd);
    program.add_architecture(AUDIT_ARCH_X86_64, &call_number::on_x86_64);
    program.add_architecture(AUDIT_ARCH_I386, &call_number::on_i386);
    std::vector<sock_filter> code = program.finish();
    const sock_fprog filter = {static_cast<unsigned short>(code.size()), code.data()};
    must(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "no_new_privs");
    return must(static_cast<int>(::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER,
                                           SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter)),
                "needs seccomp user notification (Linux 5.14 or newer)");
}

std::optional<intercepted> which_call(const seccomp_data &data)
{
    for (const call_number &entry : call_numbers) {
        const unsigned int number =
            data.arch == AUDIT_ARCH_X86_64 ? entry.on_x86_64 : entry.on_i386;
        if (number == static_cast<unsigned int>(data.nr))
            return entry.call;
    }
    return std::nullopt;
}

} // namespace chassis_sim
