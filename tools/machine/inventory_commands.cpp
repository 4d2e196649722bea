// Inventory records: inventory show, store, clear.
#include "tools/base/captured_call.h"
#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/fleet.h"
#include "tools/base/output.h"
#include "tools/base/settings.h"
#include "tools/cli/options.h"
#include "tools/machine/machine_commands.h"
#include "tools/podlog/podlog_commands.h"

#include <device_access/diag_inventory.h>
#include <device_access/slot_names.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include <fmt/format.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

struct inventory_arguments {
    archive_names from;
    std::string slot;
    std::string serial;
    std::string product;
};

constexpr char slot_hint[] = "slots are e.g. RP1, SW1, FT1, PM1 (--chassis n20 or n10), or RPSW";

// A slot, and the file that the library keeps its record in. Names that begin so are those of the
// route processors.
struct inventory_slot {
    explicit inventory_slot(const inventory_arguments &arguments,
                            const std::string &chassis = chassis_type())
        : name(arguments.slot)
    {
        if (chassis == "n20" || chassis == "n10")
            SetChassisType(chassis == "n20" ? ChassisType_1st_Stack : ChassisType_2nd_Stack);
        const std::string start = name.substr(0, 4);
        if (start == "rpsw" || start == "RPSW") {
            file = "/var/log/diags/RPSW.div";
            return;
        }
        const SLOT_INFO *slot = GetSlotByName(name.c_str());
        if (slot->slotN == -1)
            throw failure("find the slot " + name, "the chassis has no slot of that name",
                          slot_hint);
        file = fmt::format("/flash/diags/{}.div", slot->slot_name);
    }

    std::string name;
    std::string file;
};

template <size_t Size>
void fill(uint8_t (&field)[Size], const std::string &what, const std::string &text)
{
    if (text.size() > Size)
        throw usage_error(fmt::format("{} '{}' is longer than {} characters", what, text, Size));
    std::copy(text.begin(), text.end(), field);
}

template <size_t Size>
std::string text_of(const uint8_t (&field)[Size])
{
    return printable(std::string(reinterpret_cast<const char *>(field), Size));
}

record row_of(const inventory_slot &slot, const diag_inventory_t &content)
{
    return record()
        .add("slot", slot.name)
        .add("serial_number", text_of(content.serNo))
        .add("product_code", text_of(content.prodCode))
        .add("file", slot.file);
}

record recorded_row(const inventory_arguments &arguments, const machine_source &machine)
{
    const inventory_slot slot(arguments, table_of(machine));
    const std::string bytes = machine.read(slot.file).value_or("");
    diag_inventory_t content = {};
    if (bytes.size() < sizeof content)
        throw failure("read the inventory of " + slot.name, "the archive has none",
                      "'devaccess collect' records it, but for --anonymous");
    std::memcpy(&content, bytes.data(), sizeof content);
    if (std::memcmp(content.magicWord, "DiIn", sizeof content.magicWord) != 0)
        throw failure("read the inventory of " + slot.name, slot.file + " is no such record", "");
    return row_of(slot, content);
}

record present_row(const inventory_arguments &arguments)
{
    const inventory_slot slot(arguments);
    expect_regular(slot.file); // the library would wait for the other end of a FIFO
    diag_inventory_t content = {};
    const auto found = ask([&] { return diag_inventory_get_all(slot.name.c_str(), &content); });
    if (found.result != 1)
        fail("read the inventory of " + slot.name, found, "'devaccess inventory store' records it");
    return row_of(slot, content);
}

void show(const inventory_arguments &arguments)
{
    fleet machines(arguments.from);
    record_set all = {"records", {}};
    machines.for_each([&](const machine_source &machine, const std::string &host) {
        all.rows.push_back(machines.row(host).append(
            machine.is_archive() ? recorded_row(arguments, machine) : present_row(arguments)));
    });
    if (machines.has_several())
        print(std::move(all));
    else
        print(all.rows.front());
    machines.finish();
}

std::optional<diag_inventory_t> stored_record(const inventory_slot &slot)
{
    diag_inventory_t content = {};
    const auto found = ask([&] { return diag_inventory_get_all(slot.name.c_str(), &content); });
    return found.result == 1 ? std::optional(content) : std::nullopt;
}

// The library does not look whether what it writes arrives: if it does not, the slot has what it
// had.
void store(const inventory_arguments &arguments)
{
    const inventory_slot slot(arguments);
    expect_regular(slot.file);
    expect_regular("/flash/diags/aaa"); // where each record is written first
    diag_inventory_t content = {};
    fill(content.serNo, "the serial number", arguments.serial);
    fill(content.prodCode, "the product code", arguments.product);
    const std::string what = "store the inventory of " + slot.name;
    std::optional<diag_inventory_t> before = stored_record(slot);
    const auto done = ask([&] { return diag_inventory_store(slot.name.c_str(), &content); });
    if (done.result != 1)
        fail(what, done, "the directories /flash/diags and /var/log/diags must be there");
    const auto after = stored_record(slot);
    if (after && std::memcmp(&*after, &content, sizeof content) == 0) {
        print_done(row_of(slot, content));
        return;
    }
    ask([&] {
        return before ? diag_inventory_store(slot.name.c_str(), &*before)
                      : diag_inventory_clear(slot.name.c_str());
    });
    throw failure(what, slot.file + " did not take it", "is the disk full?");
}

void clear(const inventory_arguments &arguments)
{
    const inventory_slot slot(arguments);
    const auto done = ask([&] { return diag_inventory_clear(slot.name.c_str()); });
    if (::access(slot.file.c_str(), F_OK) == 0)
        fail("clear the inventory of " + slot.name, done, "is " + slot.file + " a file?");
    print_done(record().add("slot", slot.name).add("file", slot.file));
}

void add_slot(command &to, inventory_arguments &arguments)
{
    to.argument("SLOT", arguments.slot, "Name of the slot, e.g. SW1")
        .choices([](const given_options &) {
            return std::vector<std::string>{"RPSW", "RP1", "RP2", "SW1", "SW2", "FT1",
                                            "FT2",  "PM1", "PM2", "PM3", "PM4"};
        })
        .required();
}

void add_shown(command &to, inventory_arguments &arguments)
{
    add_slot(to, arguments);
    add_archives(to, arguments.from);
}

void add_stored(command &to, inventory_arguments &arguments)
{
    add_slot(to, arguments);
    to.argument("SERIAL", arguments.serial, "Serial number, at most 14 characters").required();
    to.argument("PRODUCT", arguments.product, "Product code, at most 5 characters").required();
}

} // namespace

void describe_inventory(command &inventory)
{
    inventory.add("show", "Show a slot's record", add_shown, show);
    inventory.add("store", "Write a slot's record", add_stored, store);
    inventory.add("clear", "Delete a slot's record", add_slot, clear);
}

} // namespace devaccess
