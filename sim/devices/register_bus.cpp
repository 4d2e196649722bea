// Passes accesses on to their windows, remembers them, and does what a write causes.
#include "sim/devices/register_bus.h"

#include <algorithm>
#include <cstdio>

namespace chassis_sim
{
namespace
{

using register_map::reg;
using register_map::write_action;

constexpr size_t most_accesses = 100000; // that are remembered

// What an access has written to a register.
uint64_t part_of(const reg &one, uint64_t offset, uint64_t value)
{
    const uint64_t skipped = one.offset > offset ? one.offset - offset : 0;
    const uint64_t before = offset > one.offset ? offset - one.offset : 0;
    return value >> 8 * skipped << 8 * before & (~uint64_t{0} >> (64 - one.size));
}

bool applies(const reg &one, const write_action &action, uint64_t written)
{
    return action.when.value_or(written) == written &&
           std::all_of(action.when_fields.begin(), action.when_fields.end(), [&](const auto &when) {
               return one.find(when.first)->of(written) == when.second;
           });
}

} // namespace

register_bus::register_bus(devices &all, event_loop &loop, recorded_trace *trace)
    : devices_(all), loop_(loop), trace_(trace)
{
    for (const uio_device &device : all.uio)
        play_interrupts(device.name);
}

// As the trace has it; nothing: it does not.
std::optional<uint64_t> register_bus::played(const access &done)
{
    if (!trace_ || !trace_->has(done.window->name()))
        return std::nullopt;
    const bool is_physical = done.window->name().starts_with("mem.");
    const auto value =
        trace_->answer({done.window->name(), done.offset + (is_physical ? done.window->base() : 0),
                        done.width, done.is_write, done.value});
    const std::string &name = done.window->name();
    play_interrupts(name.substr(0, name.rfind('.')));
    return value;
}

void register_bus::play_interrupts(const std::string &device)
{
    for (unsigned int left = trace_ ? trace_->take_interrupts(device) : 0; left > 0; --left)
        if (devices_.named(device).present())
            devices_.named(device).interrupt();
}

uint64_t register_bus::read(register_window &window, uint64_t offset, size_t width, pid_t process)
{
    access done = {steady::now(), process, &window, offset, width, false, 0};
    const auto value = played(done);
    done.value = value ? *value : window.read(offset, width);
    remember(done);
    return done.value;
}

void register_bus::write(register_window &window, uint64_t offset, size_t width, uint64_t value,
                         pid_t process)
{
    const access done = {steady::now(), process, &window, offset, width, true, value};
    remember(done);
    if (played(done))
        return;
    window.write(offset, width, value);
    for (const reg &one : window.registers()) {
        if (one.offset + one.width() <= offset || offset + width <= one.offset)
            continue;
        const uint64_t written = part_of(one, offset, value);
        for (const write_action &action : one.on_write)
            if (applies(one, action, written))
                act(window, action, written);
    }
}

void register_bus::act(register_window &window, const write_action &action, uint64_t written)
{
    const auto change = [this, &window, &action, written] {
        for (const register_map::change &one : action.set) {
            const size_t dot = one.target.find('.');
            const reg *const of = window.find(one.target.substr(0, dot));
            const register_place at = {
                &window, of,
                dot == std::string::npos ? nullptr : of->find(one.target.substr(dot + 1))};
            at.set(one.value.value_or(written));
        }
        if (!action.interrupt.empty() && devices_.named(action.interrupt).present())
            devices_.named(action.interrupt).interrupt();
    };
    if (action.after_ms == 0)
        return change();
    loop_.at(steady::now() + std::chrono::milliseconds(action.after_ms), change);
}

void register_bus::remember(const access &done)
{
    accesses_.push_back(done);
    if (accesses_.size() > most_accesses)
        accesses_.pop_front();
}

std::string register_bus::log() const
{
    std::string lines;
    for (const access &done : accesses_) {
        const std::chrono::duration<double, std::milli> time = done.time - start_;
        char line[512];
        std::snprintf(line, sizeof line,
                      "{\"ms\": %.3f, \"process\": %d, \"window\": \"%s\", \"register\": \"%s\", "
                      "\"offset\": %llu, \"width\": %zu, \"access\": \"%s\", \"value\": %llu}\n",
                      time.count(), static_cast<int>(done.process), done.window->name().c_str(),
                      done.window->name_at(done.offset).c_str(),
                      static_cast<unsigned long long>(done.offset), done.width,
                      done.is_write ? "write" : "read",
                      static_cast<unsigned long long>(done.value));
        lines += line;
    }
    return lines;
}

} // namespace chassis_sim
