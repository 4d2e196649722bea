// The programs devaccess and chassis-sim as people and scripts run them, in a simulated chassis.
#pragma once

#include "support/test.h"

#include <sys/types.h>

namespace tool
{

using test::read_file;

// A line of the shell, for which both programs are commands.
pid_t start(const std::string &line, const char *out, const char *error);

// It has run; what it printed as JSON is one line without times, and kept.
struct result {
    int status;
    std::string out, error;
};
result run(const std::string &line);

// Lines "COMMAND -> STATUS | OUTPUT | ERROR", of which parts of the texts are enough; without a
// text there must be none, "*" is any, "\n" the end of a line. Commands begin with the words given.
void expect(const std::string &words, const std::string &table);

// Every document that was printed is what the schema says of the command that printed it.
void expect_documented();

void start_chassis(const char *type = "n20");

} // namespace tool
