// A log as one text, read through the library's C++ face.
#pragma once

#include "support/test.h"

#include <device_access/device_access.hpp>

namespace test
{

// All histories with their messages, the newest first: "2: one|two, 0: old, ". A "!" stands where
// the log could not be read. What the library says meanwhile is not shown.
template <typename Log>
std::string log_text(const Log &log)
{
    std::string text;
    output_of([&] {
        std::vector<int> numbers; // a log is open for one purpose at a time
        {
            device_access::histories walk(log);
            for (int number : walk)
                numbers.push_back(number);
            text = walk.failed() ? "!" : "";
        }
        for (int number : numbers) {
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
