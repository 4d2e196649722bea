// Compares what a program does with what one did.
#include "sim/parts/recorded_trace.h"

#include "access_trace/trace_line.h"
#include "sim/base/failure.h"

#include <algorithm>
#include <cstdio>

#include <sys/mman.h>

namespace chassis_sim
{
namespace
{

std::string window_of(const access_trace::trace_line &line)
{
    if (!line.map)
        return line.device;
    return line.device + (line.device.starts_with("uio") ? ".map" : ".bar") +
           std::to_string(*line.map);
}

// "mem.0xfed00000" is a part of "mem".
std::string known_window(const std::string &window)
{
    return window.starts_with("mem.") ? "mem" : window;
}

std::string device_of(const std::string &window)
{
    return window.starts_with("mem") ? "mem" : window.substr(0, window.rfind('.'));
}

} // namespace

// How far the accesses to a device have come.
struct recorded_trace::progress {
    size_t step;
    uint64_t of_count;
    bool has_differed;
};

recorded_trace::recorded_trace(const std::string &path)
{
    std::optional<access_trace::trace_reader> reader;
    try {
        reader.emplace(path);
    } catch (const std::runtime_error &error) {
        throw failure(error.what());
    }
    while (const auto line = reader->next()) {
        const bool is_interrupt = line->event == "interrupt";
        if (line->device.empty() || line->is_configuration ||
            !(line->event.empty() || is_interrupt))
            continue;
        step one;
        one.window = window_of(*line);
        one.offset = line->offset;
        one.width = line->width / 8;
        one.is_write = line->is_write;
        one.value = line->value;
        one.count = line->count;
        one.is_interrupt = is_interrupt;
        if (!is_interrupt)
            windows_.insert(one.window);
        devices_[line->device].steps.push_back(one);
    }
    if (devices_.empty())
        throw failure(reader->problem().empty() ? path + " has no access to a window"
                                                : reader->problem());
    is_whole_ = reader->problem().empty();
    if (!is_whole_)
        complain(reader->problem() + "; what comes before it is played");
    void *const shared = ::mmap(nullptr, devices_.size() * sizeof(progress), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED)
        fail("make room for the trace");
    auto *next = static_cast<progress *>(shared);
    for (auto &[name, one] : devices_)
        one.at = next++;
}

bool recorded_trace::has(const std::string &window) const
{
    return windows_.contains(known_window(window));
}

size_t recorded_trace::device::number(size_t step_index) const
{
    return 1 + static_cast<size_t>(
                   std::count_if(steps.begin(), steps.begin() + static_cast<ptrdiff_t>(step_index),
                                 [](const step &one) { return !one.is_interrupt; }));
}

std::string recorded_trace::text(const access &one)
{
    char line[160];
    const auto place = static_cast<unsigned long long>(one.offset);
    if (one.is_write)
        std::snprintf(line, sizeof line, "write%zu of 0x%llx at 0x%llx of %s", 8 * one.width,
                      static_cast<unsigned long long>(one.value), place, one.window.c_str());
    else
        std::snprintf(line, sizeof line, "read%zu at 0x%llx of %s", 8 * one.width, place,
                      one.window.c_str());
    return line;
}

bool recorded_trace::fits(const step &expected, const access &made) const
{
    return expected.window == known_window(made.window) && expected.offset == made.offset &&
           expected.width == made.width && expected.is_write == made.is_write &&
           (!made.is_write || expected.value == made.value);
}

std::optional<uint64_t> recorded_trace::answer(const access &made)
{
    const auto found = devices_.find(device_of(made.window));
    if (found == devices_.end() || found->second.at->has_differed)
        return std::nullopt;
    const auto &[name, of] = *found;
    progress &now = *of.at;
    const bool is_over = now.step >= of.steps.size();
    if (is_over && !is_whole_)
        return std::nullopt;
    if (is_over || !fits(of.steps[now.step], made)) {
        now.has_differed = true;
        complain("access " + std::to_string(of.number(now.step)) + " of " + name +
                 " is not that of the trace: it has " +
                 (is_over ? "ended" : "a " + text(of.steps[now.step])) + ", the program makes a " +
                 text(made));
        return std::nullopt;
    }
    const step &expected = of.steps[now.step];
    if (++now.of_count >= expected.count) {
        now.of_count = 0;
        ++now.step;
    }
    return expected.value;
}

unsigned int recorded_trace::take_interrupts(const std::string &name)
{
    const auto found = devices_.find(name);
    if (found == devices_.end() || found->second.at->has_differed)
        return 0;
    unsigned int count = 0;
    progress &now = *found->second.at;
    for (const auto &steps = found->second.steps;
         now.step < steps.size() && steps[now.step].is_interrupt; ++now.step)
        ++count;
    return count;
}

std::string recorded_trace::left() const
{
    for (const auto &[name, of] : devices_)
        for (size_t i = of.at->step; i < of.steps.size(); ++i)
            if (!of.steps[i].is_interrupt && !of.at->has_differed)
                return "access " + std::to_string(of.number(i)) + " of " + name +
                       " was not made: a " + text(of.steps[i]);
    return {};
}

bool recorded_trace::has_differed() const
{
    return std::any_of(devices_.begin(), devices_.end(),
                       [](const auto &one) { return one.second.at->has_differed; });
}

} // namespace chassis_sim
