// The POD log on its three storages beside its model: all calls of one kind of storage on two of
// its devices and on none, under any configuration, with any damage.
#include "models/pod_device.h"
#include "models/walk.h"
#include "support/pod_calls.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

using namespace models;
using std::string;

constexpr test::pod_log_calls all_calls[] = {
    POD_LOG_CALLS(nvram, nullptr),
    POD_LOG_CALLS(file, podlog_file_read_raw_log),
    POD_LOG_CALLS(eeprom, podlog_eeprom_read_raw_log),
};

// The bytes of the EEPROMs, as the library's functions reach them.
region eeproms[2];

template <int Number>
int eeprom_reader(uint32_t position, uint8_t *data, uint32_t size)
{
    int ignored;
    return eeproms[Number].read(position, data, size, ignored);
}
template <int Number>
int eeprom_writer(uint32_t position, uint8_t *data, uint32_t size)
{
    int ignored;
    return eeproms[Number].write(position, data, size, ignored);
}

// A call and what the model says of it.
#define CHECK(predicted, ...)                                                                      \
    compare(                                                                                       \
        device, #__VA_ARGS__, [&] { return predicted; }, [&] { return __VA_ARGS__; })

class storage_model : public model
{
public:
    explicit storage_model(choices &choose)
        : what_(choose.of({kind::nvram, kind::file, kind::eeprom})),
          calls_(all_calls[static_cast<int>(what_)])
    {
        ::setenv("TZ", "EAST-1", 1);
        ::umask(022);
        normalise = [](string &text) {
            for (size_t at; (at = text.find("instance(")) != text.npos;)
                text.erase(at + 8, text.find(')', at) + 1 - at - 8);
        };
        const int none = what_ == kind::nvram ? 2 : what_ == kind::file ? 17 : 6;
        const int second = what_ == kind::nvram ? 1 : what_ == kind::file ? 16 : 5;
        for (const int id : {0, second, choose.of({none, -1, INT_MAX})})
            devices_.emplace_back(what_, id, id == 0 || id == second, files_);
        if (what_ == kind::file) // which the library makes
            expect_same("the mode of /var/pod", 0u, mode_of("/var/pod"));
        else
            for (const char *path : {"/var/pod/one", "/var/pod/two"})
                add_file(path);
        for (pod_device &device : devices_)
            configure(choose, device);
    }

    void step(choices &choose) override
    {
        pod_device &device = devices_[choose.one_in(15) ? 2 : choose.below(2)];
        now = choose.one_in(3) ? choose.hostile() : 1700000000 + choose.below(100);
        if (choose.one_in(30))
            configure(choose, device);
        else if (choose.one_in(6))
            damage(choose, device);
        else
            call(choose, device);
    }

private:
    //--- the world

    void add_file(const string &path)
    {
        if (what_ == kind::eeprom) {
            const bool is_first = path == "/var/pod/one";
            files_.emplace(path, region(2000, false));
            eeproms[!is_first] = region(2000, false);
            return;
        }
        std::filesystem::create_directory("/var/pod");
        ::close(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        files_[path] = region();
    }

    static unsigned int mode_of(const string &path)
    {
        struct stat status = {};
        return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 0777 : 0;
    }

    // Under the mask 022, of which the directory takes no notice.
    void check_modes() const
    {
        const unsigned int directory = mode_of("/var/pod");
        if (what_ == kind::file && directory != 0)
            expect_same("the mode of /var/pod", 0777u, directory);
        for (const auto &[path, bytes] : files_)
            if (what_ == kind::file)
                expect_same("the mode of " + path, 0755u, mode_of(path));
    }

    void configure(choices &choose, pod_device &device)
    {
        check_modes();
        const string one = &device == &devices_[0] ? "/var/pod/one" : "/var/pod/two";
        string path = choose.of(
            {one, one, one, string("/var/pod/three"), string("/var/pod/" + string(31, 'l')),
             string("/var/pod/" + string(40, 'l')), string("/var/missing/pod")});
        if (what_ == kind::nvram && !files_.contains(path.substr(0, 40)))
            path = one; // missing nodes are another model's
        const int histories = choose.of({1, 2, 2, 3, 0, -1, 5});
        const int beyond = device.is_nvram() ? 100 : 32;
        const int share = choose.of({260, 261, 276, 400, 30, 20, 0});
        const int size = beyond + share * std::max(histories, 1) + choose.of({0, 0, 1});
        const int message = choose.of({64, 64, 64, 63, 100, 1, 0});
        const uint32_t mask = choose.of({~0u, ~0u, 0xFFFFFFE0u, 0xFFu});
        device.set_pod_info(path, size, histories, message, mask);
        if (what_ == kind::eeprom)
            device.path = one;
        expect(printed("podlog_%s_set_pod_info(%d, \"%s\", %d, %d, %d, 0x%x)", name_of(what_),
                       device.id, path.c_str(), size, histories, message, mask),
               {}, [&] {
                   calls_.set_pod_info(device.id, path.data(), size, histories, message, mask);
                   return 0;
               });
        if (what_ == kind::eeprom)
            bind(device, !choose.one_in(10));
        if (what_ == kind::nvram && choose.one_in(4)) {
            pod_device::nvram_magic = choose.of({0x1FE2C365u, 0x1FE2C365u, 7u});
            podlog_nvram_set_magic_number(pod_device::nvram_magic);
            note(printed("the magic number is 0x%x", pod_device::nvram_magic));
        }
    }

    void bind(pod_device &device, bool binds)
    {
        device.is_bound = device.exists && binds;
        note(printed("EEPROM %d is %sbound", device.id, binds ? "" : "not "));
        const bool is_first = &device == &devices_[0];
        if (binds)
            podlog_bind_eeprom_access_func(device.id,
                                           is_first ? eeprom_reader<0> : eeprom_reader<1>,
                                           is_first ? eeprom_writer<0> : eeprom_writer<1>);
        else
            podlog_unbind_eeprom_access_func(device.id);
    }

    // Both sides get these bytes.
    void put(pod_device &device, int64_t position, const string &bytes)
    {
        int ignored;
        region *const storage = device.storage();
        if (!storage || position < 0)
            return;
        const byte_range kept = std::exchange(unwritable, {});
        storage->write(position, bytes.data(), bytes.size(), ignored);
        if (what_ == kind::eeprom)
            eeproms[&device != &devices_[0]].write(position, bytes.data(), bytes.size(), ignored);
        else
            on_file(device, [&](int fd) {
                return ::pwrite(fd, bytes.data(), bytes.size(), position) ==
                       static_cast<ssize_t>(bytes.size());
            });
        unwritable = kept;
        note(printed("%s %d has %zu other bytes at %jd", name_of(what_), device.id, bytes.size(),
                     intmax_t{position}));
    }

    void on_file(pod_device &device, const std::function<bool(int fd)> &work)
    {
        const int fd = ::open(path_of(*device.storage()).c_str(), O_RDWR | O_CLOEXEC);
        if (fd < 0 || !work(fd))
            throw std::runtime_error("a file of the model cannot be changed");
        ::close(fd);
    }

    string path_of(const region &storage) const
    {
        for (const auto &[path, one] : files_)
            if (&one == &storage)
                return path;
        return "";
    }

    //--- damage

    string bytes_at(pod_device &device, int64_t position, size_t size)
    {
        string bytes(size, '\0');
        int ignored;
        const byte_range kept = std::exchange(unreadable, {});
        unsteady.position = -1;
        if (device.storage())
            device.storage()->read(position, bytes.data(), size, ignored);
        unreadable = kept;
        return bytes;
    }

    // Often a header's, or none.
    static byte_range some_bytes(choices &choose, const pod_device &device)
    {
        const int64_t from =
            choose.of({int64_t{choose.below(1000)}, device.header_at(choose.below(2))});
        return choose.one_in(2) ? byte_range{} : byte_range{from, from + choose.between(1, 40)};
    }

    void damage(choices &choose, pod_device &device)
    {
        switch (choose.below(8)) {
        case 0:
            return resize(choose, device);
        case 1:
            unreadable = some_bytes(choose, device);
            return note(printed("bytes %jd to %jd cannot be read", intmax_t{unreadable.from},
                                intmax_t{unreadable.to}));
        case 2:
            unwritable = some_bytes(choose, device);
            return note(printed("bytes %jd to %jd cannot be written", intmax_t{unwritable.from},
                                intmax_t{unwritable.to}));
        case 3:
            return put(device, choose.below(1000), choose.text(20));
        case 4:
            if (what_ == kind::file && choose.one_in(2)) {
                mkdir_error = choose.of({0, EACCES});
                return note(printed("making a directory gives error %d", mkdir_error));
            }
            return place_far_entry(choose, device);
        default:
            return change_field(choose, device);
        }
    }

    void resize(choices &choose, pod_device &device)
    {
        region *const storage = device.storage();
        if (!storage || what_ == kind::eeprom)
            return;
        const int64_t size = choose.of({0, 33, 47, 60, choose.below(1200), 2000});
        storage->resize(size);
        on_file(device, [&](int fd) { return ::ftruncate(fd, size) == 0; });
        note(path_of(*storage) + printed(" has %jd bytes", intmax_t{size}));
    }

    // A word of a record becomes another one, mostly with a right checksum.
    void change_field(choices &choose, pod_device &device)
    {
        const int history = choose.between(0, 2);
        const int64_t header = device.header_at(history);
        const int record = choose.below(3);
        const int64_t position = record == 0   ? 32
                                 : record == 1 ? header
                                               : header + 20 + 80 * choose.below(3);
        std::array<uint32_t, 5> words;
        std::memcpy(words.data(), bytes_at(device, position, sizeof words).data(), sizeof words);
        const uint32_t here = static_cast<uint32_t>(position);
        words[static_cast<size_t>(choose.below(5))] = choose.of(
            {static_cast<uint32_t>(choose.hostile()), static_cast<uint32_t>(choose.hostile()), 0u,
             80u, 64u, here + 20, INT_MAX - here, INT_MAX - here - 15, device.magic(),
             static_cast<uint32_t>(device.subblock_size)});
        if (!choose.one_in(3))
            seal(words, record);
        put(device, position,
            string(reinterpret_cast<const char *>(words.data()), record == 0   ? device.index_size()
                                                                 : record == 1 ? 20
                                                                               : 16));
        if (record == 0 && choose.one_in(3)) { // which writes the index as it is
            unsteady.position = -1;
            CHECK(device.set_curr_log_status(), calls_.set_curr_log_status(device.id, 0));
        }
    }

    static void seal(std::array<uint32_t, 5> &words, int record)
    {
        words[2] = record == 2 ? 0 : words[2];
        if (record == 0)
            words[3] = sum_of(words.data(), 12);
        else if (record == 1)
            words[0] = sum_of(&words[1], 16);
        else
            words[2] = sum_of(words.data(), 16);
    }

    static string entry(uint32_t size)
    {
        std::array<uint32_t, 5> words = {1700000000, 0, 0, size};
        seal(words, 2);
        return string(reinterpret_cast<const char *>(words.data()), 16);
    }

    // Entries around the largest position, which the chain of a history or a header leads to.
    void place_far_entry(choices &choose, pod_device &device)
    {
        if (what_ == kind::eeprom)
            return;
        const int64_t far = choose.of({int64_t{INT_MAX}, int64_t{INT_MAX}, int64_t{UINT32_MAX}}) +
                            choose.between(-20, 20);
        const int64_t near = device.header_at(choose.below(2)) + 20;
        put(device, far, entry(64) + "far");
        put(device, far + 80, entry(64));
        put(device, near, entry(static_cast<uint32_t>(far - near - 16)) + "near");
        if (choose.one_in(2)) { // where entries are read, or where the next one goes
            std::array<uint32_t, 5> header = {0, static_cast<uint32_t>(device.subblock_size),
                                              choose.of({80u, 0u}), 0x1122,
                                              static_cast<uint32_t>(far)};
            seal(header, 1);
            put(device, near - 20, string(reinterpret_cast<const char *>(header.data()), 20));
            unsteady.position = -1;
            add(choose, device);
        }
    }

    //--- calls

    // The call and what the model says of it, on the same state of what is unsteady.
    void compare(pod_device &device, const string &name, const std::function<outcome()> &predict,
                 const std::function<intmax_t()> &real)
    {
        unsteady.reads = 0;
        const outcome expected = predict();
        unsteady.reads = 0;
        openings.clear();
        expect(name, expected, real);
        expect_same("the mask of modes", device.mode_mask, ::umask(022));
        string asked, made;
        for (const opening &one : device.asked)
            asked += one.path + printed(" 0%o ", static_cast<unsigned int>(one.flags));
        for (const opening &one : openings)
            made += one.path + printed(" 0%o ", static_cast<unsigned int>(one.flags));
        expect_same("what is opened, and how,", asked, made);
        expect_sleeps(device.pauses);
        compare_storages();
    }

    void compare_storages()
    {
        if (what_ == kind::eeprom) {
            for (int i = 0; i < 2; ++i)
                files_.at(i == 0 ? "/var/pod/one" : "/var/pod/two")
                    .expect_same_as(eeproms[i], printed("EEPROM %d", i));
            return;
        }
        for (const auto &[path, storage] : files_)
            storage.expect_same_as(path);
    }

    int a_history(choices &choose, const pod_device &device)
    {
        return choose.of({choose.between(-1, device.num_subblock), choose.below(2), choose.below(2),
                          choose.hostile()});
    }

    int a_position(choices &choose, const pod_device &device)
    {
        return choose.of(
            {static_cast<int>(device.header_at(choose.below(2))) + 20 + 80 * choose.below(3), last_,
             last_, last_, choose.hostile(), INT_MAX - choose.below(100)});
    }

    void call(choices &choose, pod_device &device)
    {
        unsteady.position = -1;
        const int rdonly = choose.of({0, 0, 1, -1});
        note(printed("%s %d, read only %d", name_of(what_), device.id, rdonly));
        switch (choose.below(12)) {
        case 0:
            return with_history(choose, device);
        case 1:
        case 2:
            return read_log(choose, device);
        case 3:
            return choose.one_in(2) ? transfer(choose, device) : add_raw(choose, device);
        case 4:
        case 5:
            return add(choose, device);
        default:
            return with_log(choose, device, rdonly);
        }
    }

    // The calls that need no more than the device.
    void with_log(choices &choose, pod_device &device, int rdonly)
    {
        const int id = device.id;
        switch (choose.below(12)) {
        case 0:
            return CHECK(device.reset(), calls_.reset(id));
        case 1:
            return CHECK(device.set_curr_log_status(), calls_.set_curr_log_status(id, rdonly));
        case 2:
            return CHECK(device.close_dir(), calls_.close_dir(id));
        case 3:
        case 4:
            return CHECK(device.close(), (calls_.close(id), 0));
        case 5:
        case 6:
            be_unsteady(choose, 32);
            return CHECK(device.use_nxt_log(), calls_.use_nxt_log(id));
        case 7:
        case 8:
            return CHECK(device.open_dir(), calls_.open_dir(id));
        default:
            return CHECK(device.init(rdonly != 0), calls_.init(id, rdonly));
        }
    }

    int add_parts(int id, const entry_parts &parts, const char *fmt, ...)
    {
        va_list args;
        va_start(args, fmt);
        const int result = calls_.add(id, const_cast<char *>(parts.level),
                                      const_cast<char *>(parts.diag), parts.ret, fmt, args);
        va_end(args);
        return result;
    }

    void add(choices &choose, pod_device &device)
    {
        string words[4];
        for (string &word : words)
            word = choose.text(choose.of({5, 70, 90}));
        const char *const text = words[3].c_str();
        const int number = choose.hostile();
        const long long large = static_cast<long long>(choose.bits());
        const auto part = [&](int i) { return choose.one_in(4) ? nullptr : words[i].c_str(); };
        entry_parts parts = {part(0), part(1), part(2),
                             printed("%s %d%% %llx", text, number, large)};
        for (const char *one : {parts.level, parts.diag, parts.ret, parts.text.c_str()})
            note(one ? string("part \"") + one + "\"" : "no part");
        CHECK(device.add(parts), add_parts(device.id, parts, "%s %d%% %llx", text, number, large));
    }

    void add_raw(choices &choose, pod_device &device)
    {
        if (what_ != kind::eeprom)
            return;
        string raw =
            entry(static_cast<uint32_t>(choose.hostile())) + choose.text(120) + string(200, '\0');
        string seen = raw;
        uint8_t *const data = reinterpret_cast<uint8_t *>(seen.data());
        note("text \"" + raw.substr(16) + "\"");
        CHECK(device.add_raw(raw), podlog_eeprom_add_raw_log(device.id, data));
        expect_same("the buffer", raw, seen);
    }

    void be_unsteady(choices &choose, int64_t position)
    {
        if (!choose.one_in(4))
            return;
        unsteady.position = position + choose.below(16);
        note(printed("every second read of byte %jd is wrong", intmax_t{unsteady.position}));
    }

    outcome keep(const outcome &what)
    {
        last_ = what.value > 0 ? static_cast<int>(what.value) : last_;
        return what;
    }

    void with_history(choices &choose, pod_device &device)
    {
        const int history = a_history(choose, device);
        time_t time = 77, seen = 77;
        note(printed("history %d", history));
        if (choose.one_in(2))
            return CHECK(keep(device.open_log(history)), calls_.open_log(device.id, history));
        be_unsteady(choose, device.header_at(history) + 20);
        CHECK(device.read_dir(history, time), calls_.read_dir(device.id, history, &seen));
        expect_same("the time", time, seen);
    }

    void read_log(choices &choose, pod_device &device)
    {
        const int id = device.id;
        const int at = a_position(choose, device);
        const uint32_t size = static_cast<uint32_t>(choose.of({64, 64, 3, 1, 0, 300}));
        time_t time = 77, seen = 77;
        string text(400, '#'), read = text;
        uint8_t *const data = reinterpret_cast<uint8_t *>(read.data());
        note(printed("position %d, %u bytes", at, size));
        be_unsteady(choose, at);
        if (calls_.read_raw_log && choose.one_in(3))
            CHECK(keep(device.read_raw_log(at, text.data())), calls_.read_raw_log(id, at, data));
        else
            CHECK(keep(device.read_log(at, time, text.data(), size)),
                  calls_.read_log(id, at, &seen, read.data(), size));
        expect_same("the time", time, seen);
        expect_same("what is read", text, read);
    }

    void transfer(choices &choose, pod_device &device)
    {
        const int id = device.id;
        const uint32_t at =
            static_cast<uint32_t>(choose.of({choose.below(1000), choose.hostile()}));
        const uint32_t size = static_cast<uint32_t>(choose.below(20));
        string bytes = choose.text(20) + string(20, '\0'), seen = bytes;
        uint8_t *const data = reinterpret_cast<uint8_t *>(seen.data());
        note(printed("position 0x%x, %u bytes", at, size));
        if (what_ == kind::nvram && choose.one_in(2))
            CHECK(device.mem_rd(at, bytes.data(), size), pod_nvram_mem_rd(id, at, data, size));
        else if (what_ == kind::nvram)
            CHECK(device.mem_wr(at, bytes.data(), size), pod_nvram_mem_wr(id, at, data, size));
        expect_same("what is moved", bytes, seen);
    }

    const kind what_;
    const test::pod_log_calls &calls_;
    file_system files_;
    std::deque<pod_device> devices_;
    int last_ = 0; // the position of an entry that was found
};

} // namespace

int main(int argc, char **argv)
{
    return walk(argc, argv,
                [](choices &choose) { return std::make_unique<storage_model>(choose); });
}
