// The C++ wrapper, in whole simulated chassis. What its calls come to is in
// tests/expected/wrapper/.
#undef NDEBUG // its assertions are a part of it
#include "support/test.h"

#include <device_access/device_access.hpp>

#include <algorithm>
#include <memory>
#include <ranges>
#include <sstream>
#include <unordered_set>

namespace
{

using namespace device_access;
using namespace std::chrono_literals;
using chassis_sim::build_chassis;
using chassis_sim::chassis_description;
using test::read_file;

static_assert(std::ranges::input_range<log_entries<pod_log>>);
static_assert(std::ranges::input_range<log_entries<post_log>>);
static_assert(std::forward_iterator<pci_scan::iterator>);
static_assert(std::ranges::borrowed_range<pci_scan>);
static_assert(std::ranges::contiguous_range<pci_functions>);
static_assert(std::ranges::contiguous_range<log_histories>);
static_assert(std::movable<uio> && std::movable<pci_config> && std::movable<pci_memory>);
static_assert(std::movable<pod_run> && std::movable<log_entries<pod_log>>);

// A value as a text, or what its failure says.
template <typename T>
std::string told(const T &value)
{
    std::ostringstream stream;
    stream << std::boolalpha;
    if constexpr (requires {
                      value.error().message();
                      value.has_value();
                  }) {
        if (!value)
            return value.error().message();
        if constexpr (requires { *value; })
            return told(*value);
        return "done";
    } else if constexpr (requires { value.has_value(); }) {
        return value ? told(*value) : "none";
    } else if constexpr (std::is_enum_v<T>) {
        stream << static_cast<int64_t>(value);
    } else if constexpr (requires { stream << value; }) {
        stream << value;
    }
    return stream.str();
}

// What expressions come to, one after another, as a text that is compared with a file.
struct story {
    explicit story(const char *name) : file(std::string("wrapper/") + name + ".txt") {}
    ~story() { EXPECT_TEXT(file, text); }
    story(const story &) = delete;
    story &operator=(const story &) = delete;

    void tell(const char *what, const std::string &value)
    {
        text.append(what).append(": " + value + "\n");
    }

    const std::string file;
    std::string text;
};
#define TELL(...) story.tell(#__VA_ARGS__, told(__VA_ARGS__))

//--- results and identities -----------------------------------------------------------------------

TEST(wrapper_result, chains_values_and_failures_as_expected_does)
{
    const auto half = [](int value) {
        return value % 2 == 0 ? result<int>(value / 2) : failure{"half", EDOM};
    };
    const auto add_one = [](int value) { return value + 1; };
    const auto nine = [](failure) { return result<int>(9); };
    story story("result");
    TELL(half(6));
    TELL(result<int>(6).and_then(half).transform(add_one));
    TELL(result<int>(6).and_then(half).and_then(half));
    TELL(half(5).value_or(7));
    TELL(half(4).or_else(nine));
    TELL(half(5).or_else(nine));
    TELL(half(2).transform([](int) {}).and_then([] { return result<void>(); }));
    TELL(failure{"podlog_init", 0});
    EXPECT_EQ(half(1).error(), (failure{"half", EDOM}));
    EXPECT_NE(half(1).error(), (failure{"half", EIO}));

    result<std::unique_ptr<int>> owner(std::make_unique<int>(3));
    const std::unique_ptr<int> taken = *std::move(owner);
    EXPECT_EQ(*taken, 3);
    EXPECT_THROW((void)half(3).value(), bad_result_access);
    EXPECT_DEATH((void)*half(3), "without a value");
    EXPECT_DEATH((void)half(2).error(), "has no error");
}

TEST(wrapper_pci_id, is_parsed_compared_hashed_and_printed)
{
    story story("pci_id");
    const pci_id bridge = pci_id::parse("0000:1F:1e.7").value();
    TELL(bridge);
    TELL(*bridge.address());
    TELL(bridge.system_numbers().bus); // which is no hexadecimal number to the system
    TELL(pci_id(pci_address{0xfeed, 2, 3, 4}));
    TELL(*pci_id::parse("03:00.0") < bridge);
    TELL(pci_id().address());
    TELL(std::unordered_set<pci_id>{bridge, bridge, pci_id()}.size());
    TELL(std::unordered_set<pci_address>{{0, 1, 2, 3}, {0, 1, 2, 3}}.size());
    for (const char *text : {"", "0000:03:00", "0000:03:00.8", "0000:03:20.0", "000g:03:00.0",
                             "0000-03:00.0", " 000:03:00.0", "0000:03:00.0x", "+3:00.0"})
        story.tell(text, told(pci_id::parse(text)));
}

TEST(wrapper_slots, are_found_compared_and_printed)
{
    story story("slots");
    select_chassis_stack(chassis_stack::second);
    TELL(slot::find("sw1"));
    TELL(slot::find("sw1")->number());
    TELL(slot::find("sw1")->kind());
    TELL(*slot::at(4) < *slot::at(5));
    TELL(std::unordered_set<slot>{*slot::at(4), *slot::at(4)}.size());
    select_chassis_stack(chassis_stack::first);
    TELL(slot::find("SW2"));
    TELL(slot::at(-1));
}

//--- UIO devices ----------------------------------------------------------------------------------

TEST(wrapper_uio_device, is_mapped_served_and_removed)
{
    chassis_description chassis;
    chassis.uio.resize(2);
    chassis.uio[1].number = 1;
    chassis.uio[1].maps = {{"map0", "0x1000\n"}};
    build_chassis(chassis);
    story story("uio");
    auto device = uio::open("/dev/uio0", 0s).value();
    auto other = uio::open("/dev/uio1", 0s).value();
    TELL(device.map());
    TELL(device.map_limit());
    TELL(device.mapped(1)->size());
    TELL(device.map_size(2));
    const window registers = *device.mapped(0);
    registers.write<uint16_t>(0x10, 0xabcd);
    registers.set_bits<uint32_t>(0x10, 0xff0000);
    registers.clear_bits<uint8_t>(0x11, 0x0b);
    TELL(registers.read<uint64_t>(0x10) == 0xffa0cd);
    EXPECT_DEATH((void)registers.read<uint32_t>(0xffe), "outside of its window");

    TELL(device.try_wait());
    TELL(device.enable_interrupt());
    TELL(device.wait_for(std::chrono::hours::max()));
    const auto begun = uio::clock::now();
    TELL(device.wait_until(begun + 50ms));
    TELL(uio::clock::now() - begun >= 50ms);
    chassis_sim::control("remove uio0");
    TELL(device.wait());
    TELL(device.interrupt_descriptor());
    device.close();
    TELL(device.map());

    TELL(other.map(1)); // its only one is left out
    chassis_sim::control("remove uio1");
    TELL(other.wait());
    TELL(other.map());
}

TEST(wrapper_uio_device, is_waited_for_as_long_as_the_limit_says)
{
    chassis_description chassis;
    chassis.uio[0].plugged = false;
    build_chassis(chassis);
    const auto begun = uio::clock::now();
    EXPECT_EQ(uio::open("/dev/uio0", 250ms).error(), (failure{"libuio_open_timed", ENOENT}));
    EXPECT_GE(uio::clock::now() - begun, 250ms) << "not a tenth of it";
    EXPECT_EQ(uio::open("/dev/null", -1s).error().error, ENODEV);
}

//--- PCI functions --------------------------------------------------------------------------------

TEST(wrapper_pci_functions, can_be_looped_over_searched_and_filtered_as_temporaries)
{
    build_chassis({});
    story story("pci_functions");
    for (auto &function : *pci_functions::all())
        TELL(function);
    const pci_id port = pci_id::parse(chassis_sim::pci_root_port).value();
    const auto all = pci_functions::all().value();
    TELL(*std::ranges::find(all, port));
    TELL(pci_functions::below(port).value()[0]);
    const auto is_on_bus_0 = [](const pci_id &one) { return one.address()->bus == 0; };
    TELL(std::ranges::distance(*pci_functions::all() | std::views::filter(is_on_bus_0)));
    test::output_of([&] {
        const pci_scan scan = pci_scan::run().value();
        const auto is_port = [&](const auto &one) { return function_of(one.id) == port; };
        TELL(std::ranges::find_if(scan, is_port)->id.device == pci_device_ids(port).device);
        TELL(std::ranges::distance(scan));
    });
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
    story story("pci_config");
    const auto config = pci_config::open(*pci_id::parse(looping.id)).value();
    TELL(config.write<uint32_t>(0x60, 0xa0b0c0d0));
    TELL(config.set_bits<uint16_t>(0x60, 0x000f));
    TELL(config.clear_bits<uint8_t>(0x63, 0x80));
    TELL(config.read<uint32_t>(0x60).value() == 0x20b0c0df);
    TELL(config.write<uint16_t>(0x61, 1));
    TELL(config.read<uint16_t>(0x1000));
    TELL(config.capabilities().size());
    EXPECT_EQ(config.find_capability(5).value(), (pci_capability{5, 0x50}));
    TELL(config.find_capability(0x10));
    chassis_sim::write_config16(looping.id, 0x50, 0xffff);
    TELL(config.capabilities().failed());
    TELL(config.capabilities().size());
}

TEST(wrapper_pci_link, is_waited_for_until_the_deadline)
{
    build_chassis({});
    story story("pci_link");
    const pci_id port = pci_id::parse(chassis_sim::pci_root_port).value();
    TELL(wait_link_up(port));
    TELL(wait_link_up_for(port, -1s));
    chassis_sim::set_link(port.str, chassis_sim::pcie_capability::link_training);
    auto shortest = deadline_clock::duration::max();
    for (int i = 0; i < 5 && shortest >= 400ms; ++i) { // on a machine that does much else
        const auto begun = deadline_clock::now();
        EXPECT_EQ(wait_link_up_until(port, begun + 60ms).error().error, ETIMEDOUT);
        shortest = std::min(shortest, deadline_clock::now() - begun);
    }
    TELL(shortest >= 60ms && shortest < 400ms); // it gives up before the C call does
    chassis_sim::set_link(port.str, 0x2801);
    TELL(link_reason(wait_link_up_for(port, 1s).error()));
    chassis_sim::set_link(port.str, 0x2001);
    TELL(wait_link_up_for(port, 1s));
}

TEST(wrapper_pci_memory, attributes_and_bridges_are_reached)
{
    build_chassis({});
    story story("pci_memory");
    const pci_id device = pci_id::parse(chassis_sim::pci_slot_device).value();
    const pci_attributes attributes(device);
    TELL(attributes.number("vendor"));
    TELL(attributes.text("vendor"));
    TELL(attributes.text("no_such_file"));
    TELL(attributes.write_number("enable", 1));
    TELL(attributes.accessible("enable", W_OK));
    TELL(attributes.open("enable", O_RDWR)->number());
    TELL(attributes.path("enable"));
    auto memory = pci_memory::map(device).value();
    memory.bar(0)->write<uint32_t>(8, 7);
    memory = pci_memory::map(device, ~1u).value();
    TELL(memory.bar(0)->read<uint32_t>(8)); // it is shared
    TELL(memory.bar(1).has_value() || memory.bar(6).has_value());
    memory.close();
    TELL(memory.bar(0).has_value());
    const hotswap_bridge bridge(pci_id::parse(chassis_sim::hotswap_bridge).value());
    TELL(hotswap_bridge::load_driver(hotswap_bridge::managed::hotplug_pcie));
    TELL(bridge.usable());
    TELL(bridge.enable()->size());
    TELL(bridge.disable());
    TELL(hotswap_bridge(device).usable());
}

TEST(wrapper_inventory, keeps_what_was_stored_and_says_when_it_does_not)
{
    build_chassis({});
    story story("inventory");
    chassis_sim::make_directory("/flash/diags/SW2.div"); // where the record would be
    TELL(inventory::store("SW2", {"S", "P"}));
    TELL(inventory::store("SW1", {"FOC12345678ABC", "PN-42"}));
    TELL(inventory::read("sw1")->serial_number());
    TELL(inventory::read("sw1")->product_code());
    inventory::clear("SW1");
    TELL(inventory::read("SW1").has_value());
}

//--- POD logs -------------------------------------------------------------------------------------

// "NUMBER: TEXT|TEXT, " of each history, the newest first.
template <typename Log>
std::string text_of_log(const Log &log)
{
    std::string text;
    const auto histories = log.histories();
    if (!histories)
        return told(histories);
    for (const auto &history : *histories) {
        text += std::to_string(history.number) + ": ";
        for (const auto &entry : *log.entries(history.number))
            text.append(text.ends_with(' ') ? "" : "|").append(entry.text);
        text += ", ";
    }
    return text;
}

void build_empty()
{
    chassis_description description;
    description.logs.pod = "empty";
    build_chassis(description);
    configure_pod_logs(pod_chassis::n20);
}

TEST(wrapper_pod_cards, are_found_by_name_whatever_their_id)
{
    build_empty();
    story story("pod_cards");
    configure_pod_logs(pod_chassis::n10, route_processor::rpsw2);
    for (const pod_card &card : pod_cards()) {
        auto run = pod_run::begin(std::string(card.name())).value();
        EXPECT_TRUE(run.add("INFO: ", "memory", "PASS", card.name()) && run.end());
        TELL(card);
        TELL(text_of_log(card.log()));
    }
    TELL(text_of_log(pod_log::nvram()));
    TELL(pod_log::of("rpsw1"));
    const storage_info_t rows[] = {{"ONE", 7, PODSTORAGE_FILE, 2, POD2NDSTORAGE_NONE, -1},
                                   {"TWO", 7, PODSTORAGE_FILE, 3, POD2NDSTORAGE_NONE, -1}};
    TELL(configure_pod_logs(rows));
    TELL(pod_card::find("ONE")->instance());
    TELL(pod_card::find("TWO")->instance());
    TELL(pod_run::begin("TWO")->add("INFO: ", "", "", "of two"));
    TELL(text_of_log(pod_log::file(3)));
    TELL(configure_pod_logs(std::vector(23, rows[0])));
}

TEST(wrapper_pod_run, goes_on_while_its_log_is_looked_at_and_others_begin)
{
    build_empty();
    story story("pod_run");
    auto run = pod_run::begin("SW3").value();
    TELL(run.add("INFO: ", "", "", "before"));
    const auto looked = test::output_of([&] {
        TELL(run.card().log().histories());
        TELL(run.card().log().entries(0).has_value());
        TELL(run.card().log().check().has_value());
        TELL(pod_run::begin("SW3"));
        TELL(pod_run::begin("SW4"));
    });
    story.text += looked.err;
    TELL(run.add("INFO: ", "", "", "after"));
    TELL(run.end());
    TELL(run.end());
    TELL(podlog_get_active_inst_id());
    TELL(text_of_log(*pod_log::of("SW3")));
    TELL(pod_run::begin("SW1")->card().instance());
    EXPECT_EQ(podlog_set_curr_active_inst(-1, 0), 0) << "a C client's run of RPSW1";
    TELL(pod_run::begin("SW3"));
    TELL(pod_run::begin("SW9"));
}

TEST(wrapper_pod_run, tells_when_the_history_is_full_and_what_the_end_could_not_do)
{
    build_empty();
    story story("pod_run_full");
    auto run = pod_run::begin("SW1").value();
    for (int count = 0; run.add("INFO: ", "", "", std::to_string(count)).value() == log_room::left;)
        ASSERT_LT(++count, 100);
    TELL(run.add("INFO: ", "", "", "over it"));
    TELL(run.end());
    TELL(text_of_log(run.card().log()));
    TELL(run.add("INFO: ", "", "", "late"));

    run = pod_run::begin("SW2").value();
    podlog_file_close(run.card().log().id()); // behind its back
    TELL(run.add("INFO: ", "", "", "lost").error().call);
    TELL(run.end(pod_status::failed).error().call);
    TELL(podlog_get_active_inst_id());
}

TEST(wrapper_pod_log, is_missing_empty_or_walked_as_a_list)
{
    build_empty();
    story story("pod_log");
    TELL(pod_log::file(2).histories());
    TELL(pod_log::file(2).open().has_value());
    TELL(pod_log::file(2).histories()->empty());
    TELL(pod_log::file(2).entries(0).error().call);
    TELL(pod_log::file(17).open().error().call);

    auto writer = pod_log::nvram().open().value();
    for (const char *text : {"one", "two"})
        EXPECT_TRUE(writer.add("", "", "", text) && writer.next_history());
    EXPECT_TRUE(writer.add("", "", "", "INFO: a") && writer.add("", "", "", "ERROR: b"));
    writer.close();
    TELL(text_of_log(pod_log::nvram()));
    const auto is_error = [](const log_entry &entry) { return entry.text.starts_with("ERROR"); };
    for (const auto &entry : *pod_log::nvram().entries(2) | std::views::filter(is_error)) {
        TELL(entry.text);
        TELL(std::chrono::system_clock::now() - entry.time < 1min);
    }
    auto entries = pod_log::nvram().entries(2).value();
    TELL(pod_log::nvram().check().has_value()); // it is being read
    entries.close();
    TELL(pod_log::nvram().check());
    entries = pod_log::nvram().entries(2).value();
    auto place = entries.begin();
    podlog_nvram_close(0); // behind its back
    TELL(++place == entries.end() && entries.failed());
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
    story story("pod_secondary");
    TELL(pod_run::begin("FT1", pod_target::secondary));
    TELL(pod_run::begin("SW3", pod_target::secondary).error().call);
    const pod_card sw3 = pod_card::find("SW3").value();
    const pod_card sw1 = pod_card::find("SW1").value();
    {
        const eeprom_binding bound(sw3.secondary_log()->id(), read_eeprom, write_eeprom);
        auto run = pod_run::begin(sw3, pod_target::secondary).value();
        TELL(run.add("INFO: ", "", "", "to the EEPROM"));
        TELL(run.end());
        TELL(text_of_log(*sw3.secondary_log()));
        TELL(sw3.copy_newest_to_secondary());
    }
    TELL(sw3.secondary_log()->check().has_value()); // it is not bound any more
    const eeprom_binding bound(sw1.secondary_log()->id(), read_eeprom, write_eeprom);
    TELL(sw1.copy_newest_to_secondary());
    TELL(text_of_log(*sw1.secondary_log()));
}

TEST(wrapper_pod_status_words, are_found_by_the_cards_name_where_ids_are_shared)
{
    build_chassis({});
    configure_pod_logs(pod_chassis::n20);
    story story("pod_status_words");
    auto words = pod_status_words::open().value();
    TELL(words.set_status("SW3", pod_status::failed));
    TELL(words.set_status("SW1", pod_status::unknown));
    for (const pod_card &card : pod_cards())
        if (const auto status = words.status(std::string(card.name())))
            story.tell(text_of(*status), told(card));
    TELL(words.set_status("FT1", pod_status::passed));
    TELL(words.inject_fault("SW3"));
    TELL(words.inject_fault("ALSW1"));
    TELL(words.clear_fault("ALSW1"));
    TELL(words.fault("SW3"));
    TELL(words.fault("ALSW1"));
    TELL(words.clear_all_faults());
    TELL(words.fault("SW3"));

    // This call gives the first word the last one's name.
    int ids[] = {-1, 4};
    char first[] = "RPSW1", last[] = "SW4";
    char *names[] = {first, last};
    podlog_nvram_set_podstatus_info(0, 2, ids, names);
    TELL(words.status("SW4"));
    TELL(words.status("SW1")); // its id is its own
    words.close();
    TELL(words.status("SW1"));
}

//--- POST logs ------------------------------------------------------------------------------------

TEST(wrapper_post_log, is_read_as_entries_and_as_records)
{
    build_chassis({});
    reach_post_logs_by_device_files();
    story story("post_log");
    TELL(text_of_log(post_log(post_block::event)));
    auto block = post_log_block::open(post_block::test).value();
    const auto header =
        block.current_header().and_then([&](uint32_t at) { return block.header(at); });
    TELL(post_log_block::valid(header.value()));
    TELL(block.index()->magic == 0x106F11E5);
    block.close();
    TELL(block.header(0).error().message());
}

} // namespace
