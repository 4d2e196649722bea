#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace chassis_sim
{

// A base address register's window: one line of the "resource" file and, when it has a size, a file
// "resourceN" of that many bytes.
struct pci_window {
    uint64_t start = 0;
    uint64_t size = 0;
    uint64_t flags =
        0x40200; // memory, 32 bits (the kernel's IORESOURCE_MEM and its size alignment)
};

using config_space = std::vector<uint8_t>;

// The PCI Express capability of a port or a device.
struct pcie_capability {
    enum : uint16_t {
        endpoint = 0x0,
        root_port = 0x4,
        // Link status: width and speed are those of a link of four lanes at 2.5 GT/s.
        link_up = 0x2041,       // active
        link_training = 0x0841, // not active yet
        link_down = 0x0001,
    };
    uint16_t type = endpoint;
    bool slot = false;
    bool hotplug = false;
    bool reports_active = true; // whether the port can tell that its data link is active
    uint16_t link_status = link_up;
};

// Builds a configuration space, 256 or 4096 bytes in the standard layout. The ids and the base
// address registers come from the function that it is given to.
class config_builder
{
public:
    explicit config_builder(uint8_t header_type = 0, size_t size = 256);

    config_builder &put8(size_t offset, uint8_t value);
    config_builder &put16(size_t offset, uint16_t value);
    config_builder &put32(size_t offset, uint32_t value);

    // Append an entry to the capability list and return its offset. The first is at 0x40.
    uint8_t capability(uint8_t id, size_t size);
    uint8_t power_management();
    uint8_t msi();
    uint8_t pcie(const pcie_capability &description);

    const config_space &bytes() const { return bytes_; }

private:
    config_space bytes_;
    size_t link_;        // the byte that will point to the next entry
    size_t next_ = 0x40; // where that will be
};

struct pci_function {
    std::string id;     // "0000:03:00.0"
    std::string parent; // id of the bridge above; empty: the function is on the root bus
    uint16_t vendor = 0xf0ca;
    uint16_t device = 0x0001;
    uint16_t subsystem_vendor = 0xf0ca;
    uint16_t subsystem_device = 0x0001;
    config_space config = config_space(256); // ids, class and BARs are filled in when zero
    std::vector<pci_window> windows;         // BARs 0 to 5
    uint32_t class_code = 0x058000;          // memory controller
};

// "/sys/bus/pci/devices/ID", the link to the function's directory below /sys/devices. A child's
// directory lies inside its parent's.
std::string pci_link(const std::string &id);

// Builds the sysfs directory of a function as the kernel shows it.
void add_pci(const pci_function &function);

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

// A number in a configuration space or a window of registers.
struct register_value {
    uint32_t offset = 0;
    uint32_t value = 0;
    uint32_t width = 4; // in bytes
};

// A function by its parts.
struct function_description {
    std::string id;
    std::string parent;
    uint32_t vendor = 0xf0ca;
    uint32_t device = 0x0001;
    uint32_t subsystem_vendor = 0xf0ca;
    uint32_t subsystem_device = 0x0001;
    uint32_t class_code = 0x058000;
    uint32_t header_type = 0;
    uint32_t config_size = 256;
    std::vector<std::string> capabilities; // in their order: "pm", "msi", "pcie"
    pcie_capability pcie;
    std::vector<register_value> config; // over what the parts say
    struct bar {
        pci_window window;
        std::vector<register_value> registers;
    };
    std::vector<bar> bars;
};
pci_function made_of(const function_description &function);
void add_pci(const function_description &function);

// What every chassis has: a host bridge, an endpoint without PCI Express, a device with two
// functions, and a root port with a hot-plug slot and a device behind it.
inline constexpr char pci_root_port[] = "0000:00:1c.0";
inline constexpr char pci_slot_device[] = "0000:03:00.0";
std::vector<function_description> chassis_functions();
void add_chassis_pci();

// A slot, as the hot-plug driver shows it.
void add_pci_slot(const std::string &name, const std::string &address);

// Changes a register of a window.
void write_window(const std::string &id, size_t bar, const register_value &change);

// A new link status for a port.
void set_link(const std::string &id, uint16_t link_status);

} // namespace chassis_sim
