// devaccess: the library's functions as commands.

#include "program.h"

int main(int argc, char **argv)
{
    return devaccess::run_program(argc, argv);
}
