// Rows of the table: an operation of the library and others that do the same.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

namespace bench
{

using work_t = std::function<void()>;

struct contender {
    std::string name;
    // Sets up and returns what is measured; what that holds is torn down with it.
    std::function<work_t()> prepare;
};

struct row {
    std::string name;
    contender library;
    std::vector<contender> peers;
    int operations = 1; // how many of them the work is; the table shows one
};

void add(row added);

// While the object lives, the process sees the machine's own /sys and not the chassis's.
class real_machine
{
public:
    static void remember(); // before the private root is entered
    real_machine();
    ~real_machine();
    real_machine(const real_machine &) = delete;
    real_machine &operator=(const real_machine &) = delete;
};

// Each adds its rows; the chassis's private root has been entered.
void add_pci_rows();
void add_uio_rows();
void add_pod_log_rows();
void add_crc_rows();

// Ends the program: nothing is measured that does not work.
inline void require(bool done, const char *what)
{
    if (done)
        return;
    std::fprintf(stderr, "device_access_bench: %s failed\n", what);
    std::exit(1);
}

} // namespace bench
