// The rules of CMSIS-SVD for reads and writes, FIFOs, counters, and what follows a write.
#include "sim/devices/register_window.h"

#include "sim/devices/memory.h"

#include <algorithm>

#include <unistd.h>

namespace chassis_sim
{
namespace
{

using register_map::access;
using register_map::behaviour;
using register_map::field;
using register_map::read_action;
using register_map::reg;
using register_map::write_values;

uint64_t ones(uint64_t bits)
{
    return ~uint64_t{0} >> (64 - bits);
}

// Bits of a register that behave alike.
struct part {
    uint64_t mask;
    behaviour bits;
};
std::vector<part> parts_of(const reg &one)
{
    std::vector<part> parts = {{ones(one.size), one.bits}};
    for (const field &of : one.fields) {
        parts[0].mask &= ~of.mask();
        parts.push_back({of.mask(), of.bits});
    }
    return parts;
}

uint64_t after_read(uint64_t value, uint64_t bits, read_action action)
{
    switch (action) {
    case read_action::none:
    case read_action::modify:
    case read_action::modify_external:
        return value;
    case read_action::clear:
        return value & ~bits;
    case read_action::set:
        return value | bits;
    }
    return value;
}

uint64_t after_write(uint64_t value, uint64_t written, uint64_t bits, write_values meaning)
{
    const uint64_t is_one = written & bits, is_zero = ~written & bits;
    switch (meaning) {
    case write_values::modify:
        return (value & ~bits) | is_one;
    case write_values::one_to_clear:
        return value & ~is_one;
    case write_values::one_to_set:
        return value | is_one;
    case write_values::one_to_toggle:
        return value ^ is_one;
    case write_values::zero_to_clear:
        return value & ~is_zero;
    case write_values::zero_to_set:
        return value | is_zero;
    case write_values::zero_to_toggle:
        return value ^ is_zero;
    case write_values::clear:
        return value & ~bits;
    case write_values::set:
        return value | bits;
    }
    return value;
}

bool can_be_read(access how)
{
    return how != access::write_only && how != access::write_once;
}

bool can_be_written(access how, bool was_written)
{
    const bool once = how == access::write_once || how == access::read_write_once;
    return how != access::read_only && !(once && was_written);
}

} // namespace

register_window::register_window(std::string name, std::vector<reg> registers, uint64_t base,
                                 uint64_t size, owned_fd memory, bool is_followed)
    : name_(std::move(name)), registers_(std::move(registers)), base_(base), size_(size)
{
    for (const reg &one : registers_)
        by_offset_[one.offset] = &one;
    if (is_followed || register_map::behave(registers_)) {
        faulting_ = make_memory("chassis-registers:" + name_, 0);
        link_ = own_link(faulting_);
    }
    renew(std::move(memory));
}

void register_window::renew(owned_fd memory)
{
    memory_ = std::move(memory);
    states_.clear();
    for (const reg &one : registers_) {
        states_[&one].counts_since = steady::now();
        if (one.fifo == 0)
            store(one, one.reset);
    }
}

const reg *register_window::find(const std::string &register_name) const
{
    const auto found = std::find_if(registers_.begin(), registers_.end(),
                                    [&](const reg &one) { return one.name == register_name; });
    return found == registers_.end() ? nullptr : &*found;
}

const reg *register_window::at(uint64_t offset) const
{
    auto next = by_offset_.upper_bound(static_cast<uint32_t>(offset));
    if (next == by_offset_.begin())
        return nullptr;
    const reg *const one = std::prev(next)->second;
    return offset < uint64_t{one->offset} + one->width() ? one : nullptr;
}

std::string register_window::name_at(uint64_t offset) const
{
    const reg *const one = at(offset);
    return one ? one->name : "";
}

void register_window::store(const reg &one, uint64_t value)
{
    must(static_cast<int>(
             ::pwrite(memory_.get(), &value, one.width(), static_cast<off_t>(base_ + one.offset))),
         "set a register of " + name_);
}

uint64_t register_window::value(const reg &one) const
{
    const auto found = states_.find(&one);
    if (one.fifo != 0)
        return found == states_.end() || found->second.queue.empty() ? 0
                                                                     : found->second.queue.front();
    uint64_t value = 0;
    if (::pread(memory_.get(), &value, one.width(), static_cast<off_t>(base_ + one.offset)) < 0)
        return 0;
    if (one.counts_per_ms != 0 && found != states_.end()) {
        const std::chrono::duration<double, std::milli> since =
            steady::now() - found->second.counts_since;
        value += static_cast<uint64_t>(since.count() * one.counts_per_ms);
    }
    return value & ones(one.size);
}

void register_window::set(const reg &one, uint64_t value)
{
    state &now = states_[&one];
    now.counts_since = steady::now();
    if (one.fifo == 0)
        store(one, value);
    else if (now.queue.size() < one.fifo) // else the word is lost
        now.queue.push_back(value);
}

uint64_t register_window::read_register(const reg &one, uint64_t bytes)
{
    const uint64_t before = value(one);
    uint64_t seen = before, after = before;
    for (const part &of : parts_of(one)) {
        if (!can_be_read(of.bits.access))
            seen &= ~of.mask;
        else
            after = after_read(after, of.mask & bytes, of.bits.read_action);
    }
    if (one.fifo != 0 && !states_[&one].queue.empty())
        states_[&one].queue.pop_front();
    else if (after != before)
        set(one, after);
    return seen;
}

void register_window::write_register(const reg &one, uint64_t written, uint64_t bytes)
{
    state &now = states_[&one];
    uint64_t after = value(one);
    bool changes = false;
    for (const part &of : parts_of(one))
        if (can_be_written(of.bits.access, now.was_written)) {
            after = after_write(after, written, of.mask & bytes, of.bits.write_values);
            changes = true;
        }
    now.was_written = true;
    if (one.fifo != 0 && changes)
        set(one, written & ones(one.size));
    else if (changes)
        set(one, after);
}

// An access may reach over several registers, or a part of one; bytes of none are memory.
uint64_t register_window::read(uint64_t offset, size_t width)
{
    uint64_t result = 0;
    if (::pread(memory_.get(), &result, width, static_cast<off_t>(base_ + offset)) < 0)
        return 0;
    for (uint64_t i = 0; i < width;) {
        const reg *const one = at(offset + i);
        if (!one) {
            ++i;
            continue;
        }
        const uint64_t skipped = offset + i - one->offset;
        const uint64_t count = std::min<uint64_t>(width - i, one->width() - skipped);
        const uint64_t seen = read_register(*one, ones(8 * count) << 8 * skipped) >> 8 * skipped;
        result &= ~(ones(8 * count) << 8 * i);
        result |= (seen & ones(8 * count)) << 8 * i;
        i += count;
    }
    return result;
}

void register_window::write(uint64_t offset, size_t width, uint64_t value)
{
    for (uint64_t i = 0; i < width;) {
        const reg *const one = at(offset + i);
        const uint64_t skipped = one ? offset + i - one->offset : 0;
        const uint64_t count = one ? std::min<uint64_t>(width - i, one->width() - skipped) : 1;
        const uint64_t part = value >> 8 * i & ones(8 * count);
        if (one)
            write_register(*one, part << 8 * skipped, ones(8 * count) << 8 * skipped);
        else
            must(static_cast<int>(::pwrite(memory_.get(), &part, static_cast<size_t>(count),
                                           static_cast<off_t>(base_ + offset + i))),
                 "write " + name_);
        i += count;
    }
}

//--- all windows ----------------------------------------------------------------------------------

uint64_t register_place::get() const
{
    const uint64_t value = window->value(*one);
    return field ? field->of(value) : value;
}

void register_place::set(uint64_t value) const
{
    if (field)
        value = (window->value(*one) & ~field->mask()) | (value << field->lsb & field->mask());
    window->set(*one, value & ones(one->size));
}

uint64_t register_place::most() const
{
    return field ? field->of(~uint64_t{0}) : ones(one->size);
}

register_window &window_table::add(const std::string &name, std::vector<reg> registers,
                                   uint64_t base, uint64_t size, owned_fd memory)
{
    const bool is_followed = trace_ && trace_->has(name);
    return *windows_.emplace_back(std::make_unique<register_window>(
        name, std::move(registers), base, size, std::move(memory), is_followed));
}

std::string window_table::missing() const
{
    for (const std::string &name : trace_ ? trace_->windows() : std::set<std::string>())
        if (std::none_of(windows_.begin(), windows_.end(), [&](const auto &window) {
                return window->name() == name ||
                       (name == "mem" && window->name().starts_with("mem."));
            }))
            return name;
    return {};
}

register_window *window_table::find(const std::string &link) const
{
    for (const auto &window : windows_)
        if (window->behaves() && window->link() == link)
            return window.get();
    return nullptr;
}

register_place window_table::find_register(const std::string &name) const
{
    std::vector<register_place> found;
    for (const auto &window : windows_) {
        const bool named = name.starts_with(window->name() + ".");
        const std::string rest = named ? name.substr(window->name().size() + 1) : name;
        const size_t dot = rest.find('.');
        const reg *const one = window->find(rest.substr(0, dot));
        const field *const of =
            one && dot != std::string::npos ? one->find(rest.substr(dot + 1)) : nullptr;
        const bool is_it = one && !one->name.empty() && (of || dot == std::string::npos);
        if (is_it && named)
            return {window.get(), one, of};
        if (is_it)
            found.push_back({window.get(), one, of});
    }
    if (found.empty())
        throw failure("there is no register '" + name + "'");
    if (found.size() > 1)
        throw failure("several windows have a register '" + name + "': say which, as in " +
                      found[0].window->name() + "." + name);
    return found[0];
}

} // namespace chassis_sim
