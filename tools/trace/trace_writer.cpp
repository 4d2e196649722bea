// Folds equal reads, and writes each format.
#include "tools/trace/trace_writer.h"

#include "tools/base/errors.h"
#include "tools/base/output.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iterator>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

bool is_access(trace_action what)
{
    return what == trace_action::read || what == trace_action::write;
}

bool is_repeated(const traced_access &done, const trace_event &next)
{
    return next.what == trace_action::read && done.what == trace_action::read &&
           done.window == next.window && done.thread == next.thread && done.offset == next.offset &&
           done.width == next.width && done.value == next.value;
}

uint64_t shown_count(const trace_event &event)
{
    return event.what == trace_action::control ? static_cast<uint32_t>(event.value) : event.value;
}

bool has_value(const trace_event &event)
{
    return event.what == trace_action::map || event.what == trace_action::control ||
           (event.what == trace_action::interrupt && event.value != ~uint64_t{0});
}

std::string quoted(const std::string &text)
{
    std::string made(1, '"');
    for (const char byte : printable(text)) { // no control characters are left
        if (byte == '"' || byte == '\\')
            made += '\\';
        made += byte;
    }
    made += '"';
    return made;
}

std::string json_fields(const traced_access &done)
{
    if (!done.is || done.is->fields.empty())
        return "{}";
    std::string text;
    for (const auto &field :
         register_map::fields_of(*done.is, static_cast<uint32_t>(done.offset - done.window->base),
                                 8 * done.width, done.value))
        fmt::format_to(std::back_inserter(text), "{}{}: {}", text.empty() ? "{" : ", ",
                       quoted(field.is->name),
                       field.word ? quoted(*field.word) : std::to_string(field.value));
    text += text.empty() ? "{}" : "}";
    return text;
}

std::string json_map(const traced_window &window)
{
    if (window.map == configuration_space)
        return "\"config\"";
    return window.map == no_map ? "null" : std::to_string(window.map);
}

std::string json_device(const traced_window &window)
{
    return window.device.empty() ? "null" : quoted(window.device);
}

// "0.004512 s" in the unit that suits it.
std::string duration(double seconds)
{
    if (seconds < 1e-3)
        return fmt::format("{:.1f} us", seconds * 1e6);
    return seconds < 1 ? fmt::format("{:.1f} ms", seconds * 1e3) : fmt::format("{:.2f} s", seconds);
}

// "1,204"
std::string with_commas(uint64_t number)
{
    const std::string digits = std::to_string(number);
    std::string text;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i != 0 && (digits.size() - i) % 3 == 0)
            text += ',';
        text += digits[i];
    }
    return text;
}

template <typename... Arguments>
void append(std::string &to, fmt::format_string<Arguments...> format, Arguments &&...arguments)
{
    fmt::format_to(std::back_inserter(to), format, std::forward<Arguments>(arguments)...);
}

class text_writer : public trace_writer
{
public:
    using trace_writer::trace_writer;

private:
    void begin_line(const trace_event &event)
    {
        const uint64_t microseconds = since_start(event.time) / 1000;
        append(out(), "{:5}.{:06} {:7} {:12} ", microseconds / 1'000'000, microseconds % 1'000'000,
               event.thread, event.window->text());
    }

    void access(const traced_access &done) override
    {
        begin_line(done);
        append(out(), "{:7} ", fmt::format("{}{}", name_of(done.what), 8 * done.width));
        if (done.is && !done.is->name.empty())
            append(out(), "{} {:#x}", done.is->name, done.value);
        else
            append(out(), "{:#06x} {:#x}", done.offset, done.value);
        if (const std::string fields = fields_text(done); !fields.empty())
            append(out(), "  {}", fields);
        if (done.count > 1)
            append(out(), "  x {} in {}", with_commas(done.count), duration(done.seconds()));
        out() += '\n';
    }

    void other(const trace_event &event) override
    {
        begin_line(event);
        out() += name_of(event.what);
        if (has_value(event))
            append(out(), " {}{}", shown_count(event),
                   event.what == trace_action::map ? " bytes" : "");
        if (event.what == trace_action::interrupt && event.offset != 0)
            append(out(), ", after {}", duration(static_cast<double>(event.offset) / 1e9));
        out() += '\n';
    }
};

class jsonl_writer : public trace_writer
{
public:
    using trace_writer::trace_writer;

private:
    void begin_line(const trace_event &event)
    {
        constexpr uint64_t second = 1'000'000'000;
        const uint64_t time = since_start(event.time);
        append(out(), "{{\"time\": {}.{:09}, \"thread\": {}, \"device\": {}, \"map\": {}, ",
               time / second, time % second, event.thread, json_device(*event.window),
               json_map(*event.window));
    }

    void access(const traced_access &done) override
    {
        begin_line(done);
        const bool is_named = done.is && !done.is->name.empty();
        append(out(),
               "\"offset\": {}, \"name\": {}, \"width\": {}, \"access\": \"{}\", \"value\": {}, "
               "\"fields\": {}",
               done.offset, is_named ? quoted(done.is->name) : "null", 8 * done.width,
               name_of(done.what), done.value, json_fields(done));
        if (done.count > 1)
            append(out(), ", \"count\": {}", done.count);
        out() += "}\n";
    }

    void other(const trace_event &event) override
    {
        begin_line(event);
        append(out(), "\"event\": \"{}\", \"value\": {}}}\n", name_of(event.what),
               has_value(event) ? std::to_string(shown_count(event)) : "null");
    }
};

// The array form, which such a page opens also when its end is missing.
class chrome_writer : public trace_writer
{
public:
    chrome_writer(std::FILE *to, uint64_t start) : trace_writer(to, start) { out() += '['; }

private:
    void end() override { out() += "\n]\n"; }

    // Times are in microseconds; what has a length is drawn as a bar.
    void begin_element(std::string_view name, const trace_event &event, uint64_t from, uint64_t to)
    {
        append(out(),
               "{}\n{{\"name\": {}, \"cat\": {}, \"ph\": \"X\", \"ts\": {}.{:03}, "
               "\"dur\": {}.{:03}, \"pid\": 1, \"tid\": {}, \"args\": ",
               is_first_ ? "" : ",", quoted(fmt::format("{} {}", name_of(event.what), name)),
               quoted(event.window->text()), since_start(from) / 1000, since_start(from) % 1000,
               (to - from) / 1000, (to - from) % 1000, event.thread);
        is_first_ = false;
    }

    void access(const traced_access &done) override
    {
        const bool is_named = done.is && !done.is->name.empty();
        begin_element(is_named ? done.is->name : hex(done.offset), done, done.time, done.last);
        append(out(),
               "{{\"device\": {}, \"offset\": \"{:#x}\", \"width\": {}, \"value\": \"{:#x}\", "
               "\"count\": {}, \"fields\": {}}}}}",
               quoted(done.window->text()), done.offset, 8 * done.width, done.value, done.count,
               json_fields(done));
    }

    void other(const trace_event &event) override
    {
        const uint64_t length = event.what == trace_action::interrupt ? event.offset : 0;
        begin_element(event.window->text(), event, event.time - length, event.time);
        if (has_value(event))
            append(out(), "{{\"value\": {}}}}}", shown_count(event));
        else
            out() += "{}}";
    }

    bool is_first_ = true;
};

} // namespace

uint64_t trace_time()
{
    timespec time;
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
}

const char *name_of(trace_action what)
{
    constexpr const char *names[] = {"read", "write", "open",      "close",
                                     "map",  "unmap", "interrupt", "control"};
    return names[static_cast<size_t>(what)];
}

std::string fields_text(const traced_access &done)
{
    std::string text;
    if (done.is)
        for (const auto &field : register_map::fields_of(
                 *done.is, static_cast<uint32_t>(done.offset - done.window->base), 8 * done.width,
                 done.value))
            fmt::format_to(std::back_inserter(text), "{}{}={}", text.empty() ? "" : " ",
                           field.is->name, field.word ? *field.word : std::to_string(field.value));
    return text;
}

void trace_writer::take(const trace_event &event)
{
    constexpr size_t enough = 1 << 16;
    if (out_.size() > enough)
        write_out();
    traced_window &window = *event.window;
    if (!is_access(event.what)) {
        let_out(window.device);
        window.is_mapped |= event.what == trace_action::map;
        other(event);
        return;
    }
    ++window.accesses;
    const auto pending = pending_.find(window.device);
    if (pending != pending_.end() && is_repeated(pending->second, event)) {
        ++pending->second.count;
        pending->second.last = event.time;
        return;
    }
    traced_access next = {event};
    next.last = event.time;
    next.is = window.register_at(event.offset, event.width, event.what == trace_action::write);
    if (pending == pending_.end()) {
        pending_.emplace(window.device, next);
    } else {
        access(pending->second);
        pending->second = next;
    }
}

void trace_writer::let_out(const std::string &device)
{
    const auto pending = pending_.find(device);
    if (pending == pending_.end())
        return;
    access(pending->second);
    pending_.erase(pending);
}

void trace_writer::let_all_out()
{
    std::vector<traced_access> left;
    for (const auto &[device, pending] : pending_)
        left.push_back(pending);
    pending_.clear();
    std::sort(left.begin(), left.end(),
              [](const traced_access &a, const traced_access &b) { return a.time < b.time; });
    for (const traced_access &pending : left)
        access(pending);
}

void trace_writer::idle(uint64_t now)
{
    constexpr uint64_t patience = 1'000'000'000; // a poll may go on for longer than that
    if (std::all_of(pending_.begin(), pending_.end(),
                    [=](const auto &pending) { return now - pending.second.last > patience; }))
        let_all_out();
    write_out();
    std::fflush(to_);
}

void trace_writer::finish()
{
    let_all_out();
    end();
    write_out();
    if (std::fflush(to_) != 0 || is_lost_)
        throw failure("write the trace", std::strerror(errno), "is there room?", errno);
}

void trace_writer::write_out()
{
    is_lost_ |= std::fwrite(out_.data(), 1, out_.size(), to_) != out_.size();
    out_.clear();
}

std::unique_ptr<trace_writer> make_trace_writer(const std::string &format, std::FILE *to,
                                                uint64_t start)
{
    if (format == "jsonl")
        return std::make_unique<jsonl_writer>(to, start);
    if (format == "chrome")
        return std::make_unique<chrome_writer>(to, start);
    return std::make_unique<text_writer>(to, start);
}

} // namespace devaccess
