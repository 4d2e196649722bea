/// @file
/// Time limits of std::chrono as the C calls take them.
#ifndef DEVICE_ACCESS_DEADLINE_HPP
#define DEVICE_ACCESS_DEADLINE_HPP

#include <chrono>
#include <cstdint>
#include <ctime>

namespace device_access
{
inline namespace wrapper
{

/// The clock of all deadlines: CLOCK_MONOTONIC.
using deadline_clock = std::chrono::steady_clock;

namespace detail
{

// Rounded up to nanoseconds; below 0 it is 0, and above 2^31 - 1 seconds, 68 years, it is that.
template <typename Rep, typename Period>
constexpr std::chrono::nanoseconds clamped(std::chrono::duration<Rep, Period> time) noexcept
{
    using namespace std::chrono;
    const auto seconds_in_all = duration<double>(time).count();
    if (!(seconds_in_all > 0))
        return nanoseconds(0);
    if (seconds_in_all >= INT32_MAX)
        return seconds(INT32_MAX);
    return ceil<nanoseconds>(time);
}

inline timespec timespec_of(std::chrono::nanoseconds time) noexcept
{
    const auto whole = std::chrono::floor<std::chrono::seconds>(time);
    return {static_cast<time_t>(whole.count()), static_cast<long>((time - whole).count())};
}

template <typename Duration>
timespec timespec_of(std::chrono::time_point<deadline_clock, Duration> deadline) noexcept
{
    return timespec_of(clamped(deadline.time_since_epoch()));
}

template <typename Rep, typename Period>
deadline_clock::time_point deadline_after(std::chrono::duration<Rep, Period> limit) noexcept
{
    return deadline_clock::now() + clamped(limit);
}

} // namespace detail

} // namespace wrapper
} // namespace device_access

#endif
