// Tells the state of a storage by an error.
#include "tools/base/storage_state.h"

#include <cerrno>

namespace devaccess
{

storage_state state_of_error(int error)
{
    switch (error) {
    case ENOENT:
        return storage_state::missing;
    case EBUSY:
    case ETXTBSY:
        return storage_state::busy;
    case EACCES:
    case EPERM:
        return storage_state::forbidden;
    default:
        return storage_state::unreachable;
    }
}

} // namespace devaccess
