// A log as one text, read through the library's C++ face.
#pragma once

#include "support/test.h"

#include <device_access/device_access.hpp>

namespace test
{

// The histories of a log, the newest first; "!" is added to the text if they cannot all be read.
template <typename Log>
std::vector<int> histories_of(const Log &log, std::string &text)
{
    device_access::histories walk(log);
    std::vector<int> numbers;
    for (int number : walk)
        numbers.push_back(number);
    text += walk.failed() ? "!" : "";
    return numbers;
}

// All histories with their messages: "2: one|two, 0: old, ". A "!" stands where the log could not
// be read. What the library says meanwhile is not shown.
template <typename Log>
std::string log_text(const Log &log)
{
    std::string text;
    output_of([&] {
        for (int number : histories_of(log, text)) {
            device_access::entries walk(log, number);
            text += std::to_string(number) + ":";
            for (const device_access::log_entry &entry : walk)
                text.append(text.back() == ':' ? " " : "|").append(entry.text);
            text += walk.failed() ? "!, " : ", ";
        }
    });
    return text;
}

} // namespace test
