// The C++ wrapper, in whole simulated chassis.
#undef NDEBUG // its assertions are a part of it
#include "support/test.h"

#include <device_access/device_access.hpp>

#include <algorithm>
#include <memory>
#include <ranges>
#include <set>
#include <sstream>
#include <thread>
#include <unordered_set>

namespace
{

using namespace device_access;
using namespace std::chrono_literals;
using chassis_sim::build_chassis;
using chassis_sim::chassis_description;
using chassis_sim::write_file;
using test::printed;
using test::read_file;

static_assert(std::input_iterator<log_entries<pod_log>::iterator>);
static_assert(std::ranges::input_range<log_entries<pod_log>>);
static_assert(std::ranges::input_range<log_entries<post_log>>);
static_assert(std::forward_iterator<pci_scan::iterator>);
static_assert(std::ranges::borrowed_range<pci_scan>);
static_assert(std::ranges::contiguous_range<pci_functions>);
static_assert(std::ranges::contiguous_range<pci_capabilities>);
static_assert(std::ranges::contiguous_range<log_histories>);
static_assert(std::ranges::contiguous_range<pod_cards>);
static_assert(std::movable<uio> && std::movable<pci_config> && std::movable<pci_memory>);
static_assert(std::movable<pod_run> && std::movable<log_entries<pod_log>>);
static_assert(log_source<pod_log> && log_source<post_log>);

// What a failure says; "" for a success.
template <typename T>
std::string why(const result<T> &what)
{
    return what ? "" : what.error().message();
}

template <typename T>
std::string streamed(const T &value)
{
    std::ostringstream stream;
    stream << value;
    return stream.str();
}

//--- results --------------------------------------------------------------------------------------

TEST(wrapper_result, chains_values_and_failures_as_expected_does)
{
    const auto half = [](int value) {
        return value % 2 == 0 ? result<int>(value / 2) : failure{"half", EDOM};
    };
    EXPECT_EQ(result<int>(6).and_then(half).transform([](int n) { return n + 1; }).value(), 4);
    EXPECT_EQ(result<int>(6).and_then(half).and_then(half).error(), (failure{"half", EDOM}));
    EXPECT_EQ(half(5).value_or(7) + *half(4).or_else([](failure) { return result<int>(9); }), 9);
    EXPECT_EQ(half(5).or_else([](failure) { return result<int>(9); }).value(), 9);
    EXPECT_TRUE(half(2).transform([](int) {}).and_then([] { return result<void>(); }));
    EXPECT_EQ(why(half(1)), "half: Numerical argument out of domain");
    EXPECT_EQ(streamed(failure{"podlog_init", 0}), "podlog_init: no reason given");

    result<std::unique_ptr<int>> owner(std::make_unique<int>(3));
    const std::unique_ptr<int> taken = *std::move(owner);
    EXPECT_EQ(*taken, 3);
    try {
        (void)half(3).value();
        ADD_FAILURE();
    } catch (const bad_result_access &bad) {
        EXPECT_STREQ(bad.what(), "half: Numerical argument out of domain");
    }
    EXPECT_DEATH((void)*half(3), "without a value");
    EXPECT_DEATH((void)half(2).error(), "has no error");
}

//--- identities -----------------------------------------------------------------------------------

TEST(wrapper_pci_id, is_parsed_compared_hashed_and_printed)
{
    const pci_id bridge = pci_id::parse("0000:1F:1e.7").value();
    EXPECT_EQ(streamed(bridge) + streamed(*bridge.address()), "0000:1f:1e.70000:1f:1e.7");
    EXPECT_EQ(*bridge.address(), (pci_address{0, 0x1f, 0x1e, 7}));
    EXPECT_EQ(pci_id(pci_address{0xfeed, 2, 3, 4}), *pci_id::parse("feed:02:03.4"));
    EXPECT_EQ(bridge.system_numbers().bus, 11) << "the system's numbers are no hexadecimal ones";
    EXPECT_LT(*pci_id::parse("03:00.0"), bridge);
    EXPECT_EQ((std::unordered_set<pci_id>{bridge, bridge, pci_id()}).size(), 2u);
    EXPECT_EQ((std::unordered_set<pci_address>{{0, 1, 2, 3}, {0, 1, 2, 3}}).size(), 1u);
    for (const char *text : {"", "0000:03:00", "0000:03:00.8", "0000:03:20.0", "000g:03:00.0",
                             "0000-03:00.0", " 000:03:00.0", "0000:03:00.0x", "+3:00.0"})
        EXPECT_EQ(why(pci_id::parse(text)), "pci_id::parse: Invalid argument") << text;
    EXPECT_FALSE(pci_id().address());
}

TEST(wrapper_slots, are_found_compared_and_printed)
{
    select_chassis_stack(chassis_stack::second);
    const auto sw1 = slot::find("sw1");
    ASSERT_TRUE(sw1 && slot::at(5));
    EXPECT_EQ(streamed(*sw1) + printed("%d", sw1->number()), "SW14");
    EXPECT_TRUE(*sw1 < *slot::at(5) && sw1->kind() == slot_kind::switch_card);
    EXPECT_EQ((std::unordered_set<slot>{*sw1, *slot::at(4)}).size(), 1u);
    select_chassis_stack(chassis_stack::first);
    EXPECT_FALSE(slot::find("SW2") || slot::at(-1));
}

//--- UIO devices ----------------------------------------------------------------------------------

TEST(wrapper_uio_device, is_mapped_served_and_removed)
{
    build_chassis({});
    auto device = uio::open("/dev/uio0", 0s).value();
    EXPECT_EQ(device.map().value(), 3);
    EXPECT_EQ(device.mapped(1)->size() + device.map_limit(), 0x2004u);
    EXPECT_FALSE(device.mapped(2) || device.map_size(2));
    const window registers = *device.mapped(0);
    registers.write<uint16_t>(0x10, 0xabcd);
    registers.set_bits<uint32_t>(0x10, 0xff0000);
    registers.clear_bits<uint8_t>(0x11, 0x0b);
    EXPECT_EQ(registers.read<uint64_t>(0x10), 0xffa0cdu);
    EXPECT_DEATH((void)registers.read<uint32_t>(0xffe), "outside of its window");

    EXPECT_EQ(device.try_wait().error().error, ETIMEDOUT);
    EXPECT_TRUE(device.enable_interrupt());
    EXPECT_EQ(device.wait_for(std::chrono::hours::max()).value(), 1u);
    const auto begun = uio::clock::now();
    EXPECT_EQ(device.wait_until(begun + 50ms).error().error, ETIMEDOUT);
    EXPECT_GE(uio::clock::now() - begun, 50ms);
    chassis_sim::control("remove uio0");
    EXPECT_EQ(device.wait().error(), (failure{"libuio_irqwait", ECANCELED}));
    EXPECT_EQ(device.interrupt_descriptor(), -1);
    device.close();
    EXPECT_EQ(device.map().error().error, EINVAL);
}

TEST(wrapper_uio_device, that_has_gone_does_not_count_its_only_map_as_none_to_map)
{
    chassis_description chassis;
    chassis.uio[0].maps = {{"map0", "0x1000\n"}};
    build_chassis(chassis);
    auto device = uio::open("/dev/uio0", 0s).value();
    EXPECT_EQ(device.map(1).value(), 0) << "it was left out";
    chassis_sim::control("remove uio0");
    EXPECT_EQ(device.wait().error().error, ECANCELED);
    EXPECT_EQ(device.map().error(), (failure{"libuio_mmap", ENODEV}));
}

TEST(wrapper_uio_device, is_waited_for_as_long_as_the_limit_says)
{
    chassis_description chassis;
    chassis.uio[0].plugged = false;
    build_chassis(chassis);
    const auto begun = uio::clock::now();
    EXPECT_EQ(uio::open("/dev/uio0", 250ms).error(), (failure{"libuio_open_timed", ENOENT}));
    EXPECT_GE(uio::clock::now() - begun, 250ms) << "not a tenth of it";
    std::thread late([] {
        std::this_thread::sleep_for(150ms);
        chassis_sim::control("plug uio0");
    });
    EXPECT_EQ(why(uio::open("/dev/uio0", 20s)), "");
    late.join();
    EXPECT_EQ(uio::open("/dev/null", -1s).error().error, ENODEV);
}

//--- PCI functions --------------------------------------------------------------------------------

TEST(wrapper_pci_functions, can_be_looped_over_searched_and_filtered_as_temporaries)
{
    build_chassis({});
    std::string ids;
    for (auto &function : *pci_functions::all())
        ids += streamed(function) + " ";
    EXPECT_NE(ids.find("0000:00:1c.0 0000:00:1d.0 "), ids.npos) << ids;
    const auto all = pci_functions::all().value();
    const pci_id port = pci_id::parse(chassis_sim::pci_root_port).value();
    EXPECT_EQ(*std::ranges::find(all, port), port);
    EXPECT_EQ(pci_functions::below(port).value()[0], *pci_id::parse("03:00.0"));
    const auto is_on_bus_0 = [](const pci_id &one) { return one.address()->bus == 0; };
    EXPECT_GT(std::ranges::distance(*pci_functions::all() | std::views::filter(is_on_bus_0)), 3);

    result<pci_scan> scan = failure{"", 0};
    test::output_of([&] { scan = pci_scan::run(); });
    const auto found = std::ranges::find_if(
        *scan, [&](const sysfs_pci_info_t &one) { return function_of(one.id) == port; });
    EXPECT_EQ(found->id.device, pci_device_ids(port).device);
    EXPECT_EQ(static_cast<size_t>(std::ranges::distance(*scan)), all.size());
}

TEST(wrapper_pci_config, is_read_changed_and_searched)
{
    chassis_description chassis;
    chassis_sim::pci_function looping; // its list ends in a circle
    looping.id = "0000:00:02.0";
    looping.header_type = 0x80;
    looping.config_registers = {
        {0x06, 0x10, 2}, {0x34, 0x40, 1}, {0x40, 0x5001, 2}, {0x50, 0x4005, 2}};
    chassis.functions.push_back(looping);
    build_chassis(chassis);
    const auto config = pci_config::open(*pci_id::parse(looping.id)).value();
    EXPECT_TRUE(config.write<uint32_t>(0x60, 0xa0b0c0d0));
    EXPECT_TRUE(config.set_bits<uint16_t>(0x60, 0x000f));
    EXPECT_TRUE(config.clear_bits<uint8_t>(0x63, 0x80));
    EXPECT_EQ(config.read<uint32_t>(0x60).value(), 0x20b0c0dfu);
    EXPECT_EQ(config.write<uint16_t>(0x61, 1).error(), (failure{"pci_config_write16", EINVAL}));
    EXPECT_EQ(config.read<uint8_t>(0x1000).error(), (failure{"pci_config_read8", EIO}));

    EXPECT_EQ(config.capabilities().size(), 48u);
    EXPECT_EQ(config.find_capability(5).value(), (pci_capability{5, 0x50}));
    EXPECT_EQ(config.find_capability(0x10).error().error, ENOENT);
    chassis_sim::write_config16(looping.id, 0x50, 0xffff);
    EXPECT_TRUE(config.capabilities().failed());
    EXPECT_EQ(config.capabilities().size(), 1u);
}

TEST(wrapper_pci_link, is_waited_for_until_the_deadline)
{
    build_chassis({});
    const pci_id port = pci_id::parse(chassis_sim::pci_root_port).value();
    EXPECT_TRUE(wait_link_up(port) && wait_link_up_for(port, -1s));
    chassis_sim::set_link(port.str, chassis_sim::pcie_capability::link_training);
    auto shortest = deadline_clock::duration::max();
    for (int i = 0; i < 5 && shortest >= 400ms; ++i) { // on a machine that does much else
        const auto begun = deadline_clock::now();
        EXPECT_EQ(wait_link_up_until(port, begun + 60ms).error().error, ETIMEDOUT);
        shortest = std::min(shortest, deadline_clock::now() - begun);
    }
    EXPECT_GE(shortest, 60ms);
    EXPECT_LT(shortest, 400ms) << "not half a second";
    chassis_sim::set_link(port.str, 0x2801);
    EXPECT_STREQ(link_reason(wait_link_up_for(port, 1s).error()),
                 "PCIe link-training stuck at asserted");
    chassis_sim::set_link(port.str, 0x2001);
    EXPECT_EQ(wait_link_up_for(port, 1s).error(), wait_link_up(port).error());
}

TEST(wrapper_pci_memory, attributes_and_bridges_are_reached)
{
    build_chassis({});
    const pci_id device = pci_id::parse(chassis_sim::pci_slot_device).value();
    const pci_attributes attributes(device);
    EXPECT_EQ(attributes.number("vendor").value(), 0xf0ca);
    EXPECT_EQ(attributes.text("vendor").value(), "0xf0ca\n");
    EXPECT_EQ(attributes.text("no_such_file").error(), (failure{"sysfs_pci_open", ENOENT}));
    EXPECT_TRUE(attributes.write_number("enable", 1) && attributes.accessible("enable", W_OK));
    EXPECT_EQ(attributes.open("enable", O_RDWR)->number().value(), 1);
    EXPECT_EQ(attributes.path("enable").value(), "/sys/bus/pci/devices/0000:03:00.0/enable");

    auto memory = pci_memory::map(device).value();
    ASSERT_TRUE(memory.bar(0));
    memory.bar(0)->write<uint32_t>(8, 0xc0ffee);
    memory = pci_memory::map(device, ~1u).value();
    EXPECT_EQ(memory.bar(0)->read<uint32_t>(8), 0xc0ffeeu) << "it is shared";
    EXPECT_FALSE(memory.bar(1) || memory.bar(6));
    memory.close();
    EXPECT_FALSE(memory.bar(0));

    const hotswap_bridge bridge(pci_id::parse(chassis_sim::hotswap_bridge).value());
    EXPECT_TRUE(hotswap_bridge::load_driver(hotswap_bridge::managed::hotplug_pcie));
    EXPECT_TRUE(bridge.usable());
    EXPECT_EQ(bridge.enable()->size(), 1u);
    EXPECT_TRUE(bridge.disable());
    EXPECT_EQ(hotswap_bridge(device).usable().error().error, ENOENT);
}

TEST(wrapper_inventory, keeps_what_was_stored_and_says_when_it_does_not)
{
    build_chassis({});
    chassis_sim::make_directory("/flash/diags/SW2.div"); // where the record would be
    EXPECT_EQ(inventory::store("SW2", {"S", "P"}).error(),
              (failure{"diag_inventory_store", EISDIR}));
    EXPECT_TRUE(inventory::store("SW1", {"FOC12345678ABC", "PN-42"}));
    const auto record = inventory::read("sw1").value();
    EXPECT_EQ(record.serial_number(), "FOC12345678ABC");
    EXPECT_EQ(record.product_code(), "PN-42");
    inventory::clear("SW1");
    EXPECT_FALSE(inventory::read("SW1"));
}

//--- POD logs -------------------------------------------------------------------------------------

// "NUMBER: TEXT|TEXT, " of each history, the newest first.
template <typename Log>
std::string text_of_log(const Log &log)
{
    std::string text;
    const auto histories = log.histories();
    if (!histories)
        return why(histories);
    for (const auto &history : *histories) {
        text += std::to_string(history.number) + ": ";
        for (const auto &entry : *log.entries(history.number))
            text.append(text.ends_with(' ') ? "" : "|").append(entry.text);
        text += ", ";
    }
    return text;
}

void build_empty(const char *chassis)
{
    chassis_description description;
    description.logs.chassis = chassis;
    description.logs.pod = "empty";
    build_chassis(description);
}

// Where a card's log must be.
std::string place_of(std::string_view card, std::string_view local)
{
    if (card.starts_with("RPSW"))
        return card == local ? "/dev/nvlog-pod" : "/var/pod/pod_rpsw_mate.hex";
    const std::string number(card.substr(card.size() - 1));
    if (card.starts_with("FT") && number > "2") // of an N4
        return "/var/pod/pod_pem" + std::to_string(number[0] - '0' + 1) + ".hex";
    const std::string kind = card.starts_with("AL")   ? "alsw"
                             : card.starts_with("SW") ? "sw"
                             : card.starts_with("FT") ? "ft"
                                                      : "pem";
    return "/var/pod/pod_" + kind + number + ".hex";
}

struct on_chassis {
    const char *name;
    pod_chassis type;
    int local;
};
void PrintTo(const on_chassis &chassis, std::ostream *stream)
{
    *stream << chassis.name;
}
using wrapper_pod_log_of = testing::TestWithParam<on_chassis>;

TEST_P(wrapper_pod_log_of, reaches_the_right_card_by_name_or_none)
{
    const auto &[name, type, local] = GetParam();
    build_empty(name);
    configure_pod_logs(type, static_cast<route_processor>(local));
    std::set<std::string> places;
    for (const pod_card &card : pod_cards()) {
        auto run = pod_run::begin(std::string(card.name()));
        ASSERT_TRUE(run) << card << why(run);
        ASSERT_TRUE(run->add("INFO: ", "memory", "PASS", card.name()));
        ASSERT_TRUE(run->end());
        const std::string written = "INFO: memory  PASS  " + std::string(card.name());
        EXPECT_EQ(text_of_log(card.log()), "0: " + written + ", ") << card;
        const std::string place = place_of(card.name(), local ? "RPSW2" : "RPSW1");
        EXPECT_NE(read_file(place).find(written), std::string::npos) << card << " in " << place;
        places.insert(place);
    }
    EXPECT_EQ(places.size(), pod_cards().size());
    EXPECT_EQ(pod_run::begin("SW9").error(), (failure{"podlog_find_pod_storage", ENOENT}));
    EXPECT_EQ(pod_log::of("sw1").error().error, ENOENT) << "case counts";
}

INSTANTIATE_TEST_SUITE_P(
    a_chassis, wrapper_pod_log_of,
    testing::Values(on_chassis{"n20", pod_chassis::n20, 0}, on_chassis{"n20", pod_chassis::n20, 1},
                    on_chassis{"n10", pod_chassis::n10, 0}, on_chassis{"n4", pod_chassis::n4, 0}),
    [](const auto &one) { return one.param.name + std::string(one.param.local ? "_rpsw2" : ""); });

TEST(wrapper_pod_cards, may_share_any_id_and_are_told_apart)
{
    build_empty("n20");
    const storage_info_t rows[] = {{"ONE", 7, PODSTORAGE_FILE, 2, POD2NDSTORAGE_NONE, -1},
                                   {"TWO", 7, PODSTORAGE_FILE, 3, POD2NDSTORAGE_NONE, -1}};
    EXPECT_TRUE(configure_pod_logs(rows));
    EXPECT_EQ(pod_card::find("ONE")->instance(), 7);
    EXPECT_EQ(pod_card::find("TWO")->instance(), std::nullopt);
    EXPECT_TRUE(pod_run::begin("TWO")->add("INFO: ", "", "", "of two"));
    EXPECT_EQ(text_of_log(pod_log::file(3)), "0: INFO: of two, ");
    EXPECT_EQ(configure_pod_logs(std::vector(23, rows[0])).error().error, EINVAL);
}

TEST(wrapper_pod_run, goes_on_while_its_log_is_looked_at_and_others_begin)
{
    build_empty("n20");
    configure_pod_logs(pod_chassis::n20);
    auto run = pod_run::begin("SW3").value();
    EXPECT_TRUE(run.add("INFO: ", "", "", "before"));
    const auto looked = test::output_of([&] {
        EXPECT_EQ(why(run.card().log().histories()), "podlog_file_open_dir: no reason given");
        EXPECT_FALSE(run.card().log().entries(0));
        EXPECT_FALSE(run.card().log().check());
    });
    EXPECT_EQ(std::ranges::count(looked.err, '\n'), 3) << looked.err;
    const int claim = podlog_get_active_inst_id();
    EXPECT_EQ(pod_run::begin("SW3").error(), (failure{"podlog_set_curr_active_inst", EBUSY}));
    EXPECT_EQ(pod_run::begin("SW4").error(), (failure{"podlog_set_curr_active_inst", EBUSY}));
    EXPECT_EQ(podlog_get_active_inst_id(), claim);
    EXPECT_TRUE(run.add("INFO: ", "", "", "after"));
    EXPECT_TRUE(run.end() && run.end());
    EXPECT_EQ(podlog_get_active_inst_id(), -1);
    EXPECT_EQ(text_of_log(*pod_log::of("SW3")), "0: INFO: before|INFO: after, ");
    EXPECT_EQ(pod_run::begin("SW1")->card().instance(), GetSlotByName("SW1")->slotN);
    EXPECT_EQ(podlog_set_curr_active_inst(-1, 0), 0) << "a C client's run of RPSW1";
    EXPECT_EQ(pod_run::begin("SW3").error().error, EBUSY);
}

TEST(wrapper_pod_run, tells_when_the_history_is_full_and_what_the_end_could_not_do)
{
    build_empty("n20");
    configure_pod_logs(pod_chassis::n20);
    auto run = pod_run::begin("SW1").value();
    int count = 0;
    while (run.add("INFO: ", "", "", std::to_string(count)).value() == log_room::left)
        ASSERT_LT(++count, 100);
    EXPECT_EQ(run.add("INFO: ", "", "", "over it").value(), log_room::none);
    EXPECT_TRUE(run.end());
    const std::string text = text_of_log(run.card().log());
    EXPECT_EQ(std::ranges::count(text, '|'), count) << text;
    EXPECT_TRUE(text.ends_with("|INFO: over it, ")) << text;
    EXPECT_EQ(run.add("INFO: ", "", "", "late").error(), (failure{"podlog_file_add", EBADF}));

    run = pod_run::begin("SW2").value();
    podlog_file_close(run.card().log().id()); // behind its back
    EXPECT_EQ(run.add("INFO: ", "", "", "lost").error().call, std::string("podlog_file_add"));
    EXPECT_EQ(run.end(pod_status::failed).error().call, std::string("podlog_file_use_nxt_log"));
    EXPECT_EQ(podlog_get_active_inst_id(), -1);
}

TEST(wrapper_pod_log, is_missing_empty_or_walked_as_a_list)
{
    build_empty("n20");
    EXPECT_EQ(pod_log::file(2).histories().error(), (failure{"podlog_file_open_dir", ENOENT}));
    EXPECT_TRUE(pod_log::file(2).open());
    EXPECT_TRUE(pod_log::file(2).histories()->empty());
    EXPECT_EQ(pod_log::file(2).entries(0).error().call, std::string("podlog_file_open_log"));
    EXPECT_EQ(pod_log::file(17).open().error().call, std::string("podlog_file_init"));

    auto writer = pod_log::nvram().open().value();
    for (const char *text : {"one", "two"})
        EXPECT_TRUE(writer.add("", "", "", text) && writer.next_history());
    EXPECT_TRUE(writer.add("", "", "", "INFO: a") && writer.add("", "", "", "ERROR: b"));
    writer.close();
    EXPECT_EQ(text_of_log(pod_log::nvram()), "2: INFO: a|ERROR: b, 1: two, 0: one, ");
    const auto is_error = [](const log_entry &entry) { return entry.text.starts_with("ERROR"); };
    for (const auto &entry : *pod_log::nvram().entries(2) | std::views::filter(is_error)) {
        EXPECT_EQ(entry.text, "ERROR: b");
        EXPECT_LT(std::chrono::system_clock::now() - entry.time, 1min);
    }
    auto entries = pod_log::nvram().entries(2).value();
    EXPECT_EQ(std::ranges::find_if(entries, is_error)->text, "ERROR: b");
    EXPECT_FALSE(pod_log::nvram().check()) << "it is being read";
    entries.close();
    EXPECT_TRUE(pod_log::nvram().check());
    entries = pod_log::nvram().entries(2).value();
    auto place = entries.begin();
    podlog_nvram_close(0); // behind its back
    EXPECT_TRUE(++place == entries.end() && entries.failed());
}

uint8_t eeprom[8300];

int read_eeprom(uint32_t offset, uint8_t *buffer, uint32_t count)
{
    std::memcpy(buffer, eeprom + offset, count);
    return static_cast<int>(count);
}

int write_eeprom(uint32_t offset, uint8_t *buffer, uint32_t count)
{
    std::memcpy(eeprom + offset, buffer, count);
    return static_cast<int>(count);
}

TEST(wrapper_pod_secondary, is_the_eeprom_on_the_card)
{
    build_chassis({});
    configure_pod_logs(pod_chassis::n20);
    EXPECT_EQ(pod_run::begin("FT1", pod_target::secondary).error().error, ENOENT);
    EXPECT_EQ(pod_run::begin("SW3", pod_target::secondary).error().call,
              std::string("podlog_eeprom_init"));
    const pod_card sw3 = pod_card::find("SW3").value();
    const pod_card sw1 = pod_card::find("SW1").value();
    {
        const eeprom_binding bound(sw3.secondary_log()->id(), read_eeprom, write_eeprom);
        auto run = pod_run::begin(sw3, pod_target::secondary).value();
        EXPECT_TRUE(run.add("INFO: ", "", "", "to the EEPROM") && run.end());
        EXPECT_EQ(text_of_log(*sw3.secondary_log()), "0: INFO: to the EEPROM, ");
        EXPECT_EQ(sw3.copy_newest_to_secondary().error().error, ENOTSUP);
    }
    EXPECT_FALSE(sw3.secondary_log()->check()) << "unbound";
    const eeprom_binding bound(sw1.secondary_log()->id(), read_eeprom, write_eeprom);
    EXPECT_TRUE(sw1.copy_newest_to_secondary());
    EXPECT_NE(text_of_log(*sw1.secondary_log()).find("SW1 passed"), std::string::npos);
}

TEST(wrapper_pod_status_words, are_found_by_the_cards_name_where_ids_are_shared)
{
    build_chassis({});
    configure_pod_logs(pod_chassis::n20);
    auto words = pod_status_words::open().value();
    const auto statuses = [&] {
        std::string text;
        for (const pod_card &card : pod_cards())
            if (const auto status = words.status(std::string(card.name())))
                text += streamed(card) + " " + text_of(*status) + ", ";
        return text;
    };
    EXPECT_TRUE(words.set_status("SW3", pod_status::failed));
    EXPECT_TRUE(words.set_status("SW1", pod_status::unknown));
    EXPECT_EQ(statuses(), "RPSW1 Passed, RPSW2 Passed, ALSW1 Passed, ALSW2 Failed, SW1 Invalid, "
                          "SW2 Passed, SW3 Failed, SW4 Passed, ");
    EXPECT_EQ(words.set_status("FT1", pod_status::passed).error().error, ENOENT);
    EXPECT_TRUE(words.inject_fault("SW3") && words.inject_fault("ALSW1"));
    EXPECT_TRUE(words.clear_fault("ALSW1"));
    EXPECT_EQ(words.fault("SW3").value(), pod_fault::injected);
    EXPECT_EQ(words.fault("ALSW1").value(), pod_fault::none);
    EXPECT_EQ(words.fault("RPSW1").value(), pod_fault::none);
    EXPECT_TRUE(words.clear_all_faults());
    EXPECT_EQ(words.fault("SW3").value(), pod_fault::none);

    // This call gives the first word the last one's name.
    int ids[] = {-1, 4};
    char first[] = "RPSW1", last[] = "SW4";
    char *names[] = {first, last};
    podlog_nvram_set_podstatus_info(0, 2, ids, names);
    EXPECT_EQ(words.status("SW4").error().error, ENOENT);
    EXPECT_EQ(words.status("SW1").value(), pod_status::passed) << "its id is its own";
    words.close();
    EXPECT_EQ(words.status("SW1").error().error, EBADF);
}

//--- POST logs ------------------------------------------------------------------------------------

TEST(wrapper_post_log, is_read_as_entries_and_as_records)
{
    build_chassis({});
    reach_post_logs_by_device_files();
    EXPECT_NE(text_of_log(post_log(post_block::event)).find("handing over to the kernel"),
              std::string::npos);
    auto block = post_log_block::open(post_block::test).value();
    const auto header =
        block.current_header().and_then([&](uint32_t at) { return block.header(at); });
    EXPECT_TRUE(post_log_block::valid(header.value()));
    EXPECT_EQ(block.index()->magic, 0x106F11E5u);
    block.close();
    EXPECT_EQ(block.header(0).error(), (failure{"postlog_rd_log_header", EBADF}));
}

} // namespace
