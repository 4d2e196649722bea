// What writes logs: add, next, copy, prepare.
#include "tools/base/files.h"
#include "tools/podlog/podlog_commands.h"

#include <device_access/pod_log.h>
#include <device_access/pod_log_eeprom.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

constexpr size_t longest_message = 63;

log_storage storage_for_writing(const podlog_arguments &arguments)
{
    return log_storage(arguments, card_of(arguments, cards_for_writing()));
}

// Makes a call on the card's log, which is open for writing meanwhile.
template <typename Call>
void write_to(const log_storage &storage, const std::string &what, Call call)
{
    const int id = storage.card().id;
    const auto ready = ask_log([&] { return podlog_init(id, 0); });
    if (ready.result != 1)
        storage.fail(what, ready);
    answer<int> written;
    {
        const opened log([id] { podlog_close(id); });
        written = ask_log([&] { return call(id); });
    }
    if (written.result != 1)
        storage.fail(what, written);
}

//--- entries --------------------------------------------------------------------------------------

// A level that ends in a letter or digit gets what parts it from the rest.
std::string separated(const std::string &level)
{
    const bool needs = !level.empty() && std::isalnum(static_cast<unsigned char>(level.back()));
    return needs ? level + ": " : level;
}

// The entry's text as the library puts it together, were there room for all of it.
std::string composed(const std::string &level, const podlog_arguments &arguments)
{
    std::string text = level;
    for (const std::string &part : {arguments.diagnostic, arguments.result})
        if (!part.empty())
            text += part + "  ";
    return text + arguments.text;
}

// Whether the current history is full, so that an entry takes the place of its last one.
bool replaces_one(const log_image &log)
{
    const log_history &current = log.histories()[static_cast<size_t>(log.current())];
    return log.chain(current).size() == current.slots.size();
}

char *or_null(std::string &text)
{
    return text.empty() ? nullptr : text.data();
}

void warn(const podlog_arguments &arguments, bool applies, const std::string &loss,
          const std::string &hint)
{
    if (!applies)
        return;
    if (arguments.strict)
        throw failure("add to the log of " + in_capitals(arguments.card), loss, hint);
    note(loss + "; " + hint);
}

void add(const podlog_arguments &arguments)
{
    const log_storage storage = storage_for_writing(arguments);
    podlog_arguments words = arguments;
    words.level = separated(arguments.level);
    const std::string whole = composed(words.level, arguments);
    const bool is_cut = whole.size() > longest_message;
    const bool replaces = replaces_one(storage.log());
    warn(arguments, is_cut,
         fmt::format("the entry has {} characters and is cut to {}", whole.size(), longest_message),
         "write less");
    warn(arguments, replaces, "the history is full: its last entry is replaced",
         podlog_command(arguments, "next " + storage.card().name) + " starts the next one");
    write_to(storage, "add to the log of " + storage.card().name, [&](int id) {
        return podlog_add(id, or_null(words.level), or_null(words.diagnostic),
                          or_null(words.result), "%s", words.text.c_str());
    });
    print_done(record()
                   .add("card", storage.card().name)
                   .add("message", printable(whole.substr(0, longest_message)))
                   .add("cut", is_cut)
                   .add("replaced", replaces));
}

void next(const podlog_arguments &arguments)
{
    const log_storage storage = storage_for_writing(arguments);
    storage.log();
    write_to(storage, "start the next history of " + storage.card().name, podlog_use_nxt_log);
    print_done(record().add("card", storage.card().name).add("history", storage.log().current()));
}

//--- copies ---------------------------------------------------------------------------------------

// The EEPROM that the library reaches, in memory: only a whole copy gets to the file.
std::string eeprom;

constexpr size_t reach_beyond = 64; // accesses a little beyond the end are in order

bool reaches(uint32_t offset, uint32_t count)
{
    return uint64_t{offset} + count <= eeprom.size();
}

int read_eeprom(uint32_t offset, uint8_t *buffer, uint32_t count)
{
    if (!reaches(offset, count))
        return -1;
    std::memcpy(buffer, eeprom.data() + offset, count);
    return static_cast<int>(count);
}

int write_eeprom(uint32_t offset, uint8_t *buffer, uint32_t count)
{
    if (!reaches(offset, count))
        return -1;
    std::memcpy(eeprom.data() + offset, buffer, count);
    return static_cast<int>(count);
}

// What the file holds, when that is an EEPROM's log or nothing.
std::string eeprom_to_fill(const podlog_arguments &arguments, const log_storage &storage)
{
    std::string bytes = storage.bytes().value_or("");
    const log_image log(eeprom_layout, bytes);
    if (bytes.empty() || arguments.force)
        return log.holds_nothing() ? "" : bytes;
    if (bytes.size() != eeprom_layout.size || (log.holds_nothing() && !log.is_blank()))
        throw failure("copy to " + arguments.eeprom,
                      "it is neither empty nor an EEPROM's log of 8192 bytes",
                      podlog_command(arguments, "copy " + storage.card().name + " --force") +
                          " overwrites it");
    if (!log.is_blank() && !log.is_good())
        throw failure("copy to " + arguments.eeprom, "the log in it is damaged",
                      storage.way_out(bytes));
    return bytes;
}

int copy_entries(const log_image &log, const log_history &history, int id)
{
    int copied = 0;
    for (const log_record &slot : log.chain(history)) {
        std::string raw = log.bytes().substr(slot.position, entry_stride);
        const auto added = ask_log(
            [&] { return podlog_eeprom_add_raw_log(id, reinterpret_cast<uint8_t *>(raw.data())); });
        if (added.result == -1)
            fail("copy entry " + std::to_string(copied), added, "is the EEPROM's log good?");
        ++copied;
    }
    return copied;
}

void copy(const podlog_arguments &arguments)
{
    const log_storage target = storage_for_writing(arguments);
    podlog_arguments of_card = arguments;
    of_card.eeprom.clear();
    const log_storage source(of_card, target.card());
    const log_image log = source.log();
    const auto written = log.written();
    if (written.empty())
        throw failure("copy the log of " + target.card().name, "it is empty",
                      "'devaccess podlog add' adds entries");
    const size_t size = eeprom_layout.size;
    eeprom = eeprom_to_fill(arguments, target);
    eeprom.resize(size + reach_beyond);
    const int id = secondary_of(target.card());
    podlog_bind_eeprom_access_func(id, read_eeprom, write_eeprom);
    ask_log([id] { return podlog_eeprom_init(id, 0); });
    const int copied = copy_entries(log, *written.front(), id);
    const auto moved = ask_log([id] { return podlog_eeprom_use_nxt_log(id); });
    if (moved.result != 1)
        fail("start the EEPROM's next history", moved, "is the EEPROM's log good?");
    eeprom.resize(size);
    write_file(arguments.eeprom, eeprom, false);
    print(record()
              .add("card", target.card().name)
              .add("history", written.front()->number)
              .add("copied", copied));
}

//--- preparing ------------------------------------------------------------------------------------

// What would be lost if the storage were formatted.
std::string contents_of(const log_image &log)
{
    const size_t entries = log.good_entries().size();
    return entries ? fmt::format("{} entries", entries)
                   : fmt::format("{} bytes that are no log", log.layout().size - log.missing());
}

// Formats, and looks whether all of it arrived.
void format(const log_storage &storage)
{
    const std::string what = "prepare the log of " + storage.card().name;
    if (const std::string lack = reset_storage(storage, what); !lack.empty())
        throw failure(what, lack,
                      storage.is_nvram() ? "does the device have all its bytes?"
                                         : "is the disk full?");
}

// A file of which not all could be made leaves nothing behind.
void create(const log_storage &storage)
{
    try {
        format(storage);
    } catch (const failure &) {
        std::error_code ignored;
        std::filesystem::remove(storage.path(), ignored);
        throw;
    }
}

const char *prepare_one(const podlog_arguments &arguments, const log_storage &storage)
{
    const auto bytes = storage.bytes();
    const log_image log(storage.layout(), bytes.value_or(""));
    if (bytes && log.is_good())
        return "kept";
    const std::string what = "prepare the log of " + storage.card().name;
    if (!log.is_blank() && !log.holds_nothing())
        throw failure(what, "it holds a log, which is damaged", storage.way_out(bytes));
    if (!log.is_blank() && !arguments.yes)
        throw failure(what, "it would erase " + contents_of(log), storage.way_out(bytes));
    bytes ? format(storage) : create(storage);
    return bytes ? "formatted" : "created";
}

void prepare(const podlog_arguments &arguments)
{
    std::vector<pod_card> cards = cards_for_writing();
    if (!arguments.card.empty())
        cards = {card_of(arguments, cards)};
    record_set set = {"storages", {}};
    std::optional<failure> first;
    for (const pod_card &card : cards) {
        const log_storage storage(arguments, card);
        const char *done = "failed";
        try {
            done = prepare_one(arguments, storage);
        } catch (const failure &failed) {
            first = first ? first : failed;
        }
        set.rows.push_back(
            record().add("card", card.name).add("path", storage.path()).add("done", done));
    }
    print_done(record().add(std::move(set)));
    if (first)
        throw *first;
}

} // namespace

void add_podlog_writing_commands(podlog_family &podlog)
{
    const auto &arguments = podlog.arguments;
    CLI::App *adding = podlog.add_for_card("add", "Add an entry to the current history", add);
    adding->add_option("TEXT", arguments->text, "of the entry")->required();
    adding->add_option("--level", arguments->level, "event level, e.g. INFO");
    adding->add_option("--diag", arguments->diagnostic, "name of the diagnostic");
    adding->add_option("--result", arguments->result, "its result");
    adding->add_flag("--strict", arguments->strict, "fail rather than cut or replace an entry");
    podlog.add_for_card("next", "Start the next history, which empties the oldest", next);
    CLI::App *copying =
        podlog.add_for_card("copy", "Copy the newest history to the card's EEPROM", copy);
    podlog.add_eeprom(copying)->required();
    copying->add_flag("--force", arguments->force, "overwrite a file that is no EEPROM's log");
    CLI::App *preparing =
        podlog.add("prepare", "Create and format the storages that hold no log", prepare);
    podlog.add_card(preparing, "only this one's")->required(false);
    podlog.add_yes(preparing);
}

} // namespace devaccess
