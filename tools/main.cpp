// devaccess: the library's functions as commands.

#include "tools/cli/dispatch.h"
#include "tools/families.h"

int main(int argc, char **argv)
{
    return devaccess::run_program(devaccess::command_families, argc, argv);
}
