// The POD status words and the fault mask of both NVRAMs, and which instances they belong to,
// beside their model.
#include "models/pod_device.h"
#include "models/walk.h"

#include <device_access/pod_log.h>
#include <device_access/pod_log_nvram.h>
#include <device_access/slot_names.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>

namespace
{

using namespace models;
using std::string;

// The call and what it should give, which is worked out first.
#define CHECK(predicted, ...) compare(#__VA_ARGS__, predicted, [&] { return __VA_ARGS__; })

class status_model : public model
{
public:
    explicit status_model(choices &choose)
    {
        normalise = [](string &text) {
            for (size_t at; (at = text.find("instance(")) != text.npos;)
                text.erase(at + 8, text.find(')', at) + 1 - at - 8);
        };
        for (int id : {0, 1, 2}) {
            devices_.emplace_back(kind::nvram, id, id < 2, files_);
            configure(choose, id);
            const string zeros(600, '\0');
            FILE *const node = std::fopen(devices_.back().path.c_str(), "w");
            if (id == 2)
                continue;
            if (!node || std::fwrite(zeros.data(), zeros.size(), 1, node) != 1 ||
                std::fclose(node) != 0)
                throw std::runtime_error("no NVRAM");
            files_.emplace(devices_.back().path, region(600));
        }
        maps_[0].num_inst = 8;
        for (int i = 0; i < 8; ++i) {
            const char *const names[] = {"ALSW1", "ALSW2", "SW1",   "SW2",
                                         "SW3",   "SW4",   "RPSW1", "RPSW2"};
            maps_[0].index0[i] = i < 6 ? 22 + i : 14 + i;
            maps_[0].index1[i] = -1;
            std::strcpy(maps_[0].name0[i], names[i]);
        }
    }

    void step(choices &choose) override
    {
        const int id = choose.of({0, 0, 1, 1, 2});
        switch (choose.below(12)) {
        case 0:
            return configure(choose, id);
        case 1:
            return choose.one_in(2) ? map_names(choose, id) : map(choose, id);
        case 2:
        case 3:
            return open_or_close(choose, id);
        case 4:
            return damage(choose, id);
        case 5:
            return by_slot(choose);
        case 6:
        case 7:
            return by_instance(choose);
        default:
            return by_device(choose, id);
        }
    }

private:
    void configure(choices &choose, int id)
    {
        pod_device &device = devices_[static_cast<size_t>(id)];
        const int size = choose.of({500, 500, 420, 1000, 60, 16384});
        string path = printed("/dev/nvram%d", id);
        device.set_pod_info(path, size, 2, 64, ~0u);
        podlog_nvram_set_pod_info(id, path.data(), size, 2, 64, ~0u);
        note(printed("NVRAM %d has %d bytes", id, size));
    }

    // Ids of a few, so that some are found, and some twice.
    static int an_instance(choices &choose)
    {
        return choose.of({choose.between(0, 11), choose.between(20, 28), -1});
    }

    void map(choices &choose, int id)
    {
        pod_nvram_inst_map_t map = {};
        map.num_inst = choose.of({0, 1, 4, 8, 9, -1, choose.hostile()});
        for (int i = 0; i < 8; ++i) {
            map.index0[i] = an_instance(choose);
            map.index1[i] = choose.one_in(2) ? -1 : an_instance(choose);
            choose.text(39).copy(map.name0[i], 39);
            std::memset(map.name1[i], 'n', choose.of({5, 40})); // 40 have no NUL
        }
        if (id < 2)
            maps_[id] = map;
        podlog_nvram_config_inst_mapping(id, &map);
        note(printed("NVRAM %d has another mapping, of %d", id, map.num_inst));
        check_mapping(id);
    }

    void map_names(choices &choose, int id)
    {
        int ids[9];
        string names[9];
        char *pointers[9];
        for (int i = 0; i < 9; ++i) {
            ids[i] = an_instance(choose);
            names[i] = choose.text(60);
            pointers[i] = names[i].data();
        }
        const int count = choose.between(-1, 9);
        if (id < 2) {
            maps_[id] = {};
            maps_[id].num_inst = count;
            for (int i = 0; i < 8 && i < count; ++i) {
                maps_[id].index0[i] = ids[i];
                maps_[id].index1[i] = -1;
                std::strncpy(maps_[id].name0[0], pointers[i], 40);
            }
        }
        podlog_nvram_set_podstatus_info(id, count, ids, pointers);
        note(printed("NVRAM %d has another mapping, of %d names", id, count));
        check_mapping(id);
    }

    void check_mapping(int id)
    {
        pod_nvram_inst_map_t seen;
        std::memset(&seen, 0xEE, sizeof seen);
        podlog_nvram_get_inst_mapping(id, &seen);
        expect_same("the mapping", string(reinterpret_cast<const char *>(&maps_[id]), sizeof seen),
                    string(reinterpret_cast<const char *>(&seen), sizeof seen));
    }

    void damage(choices &choose, int id)
    {
        const int from = devices_[static_cast<size_t>(id)].mem_size - choose.below(80);
        unreadable = choose.one_in(3) ? byte_range{from, from + 3} : byte_range{};
        unwritable = choose.one_in(3) ? byte_range{from, from + 3} : byte_range{};
        note(printed("from byte %d, 3 bytes cannot be %s", from,
                     unreadable.to   ? unwritable.to ? "read or written" : "read"
                     : unwritable.to ? "written"
                                     : "(all can)"));
    }

    //--- what the model says

    void begin() { said_ = {.error = untouched}; }

    bool take(const outcome &one)
    {
        said_.err += one.err;
        said_.out += one.out;
        said_.opens += one.opens;
        said_.error = one.error;
        return one.value > 0;
    }

    int count(int id) const { return std::min(maps_[id].num_inst, 8); }

    int find(int id, int instance) const
    {
        for (int i = 0; i < count(id); ++i)
            if (maps_[id].index0[i] == instance || maps_[id].index1[i] == instance)
                return i;
        return -1;
    }

    static string name(const char (&field)[40]) { return string(field, ::strnlen(field, 40)); }

    void dump(int id)
    {
        const pod_nvram_inst_map_t &map = maps_[id];
        said_.out += printed("nvram_dump_podstatus_inst_mapping: nvram %d # of inst =%d \n", id,
                             map.num_inst);
        for (int i = 0; i < count(id); ++i) {
            said_.out += printed(" inst index = %2d mapped to index0 =%2d for %s\n", i,
                                 map.index0[i], name(map.name0[i]).c_str());
            if (map.index1[i] != -1)
                said_.out += printed("              mapped to index1 =%2d for %s\n", map.index1[i],
                                     name(map.name1[i]).c_str());
        }
    }

    int mapped(int id, int instance)
    {
        const int index = find(id, instance);
        if (index == -1) {
            said_.err +=
                printed("ERROR: nvram_get_podstatus_inst_mapped_index: invalid nvram id %d "
                        "or inst id %d!\n ",
                        id, instance);
            dump(id);
        }
        return index;
    }

    bool read_word(int id, int position, uint32_t &word)
    {
        word = 0;
        return take(devices_[static_cast<size_t>(id)].mem_rd(position, &word, 4));
    }
    int write_word(int id, int position, uint32_t word)
    {
        return take(devices_[static_cast<size_t>(id)].mem_wr(position, &word, 4)) ? 1 : -1;
    }
    int status_at(int id, int index) const
    {
        return id == 2 ? -1 + 4 * index
                       : devices_[static_cast<size_t>(id)].mem_size - 72 + 4 * index;
    }
    int mask_at(int id) const
    {
        return id == 2 ? -1 : devices_[static_cast<size_t>(id)].mem_size - 40;
    }

    uint32_t status(int id, int instance)
    {
        const int index = mapped(id, instance);
        uint32_t word;
        if (index == -1 || !read_word(id, status_at(id, index), word) || word >= 0x80000000)
            return 0x80000000;
        return word == 0 ? 0 : 0x0FFFFFFF;
    }

    int set_status(int id, int instance, uint32_t word)
    {
        const int index = mapped(id, instance);
        return index == -1 ? -1 : write_word(id, status_at(id, index), word);
    }

    int inject(int id, int instance, bool clears)
    {
        uint32_t mask;
        if (!read_word(id, mask_at(id), mask))
            return -1;
        const int index = mapped(id, instance);
        if (index == -1)
            return -1;
        const uint32_t bit = 1u << index;
        return write_word(id, mask_at(id), clears ? mask & ~bit : mask | bit);
    }

    int show(int id)
    {
        const pod_nvram_inst_map_t &map = maps_[id];
        uint32_t mask;
        if (!read_word(id, mask_at(id), mask))
            return -1;
        for (int i = 0; i < count(id); ++i) {
            if (!(mask >> i & 1))
                continue;
            if (map.index0[i] != -1)
                said_.out += printed("   inst %d %s ", map.index0[i], name(map.name0[i]).c_str());
            if (map.index1[i] != -1)
                said_.out += printed("/ inst %d %s ", map.index1[i], name(map.name1[i]).c_str());
            said_.out += printed(" mapped index %d: fault injected\n", i);
        }
        said_.out += mask == 0 ? " no fault was injected\n" : "";
        return 1;
    }

    //--- calls

    void compare(const string &call, intmax_t value, const std::function<intmax_t()> &real)
    {
        said_.value = value;
        if (value != -1)
            said_.error = any_error;
        expect(call, said_, real);
        for (const auto &[path, storage] : files_)
            storage.expect_same_as(path);
    }

    void open_or_close(choices &choose, int id)
    {
        pod_device &device = devices_[static_cast<size_t>(id)];
        const bool rdonly = choose.one_in(4);
        if (choose.one_in(3))
            expect(printed("podlog_nvram_close(%d)", id), device.close(), [&] {
                podlog_nvram_close(id);
                return 0;
            });
        else
            expect(printed("podlog_nvram_init(%d, %d)", id, rdonly), device.init(rdonly),
                   [&] { return podlog_nvram_init(id, rdonly); });
    }

    void by_device(choices &choose, int id)
    {
        begin();
        const int instance = an_instance(choose);
        const int value = choose.of({0, 0x0FFFFFFF, choose.hostile()});
        note(printed("NVRAM %d, instance %d, value 0x%x", id, instance, value));
        switch (choose.below(9)) {
        case 0:
            return CHECK(mapped(id, instance), nvram_get_podstatus_inst_mapped_index(id, instance));
        case 1:
            dump(id);
            return CHECK(0, (nvram_dump_podstatus_inst_mapping(id), 0));
        case 2:
            return CHECK(set_status(id, instance, 0x80000000),
                         podlog_nvram_invalidate_pod_status(id, instance));
        case 3:
            return CHECK(status(id, instance), podlog_nvram_get_pod_status(id, instance));
        case 4:
            return CHECK(set_status(0, instance, static_cast<uint32_t>(value)),
                         podlog_nvram_set_pod_status(id, instance, value));
        case 5:
            return CHECK(mask_at(id), podlog_nvram_get_faultinject_pos(id));
        case 6:
            return CHECK(write_word(id, mask_at(id), 0), podlog_nvram_clr_all_faultinject(id));
        case 7:
            return CHECK(inject(id, instance, value & 2),
                         podlog_nvram_faultinject_pod_status(id, instance, value & 2));
        default:
            return CHECK(show(id), nvram_disp_faultinject_status(id));
        }
    }

    // Whether a status word is that of the instance, by the mapping of NVRAM 0.
    bool is_known(const char *call, int instance)
    {
        if (find(0, instance) != -1)
            return true;
        said_.err +=
            printed("ERROR: nvram_get_podstatus_inst_info: invalid inst id %d!\n ", instance);
        said_.err += printed("ERROR: %s: invalid instance id %d!\n", call, instance);
        return false;
    }

    // errno is no part of these.
    void compare_front(const char *call, intmax_t value, const std::function<intmax_t()> &real)
    {
        said_.error = any_error;
        compare(call, value, real);
        begin();
    }

    void by_instance(choices &choose)
    {
        begin();
        const int id = an_instance(choose);
        const int value = choose.hostile();
        const auto word = static_cast<uint32_t>(value);
        int fault = 5;
        note(printed("instance %d, value 0x%x", id, value));
#define OF_INSTANCE(known, unknown, call, ...)                                                     \
    compare_front(#call, is_known(#call, id) ? known : unknown, [&] { return call(__VA_ARGS__); })
        switch (choose.below(6)) {
        case 0:
            return OF_INSTANCE(set_status(0, id, 0x80000000), -1, podlog_invalidate_pod_status, id);
        case 1:
            return OF_INSTANCE(status(0, id), 0xFFFFFFFF, podlog_get_pod_status, id);
        case 2:
            return OF_INSTANCE(set_status(0, id, word), -1, podlog_set_pod_status, id, value);
        case 3:
            return OF_INSTANCE(mask_at(0), -1, podlog_get_faultinject_pos, id);
        case 4:
            OF_INSTANCE(1, -1, podlog_is_faultinject, id, &fault);
            return expect_same("the fault", find(0, id) == -1 ? 5 : 0, fault);
        default:
            return OF_INSTANCE(inject(0, id, value & 2), -1, podlog_faultinject_pod_status, id,
                               value & 2);
        }
    }

    // NVRAM 0 is opened for the question.
    void by_slot(choices &choose)
    {
        begin();
        const int slot = choose.of({choose.between(0, 13), 255});
        const bool is_slot = slot < 12;
        pod_device &device = devices_[0];
        note(printed("slot %d", slot));
        const string unknown =
            printed("ERROR: nvram_get_podstatus_inst_info: invalid inst id %d!\n ", slot);
        if (choose.one_in(2)) {
            uint32_t value = 0x80000000;
            if (!is_slot)
                said_.err = "ERROR: podlog_get_pod_status_cc: invalid slot id -1!\n";
            else if (find(0, slot) == -1)
                said_.err =
                    unknown +
                    printed(
                        "ERROR: podlog_get_pod_status_cc: slot %d not matched for pod status!\n",
                        slot);
            else if (!take(device.init(false)))
                said_.err +=
                    "ERROR: podlog_get_pod_status_cc: cannot open POD Status stroage NVRAM 0!\n";
            else {
                value = status(0, slot);
                take(device.close());
            }
            return compare_front("podlog_get_pod_status_cc", value, [&] {
                return podlog_get_pod_status_cc(static_cast<uint8_t>(slot));
            });
        }
        int value = -1, fault = 5;
        if (is_slot && find(0, slot) == -1)
            said_.err = unknown +
                        printed("ERROR: podlog_is_faultinject_cc: invalid instance id %d!\n", slot);
        else if (is_slot && take(device.init(false))) {
            value = 1;
            take(device.close());
        }
        compare_front("podlog_is_faultinject_cc", value,
                      [&] { return podlog_is_faultinject_cc(static_cast<uint8_t>(slot), &fault); });
        expect_same("the fault", 0, fault);
    }

    file_system files_;
    std::deque<pod_device> devices_; // the last stands for an id without one
    pod_nvram_inst_map_t maps_[3] = {};
    outcome said_; // by a call, so far
};

} // namespace

int main(int argc, char **argv)
{
    return walk(argc, argv, [](choices &choose) { return std::make_unique<status_model>(choose); });
}
