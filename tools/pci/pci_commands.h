// The commands on PCI functions.
#pragma once

#include "tools/base/fleet.h"
#include "tools/base/waiting.h"
#include "tools/cli/command.h"
#include "tools/pci/config_space.h"

#include <string>
#include <vector>

namespace devaccess
{

struct pci_arguments {
    archive_names from;
    std::string id;
    std::vector<std::string> registers;
    std::string file;
    std::string other;
    std::string slot_filter;
    std::string id_filter;
    unsigned width = 0; // that of the register's name
    bool dry_run = false;
    wait_options wait;
};

void describe_pci(command &pci);
void describe_bar(command &bar);
option add_id(command &to, std::string &id);

// The function that they name, of the machine or of the file.
config_space config_of(const pci_arguments &arguments,
                       const machine_source &machine = this_machine());
// Prints what there is to say of the function that they name, for each machine.
void print_for_each(const pci_arguments &arguments,
                    const std::function<record(const config_space &, const machine_source &)> &say);

void pci_list(const pci_arguments &arguments);
void pci_tree(const pci_arguments &arguments);
void pci_children(const pci_arguments &arguments);
void pci_show(const pci_arguments &arguments);
void pci_link_wait(const pci_arguments &arguments);
void pci_bridge_enable(const pci_arguments &arguments);
void pci_bridge_disable(const pci_arguments &arguments);
void pci_bridge_usable(const pci_arguments &arguments);

void pci_read(const pci_arguments &arguments);
void pci_write(const pci_arguments &arguments);
void pci_watch(const pci_arguments &arguments);
void pci_caps(const pci_arguments &arguments);
void pci_dump(const pci_arguments &arguments);
void pci_diff(const pci_arguments &arguments);

} // namespace devaccess
