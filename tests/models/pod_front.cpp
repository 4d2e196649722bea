// The front end of the POD log beside its model: calls by instance and by card go to the storage
// that the registry names, or are refused; the copy to the secondary storage does its steps.
#include "models/pod_device.h"
#include "models/walk.h"

#include <device_access/pod_log.h>
#include <device_access/pod_log_nvram.h>
#include <device_access/slot_names.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <sys/stat.h>

namespace
{

using namespace models;
using std::string;

constexpr int no_kind = 7;
const char *const file_names[17] = {"alsw1", "alsw2", "sw1",  "sw2",  "sw3",      "sw4",
                                    "ft1",   "ft2",   "pem1", "pem2", "pem3",     "pem4",
                                    "pem5",  "pem6",  "pem7", "pem8", "rpsw_mate"};

region eeproms[6];

template <int Number>
int read_eeprom(uint32_t position, uint8_t *data, uint32_t size)
{
    int ignored;
    return eeproms[Number].read(position, data, size, ignored);
}
template <int Number>
int write_eeprom(uint32_t position, uint8_t *data, uint32_t size)
{
    int ignored;
    return eeproms[Number].write(position, data, size, ignored);
}
constexpr mem_access_fp_t readers[] = {read_eeprom<0>, read_eeprom<1>, read_eeprom<2>,
                                       read_eeprom<3>, read_eeprom<4>, read_eeprom<5>};
constexpr mem_access_fp_t writers[] = {write_eeprom<0>, write_eeprom<1>, write_eeprom<2>,
                                       write_eeprom<3>, write_eeprom<4>, write_eeprom<5>};

// The call and what it should give, which is worked out first.
#define CHECK(predicted, ...) compare(#__VA_ARGS__, predicted, [&] { return __VA_ARGS__; })

class front_model : public model
{
public:
    explicit front_model(choices &choose)
    {
        ::umask(022);
        normalise = [](string &text) {
            for (size_t at; (at = text.find("instance(")) != text.npos;)
                text.erase(at + 8, text.find(')', at) + 1 - at - 8);
        };
        for (int i = 0; i < 6; ++i) {
            eeproms[i] = region(8300, false);
            files_.emplace(std::to_string(i), region(8300, false));
        }
        place_nvram("/dev/nvlog-pod");
        for (const int id : {0, 2}) { // small ones, which get full
            string path = string("/var/pod/pod_") + file_names[id] + ".hex";
            podlog_file_set_pod_info(id, path.data(), 32 + 2 * 276, 2, 64, ~0u);
            device(kind::file, id).set_pod_info(path, 32 + 2 * 276, 2, 64, ~0u);
            podlog_eeprom_set_pod_info(id, path.data(), 32 + 2 * 276, 2, 64, ~0u);
            device(kind::eeprom, id).set_pod_info(path, 32 + 2 * 276, 2, 64, ~0u);
        }
        configure(choose);
    }

    void step(choices &choose) override
    {
        now = 1700000000 + choose.below(1000);
        const int id = choose.of(
            {choose.between(0, 11), choose.between(0, 11), rows_.dev[choose.below(4)].inst_id});
        const char *const card =
            choose.of({"RP1", "SW1", "FT1", "PM1", "PM2", "pm3", "1", "RPSW1", "FT2"});
        note(printed("instance %d, card %s", id, card));
        switch (choose.below(20)) {
        case 0:
            return choose.one_in(8) ? configure(choose) : integrity();
        case 1:
            return damage(choose);
        case 2:
            return select(choose, id);
        case 3:
            return bind(choose, id);
        case 4:
        case 5:
        case 6:
            return init(id, choose.one_in(5));
        case 7:
            return close(id);
        case 8:
        case 9:
        case 10:
            return add(choose, id);
        case 11:
            return use_next(id);
        case 12:
            return copy(id);
        case 13:
        case 14:
            return walk_histories(choose, card);
        default:
            return read(choose, card);
        }
    }

private:
    //--- the world

    void place_nvram(const string &path)
    {
        const string zeros(16384, '\0');
        FILE *const node = std::fopen(path.c_str(), "w");
        if (!node || std::fwrite(zeros.data(), zeros.size(), 1, node) != 1 ||
            std::fclose(node) != 0)
            throw std::runtime_error("no node for " + path);
        files_.emplace(path, region(16384));
    }

    pod_device &device(kind what, int id)
    {
        const auto found = devices_.find({what, id});
        if (found != devices_.end())
            return found->second;
        const int count = what == kind::nvram ? 1 : what == kind::file ? 17 : 6;
        const bool exists = id >= 0 && id < count;
        pod_device &fresh =
            devices_.try_emplace({what, id}, what, id, exists, files_).first->second;
        if (exists)
            fresh.path = what == kind::nvram  ? "/dev/nvlog-pod"
                         : what == kind::file ? string("/var/pod/pod_") + file_names[id] + ".hex"
                                              : std::to_string(id);
        return fresh;
    }

    void configure(choices &choose)
    {
        rows_ = {};
        rows_.num_storage = choose.of({9, 9, 4, 0, 22});
        for (storage_info_t &row : rows_.dev) {
            const string name = choose.of(
                {string("RP1"), string("SW1"), string("FT1"), string("PM1"), string("XY1")});
            name.copy(row.inst_name, 39);
            row.inst_id = choose.of({GetSlotByName(name.c_str())->slotN, choose.between(0, 11)});
            row.type = static_cast<pod_storage_type_t>(choose.of({0, 1, 1, 1, 2, no_kind}));
            row.storage_inst_id = row.type == PODSTORAGE_NVRAM  ? choose.of({0, 0, 0, 2})
                                  : row.type == PODSTORAGE_FILE ? choose.of({0, 2, 16, 17})
                                                                : choose.between(0, 6);
            row.secondary_storage_type =
                static_cast<pod_secondary_storage_type_t>(choose.of({0, 1, 1, 1, no_kind}));
            row.secondary_storage_inst_id = choose.between(-1, 6);
        }
        podlog_config_pod_storage_info(&rows_);
        note("another registry");
    }

    // Both sides lose a byte.
    void damage(choices &choose)
    {
        const int number = choose.below(6);
        const string name = std::to_string(number);
        int ignored;
        const int64_t position = choose.of({32 + choose.below(40), choose.below(300)});
        const char byte = static_cast<char>(choose.bits());
        files_.at(name).write(position, &byte, 1, ignored);
        eeproms[number].write(position, &byte, 1, ignored);
        note(printed("EEPROM %d has another byte at %jd", number, intmax_t{position}));
    }

    //--- one call

    void begin() { said_ = {}; }

    int take(const outcome &one)
    {
        said_.err += one.err;
        said_.out += one.out;
        said_.opens += one.opens;
        return static_cast<int>(one.value);
    }

    int refuse(int value, const string &line)
    {
        said_.err += line;
        return value;
    }

    void compare(const string &call, int value, const std::function<intmax_t()> &real)
    {
        said_.value = value;
        expect(call, said_, real);
        for (const auto &[path, storage] : files_)
            if (path.size() > 1)
                storage.expect_same_as(path);
            else
                storage.expect_same_as(eeproms[path[0] - '0'], "EEPROM " + path);
    }

    int row_of(int id) const
    {
        for (int i = 0; i < rows_.num_storage; ++i)
            if (rows_.dev[i].inst_id == id)
                return i;
        return -1;
    }

    // The row of an instance; without one, says so.
    int row_or_refuse(const char *call, int id)
    {
        const int row = row_of(id);
        if (row == -1)
            refuse(-1, printed("ERROR: %s: invalid instance id %d!\n", call, id));
        return row;
    }

    int card_or_refuse(const char *call, const char *card)
    {
        const int id = GetSlotByName(card)->slotN;
        if (id == -1)
            return refuse(-1, printed("ERROR: %s: invalid instance id -1!\n", call));
        return row_or_refuse(call, id);
    }

    pod_device *primary(int row)
    {
        const storage_info_t &one = rows_.dev[row];
        return one.type > PODSTORAGE_EEPROM
                   ? nullptr
                   : &device(static_cast<kind>(one.type), one.storage_inst_id);
    }
    pod_device *secondary(int row)
    {
        const storage_info_t &one = rows_.dev[row];
        return one.secondary_storage_type == POD2NDSTORAGE_EEPROM
                   ? &device(kind::eeprom, one.secondary_storage_inst_id)
                   : nullptr;
    }
    pod_device *selected(int row) { return uses_primary_[row] ? primary(row) : secondary(row); }

    //--- secondary storage

    int secondary_row(const char *call, int id)
    {
        const int row = row_or_refuse(call, id);
        if (row == -1 || rows_.dev[row].secondary_storage_type == POD2NDSTORAGE_EEPROM)
            return row;
        if (rows_.dev[row].secondary_storage_type == POD2NDSTORAGE_NONE)
            refuse(-1, printed("ERROR: %s: No secondary storage for instance %d!\n", call, id));
        return -1;
    }

    void select(choices &choose, int id)
    {
        begin();
        const int row = secondary_row("podlog_select_primary_secondary_storage", id);
        const int use_primary = choose.below(2);
        if (row != -1)
            uses_primary_[row] = use_primary;
        note(printed("to the primary storage: %d", use_primary));
        CHECK(row == -1 ? -1 : 1, podlog_select_primary_secondary_storage(id, use_primary));
    }

    void bind(choices &choose, int id)
    {
        begin();
        const bool binds = !choose.one_in(3);
        const char *const call = binds ? "podlog_bind_secondary_log_access_func"
                                       : "podlog_unbind_secondary_log_access_func";
        const int row = secondary_row(call, id);
        const int eeprom = row == -1 ? -1 : rows_.dev[row].secondary_storage_inst_id;
        const int number = std::clamp(eeprom, 0, 5);
        if (row != -1)
            secondary(row)->is_bound = binds && secondary(row)->exists;
        CHECK(row == -1 ? -1 : 1,
              binds ? podlog_bind_secondary_log_access_func(id, readers[number], writers[number])
                    : podlog_unbind_secondary_log_access_func(id));
    }

    //--- writing

    int initialise(int id, bool rdonly)
    {
        const int row = row_or_refuse("podlog_init", id);
        if (row == -1)
            return -1;
        if (uses_primary_[row]) {
            if (primary(row) && take(primary(row)->init(rdonly)) != -1)
                return 1;
            return refuse(
                -1, printed("ERROR: podlog_init: failed to initialize primary storage for instance "
                            "id %d!\n",
                            id));
        }
        if (!secondary(row) || take(secondary(row)->init(rdonly)) != -1)
            return 1;
        if (primary(row))
            take(primary(row)->close());
        return refuse(
            -1, printed("ERROR: podlog_init: failed to initialize secondary storage (EEPROM) for "
                        "instance %d!\n",
                        id));
    }

    void init(int id, bool rdonly)
    {
        begin();
        CHECK(initialise(id, rdonly), podlog_init(id, rdonly));
    }

    void finish(int id)
    {
        const int row = row_or_refuse("podlog_close", id);
        if (row != -1 && selected(row))
            take(selected(row)->close());
    }

    void close(int id)
    {
        begin();
        finish(id);
        CHECK(0, (podlog_close(id), 0));
    }

    void add(choices &choose, int id)
    {
        begin();
        const string level = choose.text(10);
        const string text = choose.text(30);
        const int row = row_or_refuse("podlog_add", id);
        int result = row == -1 ? -1 : 1;
        if (row != -1 && !uses_primary_[row] &&
            rows_.dev[row].secondary_storage_type == POD2NDSTORAGE_NONE)
            refuse(1, printed("ERROR(podlog_add): No secondary storage for instance id %d!\n", id));
        else if (row != -1 && selected(row))
            result = take(selected(row)->add({level.c_str(), nullptr, "r", text + " 7%"})) == -1
                         ? -1
                         : 1;
        CHECK(result, podlog_add(id, const_cast<char *>(level.c_str()), nullptr, "r", "%s %d%%",
                                 text.c_str(), 7));
    }

    void use_next(int id)
    {
        begin();
        const int row = row_or_refuse("podlog_use_nxt_log", id);
        const int result = row == -1 || !selected(row) ? -1 : take(selected(row)->use_nxt_log());
        CHECK(result, podlog_use_nxt_log(id));
    }

    void integrity()
    {
        begin();
        int result = 1;
        for (int i = 0; i < rows_.num_storage; ++i) {
            const int id = rows_.dev[i].inst_id;
            if (initialise(id, false) == 1)
                finish(id);
            else
                result = refuse(
                    -1, printed("ERROR: podlog_chk_storage_integrity: failed to open device for "
                                "instance %d!\n",
                                id));
        }
        CHECK(result, podlog_chk_storage_integrity());
    }

    //--- reading

    int open_directory(const char *card)
    {
        const int row = card_or_refuse("podlog_open_dir", card);
        if (row == -1)
            return -1;
        walked_ = rows_.dev[row].inst_id;
        return primary(row) ? take(primary(row)->open_dir()) : -1;
    }

    int close_directory(const char *card)
    {
        const int row = card_or_refuse("podlog_close_dir", card);
        return row == -1 || !primary(row) ? -1 : take(primary(row)->close_dir());
    }

    int open_history(const char *card, int history)
    {
        const int row = card_or_refuse("podlog_open_log", card);
        if (row == -1)
            return -1;
        read_ = rows_.dev[row].inst_id;
        return primary(row) ? take(primary(row)->open_log(history)) : -1;
    }

    int close_history(const char *card)
    {
        const int row = card_or_refuse("podlog_close_log", card);
        if (row != -1 && primary(row))
            take(primary(row)->close());
        return row == -1 ? -1 : 1;
    }

    int read_raw(int position, char *entry)
    {
        const int row = row_or_refuse("podlog_read_raw_log", read_);
        if (row != -1 && rows_.dev[row].type == PODSTORAGE_NVRAM)
            return refuse(-1, "ERROR: podlog_read_raw_log: read raw log not support for NVRAM!\n");
        return row == -1 || !primary(row) ? -1 : take(primary(row)->read_raw_log(position, entry));
    }

    void walk_histories(choices &choose, const char *card)
    {
        begin();
        switch (choose.below(3)) {
        case 0:
            return CHECK(open_directory(card), podlog_open_dir(card));
        case 1:
            return CHECK(close_directory(card), podlog_close_dir(card));
        default:
            break;
        }
        const int history = choose.between(-1, 10);
        time_t time = 77, seen = 77;
        const int row = row_or_refuse("podlog_read_dir", walked_);
        const int result =
            row == -1 || !primary(row) ? -1 : take(primary(row)->read_dir(history, time));
        CHECK(result, podlog_read_dir(history, &seen));
        expect_same("the time", time, seen);
    }

    void read(choices &choose, const char *card)
    {
        begin();
        const int history = choose.of({0, 0, 1, choose.between(-1, 11)});
        const int position =
            choose.of({68, 64, 64 + 80 * choose.below(3), 68 + 80 * choose.below(3), 1699});
        time_t time = 77, seen = 77;
        string text(200, '#'), got = text;
        const int row = row_of(read_);
        note(printed("history %d, position %d", history, position));
        switch (choose.below(4)) {
        case 0:
            CHECK(open_history(card, history), podlog_open_log(card, history));
            break;
        case 1:
            CHECK(close_history(card), podlog_close_log(card, history));
            break;
        case 2:
            CHECK(read_raw(position, text.data()),
                  podlog_read_raw_log(position, reinterpret_cast<uint8_t *>(got.data())));
            break;
        default:
            row_or_refuse("podlog_read_log", read_);
            CHECK(row == -1 || !primary(row)
                      ? -1
                      : take(primary(row)->read_log(position, time, text.data(), 64)),
                  podlog_read_log(position, &seen, got.data(), 64));
        }
        expect_same("the time", time, seen);
        expect_same("what is read", text, got);
    }

    //--- the copy

    int copy_entries(int row, int position)
    {
        string entry(17 + 200, '\0');
        for (int count = 0; position > 0; ++count) {
            std::fill_n(entry.begin(), 16, '\0');
            position = read_raw(position, entry.data());
            if (entry.find_first_not_of('\0') >= 16)
                return -1; // it was not read
            pod_device &target = device(kind::eeprom, rows_.dev[row].secondary_storage_inst_id);
            if (take(target.add_raw(entry)) == -1)
                return refuse(
                    -1,
                    printed("ERROR: podlog_cpy_curr_subblock_to_secondary: faild to write %dth log "
                            "to the secondary storage!\n",
                            count));
        }
        return 1;
    }

    int copied(int id)
    {
        const string call = "podlog_cpy_curr_subblock_to_secondary";
        const int row = row_or_refuse(call.c_str(), id);
        if (row == -1 || rows_.dev[row].secondary_storage_type == POD2NDSTORAGE_NONE)
            return row == -1 ? -1 : 1;
        const char *const name = rows_.dev[row].inst_name;
        uses_primary_[row] = 0;
        if (initialise(id, false) == -1)
            return refuse(-1, "ERROR: " + call +
                                  printed(": failed to open device for instance %d!\n", id));
        uses_primary_[row] = 1;
        const int history = open_directory(name);
        close_directory(name);
        if (history == -1)
            return refuse(-1, "ERROR: failed when opening the storage device!\n");
        if (history == -2)
            said_.out += "No log!\n";
        int result = copy_entries(row, open_history(name, history));
        if (take(device(kind::eeprom, rows_.dev[row].secondary_storage_inst_id).use_nxt_log()) ==
            -1)
            result =
                refuse(-1, "ERROR: " + call +
                               ": faild to increment to next history for secondary storage!\n");
        const int closed = close_history(name);
        if (closed != 1)
            result = refuse(closed, "ERROR: " + call +
                                        printed(": faild to close podlog rtn_close=%d\n", closed));
        return result;
    }

    void copy(int id)
    {
        begin();
        CHECK(copied(id), podlog_cpy_curr_subblock_to_secondary(id));
    }

    pod_storage_info_t rows_ = {};
    int uses_primary_[22] = {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    int walked_ = -1; // the instance of the last podlog_open_dir()
    int read_ = -1;   // and of the last podlog_open_log()
    file_system files_;
    std::map<std::pair<kind, int>, pod_device> devices_;
    outcome said_; // by a call, so far
};

} // namespace

int main(int argc, char **argv)
{
    return walk(argc, argv, [](choices &choose) { return std::make_unique<front_model>(choose); });
}
