#include "tools/podlog/storage.h"

#include "tools/base/files.h"
#include "tools/base/output.h"
#include "tools/base/suggest.h"
#include "tools/cli/chassis_option.h"

#include <device_access/pod_log_file.h>
#include <device_access/pod_log_nvram.h>

#include <algorithm>
#include <cstring>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

constexpr char nvram_path[] = "/dev/nvlog-pod";

// By the ids of the files of the library.
std::string file_name(int id)
{
    constexpr const char *names[] = {"alsw1", "alsw2", "sw1",  "sw2",  "sw3",      "sw4",
                                     "ft1",   "ft2",   "pem1", "pem2", "pem3",     "pem4",
                                     "pem5",  "pem6",  "pem7", "pem8", "rpsw_mate"};
    if (id < 0 || id >= static_cast<int>(std::size(names)))
        throw failure(fmt::format("find POD file {}", id), "the library has none of that number",
                      "a card of the chassis has one: --chassis says which chassis this is");
    return fmt::format("pod_{}.hex", names[id]);
}

std::string place_of(const podlog_arguments &arguments, const pod_card &card)
{
    if (!arguments.eeprom.empty())
        return arguments.eeprom;
    if (card.storage == PODSTORAGE_NVRAM)
        return arguments.nvram.empty() ? nvram_path : arguments.nvram;
    const std::string directory =
        arguments.pod_directory.empty() ? "/var/pod" : arguments.pod_directory;
    return directory + "/" + file_name(card.storage_id);
}

int open_nvram(bool writable)
{
    int descriptor = -1;
    const auto found =
        ask([&] { return podlog_nvram_open_dev_file(0, &descriptor, writable ? 0 : 1); });
    if (found.result == 1)
        return descriptor;
    const std::string what = fmt::format("open {}", nvram_path);
    if (found.said.empty())
        throw failure(what, "another program has it open", "try again when that is done", EBUSY);
    fail(what, found, "is the module of the NVRAM loaded? /sys/class/zmt_nvram shows its blocks");
}

} // namespace

std::string podlog_command(const podlog_arguments &arguments, const std::string &words)
{
    std::string line = "devaccess podlog " + words;
    const auto add = [&](const char *option, const std::string &value) {
        const char *const quote = value.find(' ') == value.npos ? "" : "\"";
        if (!value.empty())
            line += fmt::format(" {} {}{}{}", option, quote, value, quote);
    };
    add("--eeprom", arguments.eeprom);
    add("--nvram", arguments.nvram);
    add("--pod-dir", arguments.pod_directory);
    add("--chassis", settings.chassis);
    return fmt::format("'{}{}'", line, settings.is_rp2 ? " --rp2" : "");
}

std::vector<pod_card> cards_for_reading()
{
    const std::string chassis = chassis_type();
    if (chassis.empty())
        note(fmt::format("without --chassis or {}, cards are those of the library's built-in table",
                         chassis_variable));
    return configure_cards(chassis, settings.is_rp2);
}

std::vector<pod_card> cards_for_writing()
{
    const std::string chassis = chassis_type();
    if (chassis.empty())
        throw usage_error(fmt::format(
            "to write, the chassis type is needed: --chassis n20, n10 or n4, or the variable {}",
            chassis_variable));
    return configure_cards(chassis, settings.is_rp2);
}

pod_card card_of(const podlog_arguments &arguments, const std::vector<pod_card> &cards)
{
    const auto found = std::find_if(cards.begin(), cards.end(), [&](const pod_card &card) {
        return card.name == in_capitals(arguments.card);
    });
    if (found != cards.end())
        return *found;
    std::vector<std::string> names;
    for (const pod_card &card : cards)
        names.push_back(card.name);
    throw failure("find the card " + arguments.card, "this chassis has none of that name",
                  did_you_mean(arguments.card, names) + podlog_command(arguments, "cards") +
                      " shows the cards");
}

std::string table_name()
{
    const std::string chassis = chassis_type();
    return chassis.empty() ? "built-in" : chassis;
}

int secondary_of(const pod_card &card)
{
    if (!card.secondary)
        throw failure("use the EEPROM of " + card.name, "the card has no secondary storage",
                      cards_hint);
    return *card.secondary;
}

//--- a storage ------------------------------------------------------------------------------------

log_storage::log_storage(const podlog_arguments &arguments, const pod_card &card)
    : arguments_(&arguments), card_(card), path_(place_of(arguments, card))
{
    layout_ = !arguments.eeprom.empty()          ? &eeprom_layout
              : card.storage == PODSTORAGE_NVRAM ? &nvram_layout
                                                 : &file_layout;
    if (layout_ == &eeprom_layout)
        secondary_of(card);
}

int log_storage::open(bool writable) const
{
    if (is_device())
        return open_nvram(writable);
    const int descriptor = ::open(path_.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    if (descriptor < 0)
        throw failure("open " + path_, std::strerror(errno), way_out(std::nullopt), errno);
    return descriptor;
}

std::optional<std::string> log_storage::bytes() const
{
    if (!is_device()) {
        std::optional<std::string> found = read_file(path_);
        const std::string &directory = arguments_->pod_directory;
        if (!found &&
            (is_nvram() || (!directory.empty() && ::access(directory.c_str(), F_OK) != 0)))
            throw failure("read " + path_, std::strerror(ENOENT), "is the name right?", ENOENT);
        return found;
    }
    const int descriptor = open(false);
    const opened device([descriptor] { ::close(descriptor); });
    return read_all(descriptor, path_);
}

void log_storage::rewrite(const std::function<std::string(const std::string &)> &change) const
{
    const int descriptor = open(true);
    const opened storage([descriptor] { ::close(descriptor); });
    const std::string before = read_all(descriptor, path_);
    write_changes(descriptor, path_, before, change(before));
}

storage_state log_storage::state() const
{
    std::optional<std::string> found;
    try {
        found = bytes();
    } catch (const failure &failed) {
        return {std::nullopt, printable(failed.what()), false, failed.hint};
    }
    if (!found)
        return {std::nullopt, "missing", true, remedy(found)};
    const log_image log(*layout_, *found);
    if (log.is_good())
        return {log, ""};
    const auto wrong = log.wrong();
    return {log,
            log.is_blank() ? "blank"
            : log.missing() > 0
                ? fmt::format("{} bytes of {} are missing", log.missing(), log.layout().size)
                : fmt::format("{} bad records, first the {}: {}", wrong.size(),
                              wrong.front().name(), wrong.front().problem),
            log.is_blank(), remedy(found)};
}

log_image log_storage::log() const
{
    const auto found = bytes();
    const std::string what = "read the POD log of " + card_.name;
    if (!found)
        throw failure(what, fmt::format("{}: {}", path_, std::strerror(ENOENT)), way_out(found),
                      ENOENT);
    log_image image(*layout_, *found);
    if (image.is_blank() || image.holds_nothing())
        throw failure(what, path_ + (image.is_blank() ? " is blank" : " holds no POD log"),
                      way_out(found));
    return image;
}

std::string log_storage::command(const char *verb, const char *options) const
{
    return podlog_command(*arguments_, fmt::format("{} {}{}", verb, card_.name, options));
}

std::string log_storage::remedy(const std::optional<std::string> &bytes) const
{
    const bool is_eeprom = layout_ == &eeprom_layout;
    const log_image image(*layout_, bytes.value_or(""));
    if (!arguments_->nvram.empty() || !arguments_->pod_directory.empty())
        return command("salvage") + " shows what can be read";
    if (image.is_blank())
        return command(is_eeprom ? "copy" : "prepare") + " makes a log of it";
    if (image.holds_nothing())
        return (is_eeprom ? command("copy", " --force") : command("prepare", " --yes")) +
               " replaces what is there by a log";
    if (image.is_good())
        return "its records are good; is another program using it?";
    return command("repair", " --yes") + " keeps what is good";
}

std::string log_storage::way_out(const std::optional<std::string> &bytes) const
{
    const log_image image(*layout_, bytes.value_or(""));
    const bool is_clear = image.is_blank() || image.holds_nothing() || image.is_good();
    return (is_clear ? "" : command("check") + " tells more, ") + remedy(bytes);
}

void log_storage::fail(const std::string &what, const outcome &how) const
{
    ::close(is_device() ? -1 : open(true)); // tells of a right that is missing
    const auto found = bytes();
    const log_image image(*layout_, found.value_or(""));
    const auto wrong = image.wrong();
    std::string why = how.said.empty() && !wrong.empty() ? "" : how.why();
    if (found && !wrong.empty())
        why += fmt::format("{}{}: {}", why.empty() ? "" : ": ", wrong.front().name(),
                           wrong.front().problem);
    throw failure(what, why, way_out(found));
}

//--- formatting -----------------------------------------------------------------------------------

namespace
{

// Also where the library's opening refuses.
void reset_nvram()
{
    podlog::nvram_dev_info_t &row = podlog::_nvram_dev_info[0];
    row.fd = open_nvram(true);
    const opened device([] { podlog_nvram_close(0); });
    row.subblock_size = static_cast<int>(nvram_layout.stride);
    ask_log([] { return podlog_nvram_reset(0); });
}

void reset_file(const log_storage &storage, const std::string &what)
{
    if (storage.bytes())
        storage.rewrite([](std::string bytes) {
            bytes.resize(std::max(bytes.size(), file_layout.size));
            return bytes;
        });
    const int id = storage.card().storage_id;
    const auto ready = ask_log([id] { return podlog_file_init(id, 0); });
    if (ready.result != 1)
        fail(what, ready, "is the disk full?");
    const opened file([id] { podlog_file_close(id); });
    ask_log([id] { return podlog_file_reset(id); });
}

} // namespace

std::string reset_storage(const log_storage &storage, const std::string &what)
{
    if (storage.is_nvram())
        reset_nvram();
    else
        reset_file(storage, what);
    const log_image log(storage.layout(), storage.bytes().value_or(""));
    if (log.missing() > 0)
        return fmt::format("{} bytes of {} are missing", log.missing(), log.layout().size);
    const bool is_empty = log.is_good() && log.good_entries().empty();
    return is_empty ? "" : "what was written did not arrive";
}

} // namespace devaccess
