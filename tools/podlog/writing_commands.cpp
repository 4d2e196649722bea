// What writes logs: add, next, copy, prepare.
#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/numbers.h"
#include "tools/base/waiting.h"
#include "tools/podlog/podlog_commands.h"

#include <device_access/pod_log.h>
#include <device_access/pod_log_eeprom.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <thread>

#include <fmt/format.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

constexpr size_t longest_message = 63;

// A log to which entries can be added. By an index that is not the configured one the library
// would find, and overwrite, other places than those where the entries are.
log_findings expect_writable(const log_storage &storage, const std::string &what)
{
    log_findings found = expect_log(storage);
    const log_record &index = found.log->index();
    if (index.state != record_state::good)
        throw failure(what, "index: " + index.problem, way_out(storage, found), 0, exit_damaged);
    return found;
}

// Makes a call on the card's log, which is open for writing meanwhile.
template <typename Call>
void write_to(const log_storage &storage, const std::string &what, Call call)
{
    const int id = storage.card().id;
    const auto ready = ask_log([&] { return podlog_init(id, 0); });
    if (ready.result != 1) {
        if (storage.is_device() && storage.judge(storage.bytes()).state == storage_state::good)
            throw failure(what, storage.path() + ": another program has it open",
                          "try again when it has finished", EBUSY, exit_unreadable);
        fail_on(storage, what, ready);
    }
    answer<int> written;
    {
        const opened log([id] { podlog_close(id); });
        written = ask_log([&] { return call(id); });
    }
    if (written.result != 1)
        fail_on(storage, what, written);
}

//--- entries --------------------------------------------------------------------------------------

struct add_arguments {
    std::string card;
    std::string text;
    std::string level;
    std::string diagnostic;
    std::string result;
    bool strict = false;
    double wait = 1; // seconds
};

// A level that ends in a letter or digit gets what parts it from the rest.
std::string separated(const std::string &level)
{
    const bool needs = !level.empty() && std::isalnum(static_cast<unsigned char>(level.back()));
    return needs ? level + ": " : level;
}

// The entry's text as the library puts it together, were there room for all of it.
std::string composed(const add_arguments &words)
{
    std::string text = words.level;
    for (const std::string &part : {words.diagnostic, words.result})
        if (!part.empty())
            text += part + "  ";
    return text + words.text;
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

void warn(const add_arguments &arguments, bool applies, const std::string &loss,
          const std::string &hint)
{
    if (!applies)
        return;
    if (arguments.strict)
        throw failure("add to the log of " + in_capitals(arguments.card), loss, hint);
    note(loss + "; " + hint);
}

void add_once(const add_arguments &arguments)
{
    const log_storage storage = storage_for_writing(arguments.card, {});
    add_arguments words = arguments;
    words.level = separated(arguments.level);
    const std::string whole = composed(words);
    const bool is_cut = whole.size() > longest_message;
    const std::string what = "add to the log of " + storage.card().name;
    const log_findings found = expect_writable(storage, what);
    const bool replaces = replaces_one(*found.log);
    warn(arguments, is_cut,
         fmt::format("the entry has {} characters and is cut to {}", whole.size(), longest_message),
         "write less");
    warn(arguments, replaces, "the history is full: its last entry is replaced",
         podlog_command("next " + storage.card().name) + " starts the next one");
    write_to(storage, what, [&](int id) {
        return podlog_add(id, or_null(words.level), or_null(words.diagnostic),
                          or_null(words.result), "%s", words.text.c_str());
    });
    print_done(record()
                   .add("card", storage.card().name)
                   .add("message", printable(whole.substr(0, longest_message)))
                   .add("cut", is_cut)
                   .add("replaced", replaces));
}

// Programs that add at once each have the NVRAM for a moment.
void add(const add_arguments &arguments)
{
    using clock = std::chrono::steady_clock;
    const auto until = clock::now() + std::chrono::duration<double>(arguments.wait);
    while (true) {
        try {
            return add_once(arguments);
        } catch (const failure &failed) {
            if (failed.error != EBUSY || clock::now() >= until)
                throw;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5 + ::getpid() % 10));
    }
}

struct next_arguments {
    std::string card;
};

void next(const next_arguments &arguments)
{
    const log_storage storage = storage_for_writing(arguments.card, {});
    const std::string what = "start the next history of " + storage.card().name;
    expect_writable(storage, what);
    write_to(storage, what, podlog_use_nxt_log);
    print_done(record()
                   .add("card", storage.card().name)
                   .add("history", expect_log(storage).log->current()));
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

struct copy_arguments {
    log_place place;
    std::string card;
    bool force = false;
};

// What the file holds, when that is an EEPROM's log or nothing.
std::string eeprom_to_fill(const copy_arguments &arguments, const log_storage &storage)
{
    const log_findings found = expect_readable(storage);
    std::string bytes = found.bytes();
    const bool is_blank = found.state == storage_state::empty;
    const bool is_erased = is_blank && bytes.find_first_not_of(bytes[0]) == bytes.npos;
    if (arguments.force ? !found.holds_log : is_erased && bytes.size() < eeprom_layout.size)
        bytes.clear();
    if (bytes.empty() || arguments.force)
        return bytes;
    if (bytes.size() != eeprom_layout.size || (!found.holds_log && !is_blank))
        throw failure("copy to " + storage.path(),
                      "it is neither empty nor an EEPROM's log of 8192 bytes",
                      podlog_command("copy " + storage.card().name + " --force", storage.place()) +
                          " overwrites it",
                      0, status_of(found.state));
    if (found.state == storage_state::damaged)
        throw failure("copy to " + storage.path(), "the log in it is damaged",
                      way_out(storage, found), 0, exit_damaged);
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

void copy(const copy_arguments &arguments)
{
    const log_storage target = storage_for_writing(arguments.card, arguments.place);
    const log_storage source({}, target.card());
    const log_findings found = expect_log(source);
    const auto written = found.log->written();
    if (written.empty())
        throw failure("copy the log of " + target.card().name, "it is empty",
                      "'devaccess podlog add' adds entries");
    const size_t size = eeprom_layout.size;
    eeprom = eeprom_to_fill(arguments, target);
    eeprom.resize(size + reach_beyond);
    const int id = secondary_of(target.card());
    podlog_bind_eeprom_access_func(id, read_eeprom, write_eeprom);
    ask_log([id] { return podlog_eeprom_init(id, 0); });
    const int copied = copy_entries(*found.log, *written.front(), id);
    const auto moved = ask_log([id] { return podlog_eeprom_use_nxt_log(id); });
    if (moved.result != 1)
        fail("start the EEPROM's next history", moved, "is the EEPROM's log good?");
    eeprom.resize(size);
    write_file(target.path(), eeprom, false);
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

// A file of which not all could be made leaves nothing behind, but a link to it stays.
void create(const log_storage &storage)
{
    try {
        format(storage);
    } catch (const failure &) {
        std::error_code ignored;
        std::filesystem::remove(std::filesystem::canonical(storage.path(), ignored), ignored);
        throw;
    }
}

struct prepare_arguments {
    std::string card;
    bool yes = false;
};

struct preparation {
    const char *done;
    std::string saved = {}; // the file with what was there before
};

preparation prepare_one(const log_storage &storage, bool yes)
{
    const log_findings found = expect_readable(storage);
    if (found.state == storage_state::good)
        return {"kept"};
    const std::string what = "prepare the log of " + storage.card().name;
    if (found.way_out == remedy::none)
        throw failure(what, found.problem, found.advice, ENOENT);
    if (found.holds_log || found.way_out == remedy::no_repair)
        throw failure(what, found.holds_log ? "it holds a log, which is damaged" : found.problem,
                      way_out(storage, found), 0, exit_damaged);
    const bool is_foreign = found.state == storage_state::foreign;
    if (is_foreign && !yes)
        throw failure(
            what, found.names_kind() ? found.problem : "it would erase " + contents_of(*found.log),
            way_out(storage, found), 0, exit_damaged);
    const std::string saved = is_foreign ? save_aside(storage, found) : "";
    const bool is_there = found.log.has_value();
    is_there ? format(storage) : create(storage);
    return {is_there ? "formatted" : "created", saved};
}

void prepare(const prepare_arguments &arguments)
{
    std::vector<pod_card> cards = cards_for_writing();
    if (!arguments.card.empty())
        cards = {card_of(arguments.card, cards, {})};
    record_set set = {"storages", {}};
    std::optional<failure> first;
    for (const pod_card &card : cards) {
        const log_storage storage({}, card);
        preparation done = {"failed"};
        try {
            done = prepare_one(storage, arguments.yes);
        } catch (const failure &failed) {
            const exit_status so_far = first ? first->status : exit_failed;
            first = first ? first : failed;
            first->status = worse_of(so_far, failed.status);
        }
        set.rows.push_back(record()
                               .add("card", card.name)
                               .add("path", storage.path())
                               .add("done", done.done)
                               .add("saved", text_or_null(done.saved)));
    }
    print_done(record().add(std::move(set)));
    if (first)
        throw *first;
}

//--- command line ---------------------------------------------------------------------------------

void add_added(command &to, add_arguments &arguments)
{
    add_card(to, arguments.card).required();
    to.argument("TEXT", arguments.text, "Text of the entry").required();
    to.add_option("--level", "LEVEL", arguments.level, "Event level, e.g. INFO");
    to.add_option("--diag", "NAME", arguments.diagnostic, "Name of the diagnostic");
    to.add_option("--result", "RESULT", arguments.result, "Result of the diagnostic");
    to.add_option("--wait", "SECONDS", arguments.wait,
                  "Wait this long for an NVRAM that another program uses")
        .check(time_problem)
        .show_default();
    to.add_flag("--strict", arguments.strict, "Fail instead of cutting or replacing an entry");
}

void add_entered(command &to, next_arguments &arguments)
{
    add_card(to, arguments.card).required();
}

void add_copied(command &to, copy_arguments &arguments)
{
    add_card(to, arguments.card).required();
    add_eeprom(to, arguments.place).required();
    to.add_flag("--force", arguments.force, "Overwrite a file that holds no EEPROM's log");
}

void add_prepared(command &to, prepare_arguments &arguments)
{
    add_card(to, arguments.card, "Prepare the storage of this card only");
    add_yes(to, arguments.yes);
}

} // namespace

void describe_writing(command &podlog)
{
    podlog.add("add", "Add an entry to the current history", add_added, add);
    podlog.add("next", "Start the next history, which empties the oldest", add_entered, next);
    podlog.add("copy", "Copy the newest history to the card's EEPROM", add_copied, copy);
    podlog.add("prepare", "Create and format the storages that hold no log", add_prepared, prepare);
}

} // namespace devaccess
