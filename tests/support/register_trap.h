#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

namespace chassis_sim
{

// One access of the processor to a register window.
struct register_access {
    enum kind_t { read, write } kind;
    size_t offset;  // in bytes from the start of the window
    unsigned width; // in bytes
    uint64_t value;
    bool operator==(const register_access &) const = default;
};

// A register window that sees every access one by one, in order, with its width, as a bus would,
// and may react to it. Works on the page fault that each access causes: the access is recorded,
// executed as a single step, and the window is closed again. One window exists at a time, and it is
// used from one thread.
class register_trap
{
public:
    // What a read of the register returns; without it, what was last written there.
    using read_model = std::function<uint64_t(size_t offset, unsigned width)>;
    // Is told what was written.
    using write_model = std::function<void(size_t offset, unsigned width, uint64_t value)>;

    // size: of the window in bytes, a multiple of the page size.
    explicit register_trap(size_t size, read_model on_read = {}, write_model on_write = {});
    ~register_trap();
    register_trap(const register_trap &) = delete;
    register_trap &operator=(const register_trap &) = delete;

    char *base() const { return window_; }
    std::vector<register_access> take_log() { return std::exchange(log_, {}); }

private:
    friend struct trap_handlers;
    void begin(size_t offset, register_access::kind_t kind, unsigned width);
    void finish();

    size_t size_;
    char *window_;  // where the accesses go: closed
    char *backing_; // the same memory, open
    read_model on_read_;
    write_model on_write_;
    register_access current_ = {};
    std::vector<register_access> log_;
};

} // namespace chassis_sim
