// What devaccess reads, decodes, compares and writes of hardware registers.
#include "support/tool.h"

#include "sim/chassis.h"

#include <gtest/gtest.h>

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
    if (::getuid() == 0) // others see no capabilities of this machine
        expect(COMPARE, " 1 0 -> 0 | compared");
    start_chassis();
    add_port("0000:00:10.0");
    expect("", "devaccess pci dump >/var/tmp/a; lspci -D -xxxx 2>&- |cmp - /var/tmp/a -> 0");
    expect(COMPARE, " 4 430 -> 0 | compared");
}

TEST(devaccess_pci, names_compares_and_changes_registers)
{
    start_chassis();
    add_port("0000:00:10.0");
    expect("devaccess pci ", R"(
read 0:10.0 COMMAND STATUS --json -> 0 | "fields":{"66MHz":false,"<MAbort":false
read 0:10.0 exp_lnksta --json -> 0 | "register":"EXP_LNKSTA","value":8257,"width":16
read 0:10.0 CAP_EXP+0x12 -> 0 | fields:    Speed=2.5GT/s, Width=x4, TrErr- Train- SlotClk- DLActive+
read 0:10.0 CAP_EXP+0x12 --width 8 -> 0 | value:     0x41\n
read 0:10.0 ECAP_AER+4 --json -> 0 | "offset":260,"register":"ERR_UNCOR_STATUS"
read 0:10.0 CAP_VPD -> 1 | | find CAP_VPD of 0000:00:10.0: it has no such capability
read 0:10.0 COMAND -> 2 | | 'COMAND' is no register; did you mean 'COMMAND'?
read 0:10.0 CAP_EXP+4096 -> 2 | | 4096 is too large
write 0:10.0 COMMAND=2/6 LATENCY_TIMER=0x40 --dry-run -> 0 | 0x04    16     0x0000  0x0002  COMMAND        I/O- Mem+
read 0:10.0 COMMAND --json -> 0 | "value":0,
dump 0:10.0 --out /var/tmp/before -> 0
write 0:10.0 COMMAND=2/6 LATENCY_TIMER=0x40 --json -> 0 | {"before":null,"fields":{},"offset":13,"register":"LATENCY_TIMER","value":64
write 0:10.0 COMMAND=4/4 --json -> 0 | "before":2,
write 0:10.0 COMMAND 4 --json -> 0 | "before":null,
write 0:10.0 COMMAND=0x10000 -> 2 | | the value 0x10000 is too large; at most 0xffff
write 0:10.0 COMMAND -> 2 | | 'COMMAND' has no value; write COMMAND=VALUE
diff 0:10.0 /var/tmp/before -> 1 | COMMAND        0x0004  0x0000  BusMaster+ -> BusMaster-\n | cannot call them alike: 2 diff
diff 0:10.0 0:10.0 --json -> 0 | "differences":[],"format":1,"only_in_a":[],"only_in_b":[]
dump --out /var/tmp/all --json -> 0 | "file":"/var/tmp/all"
diff /var/tmp/all /var/tmp/before -> 1 | only_in_a:  0000:00:00.0 0000:00:19.0 | difference
diff /var/tmp/none 0:10.0 -> 1 | | read /var/tmp/none: No such file
show 3:0.0 --file /var/tmp/all --json -> 0 | "kind":"64-bit prefetchable memory","size":null}]
show --file /var/tmp/all -> 2 | | /var/tmp/all holds 10 functions; ID is required
caps --file /var/tmp/before -> 0 | 0x40    CAP_PM
caps 0:10.0 --json -> 0 | "registers":[{"fields":{"AuxCurrent":"0mA","D1":false
show --file /dev/null -> 1 | | no function's registers are in it
show -> 2 | | either ID or --file is required
list -s 3: -> 0 | 0000:03:00.0  f0ca:0020  -       2.5 GT/s x4  3     Memory controller  Vendor f0ca Device 0020\n
list -d f0ca:2 --json -> 0 | "class":131072,"class_name":"Ethernet controller","device":2,"device_name":null
list -d x -> 2 | | the filter is wrong
tree |grep -c '^.   .-- 0000:03:00.0  Memory controller' -> 0 | 1\n
tree --json -> 0 | "buses":[{"bus":"pci0000:00"
)");
    expect_documented();
}

} // namespace
