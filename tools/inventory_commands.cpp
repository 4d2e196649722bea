#include "commands.h"
#include "library.h"
#include "output.h"

#include <device_access/diag_inventory.h>
#include <device_access/slot_names.h>

#include <algorithm>
#include <cstring>

namespace devaccess
{
namespace
{

struct inventory_arguments {
    std::string chassis;
    std::string slot;
    std::string serial;
    std::string product;
};

constexpr char slot_hint[] = "slots are e.g. RP1, SW1, FT1, PM1 (--chassis n20 or n10), or RPSW";

// The slot's name; fails when the slot table lacks it. Names beginning so are the route
// processors'.
const char *known_slot(const inventory_arguments &arguments)
{
    if (!arguments.chassis.empty())
        SetChassisType(arguments.chassis == "n20" ? ChassisType_1st_Stack : ChassisType_2nd_Stack);
    const std::string start = arguments.slot.substr(0, 4);
    if (start != "rpsw" && start != "RPSW" && GetSlotByName(arguments.slot.c_str())->slotN == -1)
        throw failure("find the slot " + arguments.slot, "the chassis has none of that name",
                      slot_hint);
    return arguments.slot.c_str();
}

template <size_t Size>
void fill(uint8_t (&field)[Size], const std::string &what, const std::string &text)
{
    if (text.size() > Size)
        throw usage_error(what + " '" + text + "' is longer than " + std::to_string(Size) +
                          " characters");
    std::copy(text.begin(), text.end(), field);
}

template <size_t Size>
std::string text_of(const uint8_t (&field)[Size])
{
    return printable(std::string(reinterpret_cast<const char *>(field), Size));
}

void show(const inventory_arguments &arguments)
{
    const char *slot = known_slot(arguments);
    diag_inventory_t content = {};
    const auto found = ask([&] { return diag_inventory_get_all(slot, &content); });
    if (found.result != 1)
        fail("read the inventory of " + arguments.slot, found,
             "'devaccess inventory store' records it");
    print(record()
              .add("slot", arguments.slot)
              .add("serial_number", text_of(content.serNo))
              .add("product_code", text_of(content.prodCode)));
}

void store(const inventory_arguments &arguments)
{
    const char *slot = known_slot(arguments);
    diag_inventory_t content = {};
    fill(content.serNo, "the serial number", arguments.serial);
    fill(content.prodCode, "the product code", arguments.product);
    const auto stored = ask([&] { return diag_inventory_store(slot, &content); });
    if (stored.result != 1)
        fail("store the inventory of " + arguments.slot, stored,
             "the directories /flash/diags and /var/log/diags must be there");
}

void clear(const inventory_arguments &arguments)
{
    const char *slot = known_slot(arguments);
    ask([&] { return diag_inventory_clear(slot); });
}

} // namespace

void add_inventory_commands(CLI::App &program)
{
    const auto arguments = std::make_shared<inventory_arguments>();
    CLI::App &inventory = *program.add_subcommand("inventory", "inventory records of the cards");
    inventory.require_subcommand(1);
    inventory.add_option("--chassis", arguments->chassis, "n20 or n10: which slots there are")
        ->check(CLI::IsMember({"n20", "n10"}));
    const std::string slot_text = "name of the slot, e.g. SW1";
    CLI::App *shown = add_command(inventory, "show", "a slot's record", arguments, show);
    CLI::App *stored = add_command(inventory, "store", "a slot's record", arguments, store);
    CLI::App *cleared = add_command(inventory, "clear", "a slot's record", arguments, clear);
    for (CLI::App *command : {shown, stored, cleared})
        command->add_option("SLOT", arguments->slot, slot_text)->required();
    stored->add_option("SERIAL", arguments->serial, "number, at most 14 characters")->required();
    stored->add_option("PRODUCT", arguments->product, "code, at most 5 characters")->required();
}

} // namespace devaccess
