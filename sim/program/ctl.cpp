// Passes control lines on, and waits for registers.
#include "sim/program/ctl.h"

#include "sim/base/files.h"
#include "sim/devices/control_client.h"
#include "sim/devices/control_verbs.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

namespace chassis_sim
{
namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int cannot_control = 125; // outside a chassis
constexpr uint64_t longest_wait = uint64_t{24} * 60 * 60 * 1000;

uint64_t number(const std::string &text)
{
    char *end = nullptr;
    errno = 0;
    const uint64_t value = std::strtoull(text.c_str(), &end, 0);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0)
        throw failure("'" + text + "' is not a number");
    return value;
}

// wait REGISTER N [MS]
void wait(const std::vector<std::string> &words)
{
    if (words.size() < 3 || words.size() > 4)
        throw failure("wait takes a register, a number and, at most, milliseconds");
    const uint64_t wanted = number(words[2]);
    const uint64_t limit = words.size() == 4 ? number(words[3]) : longest_wait;
    const auto end = steady_clock::now() + milliseconds(std::min(limit, longest_wait));
    for (;;) {
        const std::string value = answer_to("get " + words[1]);
        if (number(value) == wanted)
            return;
        if (steady_clock::now() >= end)
            throw failure(words[1] + " is still " + value);
        std::this_thread::sleep_for(milliseconds(1));
    }
}

void pass_on(const std::vector<std::string> &words)
{
    std::string line;
    for (const std::string &word : words)
        line += (line.empty() ? "" : " ") + word;
    const std::string told = answer_to(line);
    if (!told.empty())
        std::printf("%s\n", told.c_str());
    if (line == "log")
        std::fputs(file_text(access_log).c_str(), stdout);
}

} // namespace

int control_chassis(const std::vector<std::string> &words)
{
    if (!std::filesystem::exists(control_path)) {
        complain("'ctl' works in a chassis only");
        return cannot_control;
    }
    try {
        !words.empty() && words[0] == "wait" ? wait(words) : pass_on(words);
        if (std::fflush(stdout) != 0)
            throw failure("cannot write standard output");
    } catch (const failure &error) {
        complain(error.what());
        return 1;
    }
    return 0;
}

} // namespace chassis_sim
