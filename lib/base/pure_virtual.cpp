// What a table of virtual functions has in the place of a pure one, which else the C++ runtime
// would give.

#include <cstdlib>

extern "C" [[gnu::weak, gnu::visibility("hidden")]] void __cxa_pure_virtual()
{
    std::abort();
}
