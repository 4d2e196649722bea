// Names of vendors, devices and classes, from the system's list; it is read when the first is
// asked.
#pragma once

#include <memory>
#include <optional>
#include <string>

struct pci_access;
struct pci_filter;

namespace devaccess
{

class pci_names
{
public:
    pci_names();

    std::optional<std::string> vendor(unsigned vendor) const;
    std::optional<std::string> device(unsigned vendor, unsigned device) const;
    std::optional<std::string> device_class(unsigned device_class) const;

    // As lspci heads what it prints of a function: "Host bridge: Vendor f0ca Device 0001 (rev 02)".
    std::string heading(unsigned vendor, unsigned device, unsigned device_class,
                        unsigned revision) const;

private:
    friend class device_filter;
    struct closer {
        void operator()(pci_access *access) const;
    };
    std::unique_ptr<pci_access, closer> access_;
};

// The filters of lspci and setpci: "[[DOMAIN:]BUS:][SLOT][.FUNCTION]", "[VENDOR]:[DEVICE][:CLASS]".
class device_filter
{
public:
    device_filter(std::string where, std::string ids, const pci_names &names);

    bool takes(const std::string &id, unsigned vendor, unsigned device,
               unsigned device_class) const;

private:
    pci_access *access_;
    std::shared_ptr<pci_filter> filter_;
};

} // namespace devaccess
