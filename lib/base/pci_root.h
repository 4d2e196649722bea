// Where sysfs has the PCI functions.
#pragma once

namespace device_access
{

// Where the kernel shows each PCI function, as a link named by its identity.
inline constexpr char pci_root[] = "/sys/bus/pci/devices";

} // namespace device_access
