#include "explore/tool.h"

#include "tools/podlog/image.h"

#include <algorithm>
#include <cstring>

namespace explore
{
namespace
{

using devaccess::log_image;
using devaccess::log_record;

log_image image_of(const layout &where, const std::string &bytes)
{
    devaccess::log_layout shape = where.storage == kind::nvram  ? devaccess::nvram_layout
                                  : where.storage == kind::file ? devaccess::file_layout
                                                                : devaccess::eeprom_layout;
    shape.size = where.size();
    shape.histories = static_cast<int>(where.histories);
    shape.stride = where.history_size();
    return {shape, bytes};
}

// Every entry with a right checksum and the right size, at any position.
std::vector<std::string> searched(const std::string &bytes)
{
    std::vector<std::string> found;
    for (size_t at = 0; at + 80 <= bytes.size(); ++at) {
        std::string header = bytes.substr(at, 16);
        uint32_t stored, size;
        std::memcpy(&stored, &header[8], sizeof stored);
        std::memcpy(&size, &header[12], sizeof size);
        std::fill_n(header.begin() + 8, 4, '\0');
        if (size == 64 && chassis_sim::cksum(header) == stored)
            found.push_back(bytes.substr(at, 80));
    }
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<std::string> bytes_of(const log_image &log, const std::vector<log_record> &entries)
{
    std::vector<std::string> found;
    for (const log_record &one : entries)
        found.push_back(log.bytes().substr(one.position, 80));
    std::sort(found.begin(), found.end());
    return found;
}

std::vector<log_record> salvaged(const log_image &log)
{
    std::vector<log_record> all = log.good_entries();
    const std::vector<log_record> strays = log.strays();
    all.insert(all.end(), strays.begin(), strays.end());
    return all;
}

// As storage::found() says it.
std::string shown(const log_image &log)
{
    std::string text;
    for (const devaccess::log_history *history : log.written()) {
        text.append(std::to_string(history->number)).append(":");
        for (const log_record &one : log.chain(*history))
            text.append(text.back() == ':' ? " " : "|").append(log.entry(one).message.c_str());
        text += ", ";
    }
    return text;
}

// In a full history the last entry is torn, which the header does not count.
bool has_torn_last(const layout &where, const std::string &image, const contents &log)
{
    const uint32_t last = where.entries - 1;
    for (uint32_t i = 0; i < where.histories; ++i) {
        const history &one = log.histories[i];
        const std::string header = image.substr(where.entry_at(i, last), 16);
        if (one.good && one.used == last && !one.entries[last].good &&
            header.find_first_not_of('\0') != header.npos)
            return true;
    }
    return false;
}

} // namespace

int repair(storage &log)
{
    const log_image image = image_of(log.where, log.image);
    if (image.is_good() || !image.holds_log())
        return 0;
    log.write(image.repaired());
    return 1;
}

int prepare(storage &log)
{
    const log_image image = image_of(log.where, log.image);
    return !image.is_good() && !image.holds_log() ? log.reset() : 0;
}

std::string objection_to_check(const layout &where, const std::string &image, const contents &log,
                               const std::string &found, bool is_cut)
{
    const log_image seen = image_of(where, image);
    if (bytes_of(seen, salvaged(seen)) != searched(image))
        return "salvage does not find what a full search finds";
    if (seen.is_good() && shown(seen) != found)
        return "check calls it good, and show \"" + shown(seen) + "\" is not \"" + found + "\"";
    if (seen.is_good() && has_torn_last(where, image, log))
        return "check does not name the torn last entry of a full history";
    if (!is_cut && !seen.is_good() && !seen.is_blank())
        return "check calls it damaged: " + seen.wrong().front().name();
    if (seen.index().state == devaccess::record_state::good && log.index != index_state::good)
        return "add takes an index that is not the configured one";
    return "";
}

std::string objection_to_repair(const layout &where, const std::string &before,
                                const std::string &after)
{
    const log_image repaired = image_of(where, after);
    if (before == after)
        return "";
    if (!repaired.is_good())
        return "leaves bad records, first the " + repaired.wrong().front().name();
    const auto kept = bytes_of(repaired, repaired.good_entries());
    const auto all = searched(before);
    if (!std::includes(all.begin(), all.end(), kept.begin(), kept.end()))
        return "makes entries up";
    const size_t room = size_t{where.histories} * where.entries;
    if (kept.size() < std::min(all.size(), room))
        return "keeps " + std::to_string(kept.size()) + " entries of " + std::to_string(all.size());
    return "";
}

std::string objection_to_prepare(const layout &where, const std::string &before,
                                 const std::string &after)
{
    if (before == after)
        return "";
    if (!searched(before).empty())
        return "loses entries";
    return image_of(where, after).is_good() ? "" : "leaves bad records";
}

} // namespace explore
