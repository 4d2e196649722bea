// Where the command line says that a log is kept, and its bytes there.
#pragma once

#include "tools/base/captured_call.h"
#include "tools/base/times.h"
#include "tools/podlog/cards.h"
#include "tools/podlog/image.h"
#include "tools/postlog/reader.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace devaccess
{

struct podlog_arguments {
    std::string nvram;         // a file instead of the machine's NVRAM
    std::string pod_directory; // instead of /var/pod
    std::string eeprom;        // a file with the card's EEPROM
    std::string file;          // a saved storage

    std::string card;
    std::string history;
    bool follow = false;
    time_span span;
    bool with_post = false;
    postlog_place post;
    std::string level;
    std::string diagnostic;
    std::string result;
    std::string text;
    std::string value;
    std::string target;
    bool strict = false;
    bool force = false;
    bool all = false;
    bool yes = false;
};

inline constexpr char cards_hint[] = "'devaccess podlog cards' shows the cards";

// A command of this family as a hint, quoted, with the options that say where the logs are.
std::string podlog_command(const podlog_arguments &arguments, const std::string &words);

// The cards of the chassis. Commands that read use the library's built-in table when its type is
// not said, and say so; those that write refuse.
std::vector<pod_card> cards_for_reading();
std::vector<pod_card> cards_for_writing();

pod_card card_of(const podlog_arguments &arguments, const std::vector<pod_card> &cards);

// The table in use: "n20", "n10", "n4" or "built-in".
std::string table_name();

int secondary_of(const pod_card &card);

// What a storage holds, as far as it can be read.
struct storage_state {
    std::optional<log_image> log; // nothing when it cannot be read, or is missing
    std::string problem;          // empty when it holds a good log
    bool is_unused = false;       // missing or blank: no log has been there yet
    std::string remedy = {};
};

// The place of a card's log, or of its EEPROM's when a file holds that.
class log_storage
{
public:
    log_storage(const podlog_arguments &arguments, const pod_card &card);

    const pod_card &card() const { return card_; }
    const std::string &path() const { return path_; }
    const log_layout &layout() const { return *layout_; }
    bool is_nvram() const { return layout_ == &nvram_layout; }

    // Its bytes; nothing when the file is missing.
    std::optional<std::string> bytes() const;

    storage_state state() const;

    // As a log; fails, with a hint, when there is none.
    log_image log() const;

    bool is_device() const { return is_nvram() && arguments_->nvram.empty(); }

    // What is to be done about a storage that does not hold a good log: remedy, and, for those who
    // do not know yet, where to learn what is wrong.
    std::string remedy(const std::optional<std::string> &bytes) const;
    std::string way_out(const std::optional<std::string> &bytes) const;

    // A call of the library on it has failed. The library says nothing of a bad header; this does.
    [[noreturn]] void fail(const std::string &what, const outcome &how) const;

    // Hands the bytes to change, and writes what becomes of them; nobody else has it open
    // meanwhile.
    void rewrite(const std::function<std::string(const std::string &)> &change) const;

private:
    int open(bool writable) const;
    std::string command(const char *verb, const char *options = "") const;

    const podlog_arguments *arguments_;
    pod_card card_;
    const log_layout *layout_;
    std::string path_;
};

// Formats the storage through the library. What it lacks afterwards; nothing when it is a good log.
std::string reset_storage(const log_storage &storage, const std::string &what);

} // namespace devaccess
