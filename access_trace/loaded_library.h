// Libraries that are loaded when they are first needed: few programs need them.
#pragma once

#include <stdexcept>
#include <string>

#include <dlfcn.h>

namespace access_trace
{

// A function of a library; throws an error that says what it is needed for.
template <typename Function>
Function *loaded(const char *library, const char *function, const char *needed_for)
{
    void *const handle = ::dlopen(library, RTLD_NOW | RTLD_LOCAL); // once: it is counted
    void *const found = handle ? ::dlsym(handle, function) : nullptr;
    if (!found)
        throw std::runtime_error(std::string(needed_for) + " needs " + library +
                                 ", which is not installed");
    return reinterpret_cast<Function *>(found);
}

} // namespace access_trace
