// Finds, reads, judges, formats and rewrites the storages of POD logs.
#include "tools/podlog/storage.h"

#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/output.h"
#include "tools/postlog/blocks.h"

#include <device_access/pod_log_file.h>
#include <device_access/pod_log_nvram.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

namespace fs = std::filesystem;

constexpr char nvram_path[] = "/dev/nvlog-pod";

// By the ids of the library's files; empty where it has none of that number.
std::string file_name(int id)
{
    constexpr const char *names[] = {"alsw1", "alsw2", "sw1",  "sw2",  "sw3",      "sw4",
                                     "ft1",   "ft2",   "pem1", "pem2", "pem3",     "pem4",
                                     "pem5",  "pem6",  "pem7", "pem8", "rpsw_mate"};
    const bool is_known = id >= 0 && id < static_cast<int>(std::size(names));
    return is_known ? fmt::format("pod_{}.hex", names[id]) : "";
}

std::string path_of(const log_place &place, const pod_card &card)
{
    if (!place.eeprom.empty())
        return place.eeprom;
    if (card.storage == PODSTORAGE_NVRAM)
        return place.nvram.empty() ? nvram_path : place.nvram;
    const std::string directory = place.pod_directory.empty() ? "/var/pod" : place.pod_directory;
    const std::string name = file_name(card.storage_id);
    return name.empty() ? "" : directory + "/" + name;
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
        throw failure(what, "another program has it open", "try again when it has finished", EBUSY);
    fail(what, found, "is the module of the NVRAM loaded? /sys/class/zmt_nvram shows its blocks");
}

// The first link on the way to the file that leads to nothing.
std::optional<fs::path> dangling_link(const fs::path &path)
{
    std::error_code none;
    fs::path so_far;
    for (const fs::path &part : path) {
        so_far /= part;
        if (fs::is_symlink(so_far, none) && !fs::exists(so_far, none))
            return so_far;
    }
    return std::nullopt;
}

// Where the link leads; another file itself.
fs::path target_of(const fs::path &path)
{
    std::error_code none;
    return path.parent_path() / (fs::is_symlink(path, none) ? fs::read_symlink(path, none) : path);
}

std::string hint_on(int error)
{
    return error == EROFS ? "no command helps until that file system is writable" : "";
}

} // namespace

log_place log_place::in(const machine_source &one) const
{
    if (!from.empty() && !(nvram + pod_directory + eeprom).empty())
        throw usage_error("--from goes with neither --nvram, --pod-dir nor --eeprom");
    log_place place = *this;
    place.machine = one.is_archive() ? &one : nullptr;
    return place;
}

int secondary_of(const pod_card &card)
{
    if (!card.secondary)
        throw failure("use the EEPROM of " + card.name, "the card has no secondary storage",
                      "'devaccess podlog cards' shows the cards");
    return *card.secondary;
}

std::string log_findings::bytes() const
{
    return log ? log->bytes().substr(0, log->bytes().size() - log->missing()) : "";
}

//--- a storage ------------------------------------------------------------------------------------

log_storage::log_storage(const log_place &place, const pod_card &card)
    : place_(place), card_(card), path_(path_of(place, card))
{
    layout_ = !place.eeprom.empty()              ? &eeprom_layout
              : card.storage == PODSTORAGE_NVRAM ? &nvram_layout
                                                 : &file_layout;
    if (is_eeprom())
        secondary_of(card);
}

int log_storage::open(bool writable) const
{
    if (is_device())
        return open_nvram(writable);
    const int descriptor =
        ::open(path_.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0)
        throw failure("open " + path_, std::strerror(errno), hint_on(errno), errno);
    return descriptor;
}

std::optional<std::string> log_storage::bytes() const
{
    if (path_.empty())
        throw failure(fmt::format("find POD file {}", card_.storage_id),
                      "the library has no file of that number",
                      "a card of the chassis has one: --chassis says which chassis this is");
    if (place_.machine) {
        std::optional<std::string> found = place_.machine->read(path_);
        if (!found && is_nvram())
            throw failure("read " + path_, std::strerror(ENOENT), "the machine had none", ENOENT);
        return found;
    }
    if (!is_device()) {
        std::optional<std::string> found = read_file(path_);
        const std::string &directory = place_.pod_directory;
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

log_findings log_storage::look() const
{
    try {
        return judge(bytes());
    } catch (const failure &failed) {
        log_findings none = {state_of_error(failed.error), failed.what()};
        none.error = failed.error;
        none.advice = failed.hint;
        return none;
    }
}

namespace
{

std::string problem_of(const log_image &log, bool holds_log)
{
    if (log.is_blank())
        return "blank";
    if (log.missing() > 0)
        return fmt::format("{} bytes of {} are missing", log.missing(), log.layout().size);
    if (!holds_log)
        return "it holds no POD log";
    const auto wrong = log.wrong();
    return fmt::format("{} bad record{}, first the {}: {}", wrong.size(),
                       wrong.size() == 1 ? "" : "s", wrong.front().name(), wrong.front().problem);
}

} // namespace

log_findings log_storage::judge(std::optional<std::string> bytes) const
{
    if (!bytes)
        return judge_missing();
    log_findings found = {storage_state::good, "", remedy::none, log_image(*layout_, *bytes)};
    const log_image &log = *found.log;
    found.way_out = way_out(log);
    found.holds_log = log.holds_log();
    if (log.is_good())
        return found;
    found.problem = problem_of(log, found.holds_log);
    found.state = log.is_blank()    ? storage_state::empty
                  : found.holds_log ? storage_state::damaged
                                    : storage_state::foreign;
    if (!log.is_blank())
        name_kind(*bytes, found);
    return found;
}

// A link that leads to where a file can be made does as well as none.
log_findings log_storage::judge_missing() const
{
    log_findings found = {
        storage_state::missing, "missing", way_out(log_image(*layout_, "")), {}, ENOENT};
    const auto link = dangling_link(path_);
    if (!link)
        return found;
    std::error_code none;
    const fs::path target = target_of(*link);
    const bool is_file = *link == path_;
    if (is_file && fs::is_directory(target.parent_path(), none))
        return found;
    found.way_out = remedy::none;
    found.problem =
        fmt::format("the link {} leads to {}, which is missing", link->string(), target.string());
    found.advice = fmt::format("make the directory {}, or remove the link",
                               (is_file ? target.parent_path() : target).string());
    return found;
}

// Where more is found of another kind of log, it is that.
void log_storage::name_kind(const std::string &bytes, log_findings &found) const
{
    const log_image &log = *found.log;
    const likely_log likely = recognise(bytes);
    const post_image post = saved_post_image(bytes);
    const size_t most = std::max(log.count_good(), likely.good_records);
    const bool is_post = post.good_records() > most;
    if (log.index().state == record_state::good || (most == log.count_good() && !is_post))
        return;
    if (!is_post)
        found.foreign = likely.layout;
    found.holds_log = false;
    found.state = storage_state::foreign;
    const bool is_resized = std::string_view(likely.layout.title) == layout_->title;
    found.problem =
        is_post ? fmt::format("it is a block of the POST log with {} entries",
                              post.good_entries().size())
                : fmt::format("it is {}{} with {} entries", likely.layout.title,
                              is_resized ? fmt::format(" of histories of {} bytes, not {},",
                                                       likely.layout.stride, layout_->stride)
                                         : "",
                              likely.entries);
    found.way_out = is_post ? remedy::salvage_post : remedy::salvage_foreign;
}

remedy log_storage::way_out(const log_image &log) const
{
    if (is_copy())
        return log.is_blank() ? remedy::empty_copy : remedy::salvage;
    if (is_device() && log.missing() > 0 && !fs::is_regular_file(path_))
        return remedy::no_repair;
    if (log.is_blank())
        return is_eeprom() ? remedy::copy : remedy::prepare;
    if (log.holds_nothing() && log.strays().empty())
        return is_eeprom() ? remedy::copy_over : remedy::prepare_over;
    return log.is_good() ? remedy::try_again : remedy::repair;
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

// Fails where the directory takes no such file.
void expect_place(const fs::path &file)
{
    if (::access(target_of(file).parent_path().c_str(), W_OK) != 0 && errno != ENOENT)
        throw failure("make " + file.string(), std::strerror(errno), hint_on(errno), errno);
}

void reset_file(const log_storage &storage, const std::string &what)
{
    if (storage.bytes())
        storage.rewrite([](const std::string &bytes) {
            const size_t room = std::max(bytes.size(), file_layout.size);
            return bytes + std::string(room - bytes.size(), '\0');
        });
    const int id = storage.card().storage_id;
    const auto ready = ask_log([id] { return podlog_file_init(id, 0); });
    if (ready.result != 1) {
        expect_place(storage.path());
        fail(what, ready, "is the disk full?");
    }
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
