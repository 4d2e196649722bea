// The POD log in a file, and its copy into an EEPROM by the front end.
#include "fuzz/pod_storage.h"
#include "sim/base/files.h"
#include "sim/program/private_root.h"

#include <device_access/pod_log.h>

#include <algorithm>
#include <cstring>

namespace
{

char path[] = "/var/pod/fuzzed.hex";

void fill(const std::string &image)
{
    fuzz::set_contents(path, image);
}

const fuzz::pod_storage storage = {POD_LOG_CALLS(file, podlog_file_read_raw_log),
                                   path,
                                   0x1FE2C363,
                                   false,
                                   44,
                                   16384,
                                   10,
                                   1200,
                                   fill};

std::string eeprom;

int read_eeprom(uint32_t offset, uint8_t *buffer, uint32_t size)
{
    return static_cast<int>(eeprom.copy(reinterpret_cast<char *>(buffer), size,
                                        std::min<size_t>(offset, eeprom.size())));
}

int write_eeprom(uint32_t offset, uint8_t *buffer, uint32_t size)
{
    if (offset + uint64_t{size} > eeprom.size())
        return 0;
    eeprom.replace(offset, size, reinterpret_cast<const char *>(buffer), size);
    return static_cast<int>(size);
}

// A card whose log is the file, with an EEPROM as well.
constexpr char card[] = "SW1";
int instance;

void configure_card()
{
    podlog_config_pod_storage_n20_n10(ChassisType_N20, 0);
    char name[] = "SW1";
    fuzz::require(podlog_find_pod_instance(name, &instance) == 1);
    pod_storage_info_t registry = {};
    registry.num_storage = 1;
    storage_info_t &row = registry.dev[0];
    std::strcpy(row.inst_name, card);
    row.inst_id = instance;
    row.type = PODSTORAGE_FILE;
    row.storage_inst_id = fuzz::pod_device;
    row.secondary_storage_type = POD2NDSTORAGE_EEPROM;
    row.secondary_storage_inst_id = fuzz::pod_device;
    podlog_config_pod_storage_info(&registry);
    podlog_bind_secondary_log_access_func(instance, read_eeprom, write_eeprom);
}

void copy_to_eeprom(const std::string &image)
{
    const fuzz::descriptor_check descriptors;
    fill(image);
    eeprom.assign(8300, '\0');
    podlog_cpy_curr_subblock_to_secondary(instance);
    const int newest = podlog_eeprom_open_dir(fuzz::pod_device);
    fuzz::require(newest == -2 || newest == 0);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    chassis_sim::enter_private_root();
    chassis_sim::make_directory("/var/pod");
    configure_card();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    fuzz::use_pod_storage(storage, input);
    copy_to_eeprom(fuzz::prepare_pod_storage(storage, input));
    return 0;
}
