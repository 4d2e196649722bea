#pragma once

#include "support/register_trap.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace chassis_sim
{

// A PCIe NVRAM controller: 1 MiB of NVRAM behind control, status and data registers. Each transfer
// starts with a write of the control register; the data register then gives word after word, the
// first byte of NVRAM as its lowest. Before the first word and after every 32 bytes the controller
// is busy for a while, and gives ones to who does not wait; without auto-increment, it has no more
// than 32 bytes to give.
class nvram_controller
{
public:
    static constexpr size_t control = 0xF000;
    static constexpr size_t status = 0xF004;
    static constexpr size_t data = 0xF008;

    nvram_controller();
    nvram_controller(const nvram_controller &) = delete;
    nvram_controller &operator=(const nvram_controller &) = delete;

    char *base() const { return window_.base(); }
    std::vector<register_access> take_log() { return window_.take_log(); }

    // Places bytes in the NVRAM. Of an address, the low 20 bits count.
    void store(uint32_t address, const std::string &bytes);

    // How many looks at the status register find it busy before each burst.
    void set_busy_looks(int looks) { busy_looks_ = looks; }

private:
    uint32_t on_read(size_t offset);
    void on_write(size_t offset, uint32_t value);
    uint32_t next_word();

    std::string nvram_;
    uint32_t address_ = 0;
    uint32_t transferred_ = 0;
    bool auto_increment_ = false;
    int busy_looks_ = 0;
    int busy_left_ = 0;
    register_trap window_;
};

} // namespace chassis_sim
