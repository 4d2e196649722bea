// The scan of the PCI devices and what their attributes say, compared with a look at the same tree
// in the simplest way.
#include "walk.h"

#include "sim/base/files.h"

#include <device_access/pci_sysfs.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>

#include <malloc.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

namespace
{

using namespace models;
using std::string;
namespace fs = std::filesystem;

const string bus = "/sys/bus/pci/devices";

// The kernel keeps ten datagrams at most; then syslog waits.
class syslog_socket
{
public:
    syslog_socket()
    {
        const sockaddr_un address = {AF_UNIX, "/dev/log"};
        ::bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address);
        ::openlog("walk", 0, LOG_USER);
        ::syslog(LOG_ERR, "opens the log");
        take();
    }
    string take() const
    {
        string messages;
        char block[512];
        for (ssize_t size; (size = ::recv(fd_, block, sizeof block, MSG_DONTWAIT)) >= 0;) {
            const string message(block, static_cast<size_t>(size));
            messages += message.substr(0, 4) + message.substr(message.find(": ") + 2) + "|";
        }
        return messages;
    }

private:
    const int fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
};

// What opening and reading once gives; an error without contents.
struct read_result {
    std::optional<string> text;
    int error = 0;
};

read_result contents(const string &path, size_t limit)
{
    struct stat status = {};
    if (::stat(path.c_str(), &status) != 0)
        return {{}, errno};
    if (S_ISDIR(status.st_mode))
        return {{}, EISDIR};
    std::ifstream file(path, std::ios::binary);
    const string whole{std::istreambuf_iterator<char>(file), {}};
    if (whole.empty())
        return {{}, untouched};
    return {whole.substr(0, limit), 0};
}

class sysfs_model : public model
{
public:
    sysfs_model() { fs::create_directories(bus); }

    void step(choices &choose) override
    {
        ident_ = identity(choose.of(names));
        switch (choose.below(10)) {
        case 0:
        case 1:
            return change_tree(choose);
        case 2:
        case 3:
            return change_attribute(choose);
        case 4:
            return scan(choose);
        case 5:
            return iterate(choose);
        case 6:
            return fill();
        case 7:
            return show(choose);
        default:
            return show_numbers(choose);
        }
    }

private:
    //--- the tree ---------------------------------------------------------------------------------

    static inline const string names[] = {
        "0000:00:1f.3", "0000:03:00.0",  "fFfF:aB:Cd.7", "0000:03:00.8", "0000:03:00.",
        "0000-03:00.0", "0000:03:00.0x", "000g:03:00.0", "0000:03 00.0", "-"};
    static inline const string attributes[] = {"device", "vendor", "subsystem_device",
                                               "subsystem_vendor", "resource"};

    static sysfs_pci_identity_t identity(const string &id)
    {
        sysfs_pci_identity_t result = {};
        id.copy(result.str, sizeof result.str);
        return result;
    }
    string id() const { return string(ident_.str, ::strnlen(ident_.str, sizeof ident_.str)); }
    string dir() const { return bus + "/" + id(); }

    void change_tree(choices &choose)
    {
        const string path =
            choose.one_in(8) ? bus + "/" + string(choose.between(70, 240), 'a') : dir();
        fs::remove_all(path);
        const int kind = choose.below(8);
        if (kind == 0)
            chassis_sim::write_file(path, "a file");
        else if (kind == 1)
            fs::create_symlink("gone", path);
        else if (kind > 2)
            fs::create_directory(path);
        if (kind == 4)
            for (const string &child : {names[choose.below(9)], string("0000:04:00.0")})
                fs::create_directories(path + "/" + child);
        for (const string &attribute : attributes)
            if (kind > 4)
                chassis_sim::write_file(path + "/" + attribute, "0x8086\n");
        note(printed("kind %d at ", kind) + path);
    }

    static string number(choices &choose)
    {
        const string spaces = choose.of({string(), string(" "), string("\t \n"), string(28, ' ')});
        const char *const format = choose.of({"0x%x", "%d", "0%o", "%x", "-%d", "+%d", "0x%xg"});
        const string huge =
            choose.of({string("9223372036854775808"), string("-9223372036854775809"), string("0x"),
                       string("0xffffffffffffffffff")});
        return spaces + (choose.one_in(8) ? huge : printed(format, choose.hostile() & 0x7fffffff));
    }

    static string lines_of_resources(choices &choose)
    {
        string text;
        for (int lines = choose.between(0, 8); lines > 0; --lines) {
            const int64_t start = choose.of<int64_t>(
                {0, 0x1000, 0x7ffff000, 0xf0000000, 0x4'0000'0000, choose.between(0, INT_MAX)});
            text += printed("0x%016jx 0x%016jx 0x%08x\n", uintmax_t(start),
                            uintmax_t(start + choose.of({0, 0xff, 0xfff, INT_MAX, -1})),
                            choose.hostile());
            if (choose.one_in(6))
                text += choose.of({string("5\n"), string("\n"), string("1 0x1f\n"),
                                   string("1 2 0x100000003\n"), string(130, '0') + "1 0x1f 2\n",
                                   string("-1 -2 3\n")});
        }
        return choose.one_in(4) ? text.substr(0, text.size() / 2) : text;
    }

    void change_attribute(choices &choose)
    {
        const string attribute = choose.of({choose.of(attributes), string("resource")});
        const string file = dir() + "/" + attribute;
        if (!fs::is_directory(dir()))
            return;
        fs::remove_all(file);
        string text = number(choose);
        for (int more = choose.below(3); more > 0; --more)
            text += " " + number(choose);
        text = choose.of({text, text + "\n", string(), string("ffff\n"), string(":9"), string("9:"),
                          string(126, '0') + "12", string("12abc"), string(5000, '7'), text + "\t",
                          string("7,8 9")});
        if (attribute == "resource" && !choose.one_in(5))
            text = lines_of_resources(choose);
        if (choose.one_in(10))
            fs::create_directory(file);
        else if (!choose.one_in(10))
            chassis_sim::write_file(file, text);
        note(file + " has " + text);
    }

    //--- the scan ---------------------------------------------------------------------------------

    string lines_;

    void say(int level, const char *function, const string &text)
    {
        lines_ += printed("[%d] %s(): ", level, function) + text + "\n";
    }

    bool starts_with_digit(const string &path, string &text)
    {
        struct stat status = {};
        if (::stat(path.c_str(), &status) != 0) {
            say(3, "sysfs_fill_attribute", "Error opening the file_entry, " + path + "\n");
            return false;
        }
        const read_result read = contents(path, 127);
        text = read.text.value_or("").c_str(); // to its first NUL
        if (!read.text)
            say(3, "sysfs_fill_attribute", "Read failed on the attribute " + path + "\n");
        else if (text.empty() || text[0] < '0' || text[0] > '9')
            say(3, "sysfs_fill_attribute", "Read returned invalid value " + text + "\n");
        else
            return true;
        return false;
    }

    void read_resources(const string &path, sysfs_pci_info_t &info)
    {
        std::ifstream file(path);
        for (int line = 0; line < 6; ++line) {
            string text;
            for (char c; text.size() < 127 && !text.ends_with('\n') && file.get(c);)
                text += c;
            if (text.empty()) {
                say(3, "sysfs_fetch_resource_attr",
                    printed("Unexpected EOF at line %d of ", line) + path + "\n");
                return;
            }
            const char *at = text.c_str();
            const char *const end = at + text.size();
            uint64_t numbers[3] = {};
            for (uint64_t &one : numbers) {
                char *rest;
                one = at > end ? 0 : std::strtoull(at, &rest, 16);
                at = at > end ? at : rest + 1;
            }
            const auto after = static_cast<int32_t>(static_cast<uint32_t>(numbers[1] + 1));
            info.resource_bar[line] = {numbers[0],
                                       static_cast<uint64_t>(int64_t{after}) - numbers[0],
                                       std::min(numbers[2], uint64_t{0xffffffff})};
        }
    }

    void scan_device(const string &path, sysfs_pci_info_t &info)
    {
        uint16_t *const fields[] = {&info.id.device, &info.id.vendor, &info.id.subsystem_device,
                                    &info.id.subsystem_vendor};
        for (size_t i = 0; i < 5; ++i) {
            const string file = path + "/" + attributes[i];
            string text;
            if (!starts_with_digit(file, text))
                continue;
            if (i < 4)
                *fields[i] = static_cast<uint16_t>(std::strtoul(text.c_str(), nullptr, 16));
            else
                read_resources(file, info);
        }
        path.copy(info.id.sys_fs, sizeof info.id.sys_fs - 1);
    }

    bool scan_all()
    {
        if (!fs::is_directory(fs::symlink_status(bus))) {
            if (!fs::exists(fs::symlink_status(bus)))
                say(3, "is_sysfs_path_dir", "Stats failed for path " + bus + "\n");
            say(3, "sysfs_pci_scan_dir_path", "PATH invalidi\n");
            return false;
        }
        std::vector<string> entries = {".", ".."};
        for (const auto &entry : fs::directory_iterator(bus))
            entries.push_back(entry.path().filename());
        std::sort(entries.begin(), entries.end());
        set_.assign(entries.size(), {});
        say(7, "sysfs_pci_arraylist_create", printed("# of elements is %zu\n", entries.size()));
        for (size_t i = entries.size(); i-- > 0;) {
            const string path = bus + "/" + entries[i];
            if (entries[i][0] != '.' && path.size() < 256 && fs::is_directory(path))
                scan_device(path, set_[i]);
        }
        return true;
    }

    void scan(choices &choose)
    {
        const int damage = choose.below(6);
        if (damage < 2)
            fs::rename(bus, "/sys/elsewhere");
        if (damage == 1)
            fs::create_symlink("/sys/elsewhere", bus);
        lines_.clear();
        scanned_ = scan_all();
        if (scanned_)
            say(7, "sysfs_pci_info_init", printed("info_set has %zu entries\n", set_.size()));
        expect("sysfs_pci_info_init()", {.value = !scanned_, .out = lines_}, sysfs_pci_info_init);
        fs::remove(damage == 1 ? bus : "");
        if (damage < 2)
            fs::rename("/sys/elsewhere", bus);
    }

    static string text_of(const sysfs_pci_info_t &info)
    {
        const com_pci_dev_t &dev = info.id;
        string text = printed("%x %x %x %x %x %s", dev.vendor, dev.device, dev.subsystem_vendor,
                              dev.subsystem_device, dev.devfn, dev.sys_fs);
        for (const sysfs_pci_bar_t &bar : info.resource_bar)
            text += printed(" %jx+%jx:%jx", uintmax_t{bar.base}, uintmax_t{bar.size},
                            uintmax_t{bar.flags});
        return text;
    }

    void expect_logged(const string &message)
    {
        expect_same("the system's log", message.empty() ? "" : "<11>" + message + "|", log_.take());
    }

    void iterate(choices &choose)
    {
        sysfs_pci_get_next_element_t handle = {5, &handle};
        lines_.clear();
        if (!scanned_)
            say(7, "sysfs_pci_info_fetch_init", "Empty info set\n");
        expect("sysfs_pci_info_fetch_init()", {.value = 0, .out = lines_}, [&] {
            sysfs_pci_info_fetch_init(&handle);
            return static_cast<intmax_t>(handle.key);
        });
        if (choose.one_in(8)) {
            sysfs_pci_info_fetch_init(nullptr);
            expect_logged("Pci Info Init failed \n");
            expect("sysfs_pci_info_fetch_next(NULL)", {},
                   [] { return sysfs_pci_info_fetch_next(nullptr) != nullptr; });
            return expect_logged("Received Null Handle for next element fetch \n");
        }
        const auto last = static_cast<int>(set_.size());
        handle.key = static_cast<size_t>(choose.of({0, choose.below(last + 2), last, last + 1}));
        if (scanned_)
            expect_same("the number of elements", set_.size(),
                        static_cast<const sysfs_pci_info_set_t *>(handle.seed)->count);
        for (int fetches = choose.between(1, last + 2); fetches > 0; --fetches)
            fetch(handle);
    }

    void fetch(sysfs_pci_get_next_element_t &handle)
    {
        size_t at = handle.key;
        while (scanned_ && at < set_.size() && set_[at].id.sys_fs[0] == '\0')
            ++at;
        const bool finds = scanned_ && at < set_.size();
        const bool ends = scanned_ && handle.key <= set_.size();
        const sysfs_pci_info_t *found = nullptr;
        const string call = printed("sysfs_pci_info_fetch_next({%zu})", handle.key);
        expect(call, {.value = finds, .error = untouched},
               [&] { return (found = sysfs_pci_info_fetch_next(&handle)) != nullptr; });
        if (finds)
            expect_same("the element", text_of(set_[at]), text_of(*found));
        if (ends)
            expect_same("the key", finds ? at + 1 : set_.size(), handle.key);
        expect_logged(!scanned_ ? "The Received handle is corrupted \n"
                      : ends    ? ""
                                : "The Received handle key count is invalid\n");
    }

    //--- records and lists ------------------------------------------------------------------------

    static std::vector<int64_t> numbers(const string &text, size_t limit)
    {
        std::vector<int64_t> all;
        const char *at = text.c_str();
        while (all.size() < limit) {
            while (std::isspace(static_cast<unsigned char>(*at)))
                ++at;
            if (*at == '\0')
                break;
            char *end;
            const long long value = std::strtoll(at, &end, 0);
            if (*end != '\0' && !std::isspace(static_cast<unsigned char>(*end)))
                break;
            all.push_back(value);
            at = end;
        }
        return all;
    }

    uint16_t field(const string &attribute) const
    {
        const read_result read = contents(dir() + "/" + attribute, 31);
        const std::vector<int64_t> all = numbers(read.text.value_or(""), 1);
        return all.size() == 1 && all[0] < 0x10000 ? static_cast<uint16_t>(all[0]) : 0xffff;
    }

    int letters(int first, int last) const
    {
        unsigned int number = 0;
        for (int i = first; i < last; ++i) {
            const int letter = std::tolower(static_cast<unsigned char>(ident_.str[i]));
            const int value = letter >= '0' && letter <= '9' ? letter - '0' : letter - 107;
            number = number * 16 + static_cast<unsigned int>(value);
        }
        return static_cast<int>(number);
    }

    void fill()
    {
        sysfs_pci_info_t expected = {}, seen = {};
        expected.id = {field("vendor"),
                       field("device"),
                       field("subsystem_vendor"),
                       field("subsystem_device"),
                       static_cast<uint8_t>((letters(8, 10) * 8 & 0xff) | (letters(11, 12) & 7)),
                       ""};
        dir().copy(expected.id.sys_fs, 99);
        std::memset(&seen.id, 0xee, sizeof seen.id);
        expect("sysfs_pci_dev_fill(" + id() + ")", {.error = any_error},
               [&] { return sysfs_pci_dev_fill(&seen.id, &ident_); });
        expect_same("the record", text_of(expected), text_of(seen));
    }

    //--- attributes -------------------------------------------------------------------------------

    // What comes of opening an attribute to read.
    int opening_error(const char *name) const
    {
        if (!name || !*name)
            return EINVAL;
        struct stat status = {};
        return ::stat((dir() + "/" + name).c_str(), &status) == 0 ? 0 : errno;
    }

    const char *attribute(choices &choose) const
    {
        if (choose.one_in(10))
            return choose.of<const char *>({nullptr, "", "absent"});
        return choose.of(attributes).c_str();
    }

    void show(choices &choose)
    {
        const char *const name = attribute(choose);
        const size_t max = choose.of<size_t>({0, 1, 2, 5, 900});
        const bool own = choose.one_in(2);
        char buffer[1000];
        int error = opening_error(name);
        read_result read;
        if (error == 0 && !own && max < 2)
            error = EINVAL;
        if (error == 0) {
            read = contents(dir() + "/" + name, own ? 4095 : max - 1);
            error = read.text ? untouched : read.error;
        }
        size_t count = 77;
        char *text = nullptr;
        expect(printed("sysfs_pci_show(%s, %zu, ", own ? "NULL" : "buffer", max) +
                   (name ? name : "NULL") + ", " + id() + ")",
               {.value = read.text.has_value(), .error = error}, [&] {
                   text = sysfs_pci_show(own ? nullptr : buffer, max, &count, name, &ident_);
                   return text != nullptr;
               });
        expect_same("the count", read.text ? read.text->size() : 77, count);
        if (text)
            expect_same("the text", *read.text + '\0', string(text, count + 1));
        if (own && text)
            expect_same("whether there is room", true, ::malloc_usable_size(text) >= 4096 + max);
        if (own)
            std::free(text);
    }

    void show_numbers(choices &choose)
    {
        const char *const name = attribute(choose);
        const size_t limit = choose.of<size_t>({0, 1, 1, 2, 3});
        const bool nowhere = choose.one_in(12);
        int error = opening_error(name);
        if (error == 0 && nowhere)
            error = EINVAL;
        std::vector<int64_t> all;
        if (error == 0) {
            const read_result read = contents(dir() + "/" + name, limit < 2 ? 31 : 4095);
            error = read.text ? 0 : read.error;
            all = numbers(read.text.value_or(""), std::max<size_t>(limit, 1));
        }
        const auto result = error ? -1 : static_cast<intmax_t>(all.size());
        int64_t seen[4] = {};
        expect(printed("sysfs_pci_show_nums(%zu, ", limit) + (name ? name : "NULL") + ")",
               {.value = result, .error = error ? error : any_error},
               [&] { return sysfs_pci_show_nums(nowhere ? nullptr : seen, limit, name, &ident_); });
        for (size_t i = 0; i < all.size(); ++i)
            expect_same("a number", all[i], seen[i]);
    }

    const syslog_socket log_;
    sysfs_pci_identity_t ident_ = {};   // that the step is about
    bool scanned_ = false;              // the last scan had a result,
    std::vector<sysfs_pci_info_t> set_; // which is this
};

} // namespace

int main(int argc, char **argv)
{
    normalise = [](string &text) {
        for (size_t at; (at = text.find(", lib/device_access/pci_sysfs:")) != text.npos;)
            text.replace(at, text.find(':', text.find(':', at) + 1) + 1 - at, " ");
    };
    return walk(argc, argv, [](choices &) { return std::make_unique<sysfs_model>(); });
}
