// The programs devaccess and chassis-sim as people and scripts run them, in a simulated chassis.
#pragma once

#include "support/test.h"

#include <sys/types.h>

namespace tool
{

using test::read_file;

// A line of the shell, for which both programs are commands.
pid_t start(const std::string &line, const char *out, const char *error);

// It has run; what it printed as JSON is kept. What changes from run to run is "<now>" and the
// like.
struct result {
    int status;
    std::string out, error;
};
result run(const std::string &line);

// Runs the commands of tests/expected/NAME, which begin with "$ ", one after another, and compares
// what they print with what stands after them: "! " is standard error, "= STATUS" a status but 0.
void follow(const std::string &name);

// Every document that was printed is what the schema says of the command that printed it.
void expect_documented();

void start_chassis(const char *type = "n20");

} // namespace tool
