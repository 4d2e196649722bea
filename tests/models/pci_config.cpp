// Configuration space, capability lists and links, beside registers that are a map of bytes.
#include "walk.h"

#include "sim/base/files.h"

#include <device_access/pci_config.h>

#include <cstring>
#include <fstream>
#include <map>

#include <fcntl.h>
#include <unistd.h>

namespace
{

using namespace models;

const sysfs_pci_identity_t ident = {"0000:03:00.0", {}};
const std::string file = "/sys/bus/pci/devices/0000:03:00.0/config";
constexpr int64_t failed = -1;

class config_model : public model
{
public:
    config_model()
    {
        choices first(1, 0);
        replace(first);
    }

    void step(choices &choose) override
    {
        choose_handle(choose);
        error_ = untouched;
        switch (choose.below(9)) {
        case 0:
            return replace(choose);
        case 1:
            return open_or_close(choose);
        case 2:
            return find(choose);
        case 3:
            return ask_for_hot_plug();
        case 4:
            return wait_for_link(choose);
        case 5:
            return explain(choose);
        case 6:
            return look(choose);
        default:
            return change(choose);
        }
    }

private:
    //--- the function's file ----------------------------------------------------------------------

    // Any bytes, and in them mostly a list of capabilities that can be followed.
    void replace(choices &choose)
    {
        bytes_.clear();
        size_ = choose.of({256, 256, 256, 4096, choose.between(0, 256)});
        for (uint32_t at = 0; at < 256; ++at)
            bytes_[at] = static_cast<uint8_t>(choose.bits());
        put(0x06, 1, choose.one_in(8) ? choose.below(256) : 0x10);
        put(0x0e, 1, choose.of({0, 0, 1, 1, 2, 2, 3, 0x80, 0x81, 0x82, choose.below(256)}));
        int place = choose.of({0x40, 0x40, 0x44, 0x42, 0x43, 0, 0xfc});
        put(0x34, 1, place);
        put(0x14, 1, place ? place + 4 : 0);
        for (int entries = choose.between(1, 4); entries > 0 && place; --entries) {
            const int next = entries == 1 ? 0 : place + choose.of({4, 0x20, 0x1a, 0x23, -place});
            const int id = choose.of({0x10, 0x10, 1, 5, 0x11});
            for (const int at : {place, place + 4})
                put(static_cast<uint32_t>(at), 2, (next & 0xff) << 8 | id);
            if (id == 0x10)
                describe_port(choose, static_cast<uint32_t>(place));
            place = next & 0xff;
        }
        bytes_.erase(bytes_.lower_bound(size_), bytes_.end());
        std::string text;
        for (uint32_t at = 0; at < size_; ++at)
            text += static_cast<char>(byte(at));
        chassis_sim::write_file(file, text);
        note(printed("%ju bytes of registers", uintmax_t{size_}));
    }

    void describe_port(choices &choose, uint32_t place)
    {
        // Training for ever takes half a second, so it is rare.
        const int link =
            choose.of({0x2041, 0x2001, 0x2841, 0xe40f, 0x2011, 0x2201, choose.below(0x10000)});
        const bool slow = choose.one_in(40);
        const bool reports = choose.one_in(2);
        for (const uint32_t at : {place, place + 4}) {
            put(at + 2, 2, choose.of({0x0100, 0x0042, 0xfeff, 0xffff}));
            put(at + 0x0c, 4,
                reports ? choose.of({0x00100000, -1}) : choose.of({0x00000c11, ~0x00100000}));
            put(at + 0x12, 2, slow ? 0x0841 : reports ? link | 0x2000 : link & ~0x0800);
            put(at + 0x14, 4, choose.of({0x40, ~0x40, 0x0c60, -1}));
        }
    }

    void put(uint32_t at, int width, int64_t value)
    {
        for (int i = 0; i < width; ++i)
            bytes_[at + static_cast<uint32_t>(i)] = static_cast<uint8_t>(value >> 8 * i);
    }

    uint8_t byte(uint64_t at) const
    {
        const auto found = bytes_.find(at);
        return found == bytes_.end() ? 0 : found->second;
    }

    //--- accesses ---------------------------------------------------------------------------------

    void choose_handle(choices &choose)
    {
        fd_ = opened_;
        if (choose.one_in(20) || !opened_)
            fd_ = choose.of({0, -1, -7, 63});
    }

    void *handle() const { return reinterpret_cast<void *>(static_cast<intptr_t>(fd_)); }

    bool may_access(uint32_t width, uint32_t offset)
    {
        if (offset % width != 0 || fd_ < 1)
            error_ = EINVAL;
        else if (fd_ == 63)
            error_ = EBADF; // which nobody has opened
        else
            return true;
        return false;
    }

    int64_t read(uint32_t width, uint32_t offset)
    {
        if (!may_access(width, offset) || uint64_t{offset} + width > size_)
            return failed;
        uint32_t value = 0;
        for (uint32_t i = 0; i < width; ++i)
            value |= static_cast<uint32_t>(byte(uint64_t{offset} + i)) << 8 * i;
        error_ = 0;
        return value;
    }

    int64_t write(uint32_t width, uint32_t offset, uint32_t value)
    {
        if (!may_access(width, offset))
            return failed;
        for (uint32_t i = 0; i < width; ++i)
            bytes_[uint64_t{offset} + i] = static_cast<uint8_t>(value >> 8 * i);
        size_ = std::max(size_, uint64_t{offset} + width); // a register file would not grow
        error_ = 0;
        return 0;
    }

    uint32_t place_of(choices &choose) const
    {
        const auto offset = static_cast<uint32_t>(
            choose.of({choose.below(256), choose.below(256) & ~3, choose.hostile()}));
        return size_ > 4096 || offset < 4096 || choose.one_in(4) ? offset : offset % 256;
    }

    void look(choices &choose)
    {
        const uint32_t offset = place_of(choose);
        const uint32_t width = choose.of({1u, 2u, 4u});
        const int64_t value = read(width, offset);
        const outcome expected = {.value = value == failed ? 0xffffffff : value, .error = error_};
        expect(printed("pci_config_read%u(0x%x, %d)", 8 * width, offset, fd_), expected,
               [&]() -> intmax_t {
                   return width == 1   ? pci_config_read8(offset, handle())
                          : width == 2 ? pci_config_read16(offset, handle())
                                       : pci_config_read32(offset, handle());
               });
    }

    void change(choices &choose)
    {
        struct operation {
            const char *name;
            uint32_t width;
            int (*call)(uint32_t, uint32_t, void *);
            uint32_t (*of)(uint32_t old, uint32_t mask);
        };
        constexpr auto replaced = [](uint32_t, uint32_t value) { return value; };
        constexpr auto set = [](uint32_t old, uint32_t mask) { return old | mask; };
        constexpr auto cleared = [](uint32_t old, uint32_t mask) { return old & ~mask; };
#define OPERATION(name, bits, effect)                                                              \
    {                                                                                              \
#name, bits / 8,                                                                           \
            [](uint32_t value, uint32_t offset,                                                    \
               void *h) { return name(static_cast<uint##bits##_t>(value), offset, h); }, effect    \
    }
        static const operation operations[] = {OPERATION(pci_config_write8, 8, replaced),
                                               OPERATION(pci_config_write16, 16, replaced),
                                               OPERATION(pci_config_write32, 32, replaced),
                                               OPERATION(pci_config_bitset8, 8, set),
                                               OPERATION(pci_config_bitset16, 16, set),
                                               OPERATION(pci_config_bitset32, 32, set),
                                               OPERATION(pci_config_bitclr8, 8, cleared),
                                               OPERATION(pci_config_bitclr16, 16, cleared),
                                               OPERATION(pci_config_bitclr32, 32, cleared)};
        const operation &chosen = choose.of(operations);
        const auto value = static_cast<uint32_t>(choose.bits());
        const uint32_t offset = place_of(choose);
        int64_t old = 0;
        if (chosen.of != static_cast<uint32_t (*)(uint32_t, uint32_t)>(replaced))
            old = read(chosen.width, offset);
        const int64_t result = old == failed ? failed
                                             : write(chosen.width, offset,
                                                     chosen.of(static_cast<uint32_t>(old), value));
        expect(printed("%s(0x%x, 0x%x, %d)", chosen.name, value, offset, fd_),
               {.value = result, .error = error_},
               [&] { return chosen.call(value, offset, handle()); });
        if (result != failed)
            expect_stored(offset);
    }

    void expect_stored(uint32_t offset)
    {
        char bytes[12] = {};
        std::ifstream stream(file);
        const uint64_t first = offset < 4 ? 0 : uint64_t{offset} - 4;
        stream.seekg(static_cast<std::streamoff>(first));
        stream.read(bytes, sizeof bytes);
        std::string expected;
        for (uint64_t at = first; at < first + sizeof bytes; ++at)
            expected += static_cast<char>(at < size_ ? byte(at) : 0);
        expect_same("the registers there", expected, std::string(bytes, sizeof bytes));
    }

    //--- handles ----------------------------------------------------------------------------------

    void open_or_close(choices &choose)
    {
        if (choose.one_in(3))
            return refuse_to_open(choose);
        if (fd_ == opened_ && opened_) {
            expect("pci_config_close()", {.error = untouched, .opens = -1},
                   [&] { return pci_config_close(handle()), 0; });
            opened_ = 0;
        } else if (fd_ < 1) {
            expect(printed("pci_config_close(%d)", fd_), {.error = EINVAL},
                   [&] { return pci_config_close(handle()), 0; });
        } else if (!opened_) {
            expect("pci_config_open()", {.value = 1, .opens = 1}, [&] {
                opened_ = static_cast<int>(reinterpret_cast<intptr_t>(pci_config_open(&ident)));
                return opened_ > 0;
            });
            expect_same("the way it is open", O_RDWR, ::fcntl(opened_, F_GETFL) & O_ACCMODE);
            expect_same("what a new program keeps", 0, ::fcntl(opened_, F_GETFD));
        }
    }

    void refuse_to_open(choices &choose)
    {
        const sysfs_pci_identity_t other = {"0000:04:00.0", {}};
        const bool none = choose.one_in(2);
        const sysfs_pci_identity_t *const who = none ? nullptr : &other;
        const int error = none ? -22 : ENOENT;
        expect("pci_config_open() of nothing", {.error = error},
               [&] { return pci_config_open(who) != nullptr; });
        expect("pcie_config_wait_link_up() of nothing", {.value = -1, .error = error},
               [&] { return pcie_config_wait_link_up(who); });
    }

    //--- capabilities -----------------------------------------------------------------------------

    // The place of a capability; -2 when the list has no end.
    int64_t place(int id)
    {
        const int64_t status = read(2, 0x06);
        if (status == failed)
            return failed;
        const auto none = [this] { return error_ = ENOENT, failed; };
        if ((status & 0x10) == 0)
            return none();
        const int64_t type = read(1, 0x0e);
        if (type == failed)
            return failed;
        if (type > 2)
            return none();
        int64_t at = read(1, type == 2 ? 0x14 : 0x34);
        for (int steps = 0; at != failed; ++steps) {
            if (at == 0)
                return none();
            if (steps == 256)
                return -2;
            const int64_t entry = read(2, static_cast<uint32_t>(at));
            if (entry == failed)
                return failed;
            if ((entry & 0xff) == id)
                return at;
            at = entry >> 8;
        }
        return failed;
    }

    void find(choices &choose)
    {
        const int id = choose.of<int>({0x10, 1, 5, 0x11, 0x42, byte(0x44), byte(0x40)});
        const int64_t expected = place(id);
        if (expected == -2)
            return; // it would not return
        expect(printed("pci_config_find_capability(0x%x, %d)", id, fd_),
               {.value = expected, .error = error_},
               [&] { return pci_config_find_capability(static_cast<uint8_t>(id), handle()); });
    }

    int hot_plug()
    {
        if (fd_ == 0)
            return error_ = EINVAL, 0;
        const int64_t port = place(0x10);
        if (port == failed) {
            error_ = error_ == ENOENT ? 0 : error_;
            return 0;
        }
        const int64_t kind = read(2, static_cast<uint32_t>(port + 0x02));
        if (kind == failed)
            return 0;
        if ((kind & 0x100) != 0) {
            const int64_t slot = read(4, static_cast<uint32_t>(port + 0x14));
            if (slot == failed || slot == 0xffffffff)
                return 0;
            return slot >> 6 & 1;
        }
        return error_ = 0, 0;
    }

    void ask_for_hot_plug()
    {
        if (place(0x10) == -2)
            return;
        error_ = untouched;
        const int expected = hot_plug();
        expect(printed("pcie_config_is_hotplug(%d)", fd_), {.value = expected, .error = error_},
               [&] { return pcie_config_is_hotplug(handle()); });
    }

    //--- links ------------------------------------------------------------------------------------

    int64_t link(bool &waits)
    {
        const int64_t port = place(0x10);
        if (port < 1)
            return port;
        const int64_t abilities = read(4, static_cast<uint32_t>(port + 0x0c));
        if (abilities == failed)
            return EIO;
        const bool reports = abilities == 0xffffffff || (abilities & 0x100000) != 0;
        const int64_t status = read(2, static_cast<uint32_t>(port + 0x12));
        if (status == failed)
            return EIO;
        waits = reports ? (status & 0x2000) == 0 : (status & 0x0800) != 0;
        if (waits)
            return error_ = ETIMEDOUT;
        if ((status & 0x0800) != 0)
            return error_ = EPROTO;
        return error_ = (status & 0x3f0) == 0 ? ENOLINK : 0;
    }

    void wait_for_link(choices &choose)
    {
        fd_ = 1;
        bool waits = false;
        const int64_t expected = link(waits);
        if (expected == -2 || (waits && !choose.one_in(20)))
            return;
        expect("pcie_config_wait_link_up()", {.value = expected, .error = error_},
               [] { return pcie_config_wait_link_up(&ident); });
    }

    static void explain(choices &choose)
    {
        const int error = choose.of({71, 110, 67, 2, choose.below(200), choose.hostile()});
        const std::string text = error == 71    ? "PCIe link-training stuck at asserted"
                                 : error == 110 ? "PCIe link-up waiting timed out"
                                 : error == 67  ? "PCIe link-up not achieved"
                                                : std::strerror(error);
        expect_same(printed("pcie_config_link_strerror(%d)", error), text,
                    pcie_config_link_strerror(error));
    }

    std::map<uint64_t, uint8_t> bytes_;
    uint64_t size_ = 0;
    int opened_ = 0;
    int fd_ = 0;    // of the handle that the step uses
    int error_ = 0; // what errno is by now
};

} // namespace

int main(int argc, char **argv)
{
    return walk(argc, argv, [](choices &) { return std::make_unique<config_model>(); });
}
