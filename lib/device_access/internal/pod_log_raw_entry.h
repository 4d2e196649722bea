// What the raw reads may write into, and the raw add takes from, a buffer that comes without a
// size: an entry header and the device's message area.
#pragma once

#include <cstddef>

namespace device_access
{

// Bytes of one raw entry of a device; 0 for an id without device.
size_t file_raw_entry_size(int file_id);
size_t eeprom_raw_entry_size(int eeprom_id);

} // namespace device_access
