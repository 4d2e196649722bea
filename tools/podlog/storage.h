// The places where logs are kept, and what is found there.
#pragma once

#include "tools/base/captured_call.h"
#include "tools/base/fleet.h"
#include "tools/base/storage_state.h"
#include "tools/podlog/cards.h"
#include "tools/podlog/image.h"

#include <functional>
#include <optional>
#include <string>

namespace devaccess
{

// Files that stand for the machine's storages; the machine's own where it is empty.
struct log_place {
    std::string nvram;                       // instead of the machine's NVRAM
    std::string pod_directory;               // instead of /var/pod
    std::string eeprom;                      // a file with the card's EEPROM
    archive_names from;                      // archives of machines
    const machine_source *machine = nullptr; // of one of them

    // The same, in a machine of these archives.
    log_place in(const machine_source &one) const;
};

// What can be done about a storage.
enum class remedy {
    none,
    try_again,
    salvage,    // it is a copy: its entries can be read
    empty_copy, // one without anything
    no_repair,  // the same as salvage, of a device that ends too early
    prepare,
    prepare_over, // what is there is saved, and replaced
    copy,
    copy_over,
    repair,
    salvage_foreign,
    salvage_post, // by the commands for POST logs
};

// What a storage holds, as far as it can be read.
struct log_findings {
    storage_state state;
    std::string problem; // empty when it holds a good log
    remedy way_out = remedy::none;
    std::optional<log_image> log = {};      // nothing when there are no bytes
    int error = 0;                          // errno, when it cannot be read
    std::string advice = {};                // on what kept it from being read
    std::optional<log_layout> foreign = {}; // another kind of log
    bool holds_log = false;                 // of the layout that the storage has

    bool names_kind() const
    {
        return way_out == remedy::salvage_foreign || way_out == remedy::salvage_post;
    }
    // The bytes that are there, without those that the log was filled up with.
    std::string bytes() const;
};

// The place of a card's log, or of its EEPROM's when a file holds that.
class log_storage
{
public:
    log_storage(const log_place &place, const pod_card &card);

    const pod_card &card() const { return card_; }
    const log_place &place() const { return place_; }
    const std::string &path() const { return path_; }
    const log_layout &layout() const { return *layout_; }
    bool is_nvram() const { return layout_ == &nvram_layout; }
    bool is_eeprom() const { return layout_ == &eeprom_layout; }
    bool is_device() const { return is_nvram() && place_.nvram.empty() && !place_.machine; }
    bool is_copy() const
    {
        return place_.machine || !place_.nvram.empty() || !place_.pod_directory.empty();
    }

    // Its bytes; nothing when the file is missing.
    std::optional<std::string> bytes() const;

    log_findings look() const;
    // What these bytes of it, or none, are.
    log_findings judge(std::optional<std::string> bytes) const;

    // Opened; a failure has no hint where the log itself says what to do.
    int open(bool writable) const;

    // Hands the bytes to change, and writes what becomes of them; nobody else has it open
    // meanwhile.
    void rewrite(const std::function<std::string(const std::string &)> &change) const;

private:
    log_findings judge_missing() const;
    void name_kind(const std::string &bytes, log_findings &found) const;
    remedy way_out(const log_image &log) const;

    log_place place_;
    pod_card card_;
    const log_layout *layout_;
    std::string path_;
};

// The number of the card's EEPROM; fails when it has none.
int secondary_of(const pod_card &card);

// Formats the storage through the library. What it lacks afterwards; nothing when it is a good log.
std::string reset_storage(const log_storage &storage, const std::string &what);

} // namespace devaccess
