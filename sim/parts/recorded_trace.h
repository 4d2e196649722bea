// A trace that devaccess has recorded, which answers a program as the devices did.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace chassis_sim
{

// The accesses to each device in their order. How far they have come is known in all processes that
// are made after it was read.
class recorded_trace
{
public:
    // Throws a failure when there is no such trace. One that is cut short ends there, which is
    // said.
    explicit recorded_trace(const std::string &path);
    recorded_trace(const recorded_trace &) = delete;
    recorded_trace &operator=(const recorded_trace &) = delete;

    // Windows, such as "uio0.map0", that it has accesses to; of physical memory it is "mem".
    const std::set<std::string> &windows() const { return windows_; }
    bool has(const std::string &window) const;
    bool has_device(const std::string &name) const { return devices_.contains(name); }

    // An access that the program makes. What a read is answered; nothing: it differs, or another of
    // its device did before.
    struct access {
        std::string window;
        uint64_t offset = 0;
        size_t width = 0; // in bytes
        bool is_write = false;
        uint64_t value = 0; // of a write
    };
    std::optional<uint64_t> answer(const access &made);

    // Interrupts of the device that come next, which are then over.
    unsigned int take_interrupts(const std::string &name);

    // At the end: the first access that the program did not make. Empty: it has made all.
    std::string left() const;
    bool has_differed() const;

private:
    struct step : access {
        bool is_interrupt = false;
        uint64_t count = 1;
    };
    struct progress; // shared by all processes
    struct device {
        std::vector<step> steps;
        progress *at = nullptr;

        // The number of an access in the trace, as people count.
        size_t number(size_t step_index) const;
    };
    static std::string text(const access &one);
    bool fits(const step &expected, const access &made) const;

    std::map<std::string, device> devices_;
    std::set<std::string> windows_;
    bool is_whole_ = true;
};

} // namespace chassis_sim
