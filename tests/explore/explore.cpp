// Explores every state of a small POD log: all operations from every image that can be reached,
// each also cut within each of its writes, to the fixpoint. What an operation writes and leaves,
// and what a reader then finds, is compared with the reference.
//
//     explore_log [--histories N] [--entries N] [--cuts N] [--storage nvram|file|eeprom] [--tool
//     no]
#include "explore/reference.h"
#include "explore/storage.h"
#include "explore/tool.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <optional>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <unistd.h>

namespace explore
{
namespace
{

predicted of_tool(const layout &, const contents &)
{
    return {};
}

// What may be done to a log. One that is not the ring's own changes the image by storage::write().
// Of some logs nothing is predicted. What the tool does is judged by what it leaves.
struct operation {
    const char *name;
    int (*run)(storage &log);
    predicted (*predict)(const layout &where, const contents &log);
    std::string (*object)(const layout &where, const std::string &before,
                          const std::string &after) = nullptr;
};
constexpr operation operations[] = {
    {"init", [](storage &log) { return log.init(); }, of_init},
    {"add a", [](storage &log) { return log.add("a"); }, of_add_a},
    {"add b", [](storage &log) { return log.add("b"); }, of_add_b},
    {"next", [](storage &log) { return log.next(); }, of_next},
    {"set status", [](storage &log) { return log.set_status(); }, of_set_status},
    {"reset", [](storage &log) { return log.reset(); }, of_reset},
    {"add raw b", [](storage &log) { return log.add_raw("b"); }, of_add_raw_b},
    {"repair", repair, of_tool, objection_to_repair},
    {"prepare", prepare, of_tool, objection_to_prepare},
};

// Two independent sums over the bytes of an image, which a changed byte changes at once. The bytes
// before the index are no part of it.
struct fingerprint {
    uint64_t one = 0;
    uint64_t two = 0;

    void toggle(size_t position, char byte)
    {
        if (position < 32 || byte == 0)
            return;
        one ^= mixed(position << 8 | static_cast<uint8_t>(byte));
        two ^= mixed(~(position << 8 | static_cast<uint8_t>(byte)));
    }
    bool operator==(const fingerprint &) const = default;

    static uint64_t mixed(uint64_t value)
    {
        value += 0x9E3779B97F4A7C15;
        value = (value ^ value >> 30) * 0xBF58476D1CE4E5B9;
        value = (value ^ value >> 27) * 0x94D049BB133111EB;
        return value ^ value >> 31;
    }
};

struct hash {
    size_t operator()(const fingerprint &of) const { return static_cast<size_t>(of.one); }
};

// An image without its zeros: runs of other bytes, each after its position and its length.
std::string packed(const std::string &image)
{
    std::string text;
    for (size_t at = 32; (at = image.find_first_not_of('\0', at)) != image.npos;) {
        const size_t end = std::min(image.find('\0', at), std::min(image.size(), at + 255));
        text += {static_cast<char>(at), static_cast<char>(at >> 8), static_cast<char>(end - at)};
        text.append(image, at, end - at);
        at = end;
    }
    return text;
}

std::string unpacked(const std::string &text, size_t size)
{
    std::string image(size, '\0');
    for (size_t at = 0; at < text.size();) {
        const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[at + i]); };
        image.replace(byte(0) | static_cast<size_t>(byte(1)) << 8, byte(2), text, at + 3, byte(2));
        at += 3 + byte(2);
    }
    return image;
}

// By what a state was reached: an operation, or a cut within one of its writes.
struct cause {
    const char *operation;
    size_t write = 0;
    const char *cut = nullptr; // what then follows the number
    size_t number = 0;

    std::string text() const
    {
        return operation +
               (cut ? ", write " + std::to_string(write) + cut + std::to_string(number) : "");
    }
};

struct state {
    std::string packed;
    contents log;
    size_t from; // the state that it was first reached from
    cause how;
};

class exploration
{
public:
    // Says on `output` how far it is.
    exploration(const layout &where, int cuts, bool with_tool, FILE *output)
        : where_(where), cuts_(cuts), with_tool_(with_tool), output_(output), storage_(where)
    {
    }

    bool run();

private:
    void report(const char *end) const;
    bool is_possible(size_t id, const operation &one) const;
    int make(size_t id, const operation &one);
    void take(size_t id, const operation &one);
    void cut(size_t id, const operation &one);
    void cut_bytes(size_t id, const cause &how, const change *within, const contents &before,
                   const written &write);
    void cut_words(size_t id, const cause &how, const change *within, const contents &before,
                   const written &write);
    void cut_here(size_t id, const cause &how, const change *within, const contents &before);
    void check_reader(size_t id);
    void check_entered(size_t id);
    void check_made(size_t id, const operation &one, size_t after);
    size_t reach(size_t from, const cause &how);
    void set(size_t position, char byte);
    void set(size_t position, const std::string &bytes);
    void load(size_t id);
    void fail(size_t id, const std::string &what);
    std::string path_to(size_t id) const;

    const layout where_;
    const int cuts_;
    const bool with_tool_; // its operations, too
    FILE *const output_;
    storage storage_;
    std::string image_; // the one looked at
    fingerprint sum_;   // its
    std::deque<state> states_;
    std::unordered_map<fingerprint, size_t, hash> known_;
    uint64_t steps_ = 0;
    bool is_cut_ = false; // any operation before
    std::string failure_;
    const std::chrono::steady_clock::time_point began_ = std::chrono::steady_clock::now();
};

void exploration::report(const char *end) const
{
    static const char *const names[] = {"nvram", "file", "eeprom"};
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began_;
    std::fprintf(output_, "%-6s %u histories of %u entries, at most %d cuts: ",
                 names[static_cast<int>(where_.storage)], where_.histories, where_.entries, cuts_);
    std::fprintf(output_, "%zu states, %ju steps, %.1f s%s", states_.size(), uintmax_t{steps_},
                 took.count(), end);
}

// All that uncut operations reach from the states so far, then what one cut more leaves, and so on.
bool exploration::run()
{
    image_ = storage_.image;
    for (size_t at = 0; at < image_.size(); ++at)
        sum_.toggle(at, image_[at]);
    reach(0, {"a blank storage"});
    size_t first = 0;
    for (int cuts = 0; cuts <= cuts_; ++cuts) {
        const auto from_each = [&](size_t last,
                                   void (exploration::*expand)(size_t, const operation &)) {
            for (size_t id = first; id < std::min(last, states_.size()) && failure_.empty(); ++id) {
                for (const operation &one : operations)
                    if (is_possible(id, one))
                        (this->*expand)(id, one);
                if (id % 10000 == 0 && ::isatty(STDOUT_FILENO))
                    report("\r");
            }
        };
        from_each(SIZE_MAX, &exploration::take);
        const size_t end = states_.size();
        is_cut_ = true;
        if (cuts < cuts_)
            from_each(end, &exploration::cut);
        first = end;
    }
    report("\n");
    std::fputs(failure_.c_str(), output_);
    return failure_.empty();
}

// The state of the image.
size_t exploration::reach(size_t from, const cause &how)
{
    ++steps_;
    const auto [place, is_new] = known_.try_emplace(sum_, states_.size());
    if (is_new) {
        states_.push_back({packed(image_), decoded(where_, image_), from, how});
        check_reader(place->second);
    }
    return place->second;
}

void exploration::check_reader(size_t id)
{
    const contents &log = states_[id].log;
    storage_.image = image_;
    const std::string seen = storage_.found();
    if (log.index != index_state::misplaced && seen != found(where_, log))
        fail(id, "a reader finds \"" + seen + "\" instead of \"" + found(where_, log) + "\"");
    if (seen.size() >= storage::longest_log)
        fail(id, "a reader comes to no end: " + seen);
    if (const auto wrong = objection_to_check(where_, image_, log, seen, is_cut_); !wrong.empty())
        fail(id, wrong);
}

void exploration::set(size_t position, char byte)
{
    sum_.toggle(position, image_[position]);
    image_[position] = byte;
    sum_.toggle(position, byte);
}

void exploration::set(size_t position, const std::string &bytes)
{
    for (size_t k = 0; k < bytes.size(); ++k)
        set(position + k, bytes[k]);
}

void exploration::load(size_t id)
{
    const std::string image = unpacked(states_[id].packed, where_.size());
    for (size_t at = 32; at < image.size(); ++at)
        if (image_[at] != image[at])
            set(at, image[at]);
}

// All but init begin with one, which formats a blank log.
bool exploration::is_possible(size_t id, const operation &one) const
{
    if (one.object)
        return with_tool_;
    if (one.predict == of_add_raw_b && where_.storage != kind::eeprom)
        return false;
    return one.predict == of_init || states_[id].log.index != index_state::blank;
}

int exploration::make(size_t id, const operation &one)
{
    load(id);
    storage_.image = image_;
    storage_.writes.clear();
    return one.run(storage_);
}

// The operation without a cut.
void exploration::take(size_t id, const operation &one)
{
    const int result = make(id, one);
    for (const written &write : storage_.writes)
        set(write.position, write.bytes);
    const size_t after = reach(id, {one.name});
    const std::optional<prediction> expected = one.predict(where_, states_[id].log);
    const std::string what = std::string(one.name) + " ";
    if (expected && result != expected->result)
        fail(id, what + "gives " + std::to_string(result));
    if (expected && storage_.writes.size() != expected->changes.size())
        fail(id, what + "writes " + std::to_string(storage_.writes.size()) + " times");
    for (size_t i = 0; expected && failure_.empty() && i < expected->changes.size(); ++i)
        if (storage_.writes[i].position != expected->changes[i].position)
            fail(id, what + "writes at " + std::to_string(storage_.writes[i].position));
    if (expected &&
        states_[after].log !=
            (expected->changes.empty() ? states_[id].log : expected->changes.back().after))
        fail(id, what + "leaves another log");
    if (one.predict == of_next && result == 1)
        check_entered(after);
    if (one.object && result == 1)
        check_made(id, one, after);
}

// Takes the operation's writes one after another, and stops within each.
void exploration::cut(size_t id, const operation &one)
{
    make(id, one);
    contents before = states_[id].log;
    const std::optional<prediction> expected = one.predict(where_, before);
    const std::vector<written> writes = storage_.writes;
    for (size_t i = 0; i < writes.size(); ++i) {
        const change *const within = expected ? &expected->changes[i] : nullptr;
        if (writes[i].position >= 32) {
            cut_bytes(id, {one.name, i, " after byte "}, within, before, writes[i]);
            cut_words(id, {one.name, i, " with words "}, within, before, writes[i]);
        }
        set(writes[i].position, writes[i].bytes);
        if (within)
            before = within->after;
    }
}

// After each of its bytes.
void exploration::cut_bytes(size_t id, const cause &how, const change *within,
                            const contents &before, const written &write)
{
    const std::string old = image_.substr(write.position, write.bytes.size());
    for (size_t k = 0; k < write.bytes.size(); ++k) {
        cut_here(id, {how.operation, how.write, how.cut, k}, within, before);
        set(write.position + k, write.bytes[k]);
    }
    set(write.position, old);
}

// With every subset of those of its words that change something.
void exploration::cut_words(size_t id, const cause &how, const change *within,
                            const contents &before, const written &write)
{
    const std::string old = image_.substr(write.position, write.bytes.size());
    std::vector<size_t> words;
    for (size_t at = 0; at < old.size(); at += 4)
        if (old.compare(at, 4, write.bytes, at, 4) != 0)
            words.push_back(at);
    for (size_t subset = 1; subset + 1 < size_t{1} << words.size(); ++subset) {
        for (size_t i = 0; i < words.size(); ++i)
            set(write.position + words[i],
                (subset >> i & 1 ? write.bytes : old).substr(words[i], 4));
        cut_here(id, {how.operation, how.write, how.cut, subset}, within, before);
    }
    set(write.position, old);
}

void exploration::cut_here(size_t id, const cause &how, const change *within,
                           const contents &before)
{
    const size_t left = reach(id, how);
    if (within && !may_leave(before, *within, states_[left].log))
        fail(id, how.text() + " leaves what it must not");
}

// A history that has been entered takes an entry, and a reader finds it.
void exploration::check_entered(size_t id)
{
    storage_.image = image_;
    const int added = storage_.add("a");
    const std::string seen = storage_.found();
    const std::string entered = std::to_string(static_cast<int>(image_[36])) + ": a, ";
    if (added == -1 || !seen.starts_with(entered))
        fail(id, "an add is not found in the history that was entered, but " + seen);
}

// What the tool has made loses nothing, and a reader finds what is added to it.
void exploration::check_made(size_t id, const operation &one, size_t after)
{
    const std::string before = unpacked(states_[id].packed, where_.size());
    if (const std::string wrong = one.object(where_, before, image_); !wrong.empty())
        fail(id, std::string(one.name) + " " + wrong);
    storage_.image = image_;
    const int added = storage_.add("c");
    const std::string seen = storage_.found();
    if (added == -1 || !seen.substr(0, seen.find(',')).ends_with("c"))
        fail(after, "an add is not found, but " + seen);
}

std::string exploration::path_to(size_t id) const
{
    return (id == 0 ? "" : path_to(states_[id].from) + "; ") + states_[id].how.text();
}

void exploration::fail(size_t id, const std::string &what)
{
    if (failure_.empty())
        failure_ = path_to(id) + "; then " + what + "\n";
}

} // namespace
} // namespace explore

int main(int argc, char **argv)
{
    using namespace explore;
    layout where = {kind::nvram, 2, 2};
    int cuts = 1;
    bool with_tool = true;
    std::optional<kind> only;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string_view option = argv[i];
        const std::string_view value = argv[i + 1];
        if (option == "--histories")
            where.histories = static_cast<uint32_t>(std::atoi(argv[i + 1]));
        else if (option == "--entries")
            where.entries = static_cast<uint32_t>(std::atoi(argv[i + 1]));
        else if (option == "--cuts")
            cuts = std::atoi(argv[i + 1]);
        else if (option == "--tool")
            with_tool = value != "no";
        else if (option == "--storage")
            only = value == "nvram" ? kind::nvram : value == "file" ? kind::file : kind::eeprom;
    }
    FILE *const output = stdout; // what the library prints goes nowhere
    stdout = stderr = ::fopencookie(nullptr, "w", {});
    for (const kind storage : {kind::nvram, kind::file, kind::eeprom}) {
        if (only && *only != storage)
            continue;
        where.storage = storage;
        exploration all(where, cuts, with_tool, output);
        if (!all.run())
            return 1;
    }
}
