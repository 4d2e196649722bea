#pragma once

namespace devaccess
{

// What main does: runs the command that the arguments are, and answers with the exit status.
int run_program(int argc, char **argv);

} // namespace devaccess
