// POD status words and the fault mask, which lie beside the log in NVRAM.
#include <device_access/pod_log_nvram.h>

#include "lib/base/errors.h"
#include "lib/base/print.h"
#include "lib/podlog/nvram_devices.h"
#include "lib/podlog/records.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

using namespace device_access;

namespace
{

constexpr size_t name_size = sizeof pod_nvram_inst_map_t::name0[0];

// The status indexes in use: the count is the client's, the arrays have 8 elements.
int mapped_count(const pod_nvram_inst_map_t &map)
{
    return std::min(map.num_inst, static_cast<int>(std::size(map.index0)));
}

int find_mapped_index(const pod_nvram_inst_map_t &map, int inst_id)
{
    for (int i = 0; i < mapped_count(map); ++i)
        if (map.index0[i] == inst_id || map.index1[i] == inst_id)
            return i;
    return -1;
}

int64_t status_position(int nvram_id, int mapped_index)
{
    return nvram_row(nvram_id).pod_status_pos + int64_t{4} * mapped_index;
}

bool read_word(int nvram_id, int64_t position, uint32_t &word)
{
    word = 0;
    return nvram_devices().mem_rd(nvram_id, position, &word, sizeof word) > 0;
}

int write_word(int nvram_id, int64_t position, uint32_t word)
{
    return nvram_devices().mem_wr(nvram_id, position, &word, sizeof word) > 0 ? 1 : -1;
}

int set_status(int nvram_id, int inst_id, uint32_t status)
{
    const int index = nvram_get_podstatus_inst_mapped_index(nvram_id, inst_id);
    return index == -1 ? -1 : write_word(nvram_id, status_position(nvram_id, index), status);
}

} // namespace

//--- the instance mapping -------------------------------------------------------------------------

void podlog_nvram_set_podstatus_info(int nvram_id, int num_inst, int *inst_id, char **inst_name)
{
    pod_nvram_inst_map_t map = {};
    map.num_inst = num_inst;
    for (int i = 0; i < mapped_count(map); ++i) {
        map.index0[i] = inst_id[i];
        map.index1[i] = -1;
        copy_pod_name(map.name0[0], inst_name[i], name_size);
    }
    podlog_nvram_config_inst_mapping(nvram_id, &map);
}

void podlog_nvram_config_inst_mapping(int nvram_id, pod_nvram_inst_map_t *inst_map)
{
    if (has_nvram(nvram_id))
        nvram_row(nvram_id).inst_map = *inst_map;
}

void podlog_nvram_get_inst_mapping(int nvram_id, pod_nvram_inst_map_t *inst_map)
{
    *inst_map = nvram_row(nvram_id).inst_map;
}

int nvram_get_podstatus_inst_mapped_index(int nvram_id, int inst_id)
{
    const int index = find_mapped_index(nvram_row(nvram_id).inst_map, inst_id);
    if (index == -1) {
        print_error("ERROR: %s: invalid nvram id %d or inst id %d!\n ", __func__, nvram_id,
                    inst_id);
        nvram_dump_podstatus_inst_mapping(nvram_id);
    }
    return index;
}

int nvram_get_podstatus_inst_info(int podsts_inst_id, int *nvram_id, int *mapped_index)
{
    *nvram_id = -1;
    const int index = find_mapped_index(nvram_row(0).inst_map, podsts_inst_id);
    if (index == -1)
        return REFUSE(print_error, 0, "ERROR: %s: invalid inst id %d!\n ", __func__,
                      podsts_inst_id);
    *nvram_id = 0;
    *mapped_index = index;
    return 1;
}

void nvram_dump_podstatus_inst_mapping(int nvram_id)
{
    const pod_nvram_inst_map_t &map = nvram_row(nvram_id).inst_map;
    print_output("%s: nvram %d # of inst =%d \n", __func__, nvram_id, map.num_inst);
    for (int i = 0; i < mapped_count(map); ++i) {
        print_output(" inst index = %2d mapped to index0 =%2d for %.40s\n", i, map.index0[i],
                     map.name0[i]);
        if (map.index1[i] != -1)
            print_output("              mapped to index1 =%2d for %.40s\n", map.index1[i],
                         map.name1[i]);
    }
}

//--- POD status -----------------------------------------------------------------------------------

const char *podlog_nvram_convert_pod_status_str(uint32_t val)
{
    switch (val) {
    case POD_STATUS_PASSED:
        return "Passed";
    case POD_STATUS_FAILED:
        return "Failed";
    case POD_STATUS_INVALID:
        return "Invalid";
    default:
        return "Unrecognized!";
    }
}

int podlog_nvram_invalidate_pod_status(int nvram_id, int inst_id)
{
    return set_status(nvram_id, inst_id, POD_STATUS_INVALID);
}

uint32_t podlog_nvram_get_pod_status(int nvram_id, int inst_id)
{
    int faultinjected;
    if (podlog_nvram_is_faultinject(nvram_id, inst_id, &faultinjected) == -1)
        return POD_STATUS_INVALID;
    if (faultinjected) {
        print_output("nvram %d: POD failure is injected for %d\n", nvram_id, inst_id);
        return POD_STATUS_FAILED;
    }
    const int index = nvram_get_podstatus_inst_mapped_index(nvram_id, inst_id);
    uint32_t word;
    if (index == -1 || !read_word(nvram_id, status_position(nvram_id, index), word) || word >> 31)
        return POD_STATUS_INVALID;
    return word == 0 ? POD_STATUS_PASSED : POD_STATUS_FAILED;
}

int podlog_nvram_set_pod_status(int, int inst_id, int pod_status)
{
    return set_status(0, inst_id, static_cast<uint32_t>(pod_status));
}

//--- fault injection ------------------------------------------------------------------------------

int podlog_nvram_get_faultinject_pos(int nvram_id)
{
    return nvram_row(nvram_id).pod_faultinject_pos;
}

int podlog_nvram_is_faultinject(int, int, int *faultinjected)
{
    if (!faultinjected)
        return -1;
    *faultinjected = 0;
    return 1;
}

int podlog_nvram_clr_all_faultinject(int nvram_id)
{
    return write_word(nvram_id, nvram_row(nvram_id).pod_faultinject_pos, 0);
}

int podlog_nvram_faultinject_pod_status(int nvram_id, int inst_id, int clr)
{
    const int64_t position = nvram_row(nvram_id).pod_faultinject_pos;
    uint32_t mask;
    if (!read_word(nvram_id, position, mask))
        return -1;
    const int index = nvram_get_podstatus_inst_mapped_index(nvram_id, inst_id);
    if (index == -1)
        return -1;
    const uint32_t bit = uint32_t{1} << index;
    return write_word(nvram_id, position, clr ? mask & ~bit : mask | bit);
}

int nvram_disp_faultinject_status(int nvram_id)
{
    const podlog::nvram_dev_info_t &row = nvram_row(nvram_id);
    const pod_nvram_inst_map_t &map = row.inst_map;
    uint32_t mask;
    if (!read_word(nvram_id, row.pod_faultinject_pos, mask))
        return -1;
    for (int i = 0; i < mapped_count(map); ++i) {
        if (!(mask >> i & 1))
            continue;
        if (map.index0[i] != -1)
            print_output("   inst %d %.40s ", map.index0[i], map.name0[i]);
        if (map.index1[i] != -1)
            print_output("/ inst %d %.40s ", map.index1[i], map.name1[i]);
        print_output(" mapped index %d: fault injected\n", i);
    }
    if (mask == 0)
        print_output(" no fault was injected\n");
    return 1;
}
