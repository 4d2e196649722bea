// How a command fails: what the program says and which exit status it gives.
#pragma once

#include "tools/base/storage_state.h"

#include <stdexcept>
#include <string>
#include <utility>

namespace devaccess
{

// The command line is not understood: exit status 2.
struct usage_error : std::runtime_error {
    explicit usage_error(const std::string &what, std::string suggested = "")
        : std::runtime_error(what), suggestion(std::move(suggested))
    {
    }

    std::string suggestion; // did_you_mean()
};

// A command could not do its work. "cannot WHAT: WHY", and a hint for what to do.
struct failure : std::runtime_error {
    // Where a right is missing, the hint is which.
    failure(const std::string &what, const std::string &why, const std::string &hint,
            int errno_value = 0, exit_status ends_with = exit_failed);

    std::string hint;
    int error; // errno of the failing call, 0 when there is none
    exit_status status;
};

} // namespace devaccess
