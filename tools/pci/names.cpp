// Names PCI functions and filters them, by libpci.
#include "tools/pci/names.h"

#include "tools/base/errors.h"
#include "tools/base/output.h"
#include "tools/base/shared_library.h"

#include <cstdarg>
#include <cstdio>

#include <fmt/format.h>
#include <unistd.h>
extern "C" {
#include <pci/pci.h>
}

namespace devaccess
{
namespace
{

const shared_library &libpci()
{
    static const shared_library library("libpci.so.3", "filter PCI functions");
    return library;
}

// Without the library, functions have no names.
bool has_libpci()
{
    static const bool found = [] {
        try {
            libpci();
            return true;
        } catch (const failure &) {
            return false;
        }
    }();
    return found;
}

// A function of the library that is loaded.
#define LIBPCI(function) libpci().find<decltype(function)>(#function)

// Must not return, nor throw through the library's C.
[[gnu::noreturn]] void end(char *format, ...)
{
    char text[256];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    print_failure("devaccess pci", text, "", 0);
    ::_exit(1);
}

void ignore(char *, ...) {}

// udev's database says what the list of PCI identities says, and where a machine has none the
// library loses memory with each look-up in it.
constexpr int list_alone = PCI_LOOKUP_NO_HWDB;

template <typename... Ids>
std::optional<std::string> look_up(pci_access *access, int what, Ids... ids)
{
    if (!access)
        return std::nullopt;
    char buffer[256];
    const char *name = LIBPCI(pci_lookup_name)(access, buffer, sizeof buffer,
                                               what | PCI_LOOKUP_NO_NUMBERS | list_alone, ids...);
    return name ? std::optional(printable(name)) : std::nullopt;
}

} // namespace

pci_names::pci_names()
{
    if (!has_libpci())
        return;
    access_.reset(LIBPCI(pci_alloc)());
    access_->method = PCI_ACCESS_SYS_BUS_PCI;
    access_->error = end;
    access_->warning = ignore;
    LIBPCI(pci_init)(access_.get());
}

void pci_names::closer::operator()(pci_access *access) const
{
    LIBPCI(pci_cleanup)(access);
}

std::optional<std::string> pci_names::vendor(unsigned vendor) const
{
    return look_up(access_.get(), PCI_LOOKUP_VENDOR, vendor);
}

std::optional<std::string> pci_names::device(unsigned vendor, unsigned device) const
{
    return look_up(access_.get(), PCI_LOOKUP_DEVICE, vendor, device);
}

std::optional<std::string> pci_names::device_class(unsigned device_class) const
{
    return look_up(access_.get(), PCI_LOOKUP_CLASS, device_class >> 8);
}

std::string pci_names::heading(unsigned vendor, unsigned device, unsigned device_class,
                               unsigned revision) const
{
    if (!access_)
        return fmt::format("Class {:04x}: Vendor {:04x} Device {:04x}{}", device_class >> 8, vendor,
                           device, revision ? fmt::format(" (rev {:02x})", revision) : "");
    char what[256];
    char name[256];
    const auto look_up_number = LIBPCI(pci_lookup_name);
    const std::string text = fmt::format(
        "{}: {}",
        look_up_number(access_.get(), what, sizeof what, PCI_LOOKUP_CLASS | list_alone,
                       device_class >> 8),
        look_up_number(access_.get(), name, sizeof name,
                       PCI_LOOKUP_VENDOR | PCI_LOOKUP_DEVICE | list_alone, vendor, device));
    return printable(revision ? fmt::format("{} (rev {:02x})", text, revision) : text);
}

device_filter::device_filter(std::string where, std::string ids, const pci_names &names)
    : access_(names.access_.get())
{
    if (where.empty() && ids.empty())
        return;
    filter_ = std::make_shared<pci_filter>();
    LIBPCI(pci_filter_init)(access_, filter_.get());
    // The library writes into the texts.
    const char *problem = LIBPCI(pci_filter_parse_slot)(filter_.get(), where.data());
    if (!problem && !ids.empty())
        problem = LIBPCI(pci_filter_parse_id)(filter_.get(), ids.data());
    if (problem)
        throw usage_error(fmt::format("the filter is wrong: {}", problem));
}

bool device_filter::takes(const std::string &id, unsigned vendor, unsigned device,
                          unsigned device_class) const
{
    if (!filter_)
        return true;
    unsigned domain = 0, bus = 0, slot = 0, function = 0;
    std::sscanf(id.c_str(), "%x:%x:%x.%x", &domain, &bus, &slot, &function);
    pci_dev *const entry =
        LIBPCI(pci_get_dev)(access_, static_cast<int>(domain), static_cast<int>(bus),
                            static_cast<int>(slot), static_cast<int>(function));
    entry->vendor_id = static_cast<u16>(vendor);
    entry->device_id = static_cast<u16>(device);
    entry->device_class = static_cast<u16>(device_class >> 8);
    // Else it would read them, and end the program where the function has just gone.
    entry->known_fields |= PCI_FILL_IDENT | PCI_FILL_CLASS | PCI_FILL_CLASS_EXT;
    const bool taken = LIBPCI(pci_filter_match)(filter_.get(), entry);
    LIBPCI(pci_free_dev)(entry);
    return taken;
}

} // namespace devaccess
