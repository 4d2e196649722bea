// Emulated UIO devices by the names of register blocks, beside the rules for names and ranges. What
// blocks the FPGAs have is in tests/expected/fpga.
#include "walk.h"

#include "sim/base/files.h"
#include "sim/parts/hotswap.h"

#include <device_access/libuio_emul.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

#include <strings.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

extern "C" {
int libuio_log;
}

namespace
{

using namespace models;
using std::string;
namespace fs = std::filesystem;
using chassis_sim::write_file;

constexpr size_t whole = 0xffffffff;
const string bus = "/sys/bus/pci/devices/";

struct range {
    unsigned int bar;
    size_t offset;
    size_t size;
    bool mapped = false;
};
using blocks = std::map<string, std::vector<range>>;

// "BLOCK: INDEX=BAR:OFFSET+SIZE ...", a line each.
blocks blocks_of(const string &type)
{
    blocks all;
    std::ifstream file(EXPECTED_TEXTS "/fpga/" + type + ".txt");
    for (string line; std::getline(file, line);) {
        std::istringstream words(line);
        string name;
        words >> name;
        name = "uio_" + name.substr(0, name.size() - 1);
        for (string word; words >> word;) {
            unsigned int index, bar;
            unsigned long offset, size;
            std::sscanf(word.c_str(), "%x=%x:%lx+%lx", &index, &bar, &offset, &size);
            all[name].push_back({bar, offset, size});
        }
    }
    return all;
}

struct fpga_row {
    const char *slot, *fpga, *type; // an empty FPGA: the name says none
};
const fpga_row types[] = {{"rpsw", "", "local_zarnik2"},
                          {"rpsw", "zarnik", "local_zarnik"},
                          {"self", "zarnik", "local_zarnik"},
                          {"peer", "zarnik", "remote_zarnik"},
                          {"rpsw", "zarnik2", "local_zarnik2"},
                          {"self", "zarnik2", "local_zarnik2"},
                          {"peer", "zarnik2", "remote_zarnik2"},
                          {"rpsw", "pellum", "pellum"},
                          {"self", "pellum", "pellum"},
                          {"rpsw", "pellum2", "pellum2"},
                          {"self", "pellum2", "pellum2"},
                          {"sw", "", "sw_vostra"},
                          {"sw", "vostra_lite", "sw_vostra"},
                          {"sw", "vostra2_lite", "sw_vostra2"},
                          {"alsw", "", "al_vostra2"},
                          {"alsw", "vostra", "al_vostra"},
                          {"alsw", "vostrat", "al_vostrat"},
                          {"alsw", "vostra2", "al_vostra2"}};

struct code_row {
    const char *slot;
    int code;
    const char *fpga;
};
const code_row codes[] = {{"rpsw", 0, "zarnik"},     {"rpsw", 17, "zarnik2"},
                          {"alsw", 1, "vostra"},     {"alsw", 34, "vostrat"},
                          {"alsw", 18, "vostra2"},   {"sw", 1, "vostra_lite"},
                          {"sw", 18, "vostra2_lite"}};

bool begins(const string &text, const char *prefix)
{
    return ::strncasecmp(text.c_str(), prefix, std::strlen(prefix)) == 0;
}

class emul_model : public model
{
public:
    emul_model()
    {
        for (const fpga_row &row : types)
            tables_[row.type] = blocks_of(row.type);
        for (const char *type : {"remote_zarnik", "remote_zarnik2"})
            tables_[type] = blocks_of(type);
        fs::create_directories(bus);
    }

    void step(choices &choose) override
    {
        lines_ = {};
        if (!uio_)
            return choose.one_in(2) ? change_chassis(choose) : open(choose);
        switch (choose.below(6)) {
        case 0:
            return change_file(choose);
        case 1:
            return enable(choose);
        case 2:
            return unmap(choose);
        case 3:
            return choose.one_in(2) ? close() : refuse();
        default:
            return map(choose);
        }
    }

private:
    bool fails(int error, const char *function, const string &text)
    {
        lines_.error = error;
        if (function)
            say("LOG_ERR", lines_.out, function, text);
        return false;
    }

    static void say(const char *level, string &to, const char *function, const string &text)
    {
        to += string("log[") + level + "]: " + function + "(): " + text + "\n";
    }

    //--- the chassis ------------------------------------------------------------------------------

    static string device_of(const string &port) { return bus + port + "/0000:05:00.0"; }

    static void make_resource(choices &choose, const string &dir)
    {
        const string file = dir + "/resource" + std::to_string(choose.below(5));
        fs::remove_all(file);
        if (choose.one_in(12))
            return fs::create_directory(file), void();
        if (choose.one_in(12))
            return;
        write_file(file, "");
        const auto size = choose.of<int64_t>(
            {0, 4095, 4096, 0x3000, 0x6800, 0x7000, 0x40000, 0x4000000, 0x8000000, 0x1'0000'0000});
        chassis_sim::must(::truncate(file.c_str(), size), file);
    }

    void change_chassis(choices &choose)
    {
        const string port = choose.of({string("0000:00:01.0"), string("0000:00:02.0")});
        const string slot = choose.of(
            {string("rpsw"), string("rpsw2"), string("RPSW"), string("self"), string("peer"),
             string("sw1"), string("alsw1"), string("xrpsw"), string("rpsw567890123456789z")});
        const string dir = choose.one_in(6) ? bus + "0000:0d:00.0" : device_of(port);
        if (choose.one_in(2))
            chassis_sim::add_hotswap_name(
                slot, choose.of({port, port, port, port + "x", string("0000:00:07.0"), string()}));
        if (choose.one_in(6))
            fs::remove_all(bus + port);
        fs::create_directories(dir);
        write_file(bus + port + "/0000:00:00.0", "not a directory");
        fs::create_directories(bus + port + "/" +
                               choose.of({string("0000:ff:00.0"), string("0001:00:00.0"),
                                          string("power"), port + ":pcie001"}));
        if (!fs::exists(dir + "/enable") || choose.one_in(8))
            write_file(dir + "/enable", "0\n");
        for (int resources = 0; resources < 6; ++resources)
            make_resource(choose, dir);
        set_code(choose, dir + "/resource0");
        fs::remove("/dev/mem");
        if (!choose.one_in(4)) {
            write_file("/dev/mem", "");
            fs::resize_file("/dev/mem", choose.of({0xb3000u, 0xb4000u, 0xc0000u}));
        }
        note(slot + ", " + dir);
    }

    static void set_code(choices &choose, const string &resource)
    {
        if (!fs::is_regular_file(resource) || fs::file_size(resource) < 4096)
            return;
        std::fstream file(resource, std::ios::in | std::ios::out | std::ios::binary);
        const char code[] = {'\x12', '\x34',
                             choose.of({'\0', '\1', '\x11', '\x12', '\x22', '\xff'}), '\x56'};
        file.seekp(0x28).write(code, 4);
    }

    //--- names ------------------------------------------------------------------------------------

    string name(choices &choose) const
    {
        const fpga_row &row = choose.of(types);
        const blocks &known = tables_.at(row.type);
        auto block = known.begin();
        std::advance(block, choose.below(static_cast<int>(known.size())));
        string region = block->first;
        if (choose.one_in(8))
            region =
                choose.of({"uio_" + choose.text(3), region.substr(4), "uio-" + region.substr(4),
                           region + "x", region.substr(0, region.size() - 1)});
        string slot = row.slot + choose.of({string(), string("1"), string("2")});
        if (choose.one_in(8))
            slot = choose.of({string("xrpsw"), string("RPSW"), string("rpsw567890123456789zz")});
        string text = region + "." + slot;
        if (choose.one_in(20))
            text += ".z";
        else if (*row.fpga || choose.one_in(8))
            text += string(".") + row.fpga +
                    choose.of({string(), string(), string(), string(".x"), string("3"),
                               string(" y"), string("901234567890123456789")});
        if (choose.one_in(8))
            text = choose.of({"." + text, " " + text, region, region + ".", string(),
                              region + "." + string(100000, 'x')});
        if (choose.one_in(8))
            std::transform(text.begin(), text.end(), text.begin(),
                           [](char c) { return static_cast<char>(std::toupper(c)); });
        return "sysfs_pci:" + text;
    }

    void parse(const string &text)
    {
        std::istringstream words(text.substr(10));
        string word;
        words >> word;
        string *const parts[] = {&region_, &slot_, &fpga_};
        std::istringstream tokens(word);
        for (string *const part : parts) {
            part->clear();
            string token;
            while (token.empty() && std::getline(tokens, token, '.')) {
            }
            *part = token.substr(0, 20);
        }
    }

    static string port_of(const string &slot)
    {
        char address[13] = "";
        const string file = "/dev/dynattr/rpsw/hotswap/byname/" + slot;
        ::getxattr(file.c_str(), "user.com.velmora.zmt.attr_value", address, 12);
        return address;
    }

    string type() const
    {
        const auto row =
            std::find_if(std::begin(types), std::end(types), [this](const fpga_row &one) {
                return begins(slot_, one.slot) && ::strcasecmp(fpga_.c_str(), one.fpga) == 0;
            });
        string found = row == std::end(types) ? "" : row->type;
        const string port =
            found.starts_with("local_") && slot_.find("rpsw") != slot_.npos ? port_of(slot_) : "";
        if (!port.empty() && port == port_of("peer"))
            found.replace(0, 5, "remote");
        return found;
    }

    string device_dir() const
    {
        const string kind = type();
        if (kind == "pellum")
            return "/dev/";
        if (kind == "pellum2")
            return bus + "0000:0d:00.0";
        const string port = port_of(slot_);
        std::vector<string> entries;
        if (!port.empty() && fs::is_directory(bus + port))
            for (const auto &entry : fs::directory_iterator(bus + port))
                if (entry.is_directory() && !entry.is_symlink())
                    entries.push_back(entry.path().filename());
        std::sort(entries.begin(), entries.end());
        for (const string &entry : entries)
            if (!entry.starts_with(port) && entry.starts_with("0000:"))
                return bus + port + "/" + entry;
        return "";
    }

    //--- opening ----------------------------------------------------------------------------------

    void identify()
    {
        const string file = dir_ + "/resource0";
        if (!fs::is_regular_file(file) || fs::file_size(file) < 4096)
            return say("LOG_ERR", lines_.out, "get_fpga_name", "mmap((nil), 0x1000) failed");
        std::ifstream stream(file, std::ios::binary);
        char bytes[4];
        stream.seekg(0x28).read(bytes, 4);
        for (const code_row &row : codes)
            if (begins(slot_, row.slot) && row.code == static_cast<unsigned char>(bytes[2])) {
                fpga_ = row.fpga;
                return;
            }
    }

    bool enables(char value)
    {
        const string file = dir_ + "/enable";
        struct stat status = {};
        const int error = ::stat(file.c_str(), &status) != 0 ? errno
                          : S_ISDIR(status.st_mode)          ? EISDIR
                                                             : 0;
        if (error)
            return fails(error, "libuio_emul_device_enable",
                         "Failed to open " + file + printed(" (errno=%d)", error));
        enabled_ = value;
        return true;
    }

    bool opens(const string &text)
    {
        parse(text);
        if (slot_.empty() || (dir_ = device_dir()).empty())
            return fails(EINVAL, nullptr, "");
        if (fpga_.empty())
            identify();
        type_ = type();
        string block = region_;
        std::transform(block.begin(), block.end(), block.begin(), ::tolower);
        const auto table = tables_.find(type_);
        if (table == tables_.end() || !table->second.contains(block))
            return fails(EINVAL, nullptr, "");
        maps_ = table->second.at(block);
        if (type_ != "pellum" && !enables('1'))
            return false;
        say("LOG_DEBUG", lines_.err, "libuio_adjust_size",
            printed("realloc (%zu+%zu+%zu+%zu) ok",
                    sizeof(libuio_dev_t) + maps_.size() * sizeof(libuio_map_t), dir_.size() + 1,
                    dir_.size() + 1, text.size() + 1));
        return true;
    }

    void open(choices &choose)
    {
        const string text = name(choose);
        lines_.value = opens(text);
        const timespec none = {0, choose.of({0, 20000000})};
        lines_.error = lines_.value ? any_error : lines_.error;
        expect("libuio_open_timed(\"" + text.substr(0, 70) + "\")", lines_, [&] {
            uio_ = libuio_open_timed(text.c_str(), &none);
            return uio_ != nullptr;
        });
        if (!uio_)
            return;
        expect_same("the name", text, libuio_get_real_devnode(uio_));
        expect_same("the class directory", dir_, libuio_get_sys_class_dir(uio_));
        expect_same("the device's directory", dir_, libuio_get_sys_device_dir(uio_));
        expect_same("the descriptors", "-1 -1 0",
                    printed("%d %d %d", uio_->uio_fd, uio_->gone_fd, uio_->tmr_fd));
        expect_state();
    }

    void expect_state()
    {
        string expected, seen;
        for (size_t i = 0; i < maps_.size(); ++i)
            expected += printed("%zu=%u:%zx+%zx%s ", i, maps_[i].bar, maps_[i].offset,
                                maps_[i].size, maps_[i].mapped ? "*" : "");
        for (unsigned int i = 0; i < uio_->map_count; ++i)
            seen += printed("%u=%u:%x+%zx%s ", uio_->map[i].index, uio_->map[i].bar,
                            uio_->map[i].offset, uio_->map[i].size, uio_->map[i].addr ? "*" : "");
        expect_same("the maps", expected, seen);
        if (type_ != "pellum" && fs::is_regular_file(dir_ + "/enable")) {
            std::ifstream enable(dir_ + "/enable");
            expect_same("whether the device is enabled", enabled_, static_cast<char>(enable.get()));
        }
    }

    //--- an open device ---------------------------------------------------------------------------

    string file_of(const range &map) const
    {
        return type_ == "pellum" ? "/dev/mem" : dir_ + "/resource" + std::to_string(map.bar);
    }

    void change_file(choices &choose)
    {
        if (type_ != "pellum" &&
            !std::any_of(maps_.begin(), maps_.end(), [](const range &map) { return map.mapped; }))
            make_resource(choose, dir_);
        range &map = choose.of(maps_);
        const auto index = &map - maps_.data();
        if (map.mapped || !choose.one_in(3))
            return;
        map.offset = choose.of({map.offset, size_t{0x800}, size_t{0xfffff000}, size_t{0x3000}});
        map.size = choose.of({map.size, whole, size_t{0}, size_t{100}, size_t{0x2000}});
        uio_->map[index].offset = static_cast<unsigned int>(map.offset);
        uio_->map[index].size = map.size;
        note(printed("map %td is %zx+%zx", index, map.offset, map.size));
    }

    static int mapping_error(const string &file, const range &map, size_t &length)
    {
        struct stat status = {};
        if (::stat(file.c_str(), &status) != 0)
            return errno;
        if (S_ISDIR(status.st_mode))
            return EISDIR;
        const auto end = static_cast<uint64_t>(status.st_size);
        const uint64_t wanted = map.size == whole ? end : map.size;
        length = static_cast<size_t>(wanted);
        const bool fits = map.offset < end && map.offset + wanted <= end;
        if (!fits || map.offset % 4096 != 0 || wanted % 4096 != 0 || wanted == 0)
            return EINVAL;
        return wanted > SIZE_MAX ? ENOMEM : 0;
    }

    void map(choices &choose)
    {
        const uint64_t mask = choose.of<uint64_t>({0, 0, 1, 2, 0xfffffffe, choose.bits()});
        lines_.error = untouched;
        for (size_t i = 0; i < maps_.size(); ++i) {
            range &one = maps_[i];
            if (one.mapped || (mask >> i & 1) != 0) {
                say("LOG_INFO", lines_.err, "libuio_emul_mmap",
                    printed("skip: m=%jd, index=%zu, map->addr=ADDR ", lines_.value, i));
                continue;
            }
            size_t length = 0;
            const int error = mapping_error(file_of(one), one, length);
            if (error) {
                fails(error, "libuio_emul_mmap",
                      printed("mmap(%ld, (%zu*4096)),%zx,%u failed : %s",
                              static_cast<long>(one.size), i, one.offset, one.bar,
                              std::strerror(error)));
                lines_.value = -static_cast<intmax_t>(i);
                break;
            }
            one.mapped = true;
            one.size = length;
            ++lines_.value;
        }
        lines_.error = lines_.value > 0 && lines_.out.empty() ? any_error : lines_.error;
        expect(printed("libuio_mmap(0x%jx)", uintmax_t{mask}), lines_,
               [&] { return libuio_mmap(uio_, mask); });
        expect_state();
        for (unsigned int i = 0; i < maps_.size(); ++i)
            if (maps_[i].mapped)
                expect_window(i);
    }

    void expect_window(unsigned int index)
    {
        const range &map = maps_[index];
        const auto number = static_cast<char>('A' + index);
        static_cast<char *>(libuio_get_mapinfo(uio_, index, nullptr))[map.size - 1] = number;
        std::ifstream file(file_of(map), std::ios::binary);
        file.seekg(static_cast<std::streamoff>(map.offset + map.size - 1));
        expect_same("the byte that was written", number, static_cast<char>(file.get()));
    }

    void unmap(choices &choose)
    {
        const uint64_t mask = choose.of<uint64_t>({0, 1, 6, choose.bits()});
        for (size_t i = 0; i < maps_.size(); ++i)
            maps_[i].mapped = maps_[i].mapped && (mask >> i & 1) != 0;
        expect(printed("libuio_munmap(0x%jx)", uintmax_t{mask}), {.error = untouched},
               [&] { return libuio_munmap(uio_, mask), 0; });
        expect_state();
    }

    void enable(choices &choose)
    {
        const int32_t value = choose.of({0, 1, -1, choose.hostile()});
        const string file = dir_ + "/enable";
        if (choose.one_in(4) && type_ != "pellum") {
            fs::remove_all(file);
            choose.one_in(2) ? write_file(file, "0\n") : void();
        }
        lines_.error = untouched;
        lines_.value = enables(value ? '1' : '0') ? 0 : -1;
        expect(printed("libuio_emul_device_enable(%d)", value), lines_,
               [&] { return libuio_emul_device_enable(uio_, value); });
        expect_state();
    }

    void close()
    {
        enables('0');
        lines_.error = any_error;
        expect("libuio_close()", lines_, [&] { return libuio_close(uio_), 0; });
        uio_ = nullptr;
    }

    void refuse()
    {
        expect("libuio_irqwait()", {.value = -1, .error = EBADF},
               [&] { return libuio_irqwait(uio_, nullptr, nullptr); });
        const timespec none = {};
        for (const char *name : {static_cast<const char *>(nullptr), "/dev/uio0", "sysfs_pci",
                                 "Sysfs_pci:uio_glb.rpsw", " sysfs_pci:uio_glb.rpsw"}) {
            expect("libuio_is_emul()", {}, [&] { return intmax_t{libuio_is_emul(name)}; });
            expect("libuio_emul_open_timed()", {.error = EINVAL},
                   [&] { return libuio_emul_open_timed(name, &none) != nullptr; });
        }
        expect("libuio_emul_mmap(NULL)", {.value = -1, .error = EINVAL},
               [] { return libuio_emul_mmap(nullptr, 0); });
        expect("libuio_emul_device_enable(NULL)", {.value = -1, .error = EINVAL},
               [] { return libuio_emul_device_enable(nullptr, 1); });
    }

    std::map<string, blocks> tables_;
    outcome lines_;               // what the step's call should do
    string region_, slot_, fpga_; // the name's parts
    string dir_, type_;           // of the device that is open,
    std::vector<range> maps_;     // its maps,
    char enabled_ = '0';          // what it was told last
    libuio_dev_t *uio_ = nullptr;
};

} // namespace

int main(int argc, char **argv)
{
    normalise = [](string &text) {
        const auto cut = [&text](const string &start, char end, const string &by) {
            for (size_t at = 0; (at = text.find(start, at)) != text.npos; at += by.size())
                text.replace(at, text.find(end, at + start.size()) - at, by);
        };
        const string unit = "lib/device_access/libuio:";
        for (size_t at; (at = text.find(unit)) != text.npos;)
            text.erase(at, text.find(':', at + unit.size()) + 1 - at);
        cut("map->addr=", ' ', "map->addr=ADDR");
    };
    return walk(argc, argv, [](choices &) { return std::make_unique<emul_model>(); });
}
