// The process whose system call is being answered, and the call.
#pragma once

#include "sim/base/files.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <linux/seccomp.h>
#include <sys/types.h>

namespace chassis_sim
{

// The process whose system call is being answered: its memory, its descriptors, its paths. It may
// die at any time; then all of them are empty.
class asking_process
{
public:
    explicit asking_process(pid_t thread) : thread_(thread) {}

    pid_t thread() const { return thread_; }
    pid_t id() const; // of the process that the thread belongs to

    // A 64-bit process is reached from a 32-bit one too.
    bool read(uint64_t address, void *data, size_t size) const;
    bool write(uint64_t address, const void *data, size_t size) const;

    // The path at an address, of less than 4096 bytes, made absolute.
    std::string path(int directory, uint64_t address) const;

    // What a path leads to, as this process sees it; a path that leads nowhere has no name.
    struct file {
        std::string name; // its own, without links
        mode_t mode = 0;
        dev_t device = 0; // its number, if it is a device
    };
    file resolve(int directory, uint64_t address, int flags) const;

    // What an entry of its directory in /proc, such as "fd/3", links to.
    std::string link(const std::string &entry) const;
    std::string link_of(int fd) const { return link("fd/" + std::to_string(fd)); }

    // Whether the mode of a file lets it open it so, as far as its user and first group say.
    bool may_open(const std::string &path, int flags) const;

    // A copy of one of its descriptors.
    owned_fd copy_of(int fd) const;
    bool closes_on_exec(int fd) const;

    // How many descriptors it may have.
    unsigned int descriptor_limit() const;

private:
    std::string proc(const std::string &entry) const;

    pid_t thread_;
};

// A system call that waits for its answer, which is given once.
class asked_call
{
public:
    // Receives the next of the listener's calls; throws a failure when its caller has died.
    explicit asked_call(int listener);

    const asking_process &process() const { return process_; }
    const seccomp_data &data() const { return data_; }
    uint64_t argument(size_t i) const { return data_.args[i]; }
    int int_argument(size_t i) const { return static_cast<int>(data_.args[i]); }

    // Where in the file, in bytes: of mmap; of pread and pwrite.
    uint64_t file_offset() const;
    uint64_t position() const;

    // Whether the caller waits still: a signal may have come.
    bool waits() const;

    // The answers: a result, or an errno below 0; what the kernel would do; a new descriptor, under
    // that number if one is given.
    void result(int64_t value) const;
    void result_with(uint64_t address, const void *data, size_t size) const; // written there
    void pass() const;
    void descriptor(int fd, bool close_on_exec, std::optional<unsigned int> number) const;

    // Puts another file under a descriptor of the caller. This is no answer.
    void replace(int fd, int by) const;

private:
    void respond(int error, int64_t value, uint32_t flags) const;

    int listener_;
    uint64_t id_ = 0;
    seccomp_data data_ = {};
    asking_process process_;
};

} // namespace chassis_sim
