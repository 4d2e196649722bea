// A log as one text, read through the library's C++ wrapper.
#pragma once

#include "support/test.h"

#include <device_access/log_reading.hpp>

namespace test
{

// All histories with their messages, the newest first: "2: one|two, 0: old, ". A "!" stands where
// the log could not be read. What the library says meanwhile is not shown.
template <typename Log>
std::string log_text(const Log &log)
{
    std::string text;
    output_of([&] {
        const auto histories = device_access::log_histories::of(log);
        text = !histories || histories->failed() ? "!" : "";
        if (!histories)
            return;
        for (const auto &[number, time] : *histories) {
            text += std::to_string(number) + ":";
            auto entries = device_access::log_entries<Log>::of(log, number);
            if (entries)
                for (const device_access::log_entry &entry : *entries)
                    text.append(text.back() == ':' ? " " : "|").append(entry.text);
            text += !entries || entries->failed() ? "!, " : ", ";
        }
    });
    return text;
}

} // namespace test
