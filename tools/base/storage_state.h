// In which state a place that keeps a log can be: the words of all commands, of JSON and of
// metrics.
#pragma once

namespace devaccess
{

enum class storage_state {
    good,
    empty,       // no log has been written there yet
    missing,     // there is no such file
    damaged,     // of a log that is there, some is lost or wrong
    foreign,     // it holds something else: another kind of log, or none
    busy,        // another program has it open
    forbidden,   // a right is missing
    unreachable, // it cannot be read for another reason
};

inline constexpr storage_state all_storage_states[] = {
    storage_state::good,      storage_state::empty,      storage_state::missing,
    storage_state::damaged,   storage_state::foreign,    storage_state::busy,
    storage_state::forbidden, storage_state::unreachable};

constexpr const char *name_of(storage_state state)
{
    constexpr const char *names[] = {"good",    "empty", "missing",   "damaged",
                                     "foreign", "busy",  "forbidden", "unreachable"};
    return names[static_cast<int>(state)];
}

// What a program ends with.
enum exit_status {
    exit_done = 0,
    exit_failed = 1,     // it could not be done
    exit_usage = 2,      // the command line is wrong
    exit_damaged = 3,    // damage was found
    exit_unreadable = 4, // something could not be read
};

// Of a command that found a storage so when it needed a log.
constexpr exit_status status_of(storage_state state)
{
    switch (state) {
    case storage_state::damaged:
    case storage_state::foreign:
        return exit_damaged;
    case storage_state::busy:
    case storage_state::forbidden:
    case storage_state::unreachable:
        return exit_unreadable;
    default:
        return exit_failed;
    }
}

// What a program ends with that met both: damage counts more than what could not be read, and that
// more than what is not there.
constexpr exit_status worse_of(exit_status one, exit_status other)
{
    constexpr auto weight = [](exit_status status) {
        return status == exit_damaged ? exit_unreadable + 1 : static_cast<int>(status);
    };
    return weight(one) < weight(other) ? other : one;
}

// By the errno of a call that could not open or read it.
storage_state state_of_error(int error);

} // namespace devaccess
