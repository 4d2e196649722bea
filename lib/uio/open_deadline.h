// How long the opening calls wait for a device to appear.
#pragma once

#include <cstdint>
#include <ctime>

#include <unistd.h>

namespace device_access
{

class libuio_wait
{
public:
    // max_wait: the caller's limit, NULL for none.
    explicit libuio_wait(const timespec *max_wait) : limited_(max_wait != nullptr)
    {
        if (!max_wait)
            return;
        // Ten million, not one: the part below a second has always counted a tenth of its value.
        const int64_t below_second = max_wait->tv_nsec / 10000000;
        if (__builtin_mul_overflow(int64_t{max_wait->tv_sec}, 1000, &budget_ms_) ||
            __builtin_add_overflow(budget_ms_, below_second, &budget_ms_))
            budget_ms_ = max_wait->tv_sec < 0 ? INT64_MIN : INT64_MAX;
    }

    // Sleeps one interval; false, leaving errno alone, when the budget is used up.
    bool pause()
    {
        if (limited_) {
            if (budget_ms_ <= 0)
                return false;
            budget_ms_ -= interval_ms;
        }
        ::usleep(interval_ms * 1000);
        return true;
    }

private:
    static constexpr int interval_ms = 5;
    bool limited_;
    int64_t budget_ms_ = 0;
};

} // namespace device_access
