// UIO devices by the names of their nodes: opening, maps, interrupts and diagnostics, beside a look
// at the same tree in the simplest way. Nodes of the kernel's own stand for devices without
// interrupts: /dev/zero is always ready, and a file for a removal notice always has one.
#include "walk.h"

#include "sim/program/chassis.h"

#include <device_access/libuio.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
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

const string classes = "/sys/class/uio";

string contents(const string &path)
{
    if (fs::is_directory(path))
        return "";
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool is_number(const string &text, const char *prefix, size_t longest, long below)
{
    const size_t start = std::strlen(prefix);
    return text.size() > start && text.size() <= longest && text.starts_with(prefix) &&
           std::all_of(text.begin() + static_cast<ptrdiff_t>(start), text.end(),
                       [](char c) { return c >= '0' && c <= '9'; }) &&
           std::stol(text.substr(start)) < below;
}

struct map_record {
    unsigned int index;
    size_t size;
    bool mapped = false;
};

// What an opened device should be.
struct device {
    libuio_dev_t *uio = nullptr;
    string name, real_name, class_dir, device_dir;
    std::vector<map_record> maps = {};
    bool has_notice = false;
    bool is_shut = false;
    uint32_t seen = 0; // interrupts
};

class uio_model : public model
{
public:
    uio_model()
    {
        chassis_sim::device_server server;
        chassis_sim::uio_description regular;
        regular.maps = {{"map0", "0x1000\n"}, {"map1", "0x2000\n"}};
        chassis_sim::add_uio(server, regular);
        server.start();
        fs::create_symlink("/dev/uio0", "/dev/first");
        fs::create_symlink("/dev/zero", "/dev/uio7"); // the name that counts is the node's
        fs::create_symlink("loop", "/dev/loop");
        // A node that no one may open, root included.
        write_file("/dev/closed", "");
        chassis_sim::bind_mount("/dev/zero", "/dev/closed");
        ::mount("", "/dev/closed", "", MS_REMOUNT | MS_BIND | MS_NODEV | MS_NOSUID | MS_NOEXEC, "");
    }

    void step(choices &choose) override
    {
        lines_ = {};
        error_ = untouched;
        if (!open_.uio)
            return choose.one_in(2) ? change_tree(choose) : open(choose);
        switch (choose.below(9)) {
        case 0:
            return map(choose);
        case 1:
            return unmap(choose);
        case 2:
            return ask_for_maps(choose);
        case 3:
        case 4:
            return control(choose);
        case 5:
        case 6:
            return wait(choose);
        default:
            return choose.one_in(3) ? close() : refuse_null(choose);
        }
    }

private:
    void say(const char *function, const string &text, bool debug = false)
    {
        (debug ? lines_.err : lines_.out) +=
            string(debug ? "log[LOG_DEBUG]: " : "log[LOG_ERR]: ") + function + "(): " + text + "\n";
    }

    // A step of an algorithm that fails for this reason.
    bool fails(int error, const char *function, const string &text, bool with_reason = true)
    {
        error_ = error;
        say(function, text + (with_reason ? string(": ") + std::strerror(error) : ""));
        return false;
    }

    //--- the tree ---------------------------------------------------------------------------------

    static string number_text(choices &choose)
    {
        return choose.of({string("0x20"), string("020"), string("16\n"), string("4096"),
                          string("0x2000\n"), string("0"), string("x"), string("0x"),
                          string("0x10") + string(36, ' ') + "9", string(" 8192"),
                          string(36, ' ') + "40960"});
    }

    void change_tree(choices &choose)
    {
        const string name =
            choose.of({string("uio1"), string("uio5"), string("uio00001"), string("uio65535"),
                       string("uio65536"), string("uio123456"), string("uio+1"), string("uio"),
                       string("uio7a"), string("uii1"), string("uio000001")});
        const string dir = classes + "/" + name;
        const string device = "/sys/devices/platform/" + name;
        fs::remove_all(dir);
        fs::remove_all(device);
        if (choose.one_in(4))
            return;
        const string number =
            choose.of({string("1:5"), string("1:5"), string("1:5"), string("1:3"), string("9:9")});
        const string hostile = choose.of(
            {number, string("01:0005\n"), number + " \n", " " + number + "\n", string("1:\n"),
             string(":5\n"), string("1:65536\n"), string("65537:5\n"), string("0x1:5\n"), string(),
             number + "\nmore", string(17, '0') + number + "\n", string("1:-5\n")});
        write_file(dir + "/dev", choose.one_in(3) ? hostile : number + "\n");
        if (!choose.one_in(10))
            fs::create_symlink(device, dir + "/device");
        make_device(choose, device);
        make_maps(choose, dir + "/maps");
        note("made " + dir + " of " + contents(dir + "/dev"));
    }

    static void make_device(choices &choose, const string &device)
    {
        fs::create_directories(device);
        if (choose.one_in(10))
            fs::create_directory(device + "/uevent");
        else if (choose.one_in(10))
            fs::create_symlink("/etc/passwd", device + "/uevent");
        else if (!choose.one_in(10))
            write_file(device + "/uevent", "");
        const string notice = device + "/uio_maps";
        const int kind = choose.below(10);
        if (kind == 0)
            fs::create_directory(notice);
        else if (kind == 1)
            fs::create_symlink("uio_maps", notice);
        else if (kind < 5)
            write_file(notice, std::string("0\n", static_cast<size_t>(kind - 2)));
    }

    static void make_maps(choices &choose, const string &maps)
    {
        if (choose.one_in(8))
            return choose.one_in(4) ? write_file(maps, "no directory") : void();
        fs::create_directories(maps);
        const bool many = choose.one_in(20);
        for (int count = many ? 69 : choose.below(5); count > 0; --count) {
            const string name =
                "map" + (count > 5 ? std::to_string(count - 6)
                                   : choose.of({string("0"), string("1"), string("5"), string("07"),
                                                string("63"), string("64"), string("007"),
                                                string("1a"), string("+1"), string()}));
            const string file = maps + "/" + name + "/size";
            fs::remove_all(maps + "/" + name);
            const int damage = many ? 20 : choose.below(20);
            if (damage == 0)
                fs::create_directories(file);
            else if (damage == 1)
                fs::create_directories(maps + "/" + name);
            else
                write_file(file, damage == 2 ? "" : number_text(choose));
        }
    }

    //--- opening ----------------------------------------------------------------------------------

    bool locate_real_name(const string &name, string &real)
    {
        struct stat status = {};
        if (::stat(name.c_str(), &status) != 0)
            return fails(errno, "libuio_locate_real_name", "stat(" + name + ") failed");
        real = fs::canonical(name);
        return true;
    }

    bool is_class_dir(const string &base, dev_t number)
    {
        const string path = classes + "/" + base + "/dev";
        struct stat status = {};
        if (::stat(path.c_str(), &status) != 0)
            return fails(errno, "libuio_make_class_dir", "open(" + path + ") failed");
        const string text = contents(path).substr(0, 19);
        if (text.empty())
            return fails(EIO, "libuio_make_class_dir", "read(" + path + ") failed");
        unsigned int major = 0, minor = 0;
        if (!is_device_number(text, major, minor))
            return fails(ENODEV, "libuio_make_class_dir",
                         "read(" + path + ") returns \"" + text + '"', false);
        if (number != (major << 8 | minor)) {
            say("libuio_make_class_dir",
                printed("%#lx not matching ", static_cast<unsigned long>(number)) + text, true);
            return false;
        }
        open_.class_dir = classes + "/" + base;
        say("libuio_make_class_dir", "Made " + open_.class_dir, true);
        return true;
    }

    static bool is_device_number(const string &text, unsigned int &major, unsigned int &minor)
    {
        const size_t colon = text.find(':'), end = text.find('\n');
        if (end == text.npos || colon > end || !is_number(text.substr(0, colon), "", 19, 65536) ||
            !is_number(text.substr(colon + 1, end - colon - 1), "", 19, 65536))
            return false;
        major = static_cast<unsigned int>(std::stoul(text));
        minor = static_cast<unsigned int>(std::stoul(text.substr(colon + 1)));
        return true;
    }

    bool locate_class_dir()
    {
        struct stat status = {};
        ::lstat(open_.real_name.c_str(), &status);
        if (!S_ISCHR(status.st_mode))
            return fails(EINVAL, "libuio_locate_class_dir", open_.real_name + ": not cdev", false);
        const string base = fs::path(open_.real_name).filename();
        if (is_number(base, "uio", 8, 65536) && is_class_dir(base, status.st_rdev))
            return true;
        for (const auto &entry : fs::directory_iterator(classes))
            if (const string name = entry.path().filename();
                is_number(name, "uio", 8, 65536) && is_class_dir(name, status.st_rdev))
                return true;
        error_ = any_error;
        return false;
    }

    bool locate_device_dir()
    {
        if (!locate_real_name(open_.class_dir + "/device", open_.device_dir))
            return false;
        const string uevent = open_.device_dir + "/uevent";
        struct stat status = {};
        if (::lstat(uevent.c_str(), &status) != 0)
            return fails(errno, "libuio_locate_device_dir", "lstat(" + uevent + ") failed");
        if (!S_ISREG(status.st_mode))
            return fails(EINVAL, "libuio_locate_device_dir",
                         "lstat(" + uevent + ") found a non-regular file", false);
        say("libuio_locate_device_dir", "Found " + open_.device_dir, true);
        return true;
    }

    bool find_maps()
    {
        const string maps = open_.class_dir + "/maps";
        if (!fs::exists(maps))
            return true;
        if (!fs::is_directory(maps))
            return fails(ENOTDIR, "libuio_find_maps", "opendir(" + maps + ") failed");
        for (const auto &entry : fs::directory_iterator(maps)) {
            const string name = entry.path().filename();
            if (!is_number(name, "map", 5, 64))
                continue;
            if (open_.maps.size() == 64)
                return fails(ENOMEM, "libuio_find_maps", "max-map reached", false);
            if (!fill_map(static_cast<unsigned int>(std::stoul(name.substr(3))),
                          maps + "/" + name + "/size"))
                return false;
        }
        return true;
    }

    bool fill_map(unsigned int index, const string &path)
    {
        if (!fs::exists(path))
            return fails(ENOENT, "libuio_fill_map", "open(" + path + ") failed");
        const string text = contents(path).substr(0, 40);
        if (text.empty())
            return fails(fs::is_directory(path) ? EISDIR : EIO, "libuio_fill_map",
                         "pread(" + path + ") failed");
        const unsigned long size = std::strtoul(text.c_str(), nullptr, 0);
        say("libuio_fill_map", printed("Found %u; ", index) + path + printed(" = %#lx", size),
            true);
        open_.maps.push_back({index, size});
        return true;
    }

    bool open_files()
    {
        const string &dir = open_.device_dir;
        const string notice = dir + "/uio_maps";
        if (open_.name == "/dev/closed")
            return fails(EACCES, "libuio_open_files", "open(/dev/closed) failed");
        if (fs::is_symlink(notice))
            return fails(ELOOP, "libuio_open_device_attr",
                         "openat(" + dir + ",uio_maps,0x80000) failed");
        open_.has_notice = fs::exists(notice);
        const bool is_directory = fs::is_directory(notice);
        if (open_.has_notice && contents(notice).empty())
            return fails(is_directory ? EISDIR : EIO, "libuio_open_files",
                         "1st read(" + notice + ") failed");
        say("libuio_open_files", "(tmr, uio, chg) = (FDS)\n", true);
        return true;
    }

    bool opens()
    {
        struct stat status = {};
        if (::stat(open_.name.c_str(), &status) != 0)
            return errno != ENOENT ? fails(errno, "libuio_check", "stat(" + open_.name + ") failed")
                                   : (error_ = ENOENT, false);
        if (!locate_real_name(open_.name, open_.real_name) || !locate_class_dir() ||
            !locate_device_dir() || !find_maps())
            return false;
        say("libuio_adjust_size",
            printed("realloc (%zu+%zu+%zu+%zu) ok",
                    sizeof(libuio_dev_t) + open_.maps.size() * sizeof(libuio_map_t),
                    open_.device_dir.size() + 1, open_.class_dir.size() + 1, open_.name.size() + 1),
            true);
        return open_files();
    }

    void open(choices &choose)
    {
        // An ordinary user's node of a device is the machine's /dev/null by another name.
        struct stat node = {}, null = {};
        const bool is_other = ::stat("/dev/uio0", &node) != 0 || ::stat("/dev/null", &null) != 0 ||
                              node.st_rdev != null.st_rdev;
        open_ = {};
        open_.name = choose.of({string("/dev/uio0"), string("/dev/first"), string("/dev/zero"),
                                string("/dev/zero"), string("/dev/zero"),
                                string(is_other ? "/dev/null" : "/dev/zero"), string("/dev/uio7"),
                                string("/dev/closed"), string("/etc/passwd"), string("/dev/none"),
                                string("/dev/null/x"), string("/dev/loop"), string()});
        const bool good = opens();
        const timespec wait = {choose.one_in(9) ? -1 : 0, choose.of({0, 0, 9999999, 20000000})};
        lines_.value = good;
        lines_.error = good ? any_error : error_;
        lines_.opens = good ? 2 + open_.has_notice : 0;
        libuio_dev_t *uio = nullptr;
        expect("libuio_open_timed(\"" + open_.name + "\")", lines_, [&] {
            uio = libuio_open_timed(open_.name.c_str(), &wait);
            return uio != nullptr;
        });
        if (!good) {
            open_ = {};
            return;
        }
        open_.uio = uio;
        open_.seen = interrupts_;
        expect_handle();
    }

    void expect_handle()
    {
        const libuio_dev_t *const uio = open_.uio;
        const string strings = open_.device_dir + '\0' + open_.class_dir + '\0' + open_.name + '\0';
        expect_same(
            "the strings after the last record", strings,
            string(reinterpret_cast<const char *>(uio->map + open_.maps.size()), strings.size()));
        expect_same("the name", open_.name, libuio_get_real_devnode(uio));
        expect_same("the class directory", open_.class_dir, libuio_get_sys_class_dir(uio));
        expect_same("the device's directory", open_.device_dir, libuio_get_sys_device_dir(uio));
        expect_same("how the node is open", O_RDWR,
                    ::fcntl(libuio_get_uio_fd(uio), F_GETFL) & O_ACCMODE);
        expect_same("whether there is a notice", open_.has_notice, libuio_get_removed_fd(uio) > 0);
        if (open_.has_notice)
            expect_same("where the notice stands", off_t{0}, ::lseek(uio->gone_fd, 0, SEEK_CUR));
        for (const int fd : {uio->uio_fd, uio->tmr_fd, uio->gone_fd})
            if (fd >= 0)
                expect_same("what a new program keeps", FD_CLOEXEC, ::fcntl(fd, F_GETFD));
        const string timer = contents(printed("/proc/self/fdinfo/%d", uio->tmr_fd));
        expect_same("the timer's clock", true,
                    timer.find(printed("clockid: %d\n", CLOCK_MONOTONIC)) != timer.npos);
        expect_maps();
    }

    static string text_of(unsigned int index, size_t size, bool mapped, unsigned int other)
    {
        return printed("%u+%zu%s %u, ", index, size, mapped ? " mapped" : "", other);
    }

    void expect_maps()
    {
        string expected, seen;
        unsigned int limit = 0;
        for (const map_record &map : open_.maps) {
            expected += text_of(map.index, map.size, map.mapped, 0);
            limit = std::max(limit, map.index + 1);
        }
        for (unsigned int i = 0; i < open_.uio->map_count; ++i) {
            const libuio_map_t &map = open_.uio->map[i];
            seen += text_of(map.index, map.size, map.addr, map.offset | map.bar);
        }
        expect_same("the maps", expected, seen);
        expect_same("the limit", limit, libuio_get_map_limit(open_.uio));
    }

    //--- maps -------------------------------------------------------------------------------------

    static uint64_t mask_of(choices &choose)
    {
        const uint64_t one = uint64_t{1} << choose.of({0, 1, 5, 7, 31, 32, 62, 63});
        return choose.of({uint64_t{0}, one, ~one, choose.bits()});
    }

    int map_error(const map_record &map) const
    {
        return map.size == 0 ? EINVAL : open_.real_name == "/dev/null" ? ENODEV : 0;
    }

    void map(choices &choose)
    {
        const uint64_t mask = mask_of(choose);
        for (map_record &map : open_.maps) {
            if (map.mapped || (mask >> map.index & 1) != 0)
                continue;
            const int error = map_error(map);
            if (open_.is_shut)
                say("libuio_mmap", "UIO-fd closed");
            else if (error)
                fails(error, "libuio_mmap",
                      printed("mmap(%zu, (%u*4096)) failed", map.size, map.index));
            if (open_.is_shut || error) {
                lines_.value = -intmax_t{map.index};
                break;
            }
            map.mapped = true;
            ++lines_.value;
        }
        lines_.error = open_.is_shut ? any_error : error_;
        expect(printed("libuio_mmap(0x%jx)", uintmax_t{mask}), lines_,
               [&] { return libuio_mmap(open_.uio, mask); });
        expect_maps();
        for (unsigned int i = 0; i < open_.maps.size(); ++i)
            if (open_.maps[i].mapped && open_.real_name == "/dev/uio0")
                expect_window(open_.uio->map[i]);
    }

    static void expect_window(const libuio_map_t &map)
    {
        const int fd = ::open("/dev/uio0", O_RDWR);
        void *const same =
            ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, map.index * 4096);
        ::close(fd);
        static_cast<uint32_t *>(map.addr)[1] += 3;
        expect_same("the register that both show", static_cast<uint32_t *>(same)[1],
                    static_cast<uint32_t *>(map.addr)[1]);
        ::munmap(same, 4096);
    }

    void unmap(choices &choose)
    {
        const uint64_t mask = mask_of(choose);
        for (map_record &map : open_.maps)
            map.mapped = map.mapped && (mask >> map.index & 1) != 0;
        lines_.error = untouched;
        expect(printed("libuio_munmap(0x%jx)", uintmax_t{mask}), lines_,
               [&] { return libuio_munmap(open_.uio, mask), 0; });
        expect_maps();
    }

    void ask_for_maps(choices &choose)
    {
        const unsigned int index = choose.of({0u, 1u, 5u, 7u, 63u, 64u, ~0u});
        const auto map = std::find_if(open_.maps.begin(), open_.maps.end(),
                                      [&](const map_record &one) { return one.index == index; });
        const bool found = map != open_.maps.end();
        if (!found)
            say("libuio_get_mapinfo", printed("map[%u] not found", index), true);
        lines_.value = found && map->mapped;
        lines_.error = untouched;
        size_t size = 77;
        expect(printed("libuio_get_mapinfo(%u)", index), lines_,
               [&] { return libuio_get_mapinfo(open_.uio, index, &size) != nullptr; });
        expect_same("the size", found ? map->size : 77, size);
    }

    //--- interrupts -------------------------------------------------------------------------------

    bool has_interrupts() const { return open_.real_name == "/dev/uio0"; }

    void control(choices &choose)
    {
        const int flag = choose.of({0, 1, 1, 1, has_interrupts() ? 1 : choose.hostile()});
        if (open_.is_shut)
            fails(EBADF, "libuio_irqcontrol",
                  printed("pwrite(-1, %#x, 0) failed", static_cast<unsigned int>(flag)));
        else if (has_interrupts())
            enabled_ = flag == 1;
        lines_.value = open_.is_shut ? -1 : 0;
        lines_.error = error_;
        expect(printed("libuio_irqcontrol(%d)", flag), lines_,
               [&] { return libuio_irqcontrol(open_.uio, flag); });
        if (enabled_ && choose.one_in(2)) {
            chassis_sim::control("interrupt uio0");
            ++interrupts_;
        }
    }

    void wait(choices &choose)
    {
        const timespec deadlines[] = {{0, 1},  {0, 0},  {1, 999999999}, {5, 1000000000},
                                      {-1, 1}, {7, -1}, {0x7fffffff, 7}};
        const timespec *deadline = choose.one_in(4) ? nullptr : &choose.of(deadlines);
        const bool pending = !has_interrupts() || open_.seen != interrupts_;
        if (!open_.is_shut && !pending && (!deadline || deadline->tv_sec > 5))
            return; // it would wait
        const bool counts = choose.one_in(2);
        const int timer = open_.uio->tmr_fd;
        const bool is_corrupt = choose.one_in(20);
        open_.uio->tmr_fd = is_corrupt ? choose.of({-7, open_.has_notice ? -1 : 0}) : timer;
        uint32_t count = 77;
        const uint32_t expected = expect_wait(deadline, counts);
        expect(deadline ? printed("libuio_irqwait({%jd, %ld})", intmax_t{deadline->tv_sec},
                                  deadline->tv_nsec)
                        : "libuio_irqwait(NULL)",
               lines_,
               [&] { return libuio_irqwait(open_.uio, deadline, counts ? &count : nullptr); });
        expect_same("the count", expected, count);
        if (is_corrupt)
            open_.uio->tmr_fd = timer;
        if (!open_.is_shut)
            expect_same(
                "whether the timer fires once", true,
                contents(printed("/proc/self/fdinfo/%d", timer)).find("it_interval: (0, 0)") !=
                    string::npos);
        const libuio_dev_t &now = *open_.uio;
        if (open_.is_shut)
            expect_same("the descriptors' sum", -3, now.uio_fd + now.gone_fd + now.tmr_fd);
        expect_maps();
    }

    // What a wait does; returns the count that the caller then has.
    uint32_t expect_wait(const timespec *deadline, bool counts)
    {
        uint32_t count = 77;
        lines_.value = -1;
        if (open_.is_shut) {
            error_ = EBADF;
        } else if (open_.uio->tmr_fd < 0) {
            fails(EINVAL, "libuio_irqwait", printed("Corrupted tmr_fd: %d\n", open_.uio->tmr_fd),
                  false);
        } else if (deadline && (open_.uio->tmr_fd == 0 || deadline->tv_sec < 0 ||
                                deadline->tv_nsec < 0 || deadline->tv_nsec > 999999999)) {
            fails(EINVAL, "libuio_irqwait",
                  printed("timerfd_settime %llu,%llu failed",
                          static_cast<unsigned long long>(deadline->tv_sec),
                          static_cast<unsigned long long>(deadline->tv_nsec)));
        } else if (open_.has_notice && !has_interrupts()) {
            error_ = ECANCELED;
            say("libuio_irqwait", "uio_maps removed", true);
            lines_.opens = -3;
            open_.is_shut = true;
            for (map_record &map : open_.maps)
                map.mapped = false;
        } else if (!has_interrupts() || open_.seen != interrupts_) {
            lines_.value = counts && open_.real_name == "/dev/null" ? -1 : 0;
            if (counts && open_.real_name != "/dev/null")
                count = has_interrupts() ? open_.seen = interrupts_ : 0;
        } else {
            error_ = ETIMEDOUT;
            say("libuio_irqwait", "poll() fires timer-fd (FD)", true);
        }
        lines_.error = error_;
        return count;
    }

    //--- the rest ---------------------------------------------------------------------------------

    void refuse_null(choices &choose)
    {
        const std::function<intmax_t()> calls[] = {
            [] { return libuio_get_uio_fd(nullptr); },
            [] { return libuio_get_removed_fd(nullptr); },
            [] { return -(libuio_get_real_devnode(nullptr) == nullptr); },
            [] { return -(libuio_get_sys_class_dir(nullptr) == nullptr); },
            [] { return -(libuio_get_sys_device_dir(nullptr) == nullptr); },
            [] { return -(libuio_open(nullptr) == nullptr); },
            [] { return libuio_open_device_attr(nullptr, "/x", 0); },
            [] { return libuio_mmap(nullptr, 0); },
            [] { return libuio_munmap(nullptr, 0), -1; },
            [] { return -(libuio_get_mapinfo(nullptr, 0, nullptr) == nullptr); },
            [] { return -(libuio_get_map_limit(nullptr) == 0); },
            [] { return libuio_irqcontrol(nullptr, 1); },
            [] { return libuio_irqwait(nullptr, nullptr, nullptr); },
            [] { return libuio_close(nullptr), -1; }};
        const auto &call = choose.of(calls);
        expect(printed("call %td of NULL", &call - calls), {.value = -1, .error = EINVAL}, call);
    }

    void close()
    {
        lines_.opens = open_.is_shut ? 0 : -2 - open_.has_notice;
        lines_.error = any_error;
        expect("libuio_close()", lines_, [&] { return libuio_close(open_.uio), 0; });
        open_ = {};
    }

    outcome lines_; // what the step's call should do
    int error_ = 0;
    device open_;
    bool enabled_ = false; // the interrupts of uio0
    uint32_t interrupts_ = 0;
};

void replace_all(string &text, const string &start, const string &end, const string &by)
{
    for (size_t at = 0; (at = text.find(start, at)) != text.npos; at += start.size() + by.size()) {
        const size_t from = at + start.size();
        text.replace(from, text.find(end, from) - from, by);
    }
}

} // namespace

int main(int argc, char **argv)
{
    normalise = [](string &text) {
        const string unit = "lib/device_access/libuio:";
        for (size_t at; (at = text.find(unit)) != text.npos;)
            text.erase(at, text.find(':', at + unit.size()) + 1 - at);
        replace_all(text, "(tmr, uio, chg) = (", ")", "FDS");
        replace_all(text, "timer-fd (", ")", "FD");
    };
    return walk(argc, argv, [](choices &) { return std::make_unique<uio_model>(); });
}
