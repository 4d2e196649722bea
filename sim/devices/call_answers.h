#pragma once

#include "sim/devices/asking_process.h"
#include "sim/devices/control_line.h"
#include "sim/devices/device_model.h"
#include "sim/devices/syscall_filter.h"
#include "sim/devices/waiting_reads.h"

#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace chassis_sim
{

struct devices {
    // The device of that name; throws a failure when there is none.
    uio_device &named(const std::string &name);

    std::deque<uio_device> uio; // openings point to them
    std::deque<storage_device> storage;
    std::vector<call_fault> faults;

    // The errno with which this call fails; 0: it does not.
    int fault(const std::string &name, const std::string &call);
};

// Answers the system calls that work on the chassis's devices, and lets all others pass.
class call_answers
{
public:
    // Descriptors from first_fd on are given to those who open a UIO device. open_line is asked for
    // a client's end of a new control line; it is told whether the client will read, and what
    // becomes of its lines: by default, the server obeys them.
    using open_line = std::function<owned_fd(bool, control_line::obey_line)>;
    call_answers(devices &of, unsigned int first_fd, open_line open,
                 std::function<void(const std::shared_ptr<opening> &)> opened)
        : devices_(of), first_fd_(first_fd), open_line_(std::move(open)), opened_(std::move(opened))
    {
    }

    void answer(const asked_call &call);
    void settle() { reads_.settle(); }

    // The clients have closed it, or have written to a copy of its descriptor that reads and writes
    // are not asked about.
    void far_end_is_ready(const std::shared_ptr<opening> &open);

private:
    void answer_open(const asked_call &call, int directory, uint64_t path_address, int flags);
    void answer_mknod(const asked_call &call, int directory, uint64_t path_address);
    void answer_mmap(const asked_call &call);
    void answer_wait(const asked_call &call);
    void answer_on_descriptor(const asked_call &call, intercepted what);
    void answer_read(const asked_call &call, const std::shared_ptr<opening> &open);
    void answer_write(const asked_call &call, const opening &open);
    void open_uio(const asked_call &call, uio_device &device, bool is_notice, int flags);

    std::shared_ptr<opening> opening_of(const asking_process &process, int fd) const;
    // What is done with what is written to this file; empty: nothing, it is a file.
    control_line::obey_line written_to(const std::string &path);
    unsigned int free_number(const asking_process &process) const;

    devices &devices_;
    unsigned int first_fd_;
    open_line open_line_;
    std::function<void(const std::shared_ptr<opening> &)> opened_;
    std::vector<std::shared_ptr<opening>> openings_; // of devices that have gone too
    waiting_reads reads_;
    std::set<std::string> removed_functions_; // from the PCI bus, until it is scanned again
};

} // namespace chassis_sim
