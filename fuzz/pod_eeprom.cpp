// The POD log in an EEPROM, which is memory here.
#include "fuzz/pod_storage.h"

#include <algorithm>
#include <cstring>

namespace
{

// What proper use needs after the log.
constexpr uint32_t beyond_end = 64;

std::string eeprom;
char name[] = "eeprom";

int read_eeprom(uint32_t offset, uint8_t *buffer, uint32_t size)
{
    if (offset >= eeprom.size())
        return 0;
    size = std::min(size, static_cast<uint32_t>(eeprom.size()) - offset);
    std::memcpy(buffer, eeprom.data() + offset, size);
    return static_cast<int>(size);
}

int write_eeprom(uint32_t offset, uint8_t *buffer, uint32_t size)
{
    if (offset >= eeprom.size())
        return 0;
    size = std::min(size, static_cast<uint32_t>(eeprom.size()) - offset);
    std::memcpy(eeprom.data() + offset, buffer, size);
    return static_cast<int>(size);
}

void fill(const std::string &image)
{
    eeprom = image;
    eeprom.resize(image.size() + beyond_end);
    podlog_bind_eeprom_access_func(fuzz::pod_device, read_eeprom, write_eeprom);
}

const fuzz::pod_storage storage = {POD_LOG_CALLS(eeprom, podlog_eeprom_read_raw_log),
                                   name,
                                   0x1FE2C363,
                                   false,
                                   44,
                                   8192,
                                   2,
                                   1200,
                                   fill};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::use_pod_storage(storage, {reinterpret_cast<const char *>(data), size});
    return 0;
}
