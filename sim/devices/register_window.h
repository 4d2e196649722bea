// A window of registers that behave: what is read and written of them, and what follows.
#pragma once

#include "register_map/register_map.h"
#include "sim/base/files.h"
#include "sim/devices/event_loop.h"
#include "sim/parts/recorded_trace.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace chassis_sim
{

class register_window
{
public:
    // memory: where the registers' values are, the window's first byte at base.
    // is_followed: its accesses are, even where they do no more than those of memory.
    register_window(std::string name, std::vector<register_map::reg> registers, uint64_t base,
                    uint64_t size, owned_fd memory, bool is_followed = false);

    // Other memory, with what the registers have at first.
    void renew(owned_fd memory);

    const std::string &name() const { return name_; }
    uint64_t base() const { return base_; }
    uint64_t size() const { return size_; }

    // Whether accesses do more than those of memory. What a client maps then is a file of no bytes,
    // so that each is a fault.
    bool behaves() const { return bool(faulting_); }
    int faulting() const { return faulting_.get(); }
    const std::string &link() const { return link_; } // of that file
    int memory() const { return memory_.get(); }
    int mapped() const { return behaves() ? faulting() : memory(); }

    const std::vector<register_map::reg> &registers() const { return registers_; }
    const register_map::reg *find(const std::string &register_name) const;

    // Accesses of a client: of 1 to 8 bytes that lie in the window.
    uint64_t read(uint64_t offset, size_t width);
    void write(uint64_t offset, size_t width, uint64_t value);

    // The name of the register that has this byte; empty: there is none.
    std::string name_at(uint64_t offset) const;

    // As the hardware sees and changes it, without what accesses do.
    uint64_t value(const register_map::reg &one) const;
    void set(const register_map::reg &one, uint64_t value);

private:
    struct state {
        std::deque<uint64_t> queue;
        steady::time_point counts_since;
        bool was_written = false;
    };
    const register_map::reg *at(uint64_t offset) const;
    uint64_t read_register(const register_map::reg &one, uint64_t bytes);
    void write_register(const register_map::reg &one, uint64_t value, uint64_t bytes);
    void store(const register_map::reg &one, uint64_t value);

    std::string name_;
    std::vector<register_map::reg> registers_;
    uint64_t base_;
    uint64_t size_;
    owned_fd memory_;
    owned_fd faulting_;
    std::string link_;
    std::map<uint32_t, const register_map::reg *> by_offset_;
    std::map<const register_map::reg *, state> states_;
};

// A register, or a field of one, in a window.
struct register_place {
    register_window *window;
    const register_map::reg *one;
    const register_map::field *field; // NULL: all of it

    uint64_t get() const;
    void set(uint64_t value) const;
    uint64_t most() const; // that it can be
};

// All windows.
class window_table
{
public:
    // The windows of a trace are followed; NULL: there is none.
    explicit window_table(const recorded_trace *trace) : trace_(trace) {}

    register_window &add(const std::string &name, std::vector<register_map::reg> registers,
                         uint64_t base, uint64_t size, owned_fd memory);

    // The one whose faulting file this is; NULL: it is none's.
    register_window *find(const std::string &link) const;

    // "WINDOW.REGISTER" or "WINDOW.REGISTER.FIELD"; without WINDOW where only one has it. Throws a
    // failure when there is none.
    register_place find_register(const std::string &name) const;

    // The first window of the trace that there is none of; empty: all are there.
    std::string missing() const;

private:
    const recorded_trace *trace_;
    std::vector<std::unique_ptr<register_window>> windows_;
};

} // namespace chassis_sim
