// A library that few commands need, loaded when it is used: most commands are shorter than that.
#pragma once

#include "tools/base/errors.h"

#include <string>

#include <dlfcn.h>

namespace devaccess
{

class shared_library
{
public:
    // The file, and what the command cannot do without it.
    shared_library(const char *file, const char *purpose)
        : file_(file), purpose_(purpose), handle_(::dlopen(file, RTLD_NOW | RTLD_LOCAL))
    {
        if (!handle_)
            give_up("install");
    }

    template <typename Function>
    Function *find(const char *name) const
    {
        void *const found = ::dlsym(handle_, name);
        if (!found)
            give_up("install a newer");
        return reinterpret_cast<Function *>(found);
    }

private:
    [[noreturn]] void give_up(const char *advice) const
    {
        throw failure(purpose_, ::dlerror(), std::string(advice) + ' ' + file_);
    }

    const char *file_;
    const char *purpose_;
    void *handle_;
};

} // namespace devaccess
