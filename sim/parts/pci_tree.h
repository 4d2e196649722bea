// The PCI functions as sysfs shows them, and how they leave the bus and come back.
#pragma once

#include "sim/parts/pci_function.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace chassis_sim
{

// "/sys/bus/pci/devices/ID", the link to the function's directory below /sys/devices. A child's
// directory lies inside its parent's.
std::string pci_link(const std::string &id);

// Whether a text is the address of a function, such as "0000:03:00.0".
bool is_pci_id(const std::string &text);

// Builds the sysfs directory of a function as the kernel shows it, with what is in its windows.
void add_pci(const pci_function &function);

// The file of a window, also of a function that is not on the bus.
std::string window_path(const std::string &id, size_t bar);

// Adds to a function's directory, which another machine's kernel has made, what was not recorded of
// it: the windows that its "resource" file tells of, and the files that are only written to.
void complete_pci(const std::string &dir);

// Changes a register of a function's configuration space, in place.
void write_config16(const std::string &id, size_t offset, uint16_t value);

// The function and what is below it leave the bus.
void remove_pci(const std::string &id);

// The same, but it can come back as it was, whole, at once. False: it is so already.
bool unplug_pci(const std::string &id);
bool plug_pci(const std::string &id);

// Those that every chassis has, and its slot.
void add_chassis_pci();

// A slot, as the hot-plug driver shows it.
void add_pci_slot(const std::string &name, const std::string &address);

// Changes a register of a window.
void write_window(const std::string &id, size_t bar, const register_value &change);

// A new link status for a port; throws a failure when it is none.
void set_link(const std::string &id, uint16_t link_status);

} // namespace chassis_sim
