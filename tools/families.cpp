// The families of commands, in the order of the help.
#include "tools/families.h"

#include "tools/machine/machine_commands.h"
#include "tools/pci/pci_commands.h"
#include "tools/podlog/podlog_commands.h"
#include "tools/postlog/postlog_commands.h"
#include "tools/registers/register_commands.h"
#include "tools/trace/trace_commands.h"

namespace devaccess
{
namespace
{

void describe_all_of_pci(command &pci)
{
    describe_pci(pci);
    describe_link_check(pci);
}

constexpr command_family families[] = {
    {"check", "Judge this machine, or those of archives: links, functions, logs, rights",
     describe_check},
    {"pci", "PCI functions, through sysfs", describe_all_of_pci},
    {"uio", "UIO devices, and those emulated over PCI", describe_uio},
    {"mem", "Physical memory, through /dev/mem", describe_mem},
    {"map", "Register maps, which name the registers of devices", describe_map},
    {"trace", "Run a command, and tell what it does with its devices", describe_trace},
    {"podlog", "POD logs of the cards", describe_podlog},
    {"postlog", "POST logs of the firmware", describe_postlog},
    {"inventory", "Inventory records of the cards", describe_inventory},
    {"collect", "Record the PCI functions, UIO devices and logs of this machine in an archive",
     describe_collect},
    {"diff", "Compare the machines of two archives, or of one and this machine", describe_diff},
    {"report", "Write a page on machines in HTML, for a ticket", describe_report},
    {"metrics", "Print the state of logs and links as OpenMetrics text, for monitoring",
     describe_metrics},
};

} // namespace

const std::span<const command_family> command_families = families;

} // namespace devaccess
