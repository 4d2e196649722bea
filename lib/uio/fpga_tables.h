// The FPGAs of the chassis: which one a name means, how it identifies itself, and which ranges of
// its PCI resources make up its register blocks. Texts stand in the rows, so that the loader has
// nothing to relocate.
#pragma once

#include <device_access/libuio.h>

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace device_access
{

enum swfpga_type {
    SWFPGA_LOCAL_ZARNIK = 0,
    SWFPGA_REMOTE_ZARNIK = 1,
    SWFPGA_LOCAL_ZARNIK2 = 2,
    SWFPGA_REMOTE_ZARNIK2 = 3,
    SWFPGA_RP_PELLUM = 4,
    SWFPGA_RP_PELLUM2 = 5,
    SWFPGA_SW_VOSTRA = 6,
    SWFPGA_SW_VOSTRA2 = 7,
    SWFPGA_AL_VOSTRA = 8,
    SWFPGA_AL_VOSTRAT = 9,
    SWFPGA_AL_VOSTRA2 = 10,
    SWFPGA_UNKNOWN = 11,
};

// Bits 16 to 23 of the identification register.
enum libuio_fpga_e {
    LIBUIO_FPGA_ZARNIK = 0,
    LIBUIO_FPGA_VOSTRA = 1,
    LIBUIO_FPGA_ZARNIK2 = 17,
    LIBUIO_FPGA_VOSTRA2 = 18,
    LIBUIO_FPGA_VOSTRAT = 34,
    LIBUIO_FPGA_UNKNOWN = 255,
};

//--- names ----------------------------------------------------------------------------------------

struct fpga_type_row {
    char slot_prefix[5];
    char fpga_name[13]; // "" stands for a name that gives no FPGA
    swfpga_type type;
};

// The first row that fits decides.
inline constexpr fpga_type_row fpga_type_table[] = {
    {"rpsw", "", SWFPGA_LOCAL_ZARNIK2},
    {"rpsw", "zarnik", SWFPGA_LOCAL_ZARNIK},
    {"self", "zarnik", SWFPGA_LOCAL_ZARNIK},
    {"peer", "zarnik", SWFPGA_REMOTE_ZARNIK},
    {"rpsw", "zarnik2", SWFPGA_LOCAL_ZARNIK2},
    {"self", "zarnik2", SWFPGA_LOCAL_ZARNIK2},
    {"peer", "zarnik2", SWFPGA_REMOTE_ZARNIK2},
    {"rpsw", "pellum", SWFPGA_RP_PELLUM},
    {"self", "pellum", SWFPGA_RP_PELLUM},
    {"rpsw", "pellum2", SWFPGA_RP_PELLUM2},
    {"self", "pellum2", SWFPGA_RP_PELLUM2},
    {"sw", "", SWFPGA_SW_VOSTRA},
    {"sw", "vostra_lite", SWFPGA_SW_VOSTRA},
    {"sw", "vostra2_lite", SWFPGA_SW_VOSTRA2},
    {"alsw", "", SWFPGA_AL_VOSTRA2},
    {"alsw", "vostra", SWFPGA_AL_VOSTRA},
    {"alsw", "vostrat", SWFPGA_AL_VOSTRAT},
    {"alsw", "vostra2", SWFPGA_AL_VOSTRA2},
};

struct fpga_name_row {
    libuio_fpga_e code;
    char slot_prefix[5];
    char fpga_name[13];
};

inline constexpr fpga_name_row fpga_name_table[] = {
    {LIBUIO_FPGA_ZARNIK, "rpsw", "zarnik"},      {LIBUIO_FPGA_ZARNIK2, "rpsw", "zarnik2"},
    {LIBUIO_FPGA_VOSTRA, "alsw", "vostra"},      {LIBUIO_FPGA_VOSTRAT, "alsw", "vostrat"},
    {LIBUIO_FPGA_VOSTRA2, "alsw", "vostra2"},    {LIBUIO_FPGA_VOSTRA, "sw", "vostra_lite"},
    {LIBUIO_FPGA_VOSTRA2, "sw", "vostra2_lite"},
};

//--- register blocks ------------------------------------------------------------------------------

namespace swfpga
{

constexpr unsigned long page_size = 4096;

// As the end of a range: all of the resource file.
constexpr unsigned long whole = 0xffffffff;

template <typename... Types>
constexpr uint16_t any_of(Types... types)
{
    return static_cast<uint16_t>((... | (1u << types)));
}

constexpr uint16_t local_zarnik = any_of(SWFPGA_LOCAL_ZARNIK);
constexpr uint16_t zarnik = any_of(SWFPGA_LOCAL_ZARNIK, SWFPGA_REMOTE_ZARNIK);
constexpr uint16_t local_zarnik2 = any_of(SWFPGA_LOCAL_ZARNIK2);
constexpr uint16_t zarnik2 = any_of(SWFPGA_LOCAL_ZARNIK2, SWFPGA_REMOTE_ZARNIK2);
constexpr uint16_t pellum = any_of(SWFPGA_RP_PELLUM);
constexpr uint16_t pellum2 = any_of(SWFPGA_RP_PELLUM2);
constexpr uint16_t sw_vostra2 = any_of(SWFPGA_SW_VOSTRA2);
constexpr uint16_t any_sw = any_of(SWFPGA_SW_VOSTRA, SWFPGA_SW_VOSTRA2);
constexpr uint16_t al_vostrat = any_of(SWFPGA_AL_VOSTRAT);
constexpr uint16_t al_vostra = any_of(SWFPGA_AL_VOSTRA, SWFPGA_AL_VOSTRAT);
constexpr uint16_t al_vostra2 = any_of(SWFPGA_AL_VOSTRA2);
constexpr uint16_t any_al = al_vostra | al_vostra2;
constexpr uint16_t first_vostra = al_vostra | any_of(SWFPGA_SW_VOSTRA);
constexpr uint16_t second_vostra = sw_vostra2 | al_vostra2;

// A map of a register block that FPGAs of these types have: bytes of PCI resource bar, in pages.
struct map_row {
    // In resource 0 last is where the last page starts, in the others where the range ends.
    template <size_t size>
    constexpr map_row(uint16_t fpgas, const char (&name)[size], unsigned int resource,
                      unsigned long first, unsigned long last)
        : types(fpgas), bar(static_cast<uint8_t>(resource)),
          first_page(static_cast<uint16_t>(first / page_size)),
          pages(last == whole ? all
                              : static_cast<uint16_t>((last - first) / page_size + (bar == 0)))
    {
        std::copy_n(name, size, block);
    }
    // One page of resource 0.
    template <size_t size>
    constexpr map_row(uint16_t fpgas, const char (&name)[size], unsigned long start)
        : map_row(fpgas, name, 0, start, start)
    {
    }

    constexpr bool belongs_to(swfpga_type type) const { return (types >> type & 1) != 0; }
    constexpr unsigned long offset() const { return first_page * page_size; }
    constexpr unsigned long size() const { return pages == all ? whole : pages * page_size; }

    static constexpr uint16_t all = 0;
    uint16_t types;
    char block[9] = ""; // its name after "uio_"
    uint8_t bar;
    uint16_t first_page;
    uint16_t pages;
};

// The maps of a block, in the order of their numbers.
inline constexpr map_row map_table[] = {
    {zarnik, "fe", 1, 0, whole},
    {zarnik, "fe", 0x1000},
    {local_zarnik, "cmneqp", 0, 0x2000, 0x6000},
    {local_zarnik, "cmbhub", 0x10000},
    {local_zarnik, "glb", 0},

    {zarnik2, "fe0", 1, 0x40000, 0x80000},
    {zarnik2, "fe0", 1, 0x1000, 0x2000},
    {zarnik2, "fe0", 1, 0x9000, 0xa000},
    {zarnik2, "fe0", 1, 0, 0x1000},
    {zarnik2, "fe1", 2, 0x40000, 0x80000},
    {zarnik2, "fe1", 2, 0x1000, 0x2000},
    {zarnik2, "fe1", 2, 0x9000, 0xa000},
    {zarnik2, "fe1", 2, 0, 0x1000},
    {zarnik2, "fe0_ntb", 1, 0, 0x1000},
    {zarnik2, "fe0_ntb", 1, 0x1000, 0x2000},
    {zarnik2, "fe0_ntb", 1, 0x9000, 0xa000},
    {zarnik2, "fe0_ntb", 1, 0x8000, 0x9000},
    {zarnik2, "fe1_ntb", 2, 0, 0x1000},
    {zarnik2, "fe1_ntb", 2, 0x1000, 0x2000},
    {zarnik2, "fe1_ntb", 2, 0x9000, 0xa000},
    {zarnik2, "fe1_ntb", 2, 0x8000, 0x9000},
    {local_zarnik2, "cmneqp", 0, 0x2000, 0x5000},
    {local_zarnik2, "cmbhub", 0xa000},
    {local_zarnik2, "cmbhub", 0x8000},
    {zarnik2, "glb", 0},

    {pellum, "brd_ctrl", 0xb0000},
    {pellum, "rpmb", 0xb3000},
    {pellum, "config", 0xb4000},
    {pellum, "cma", 0xb2000},
    {pellum, "ch_i2c", 0xb5000},

    {pellum2, "brd_ctrl", 0},
    {pellum2, "rpmb", 0x3000},
    {pellum2, "config", 0x4000},
    {pellum2, "cma", 0x2000},
    {pellum2, "ch_i2c", 0x5000},
    {pellum2, "spi_flsh", 0x6000},
    {pellum2, "nvram", 1, 0, whole},

    {first_vostra, "fe", 1, 0, whole},
    {first_vostra, "fe", 0x6000},
    {second_vostra, "fe0", 1, 0x40000, 0x80000},
    {second_vostra, "fe0", 1, 0x1000, 0x2000},
    {second_vostra, "fe0", 0x38000},
    {second_vostra, "fe1", 2, 0x40000, 0x80000},
    {second_vostra, "fe1", 2, 0x1000, 0x2000},
    {second_vostra, "fe1", 0x39000},
    {any_sw, "flash", 0x1000},
    {any_sw, "cma", 0, 0x4000, 0x5000},
    {any_sw, "cma", 0x2000},
    {any_sw, "cma", 0x8000},
    {sw_vostra2, "ntb", 0x22000},
    {sw_vostra2, "ntb", 0x23000},
    {sw_vostra2, "ntb", 0x30000},
    {sw_vostra2, "ntb", 0x31000},
    {sw_vostra2, "ntb", 0x32000},
    {sw_vostra2, "ntb", 0x33000},
    {sw_vostra2, "ntb", 0x38000},
    {sw_vostra2, "ntb", 0x39000},
    {sw_vostra2, "ntb", 1, 0x1000, 0x2000},
    {sw_vostra2, "ntb", 2, 0x1000, 0x2000},

    {any_al, "flash", 0x1000},
    {any_al, "cma", 0, 0x4000, 0x5000},
    {any_al, "cma", 0x2000},
    {any_al, "cma", 0xb000},
    {any_al, "cma", 0, 0xc000, 0xd000},
    {any_al, "tcm", 0xa000},
    {al_vostra, "pci", 2, 0, whole},
    {al_vostra, "pci", 0, 0x10000, 0x14000},
    {al_vostra, "pci", 0x9000},
    {al_vostra, "pci", 0x7000},
    {al_vostrat, "spi", 0xe000},
    {al_vostrat, "cmb_emul", 0xf000},
    {al_vostrat, "i2c", 0x3000},
    {al_vostra2, "ge0", 3, 0, 0x100000},
    {al_vostra2, "ge0", 4, 0, 0x4000000},
    {al_vostra2, "ge0", 0},
    {al_vostra2, "ge0", 0x2a000},
    {al_vostra2, "ge0", 0x3a000},
    {al_vostra2, "ge0", 0x7000},
    {al_vostra2, "ge1", 3, 0x100000, 0x200000},
    {al_vostra2, "ge1", 4, 0x4000000, 0x8000000},
    {al_vostra2, "ge1", 0},
    {al_vostra2, "ge1", 0x2c000},
    {al_vostra2, "ge1", 0x3b000},
    {al_vostra2, "ge1", 0x3000},
    {al_vostra2, "mdio", 0x9000},
    {al_vostra2, "spi", 0xe000},
    {al_vostra2, "cmb_emul", 0xf000},
    {al_vostra2, "ntb", 0x22000},
    {al_vostra2, "ntb", 0x23000},
    {al_vostra2, "ntb", 0x30000},
    {al_vostra2, "ntb", 0x31000},
    {al_vostra2, "ntb", 0x32000},
    {al_vostra2, "ntb", 0x33000},
    {al_vostra2, "ntb", 0x34000},
    {al_vostra2, "ntb", 0x35000},
    {al_vostra2, "ntb", 0x3a000},
    {al_vostra2, "ntb", 0x3b000},
    {al_vostra2, "ntb", 0x38000},
    {al_vostra2, "ntb", 0x39000},
    {al_vostra2, "ntb", 0x2a000},
    {al_vostra2, "ntb", 0x2c000},
    {al_vostra2, "ntb", 1, 0x1000, 0x2000},
    {al_vostra2, "ntb", 2, 0x1000, 0x2000},
};

// So no block has more maps than a handle.
constexpr bool maps_fit_a_handle()
{
    for (unsigned int type = 0; type < SWFPGA_UNKNOWN; ++type)
        if (std::count_if(std::begin(map_table), std::end(map_table), [=](const map_row &row) {
                return row.belongs_to(static_cast<swfpga_type>(type));
            }) > LIBUIO_MAX_MAPS)
            return false;
    return true;
}
static_assert(maps_fit_a_handle());

} // namespace swfpga

} // namespace device_access
