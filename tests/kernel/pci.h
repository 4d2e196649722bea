// What the PCI sections share.
#pragma once

#include "check.h"
#include "guest.h"

#include <device_access/pci_config.h>
#include <device_access/pci_sysfs.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace guest
{

// The devices of the virtual machine, as scripts/test-kernel plugs them.
constexpr char port_of_device[] = "0000:00:01.0"; // a root port; edu is behind it
constexpr char empty_port[] = "0000:00:02.0";
constexpr char plain_port[] = "0000:00:03.0";    // empty, without hot-plug
constexpr char fpga_port[] = "0000:00:06.0";     // a display is behind it
constexpr char fpga[] = "0000:04:00.0";          // BAR 0: memory; 2: registers, a page
constexpr char edu[] = "0000:01:00.0";           // BAR 0: registers. Knows nothing of PCI Express
constexpr char testdev[] = "0000:00:04.0";       // BAR 0: memory; 1: I/O; 2: 2 GiB, from 4 GiB on
constexpr char shared_memory[] = "0000:00:05.0"; // BAR 0: 256 bytes; 2: 1 MiB above 4 GiB
constexpr char several_functions[] = "0000:00:1f.2";

// edu's registers.
constexpr size_t edu_identification = 0x00;
constexpr uint32_t edu_identity = 0x010000ed;
constexpr size_t edu_inverter = 0x04; // returns what is written inverted
constexpr size_t edu_irq_raise = 0x60;
constexpr size_t edu_irq_acknowledge = 0x64;

sysfs_pci_identity_t identity(const std::string &id);

struct freeing {
    void operator()(void *block) const { std::free(block); }
};
// The identities of a list that a call returned, which is freed.
std::vector<std::string> names_of(sysfs_pci_identity_t *list);

struct closing_config {
    void operator()(void *handle) const { pci_config_close(handle); }
};
using config_handle = std::unique_ptr<void, closing_config>;
config_handle open_config(const std::string &id);

int wait_link_up(const char *id);

// The memory BARs of a function, but for those whose bit is set.
class mapped_bars
{
public:
    explicit mapped_bars(const std::string &id, uint32_t umask = 0);
    ~mapped_bars();
    mapped_bars(const mapped_bars &) = delete;
    mapped_bars &operator=(const mapped_bars &) = delete;

    int result() const { return result_; }
    char *operator[](size_t bar) const { return static_cast<char *>(bars_[bar]); }

private:
    sysfs_pci_identity_t id_;
    void *bars_[6];
    int result_;
};

} // namespace guest
