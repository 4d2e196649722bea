// The memory of PCI functions: pci bar read, write, dump, watch, show, diff.
#include "tools/base/captured_call.h"
#include "tools/base/errors.h"
#include "tools/base/output.h"
#include "tools/pci/config_space.h"
#include "tools/pci/pci_commands.h"
#include "tools/registers/source_commands.h"

#include <device_access/device_access.hpp>

#include <cstring>
#include <vector>

#include <fmt/format.h>
#include <linux/pci_regs.h>

namespace devaccess
{
namespace
{

class pci_bars : public register_source
{
public:
    explicit pci_bars(const register_arguments &arguments) : device_(pci_device(arguments.device))
    {
    }

    std::string name() const override { return device_.str; }
    record identity() const override { return record().add("id", device_.str); }
    const char *window_word() const override { return "bar"; }
    std::vector<std::string> map_names() const override
    {
        return register_map::names_of_pci(directory());
    }
    unsigned highest_window() const override { return 5; }

    register_bank bank(unsigned bar, uint64_t, uint64_t) override
    {
        const config_space config(device_);
        if ((config.read(PCI_COMMAND, 16) & PCI_COMMAND_MEMORY) == 0)
            note(fmt::format("{} has COMMAND Mem-, and may not answer", name()));
        const std::string what = fmt::format("map BAR {} of {}", bar, name());
        const auto mapped = ask([&] {
            auto memory = device_access::pci_memory::map(device_, ~(1u << bar));
            if (memory)
                mapped_.push_back(std::move(*memory));
            errno = memory ? 0 : memory.error().error;
            return memory.has_value();
        });
        if (!mapped.result)
            fail(what, mapped, "is a driver using it, or the kernel strict with such memory?");
        const auto window = mapped_.back().bar(bar);
        if (!window)
            throw failure(what, "there is none, or it is not memory",
                          "'devaccess pci show " + name() + "' shows its resources");
        return {fmt::format("BAR {} of {}", bar, name()),
                identity().add("bar", bar),
                "offset",
                0,
                *window,
                directory()};
    }

    static std::vector<std::string> map_names_of_device(const std::string &id)
    {
        return register_map::names_of_pci(pci_directory + std::string(pci_device(id).str));
    }
    static constexpr char place_words[] = "BAR OFFSET";
    static constexpr char device_word[] = "ID";
    static void add_device(command &to, register_arguments &arguments)
    {
        add_id(to, arguments.device).required();
    }

private:
    std::string directory() const { return pci_directory + name(); }

    sysfs_pci_identity_t device_;
    std::vector<device_access::pci_memory> mapped_;
};

} // namespace

void describe_bar(command &bar)
{
    add_register_commands<pci_bars>(bar);
}

} // namespace devaccess
