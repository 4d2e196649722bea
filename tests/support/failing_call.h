// For programs whose own versions of some calls stand before the C library's, for the library under
// test too: one of them can be told to fail. Included by the one file of such a program.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstring>

#include <dlfcn.h>

namespace test_support
{

inline struct {
    const char *name = "";         // of the call that fails, once
    int error = 0;                 // its errno; 0: it reports an end of file, or nothing
    int passes = 0;                // how often the call succeeds before
    void (*meanwhile)() = nullptr; // what happens at that moment
} failing;

inline bool fails(const char *name)
{
    if (std::strcmp(failing.name, name) != 0 || failing.passes-- > 0)
        return false;
    failing.name = "";
    if (failing.meanwhile)
        failing.meanwhile();
    errno = failing.error;
    return true;
}

template <typename Function>
Function *next(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

#if defined __SANITIZE_ADDRESS__
constexpr bool heap_is_replaced = true; // by the sanitizer, which must keep it
#else
constexpr bool heap_is_replaced = false;
extern "C" void *__libc_calloc(size_t count, size_t size);
extern "C" void *__libc_realloc(void *block, size_t size);
#endif

} // namespace test_support

#if !defined __SANITIZE_ADDRESS__
extern "C" {

void *calloc(size_t count, size_t size) noexcept
{
    return test_support::fails("calloc") ? nullptr : test_support::__libc_calloc(count, size);
}

void *realloc(void *block, size_t size) noexcept
{
    return test_support::fails("realloc") ? nullptr : test_support::__libc_realloc(block, size);
}

} // extern "C"
#endif
