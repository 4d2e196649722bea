// The FPGAs of the chassis: which one a name means, how it identifies itself, and which ranges of
// its PCI resources make up its register blocks.
#pragma once

#include <device_access/libuio.h>

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
    const char *slot_prefix;
    const char *fpga_name; // "" stands for a name that gives no FPGA
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
    const char *slot_prefix;
    libuio_fpga_e code;
    const char *fpga_name;
};

inline constexpr fpga_name_row fpga_name_table[] = {
    {"rpsw", LIBUIO_FPGA_ZARNIK, "zarnik"},      {"rpsw", LIBUIO_FPGA_ZARNIK2, "zarnik2"},
    {"alsw", LIBUIO_FPGA_VOSTRA, "vostra"},      {"alsw", LIBUIO_FPGA_VOSTRAT, "vostrat"},
    {"alsw", LIBUIO_FPGA_VOSTRA2, "vostra2"},    {"sw", LIBUIO_FPGA_VOSTRA, "vostra_lite"},
    {"sw", LIBUIO_FPGA_VOSTRA2, "vostra2_lite"},
};

//--- register blocks ------------------------------------------------------------------------------

// A map: bytes first to last of PCI resource bar. In resource 0 last is where the last 4 KiB page
// starts, in the others where the range ends.
struct swfpga_region_spec {
    unsigned int bar;
    unsigned long first;
    unsigned long last; // below first: the end of a list
};

struct swfpga_uio_spec {
    const char *name;
    const swfpga_region_spec *region_spec;
};

struct swfpga_spec {
    swfpga_type dev_type;
    unsigned int bar_count;
    unsigned int uio_count;
    const swfpga_uio_spec *uio_spec;
};

constexpr bool region_spec_is_end(const swfpga_region_spec &region)
{
    return region.last < region.first;
}

namespace swfpga
{

using range = swfpga_region_spec;

// As the end of a range that starts at 0: all of the resource file.
inline constexpr unsigned long whole = 0xffffffff;

// One page of resource 0.
constexpr range page(unsigned long start)
{
    return {0, start, start};
}

// The maps of a register block, in the order of their numbers.
template <range... Ranges>
requires(sizeof...(Ranges) <= LIBUIO_MAX_MAPS) inline constexpr range maps[] = {Ranges...,
                                                                                {0, 1, 0}};

// clang-format off

inline constexpr swfpga_uio_spec zarnik_fe = {"uio_fe", maps<range{1, 0, whole}, page(0x1000)>};

inline constexpr swfpga_uio_spec local_zarnik[] = {
    zarnik_fe,
    {"uio_cmneqp", maps<range{0, 0x2000, 0x6000}>},
    {"uio_cmbhub", maps<page(0x10000)>},
    {"uio_glb", maps<page(0)>},
};

inline constexpr swfpga_uio_spec remote_zarnik[] = {
    zarnik_fe,
};

template <unsigned int bar>
inline constexpr auto &zarnik2_fe_maps = maps<
    range{bar, 0x40000, 0x80000}, range{bar, 0x1000, 0x2000}, range{bar, 0x9000, 0xa000},
    range{bar, 0, 0x1000}>;
template <unsigned int bar>
inline constexpr auto &zarnik2_ntb_maps = maps<
    range{bar, 0, 0x1000}, range{bar, 0x1000, 0x2000}, range{bar, 0x9000, 0xa000},
    range{bar, 0x8000, 0x9000}>;
inline constexpr swfpga_uio_spec zarnik2_fe0 = {"uio_fe0", zarnik2_fe_maps<1>};
inline constexpr swfpga_uio_spec zarnik2_fe1 = {"uio_fe1", zarnik2_fe_maps<2>};
inline constexpr swfpga_uio_spec zarnik2_fe0_ntb = {"uio_fe0_ntb", zarnik2_ntb_maps<1>};
inline constexpr swfpga_uio_spec zarnik2_fe1_ntb = {"uio_fe1_ntb", zarnik2_ntb_maps<2>};
inline constexpr swfpga_uio_spec zarnik2_glb = {"uio_glb", maps<page(0)>};

inline constexpr swfpga_uio_spec local_zarnik2[] = {
    zarnik2_fe0,
    zarnik2_fe1,
    zarnik2_fe0_ntb,
    zarnik2_fe1_ntb,
    {"uio_cmneqp", maps<range{0, 0x2000, 0x5000}>},
    {"uio_cmbhub", maps<page(0xa000), page(0x8000)>},
    zarnik2_glb,
};

inline constexpr swfpga_uio_spec remote_zarnik2[] = {
    zarnik2_fe0,
    zarnik2_fe1,
    zarnik2_fe0_ntb,
    zarnik2_fe1_ntb,
    zarnik2_glb,
};

inline constexpr swfpga_uio_spec rp_pellum[] = {
    {"uio_brd_ctrl", maps<page(0xb0000)>},
    {"uio_rpmb", maps<page(0xb3000)>},
    {"uio_config", maps<page(0xb4000)>},
    {"uio_cma", maps<page(0xb2000)>},
    {"uio_ch_i2c", maps<page(0xb5000)>},
};

inline constexpr swfpga_uio_spec rp_pellum2[] = {
    {"uio_brd_ctrl", maps<page(0)>},
    {"uio_rpmb", maps<page(0x3000)>},
    {"uio_config", maps<page(0x4000)>},
    {"uio_cma", maps<page(0x2000)>},
    {"uio_ch_i2c", maps<page(0x5000)>},
    {"uio_spi_flsh", maps<page(0x6000)>},
    {"uio_nvram", maps<range{1, 0, whole}>},
};

inline constexpr swfpga_uio_spec vostra_fe = {"uio_fe", maps<range{1, 0, whole}, page(0x6000)>};
inline constexpr swfpga_uio_spec vostra_flash = {"uio_flash", maps<page(0x1000)>};
inline constexpr swfpga_uio_spec sw_vostra_cma = {"uio_cma", maps<
    range{0, 0x4000, 0x5000}, page(0x2000), page(0x8000)>};

inline constexpr swfpga_uio_spec sw_vostra[] = {
    vostra_fe,
    vostra_flash,
    sw_vostra_cma,
};

inline constexpr swfpga_uio_spec vostra2_fe0 = {"uio_fe0", maps<
    range{1, 0x40000, 0x80000}, range{1, 0x1000, 0x2000}, page(0x38000)>};
inline constexpr swfpga_uio_spec vostra2_fe1 = {"uio_fe1", maps<
    range{2, 0x40000, 0x80000}, range{2, 0x1000, 0x2000}, page(0x39000)>};

inline constexpr swfpga_uio_spec sw_vostra2[] = {
    vostra2_fe0,
    vostra2_fe1,
    vostra_flash,
    sw_vostra_cma,
    {"uio_ntb", maps<
        page(0x22000), page(0x23000), page(0x30000), page(0x31000), page(0x32000), page(0x33000),
        page(0x38000), page(0x39000),
        range{1, 0x1000, 0x2000}, range{2, 0x1000, 0x2000}>},
};

inline constexpr swfpga_uio_spec al_vostra_cma = {"uio_cma", maps<
    range{0, 0x4000, 0x5000}, page(0x2000), page(0xb000), range{0, 0xc000, 0xd000}>};
inline constexpr swfpga_uio_spec al_vostra_pci = {"uio_pci", maps<
    range{2, 0, whole}, range{0, 0x10000, 0x14000}, page(0x9000), page(0x7000)>};
inline constexpr swfpga_uio_spec al_vostra_tcm = {"uio_tcm", maps<page(0xa000)>};
inline constexpr swfpga_uio_spec al_vostra_spi = {"uio_spi", maps<page(0xe000)>};
inline constexpr swfpga_uio_spec al_vostra_cmb_emul = {"uio_cmb_emul", maps<page(0xf000)>};

inline constexpr swfpga_uio_spec al_vostra[] = {
    vostra_fe,
    vostra_flash,
    al_vostra_cma,
    al_vostra_pci,
    al_vostra_tcm,
};

inline constexpr swfpga_uio_spec al_vostrat[] = {
    vostra_fe,
    vostra_flash,
    al_vostra_cma,
    al_vostra_pci,
    al_vostra_tcm,
    al_vostra_spi,
    al_vostra_cmb_emul,
    {"uio_i2c", maps<page(0x3000)>},
};

inline constexpr swfpga_uio_spec al_vostra2[] = {
    vostra2_fe0,
    vostra2_fe1,
    {"uio_ge0", maps<
        range{3, 0, 0x100000}, range{4, 0, 0x4000000},
        page(0), page(0x2a000), page(0x3a000), page(0x7000)>},
    {"uio_ge1", maps<
        range{3, 0x100000, 0x200000}, range{4, 0x4000000, 0x8000000},
        page(0), page(0x2c000), page(0x3b000), page(0x3000)>},
    {"uio_mdio", maps<page(0x9000)>},
    vostra_flash,
    al_vostra_cma,
    al_vostra_tcm,
    al_vostra_spi,
    al_vostra_cmb_emul,
    {"uio_ntb", maps<
        page(0x22000), page(0x23000), page(0x30000), page(0x31000), page(0x32000), page(0x33000),
        page(0x34000), page(0x35000), page(0x3a000), page(0x3b000), page(0x38000), page(0x39000),
        page(0x2a000), page(0x2c000),
        range{1, 0x1000, 0x2000}, range{2, 0x1000, 0x2000}>},
};

} // namespace swfpga

// Indexed by type.
inline constexpr swfpga_spec swfpga_spec_list[] = {
    {SWFPGA_LOCAL_ZARNIK, 2, std::size(swfpga::local_zarnik), swfpga::local_zarnik},
    {SWFPGA_REMOTE_ZARNIK, 2, std::size(swfpga::remote_zarnik), swfpga::remote_zarnik},
    {SWFPGA_LOCAL_ZARNIK2, 3, std::size(swfpga::local_zarnik2), swfpga::local_zarnik2},
    {SWFPGA_REMOTE_ZARNIK2, 3, std::size(swfpga::remote_zarnik2), swfpga::remote_zarnik2},
    {SWFPGA_RP_PELLUM, 2, std::size(swfpga::rp_pellum), swfpga::rp_pellum},
    {SWFPGA_RP_PELLUM2, 2, std::size(swfpga::rp_pellum2), swfpga::rp_pellum2},
    {SWFPGA_SW_VOSTRA, 2, std::size(swfpga::sw_vostra), swfpga::sw_vostra},
    {SWFPGA_SW_VOSTRA2, 3, std::size(swfpga::sw_vostra2), swfpga::sw_vostra2},
    {SWFPGA_AL_VOSTRA, 3, std::size(swfpga::al_vostra), swfpga::al_vostra},
    {SWFPGA_AL_VOSTRAT, 3, std::size(swfpga::al_vostrat), swfpga::al_vostrat},
    {SWFPGA_AL_VOSTRA2, 5, std::size(swfpga::al_vostra2), swfpga::al_vostra2},
};

// clang-format on

// Types index the list, and no block reaches into a resource that its FPGA does not have.
constexpr bool swfpga_spec_list_is_sound()
{
    for (unsigned int type = 0; type < std::size(swfpga_spec_list); ++type) {
        const swfpga_spec &spec = swfpga_spec_list[type];
        if (spec.dev_type != type)
            return false;
        for (unsigned int i = 0; i < spec.uio_count; ++i)
            for (const swfpga_region_spec *region = spec.uio_spec[i].region_spec;
                 !region_spec_is_end(*region); ++region)
                if (region->bar >= spec.bar_count)
                    return false;
    }
    return true;
}
static_assert(std::size(swfpga_spec_list) == SWFPGA_UNKNOWN && swfpga_spec_list_is_sound());

} // namespace device_access
