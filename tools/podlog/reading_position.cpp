// Remembers in a file which entries have been printed.
#include "tools/podlog/reading_position.h"

#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/output.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <filesystem>
#include <sstream>

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

constexpr size_t most_bytes = 256 << 20; // far more than thousands of machines need
constexpr char first_line[] = "devaccess podlog position 1";

// FNV-1a: a hash that is the same on every machine. It need not withstand who writes entries; they
// could leave out what they want to hide.
uint64_t sum_of(time_t time, const std::string &message)
{
    uint64_t sum = 0xcbf29ce484222325;
    for (const char c : fmt::format("{} {}", time, message)) {
        sum ^= static_cast<unsigned char>(c);
        sum *= 0x100000001b3;
    }
    return sum;
}

// A line "SUM COUNT LOG"; false when it is none.
bool parse_line(const std::string &line, uint64_t &sum, unsigned &count, std::string &log)
{
    const char *const last = line.data() + line.size();
    const auto [end, error] = std::from_chars(line.data(), last, sum, 16);
    if (error != std::errc() || end == last || *end != ' ')
        return false;
    const auto [rest, other_error] = std::from_chars(end + 1, last, count);
    if (other_error != std::errc() || rest == last || *rest != ' ')
        return false;
    log.assign(rest + 1, last);
    return !log.empty();
}

// A new name outlasts a crash only once its directory is on the disk.
void sync_directory(const std::string &file)
{
    const std::string directory = std::filesystem::absolute(file).parent_path();
    const int descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool is_done = descriptor >= 0 && ::fsync(descriptor) == 0;
    const int error = errno;
    if (descriptor >= 0)
        ::close(descriptor);
    if (!is_done)
        throw failure("write " + file, std::strerror(error), "its entries will be printed again",
                      error);
}

} // namespace

reading_position::reading_position(std::string file) : file_(std::move(file))
{
    if (file_ == standard_stream)
        throw usage_error("--since-last remembers in a file, which '-' is not");
    const auto text = file_.empty() ? std::nullopt : read_file(file_, most_bytes);
    if (!text)
        return;
    expect_regular(file_);
    std::istringstream lines(*text);
    std::string line;
    bool is_position = true;
    if (std::getline(lines, line))
        is_position = line == first_line;
    while (is_position && std::getline(lines, line)) {
        uint64_t sum = 0;
        unsigned count = 0;
        std::string log;
        is_position = parse_line(line, sum, count, log);
        before_[log][sum] = count;
    }
    if (!is_position)
        throw failure("read " + file_, "--since-last has not written it",
                      "name another file, which need not exist yet");
}

reading_position::taken_entry reading_position::take(const std::string &log, time_t time,
                                                     const std::string &message)
{
    const uint64_t sum = sum_of(time, message);
    const unsigned number = ++now_[log][sum];
    const counts &known = before_[log];
    const auto before = known.find(sum);
    std::string id = fmt::format("{} {:016x} {}", log, sum, number);
    std::replace(id.begin(), id.end(), ' ', '-');
    return {before == known.end() || number > before->second, id};
}

void reading_position::begin_machine()
{
    if (file_.empty())
        *this = reading_position("");
}

void reading_position::forget_what_is_gone(const std::string &log)
{
    whole_.insert(log);
}

void reading_position::save() const
{
    if (file_.empty())
        return;
    settle_output();
    std::map<std::string, counts> known = before_;
    for (const std::string &log : whole_)
        known.erase(log);
    for (const auto &[log, entries] : now_)
        for (const auto &[sum, count] : entries)
            known[log][sum] = std::max(known[log][sum], count);
    std::string text = first_line;
    text += '\n';
    for (const auto &[log, entries] : known)
        for (const auto &[sum, count] : entries)
            text += fmt::format("{:016x} {} {}\n", sum, count, log);
    write_file(file_, text, false);
    sync_directory(file_);
}

} // namespace devaccess
