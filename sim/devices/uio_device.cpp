// Interrupts, registers, removal and return of UIO devices.
#include "sim/devices/uio_device.h"

#include "sim/devices/memory.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include <sys/mount.h>
#include <unistd.h>

namespace chassis_sim
{
namespace
{

namespace fs = std::filesystem;
using std::chrono::milliseconds;

uint32_t load(int memory, off_t offset)
{
    uint32_t value = 0;
    return ::pread(memory, &value, sizeof value, offset) == sizeof value ? value : 0;
}

void store(int memory, off_t offset, uint32_t value)
{
    must(static_cast<int>(::pwrite(memory, &value, sizeof value, offset)), "set a register");
}

owned_fd memory_of(const std::string &name, const uio_map_range &map)
{
    return make_memory("chassis-uio:" + name, static_cast<size_t>(map.offset() + map.length()));
}

} // namespace

uio_device::uio_device(const uio_node &described, event_loop &loop, window_table &windows)
    : uio_node(described), loop_(loop)
{
    for (const uio_map_range &map : maps)
        windows_.push_back(&windows.add(name + ".map" + std::to_string(map.number), map.registers,
                                        map.offset(), map.length(), memory_of(name, map)));
    reset_memory();
    make_directory("/.chassis/absent");
    if (plugged)
        make_node(node, number);
    else
        leave_sysfs();
}

std::string uio_device::aside() const
{
    return "/.chassis/absent/" + name;
}

void uio_device::plug()
{
    if (present_)
        throw failure(name + " is plugged already");
    if (fs::exists(node))
        throw failure("cannot plug " + name + ": " + node + " is there already");
    must(::rename(aside().c_str(), device_dir.c_str()), "plug " + device_dir);
    for (const auto &[path, target] : links)
        if (!fs::exists(path))
            make_relative_symlink(path, target);
    present_ = true;
    reset_memory();
    make_node(node, number);
}

uio_device::place uio_device::place_of(uint32_t address) const
{
    // Maps may reach into the numbers after theirs; the nearest one counts.
    place found = {-1, 0};
    off_t nearest = -1;
    for (const register_window *const window : windows_) {
        const auto start = static_cast<off_t>(window->base());
        if (start > nearest && start <= address &&
            address < start + static_cast<off_t>(window->size())) {
            found = {window->memory(), address};
            nearest = start;
        }
    }
    return found;
}

void uio_device::reset_memory()
{
    for (size_t i = 0; i < maps.size(); ++i)
        windows_[i]->renew(memory_of(name, maps[i]));
    for (const preset_register &preset : registers)
        if (const place at = place_of(preset.address); at.memory >= 0)
            store(at.memory, at.offset, preset.value);
    answered_.assign(answers.size(), false);
    ++session_;
    if (!answers.empty())
        answer_registers(session_);
}

void uio_device::answer_registers(uint32_t session)
{
    if (session != session_ || !present_)
        return;
    for (size_t i = 0; i < answers.size(); ++i) {
        const register_answer &answer = answers[i];
        const place from = place_of(answer.address);
        const place to = place_of(answer.then_address);
        const bool asked = (load(from.memory, from.offset) & answer.mask) == answer.value;
        if (asked && !answered_[i] && to.memory >= 0)
            store(to.memory, to.offset, answer.then_value);
        answered_[i] = asked;
    }
    loop_.at(steady::now() + milliseconds(1), [this, session] { answer_registers(session); });
}

register_window *uio_device::window_at(uint64_t offset, uint64_t length) const
{
    for (register_window *const window : windows_)
        if (window->base() == offset)
            return length <= window->size() ? window : nullptr;
    return nullptr;
}

void uio_device::leave_sysfs()
{
    std::error_code gone_already;
    for (const auto &[path, target] : links)
        if (fs::canonical(path, gone_already) == target)
            fs::remove(path, gone_already);
    fs::rename(device_dir, aside(), gone_already);
    present_ = false;
}

void uio_device::remove()
{
    if (!present_)
        throw failure(name + " is not plugged");
    leave_sysfs();
    if (!may_make_nodes())
        ::umount2(node.c_str(), MNT_DETACH);
    std::error_code gone_already;
    fs::remove(node, gone_already);
    for (uio_listener *const open : std::exchange(listeners_, {}))
        open->shut();
    enabled_ = latched_ = false;
    count_ = 0;
    ++enablings_;
}

void uio_device::interrupt()
{
    if (!present_)
        throw failure(name + " is not plugged");
    if (irq_control && !enabled_) {
        latched_ = true;
        return;
    }
    ++count_;
    for (uio_listener *const open : listeners_)
        open->tell(count_);
}

int64_t uio_device::control_interrupt(int32_t flag)
{
    if (!irq_control)
        return -ENOSYS;
    enabled_ = flag != 0;
    const uint32_t enabling = ++enablings_;
    if (enabled_ && irq_delay_ms >= 0)
        loop_.at(steady::now() + milliseconds(irq_delay_ms), [this, enabling] {
            if (enabling == enablings_)
                interrupt();
        });
    if (enabled_ && latched_) {
        latched_ = false;
        interrupt();
    }
    return sizeof flag;
}

} // namespace chassis_sim
