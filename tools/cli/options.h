// Options that commands of several families have.
#pragma once

#include "tools/base/times.h"
#include "tools/base/waiting.h"
#include "tools/cli/command.h"

namespace devaccess
{

// Those that stand anywhere on the line. --json is only described: it has been taken off the line.
void add_common_options(command &program);
// Heeds them, and leaves the other words; and those that are not as they should be, for a parser to
// tell what is wrong.
std::vector<std::string> take_common_options(const std::vector<std::string> &words);

// --format: print entries of logs as JSON lines or CSV; or in the journal's format, too.
void add_entry_format(command &to);
void add_timeline_format(command &to);
// --since and --until
void add_time_span(command &to, time_span &span);
// --from: archives instead of this machine
option add_archives(command &to, std::vector<std::string> &from);
// --timeout
void add_timeout(command &to, wait_options &wait);
// --every
void add_every(command &to, wait_options &wait);
// What a command that watches a register takes.
void add_watch(command &to, wait_options &wait);

} // namespace devaccess
