// What devaccess reads, decodes, compares and writes of hardware registers.
#include "support/tool.h"

#include <filesystem>
#include <unistd.h>

namespace
{

using namespace tool;

// A port's capabilities, as far as they are decoded.
void add_port(const std::string &id)
{
    chassis_sim::config_builder config(1, 4096);
    config.power_management();
    config.msi();
    config.pcie({.type = chassis_sim::pcie_capability::root_port, .slot = true});
    config.capability(0x11, 12);
    config.put32(0x100, 0x14010001).put32(0x140, 0x00010003); // error reporting, serial number
    chassis_sim::pci_function port;
    port.id = id;
    port.class_code = 0x060400;
    port.config = config.bytes();
    chassis_sim::add_pci(port);
}

TEST(devaccess_pci, decodes_registers_as_lspci_does)
{
    if (::getuid() == 0) { // others see no capabilities of this machine
        EXPECT_EQ(run(COMPARE " 1 0").status, 0);
    }
    start_chassis();
    add_port("0000:00:10.0");
    EXPECT_EQ(run("devaccess pci dump >/var/tmp/a; lspci -D -xxxx 2>&- | cmp - /var/tmp/a").status,
              0);
    const result compared = run(COMPARE " 4 507");
    EXPECT_EQ(compared.status, 0) << compared.error;
}

TEST(devaccess_pci, names_compares_and_changes_registers)
{
    start_chassis();
    add_port("0000:00:10.0");
    follow("devaccess/pci_registers.txt");
    expect_documented();
}

TEST(devaccess_pci, reads_writes_dumps_and_watches_mapped_registers)
{
    start_chassis();
    follow("devaccess/registers.txt");
    // Ctrl-C, and on a terminal what is waited for.
    follow("devaccess/registers_interrupted.txt");
    follow("devaccess/registers_terminal.txt");
    chassis_sim::write_file("/dev/mem", std::string(0x3000, '\0'));
    follow("devaccess/mem.txt");
    expect_documented();
}

TEST(devaccess_pci, names_registers_of_devices_that_have_a_map)
{
    start_chassis();
    std::filesystem::copy(SOURCE "/tests/expected/devaccess/maps", "/var/tmp/maps");
    ::setenv("DEVACCESS_MAPS", "/var/tmp/none:/var/tmp/maps", 1);
    chassis_sim::write_file("/dev/mem", std::string(0x3000, '\0'));
    follow("devaccess/named_registers.txt");
    follow("devaccess/maps.txt");
    expect_documented();
}

} // namespace
