#include "support/nvram_controller.h"

namespace chassis_sim
{
namespace
{

constexpr size_t window_size = 0x10000;
constexpr uint32_t nvram_size = 0x100000;
constexpr uint32_t write_direction = 0x100000;
constexpr uint32_t auto_increment = 0x200000;
constexpr uint32_t burst = 32;
constexpr uint32_t nothing = 0xFFFFFFFF;

} // namespace

nvram_controller::nvram_controller()
    : nvram_(nvram_size, '\0'),
      window_(
          window_size, [this](size_t offset, unsigned) { return on_read(offset); },
          [this](size_t offset, unsigned, uint64_t value) {
              on_write(offset, static_cast<uint32_t>(value));
          })
{
}

void nvram_controller::store(uint32_t address, const std::string &bytes)
{
    nvram_.replace(address % nvram_size, bytes.size(), bytes);
}

uint32_t nvram_controller::on_read(size_t offset)
{
    switch (offset) {
    case status:
        return busy_left_ > 0 && busy_left_-- ? 1 : 0;
    case data:
        return next_word();
    default:
        return nothing;
    }
}

void nvram_controller::on_write(size_t offset, uint32_t value)
{
    if (offset != control)
        return;
    address_ = value % nvram_size;
    transferred_ = 0;
    auto_increment_ = (value & auto_increment) != 0;
    busy_left_ = busy_looks_;
    if (value & write_direction)
        nvram_[address_] = static_cast<char>(value >> 24);
}

uint32_t nvram_controller::next_word()
{
    if (busy_left_ > 0 || (transferred_ >= burst && !auto_increment_))
        return nothing;
    uint32_t word = 0;
    for (uint32_t i = 4; i-- > 0;)
        word = word << 8 | static_cast<uint8_t>(nvram_[(address_ + transferred_ + i) % nvram_size]);
    transferred_ += 4;
    if (transferred_ % burst == 0)
        busy_left_ = busy_looks_;
    return word;
}

} // namespace chassis_sim
