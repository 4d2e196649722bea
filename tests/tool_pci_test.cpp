// What devaccess reads, decodes, compares and writes of hardware registers.
#include "support/tool.h"

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
    expect(COMPARE, " 4 507 -> 0 | compared");
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
read 3:0.0 SUBORDINATE_BUS -> 1 | | find SUBORDINATE_BUS of 0000:03:00.0: its kind of header has no such register
read 0:10.0 COMAND -> 2 | | 'COMAND' is no register; did you mean 'COMMAND'?
read 0:10.0 CAP_EXP+4096 -> 2 | | 4096 is too large
write 0:10.0 COMMAND=2/6 LATENCY_TIMER=0x40 --dry-run -> 0 | 0x04    16     0x0000  0x0002  COMMAND        I/O- Mem+
read 0:10.0 COMMAND --json -> 0 | "value":0,
dump 0:10.0 --out /var/tmp/before -> 0
diff /var/tmp/before 0:10.0 && head -99 /var/tmp/before >/var/tmp/cut -> 0 | no differences
diff /var/tmp/cut 0:10.0 -> 1 | no differences | one side has fewer bytes of 0000:00:10.0
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

TEST(devaccess_pci, reads_writes_dumps_and_watches_mapped_registers)
{
    start_chassis();
    expect("devaccess ", R"(
mem read 0 -> 1 | | map memory at 0x0: 
uio list --json -> 0 | "driver":"regblock","interrupts":0,"maps":2,"name":"regblock"
uio write name:regblock 0 0x10 0x12345678 -> 0
uio write 0 0 0x10 0xab00/0xff00 --json -> 0 | "before":305419896
uio write 0 0 0x10 0/0xff --dry-run -> 0 | before:  0x1234ab78\noffset:  0x10\nwidth:   32\nvalue:   0x1234ab00
uio read 0 0 0x10 2 --width 16 --json -> 0 | "registers":[{"offset":16,"value":43896,"value_hex":"0xab78","width":16},{"offset":18
uio read 0 0 0x10 0xffffffff -> 1 | | the window has 0x1000 bytes
uio dump uio0 0 0x10 8 -> 0 | 00000010: 1234ab78 00000000\n
uio dump uio0 0 0x12 5 --width 8 -> 0 | 00000012: 34 12 00 00 00\n
uio dump uio0 1 0x1000 |wc -l -> 0 | 256\n
uio dump uio0 0 0x2000 -> 1 | | the window has 0x1000 bytes
uio dump uio0 0 0xfff 1 --width 8 --json -> 0 | "registers":[{"offset":4095,"value":0,"value_hex":"0x0","width":8}]
uio read name:none 0 0 -> 1 | | there is none of that name
uio watch 0 0 0x10 --until 0x78/0xff --json -> 0 | "value_hex":"0x1234ab78"
uio watch 0 0 0x10 --until 1 --timeout .05 --every 5 -> 1 | 0x1234ab78 | see 1 in 0x10 of map 0 of /dev/uio0: after 0.05 s it holds
uio watch 0 0 0x10 --timeout .05 |wc -l -> 0 | 1\n
uio watch 0 0 0x10 --until 9 --timeout 60 --every 5 |wc -l & sleep .2; devaccess uio write 0 0 0x10 9; wait -> 0 | 2\n
uio wait name:regblock --count 2 --timeout 60 |wc -l -> 0 | 2\n
uio wait 0 --json -> 0 | "elapsed":0.
uio wait 0 --count 1 --timeout 0 -> 1 | | see an interrupt of /dev/uio0: Connection timed out
pci watch 0:1c.0 EXP_LNKSTA --until 0x2000/0x2000 --json -> 0 | "DLActive":true
pci watch 0:1c.0 COMMAND --until 0x10000 -> 2 | | the value 0x10000 is too large
)");
    // Ctrl-C, and on a terminal what is waited for.
    expect("timeout --preserve-status -s INT .3 env --default-signal=INT devaccess ", R"(
uio watch 0 0 0x10 -> 130 | 0x00000009
uio wait sysfs_pci:uio_cma.alsw1 -> 1 | | emulated devices have no interrupts
)");
    expect("script -qec ", R"(
'devaccess uio watch 0 0 0x10 --timeout .1' /dev/null -> 0 | watching 0x10 of map 0 of /dev/uio0, 1 s left)");
    chassis_sim::write_file("/dev/mem", std::string(0x3000, '\0'));
    expect("devaccess mem ", R"(
write 0x1ffc 0xdeadbeef -> 0
write 0x1ffc 0/0xf --json -> 0 | "address":8188,"before":3735928559
read 0x1ffc 2 --json -> 0 | "value_hex":"0xdeadbee0","width":32},{"address":8192
read 0x1ff8 --width 64 -> 0 | 0xdeadbee000000000
read 0x1ffe -> 2 | | must be a multiple of 4 bytes
read 0xfffffffffffffffc 2 -> 2 | | more than can be mapped
dump 0x1ff8 16 -> 0 | 00001ff8: 00000000 deadbee0 00000000 00000000\n
dump 0 --json -> 0 | {"address":252,"value":0
)");
    expect_documented();
}

} // namespace
