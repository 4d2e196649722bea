#include "explore/reference.h"

#include <algorithm>
#include <cstring>

namespace explore
{
namespace
{

uint32_t word(const std::string &image, uint32_t position)
{
    uint32_t value;
    std::memcpy(&value, image.data() + position, sizeof value);
    return value;
}

bool is_sealed(const std::string &image, uint32_t position, uint32_t size, uint32_t checksum)
{
    return chassis_sim::cksum({image.data() + position, size}) == checksum;
}

entry decoded_entry(const std::string &image, uint32_t position)
{
    entry one;
    std::string header = image.substr(position, 16);
    std::fill_n(header.begin() + 8, 4, '\0');
    one.good = is_sealed(header, 0, 16, word(image, position + 8));
    std::copy_n(image.begin() + position + 16, one.text.size(), one.text.begin());
    return one;
}

index_state decoded_index(const layout &where, const std::string &image)
{
    const bool is_log = word(image, 32) == where.magic();
    if (where.is_nvram() && !is_sealed(image, 32, 12, word(image, 44)))
        return is_log ? index_state::damaged : index_state::blank;
    if (!is_log)
        return index_state::blank;
    return word(image, 40) == where.history_size() ? index_state::good : index_state::misplaced;
}

message padded(const char *text, message old)
{
    std::copy_n(text, std::strlen(text) + 1, old.begin());
    return old;
}

// Entry headers are cleared every 80 bytes, as far as the history reaches.
uint32_t cleared_entries(const layout &where)
{
    return 1 + (where.history_size() - 20 - 16) / 80;
}

} // namespace

contents decoded(const layout &where, const std::string &image)
{
    contents log;
    log.index = decoded_index(where, image);
    log.current = log.index == index_state::good ? word(image, 36) : 0;
    for (uint32_t i = 0; i < where.histories; ++i) {
        history &one = log.histories[i];
        const uint32_t header = where.header_at(i);
        one.good = is_sealed(image, header + 4, 16, word(image, header));
        one.used = one.good ? word(image, header + 8) / 80 : 0;
        for (uint32_t k = 0; k < where.entries; ++k)
            one.entries[k] = decoded_entry(image, where.entry_at(i, k));
    }
    return log;
}

bool opens(const layout &where, const contents &log)
{
    return (log.index == index_state::good || log.index == index_state::misplaced) &&
           (!where.is_nvram() ||
            std::all_of(log.histories.begin(), log.histories.begin() + where.histories,
                        [](const history &one) { return one.good; }));
}

std::string found(const layout &where, const contents &log)
{
    if (!opens(where, log) || log.current >= where.histories)
        return "!";
    std::string text;
    for (uint32_t i = 0; i < where.histories && log.histories[log.current].good; ++i) {
        const uint32_t number = (log.current + where.histories - i) % where.histories;
        const history &one = log.histories[number];
        if (one.used == 0 || !one.entries[0].good)
            continue;
        text.append(std::to_string(number)).append(":");
        for (uint32_t k = 0; k < where.entries && one.entries[k].good; ++k)
            text.append(k == 0 ? " " : "|").append(one.entries[k].text.data());
        text += ", ";
    }
    return text;
}

bool may_leave(const contents &before, const change &cut, const contents &left)
{
    if (left == before || left == cut.after)
        return true;
    contents allowed = before;
    if (cut.what == change::index) {
        allowed.index = left.index;
        allowed.current = left.current;
        return left == allowed &&
               (left.index != index_state::good || before.index == index_state::misplaced);
    }
    for (size_t i = 0; i < most_histories; ++i) {
        history &one = allowed.histories[i];
        const history &seen = left.histories[i];
        if (cut.what == change::header && one != seen) {
            one.good = false;
            one.used = 0;
        }
        for (size_t k = 0; k < most_entries; ++k) {
            const entry &after = cut.after.histories[i].entries[k];
            entry &old = one.entries[k];
            if (old == after)
                continue;
            old.good = seen.entries[k].good && (old.good || after.good);
            for (size_t byte = 0; byte < old.text.size(); ++byte)
                if (seen.entries[k].text[byte] == after.text[byte])
                    old.text[byte] = after.text[byte];
        }
    }
    return left == allowed;
}

namespace
{

// Clears a history's entries and gives it a fresh header.
void empty(const layout &where, uint32_t number, prediction &so_far)
{
    contents log = so_far.changes.back().after;
    history &one = log.histories[number];
    for (uint32_t k = 0; k < cleared_entries(where); ++k) {
        if (k < where.entries)
            one.entries[k].good = false;
        so_far.changes.push_back({change::entry, where.entry_at(number, k), log});
    }
    one.good = true;
    one.used = 0;
    so_far.changes.push_back({change::header, where.header_at(number), log});
}

// Where the next entry goes, and the header that then counts it if one more has room.
predicted of_add(const layout &where, const contents &log, const char *text, bool at_once)
{
    if (log.index == index_state::misplaced)
        return {};
    if (!opens(where, log) || !log.histories[log.current].good)
        return prediction();
    contents next = log;
    history &one = next.histories[log.current];
    const uint32_t number = one.used;
    entry &fresh = one.entries[number];
    const uint32_t position = where.entry_at(log.current, number);
    prediction all;
    fresh.good = true;
    if (!at_once)
        all.changes.push_back({change::entry, position, next});
    fresh.text = padded(text, at_once ? message() : fresh.text);
    all.changes.push_back({change::entry, position + (at_once ? 0 : 16), next});
    all.result = number + 1 < where.entries;
    one.used += static_cast<uint32_t>(all.result);
    all.changes.push_back({change::header, where.header_at(log.current), next});
    return all;
}

} // namespace

predicted of_init(const layout &where, const contents &log)
{
    if (log.index == index_state::blank)
        return of_reset(where, log);
    return prediction{opens(where, log) ? 1 : -1};
}

predicted of_add_a(const layout &where, const contents &log)
{
    return of_add(where, log, "a", false);
}

predicted of_add_b(const layout &where, const contents &log)
{
    return of_add(where, log, "b", false);
}

predicted of_add_raw_b(const layout &where, const contents &log)
{
    return of_add(where, log, "b", true);
}

predicted of_next(const layout &where, const contents &log)
{
    if (log.index == index_state::misplaced)
        return {};
    if (!opens(where, log))
        return prediction();
    contents next = log;
    next.current = log.current + 1 < where.histories ? log.current + 1 : 0;
    prediction all = {1, {{change::index, 32, next}}};
    empty(where, next.current, all);
    return all;
}

predicted of_set_status(const layout &where, const contents &log)
{
    if (!opens(where, log))
        return prediction();
    return prediction{1, {{change::nothing, where.storage == kind::file ? 0u : 32u, log}}};
}

predicted of_reset(const layout &where, const contents &log)
{
    contents fresh = log;
    fresh.index = index_state::good;
    fresh.current = 0;
    prediction all = {1, {{change::index, 32, fresh}}};
    const uint32_t region = where.log_end() - where.header_at(0) + 100;
    if (where.is_nvram()) // the status words and the fault mask
        for (const uint32_t from_end : {72u, 40u})
            all.changes.push_back({change::nothing, region - from_end, fresh});
    for (uint32_t i = 0; i < where.histories; ++i)
        empty(where, i, all);
    return all;
}

} // namespace explore
