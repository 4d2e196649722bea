// devaccess: the library's functions as commands.

#include "tools/cli/dispatch.h"

int main(int argc, char **argv)
{
    return devaccess::run_program(argc, argv);
}
