// Finds, reads, judges, formats and rewrites the storages of POD logs.
#include "tools/podlog/storage.h"

#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/output.h"

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
        throw failure(what, "another program has it open", "try again when that is done", EBUSY);
    fail(what, found, "is the module of the NVRAM loaded? /sys/class/zmt_nvram shows its blocks");
}

} // namespace

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
    const int descriptor = ::open(path_.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC);
    if (descriptor < 0)
        throw failure("open " + path_, std::strerror(errno), "", errno);
    return descriptor;
}

std::optional<std::string> log_storage::bytes() const
{
    if (path_.empty())
        throw failure(fmt::format("find POD file {}", card_.storage_id),
                      "the library has none of that number",
                      "a card of the chassis has one: --chassis says which chassis this is");
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
    if (!bytes) {
        const log_image nothing(*layout_, "");
        return {storage_state::missing, "missing", way_out(nothing), {}, ENOENT};
    }
    log_findings found = {storage_state::good, "", remedy::none, log_image(*layout_, *bytes)};
    const log_image &log = *found.log;
    found.way_out = way_out(log);
    found.holds_log = !log.is_blank() && (!log.holds_nothing() || !log.strays().empty());
    if (log.is_good())
        return found;
    found.problem = problem_of(log, found.holds_log);
    if (log.is_blank()) {
        found.state = storage_state::empty;
        return found;
    }
    found.state = found.holds_log ? storage_state::damaged : storage_state::foreign;
    const likely_log likely = recognise(*bytes);
    if (log.index().state == record_state::good || likely.good_records <= log.count_good())
        return found;
    found.foreign = likely.layout;
    found.holds_log = false;
    found.state = storage_state::foreign;
    found.problem = fmt::format("it is {} with {} entries", likely.layout->title, likely.entries);
    found.way_out = remedy::salvage_foreign;
    return found;
}

remedy log_storage::way_out(const log_image &log) const
{
    if (!place_.nvram.empty() || !place_.pod_directory.empty())
        return remedy::salvage;
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

void reset_file(const log_storage &storage, const std::string &what)
{
    if (storage.bytes())
        storage.rewrite([](const std::string &bytes) {
            const size_t room = std::max(bytes.size(), file_layout.size);
            return bytes + std::string(room - bytes.size(), '\0');
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
