// The blocks of the firmware's POST logs: where they are kept, and what is found there.
#pragma once

#include "tools/base/fleet.h"
#include "tools/base/storage_state.h"
#include "tools/postlog/image.h"

#include <device_access/post_log_nvram.h>

#include <optional>
#include <string>
#include <vector>

namespace devaccess
{

// Where the blocks are: in device files, unless one of these says otherwise.
struct postlog_place {
    std::string pcie;                        // behind the NVRAM controller in this window, "ID:BAR"
    std::string directory;                   // in files with the devices' names
    archive_names from;                      // in archives of machines
    const machine_source *machine = nullptr; // of one of them

    // The same, in a machine of these archives.
    postlog_place in(const machine_source &one) const;

    // "'devaccess postlog WORDS'", with the options that say where the blocks are.
    std::string command(const std::string &words) const;
};

// What a block holds, as far as it can be read.
struct post_findings {
    storage_state state;
    std::string problem; // empty when it holds a good log
    std::optional<post_image> log = {};
    bool is_pod_log = false;
    int error = 0;           // errno, when it cannot be read
    std::string advice = {}; // on what kept it from being read
};

class post_block
{
public:
    post_block(const postlog_place &place, size_t which);

    const char *name() const;
    const postlog_place &place() const { return place_; }
    const char *storage() const; // "device", "controller" or "file"
    std::string path() const;

    // A device that another program has open is waited for, up to a second. The failure has the
    // exit status of the state.
    std::string expect_bytes() const;
    post_findings judge(const std::string &bytes) const;
    post_findings look() const;
    // Fails when there is no log.
    post_findings expect_log() const;

    // What can be done about it; and, for those who do not know yet, where to learn what is wrong.
    std::string remedy(const post_findings &found) const;
    std::string way_out(const post_findings &found) const;

private:
    std::string bytes() const;
    std::string device_bytes() const;
    std::string controller_bytes() const;

    postlog_place place_;
    size_t which_;
};

inline const std::vector<std::string> post_block_names = {"event", "test", "error"};

// All blocks, or the one of this name.
std::vector<post_block> open_blocks(const postlog_place &place, const std::string &name = "");

// What a saved block holds, by whichever number of histories more of it is good.
post_image saved_post_image(const std::string &bytes);

} // namespace devaccess
