// Finds, reads and judges the blocks of POST logs.
#include "tools/postlog/blocks.h"

#include "tools/base/captured_call.h"
#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/numbers.h"
#include "tools/base/output.h"
#include "tools/pci/device.h"

#include <device_access/post_log_nvram_pcie_access.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include <fmt/format.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

constexpr struct {
    log_type_t number;
    const char *name;
    const char *device;
    int histories;
    size_t size; // behind a controller
} kinds[] = {{OFWEVENT_LOG, "event", "nvlog-ofw-event", 1, 8192},
             {OFWDIAG_TEST_LOG, "test", "nvlog-diag-test", 10, 32768},
             {OFWDIAG_ERROR_LOG, "error", "nvlog-diag-error", 10, 32768}};

// The controller's registers end at this offset of its window.
constexpr uint64_t controller_end = 0xF00C;

bool has_controller(const sysfs_pci_identity_t &device, int bar)
{
    for (const pci_resource &resource : pci_resources(device))
        if (resource.bar == bar)
            return resource.size >= controller_end;
    return false;
}

void map_controller(const std::string &place)
{
    const size_t colon = place.rfind(':');
    const sysfs_pci_identity_t device = pci_device(place.substr(0, colon));
    const int bar = static_cast<int>(parse_number("the BAR", place.substr(colon + 1), 5));
    const std::string what = "use the NVRAM controller at " + place;
    if (!has_controller(device, bar))
        throw failure(what, "there is no window of " + hex(controller_end) + " bytes",
                      "'devaccess pci show' shows a function's resources");
    void *windows[6] = {};
    const auto mapped =
        ask([&] { return sysfs_pci_mmap(windows, ~(uint32_t{1} << bar), &device); });
    if (mapped.result != 0)
        fail(what, mapped, "mapping device memory needs special rights");
    if (!windows[bar])
        throw failure(what, "it is not memory",
                      "'devaccess pci show' shows a function's resources");
    postlog_map_pcie_nvram_access(windows[bar]);
}

// Tells a busy block from one that cannot be opened: the library tries a few times, for some
// milliseconds.
int open_device(log_type_t block, const std::string &path)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    for (;;) {
        int descriptor = -1;
        const auto found = ask([&] { return postlog_nvram_open_dev_file(block, &descriptor); });
        if (found.result == 1)
            return descriptor;
        const std::string what = "open " + path;
        if (found.error != EBUSY)
            throw failure(what, found.said.empty() ? std::strerror(ENOENT) : found.why(),
                          "where the logs are not device files, --pcie ID:BAR or --post-dir reads "
                          "them",
                          found.error);
        if (std::chrono::steady_clock::now() > deadline)
            throw failure(what, "another program has it open", "try again when it has finished",
                          EBUSY);
    }
}

// The magic numbers of POD logs stand after 32 bytes.
bool is_pod_log(const std::string &bytes)
{
    const std::string magic = bytes.substr(std::min<size_t>(bytes.size(), 32), 4);
    return magic == "\x65\xc3\xe2\x1f" || magic == "\x63\xc3\xe2\x1f";
}

post_findings judge_post(int histories, const std::string &bytes)
{
    post_findings found = {storage_state::good, "", post_image(histories, bytes)};
    const post_image &log = *found.log;
    const auto wrong = log.wrong();
    if (wrong.empty())
        return found;
    found.state = log.is_blank()        ? storage_state::empty
                  : log.holds_nothing() ? storage_state::foreign
                                        : storage_state::damaged;
    found.is_pod_log = log.holds_nothing() && is_pod_log(bytes);
    found.problem = log.is_blank()     ? "blank"
                    : found.is_pod_log ? "it is a POD log"
                    : log.holds_nothing()
                        ? "it holds no POST log"
                        : fmt::format("{} bad record{}, first the {}: {}", wrong.size(),
                                      wrong.size() == 1 ? "" : "s", wrong.front().name(),
                                      wrong.front().problem);
    return found;
}

} // namespace

std::string postlog_place::command(const std::string &words) const
{
    return fmt::format("'devaccess postlog {}{}{}{}'", words, pcie.empty() ? "" : " --pcie " + pcie,
                       directory.empty() ? "" : " --post-dir " + directory,
                       machine ? machine->option() : "");
}

postlog_place postlog_place::in(const machine_source &one) const
{
    if (!from.empty() && !(pcie + directory).empty())
        throw usage_error("--from goes with neither --pcie nor --post-dir");
    postlog_place place = *this;
    place.machine = one.is_archive() ? &one : nullptr;
    return place;
}

post_image saved_post_image(const std::string &bytes)
{
    post_image one(1, bytes);
    post_image many(10, bytes);
    return one.good_records() > many.good_records() ? one : many;
}

std::vector<post_block> open_blocks(const postlog_place &place, const std::string &name)
{
    if (!place.pcie.empty())
        map_controller(place.pcie);
    else
        postlog_map_def_nvram_access();
    std::vector<post_block> wanted;
    for (size_t i = 0; i < std::size(kinds); ++i)
        if (name.empty() || name == kinds[i].name)
            wanted.emplace_back(place, i);
    return wanted;
}

//--- a block --------------------------------------------------------------------------------------

post_block::post_block(const postlog_place &place, size_t which) : place_(place), which_(which) {}

const char *post_block::name() const
{
    return kinds[which_].name;
}

const char *post_block::storage() const
{
    return !place_.pcie.empty() ? "controller" : !place_.directory.empty() ? "file" : "device";
}

std::string post_block::path() const
{
    if (!place_.pcie.empty())
        return place_.pcie;
    const std::string directory = place_.directory.empty() ? "/dev" : place_.directory;
    return directory + "/" + kinds[which_].device;
}

std::string post_block::device_bytes() const
{
    const int descriptor = open_device(kinds[which_].number, path());
    const opened device([descriptor] { ::close(descriptor); });
    return read_all(descriptor, path());
}

// Never closed: the library could not open it again.
std::string post_block::controller_bytes() const
{
    std::string bytes(kinds[which_].size, '\0');
    auto *const to = reinterpret_cast<uint8_t *>(bytes.data());
    constexpr size_t piece = 4096;
    for (size_t at = 0; at < bytes.size(); at += piece) {
        const auto done = ask([&] {
            return postlog_pcie_nvram_rd(kinds[which_].number, static_cast<uint32_t>(at), to + at,
                                         piece);
        });
        if (done.result == 0)
            throw failure("read through the controller at " + place_.pcie, done.why(),
                          "is it the window of an NVRAM controller?", EIO);
    }
    return bytes;
}

std::string post_block::bytes() const
{
    if (place_.machine) {
        if (const auto found = place_.machine->read(path()))
            return *found;
        throw failure("read " + path(), std::strerror(ENOENT), "the machine had none", ENOENT);
    }
    if (!place_.pcie.empty())
        return controller_bytes();
    if (place_.directory.empty())
        return device_bytes();
    if (const auto found = read_file(path()))
        return *found;
    throw failure("read " + path(), std::strerror(ENOENT),
                  fmt::format("'devaccess postlog save {} {}' on the machine makes it", name(),
                              kinds[which_].device),
                  ENOENT);
}

post_findings post_block::look() const
{
    try {
        return judge(bytes());
    } catch (const failure &failed) {
        post_findings none = {state_of_error(failed.error), failed.what()};
        none.error = failed.error;
        none.advice = failed.hint;
        return none;
    }
}

std::string post_block::expect_bytes() const
{
    try {
        return bytes();
    } catch (failure &failed) {
        failed.status = status_of(state_of_error(failed.error));
        throw;
    }
}

post_findings post_block::judge(const std::string &bytes) const
{
    return judge_post(kinds[which_].histories, bytes);
}

post_findings post_block::expect_log() const
{
    post_findings found = judge(expect_bytes());
    if (found.state == storage_state::good || found.state == storage_state::damaged)
        return found;
    throw failure(fmt::format("read the POST {} log", name()), path() + ": " + found.problem,
                  way_out(found), 0, status_of(found.state));
}

std::string post_block::remedy(const post_findings &found) const
{
    if (!found.log)
        return found.advice;
    if (found.state == storage_state::damaged)
        return place_.command((place_.machine ? "show --all " : "salvage ") + std::string(name())) +
               " shows what can be read";
    if (found.state == storage_state::empty)
        return "the firmware has written no log there";
    if (found.is_pod_log && place_.pcie.empty())
        return "'devaccess podlog salvage --file " + path() + "' shows its entries";
    return place_.pcie.empty() ? "is it the block's device, or a copy of it?"
                               : "is it the window of an NVRAM controller?";
}

std::string post_block::way_out(const post_findings &found) const
{
    const bool has_more = found.state == storage_state::damaged;
    const std::string check = place_.command(std::string("check ") + name()) + " tells more, ";
    return (has_more ? check : "") + remedy(found);
}

} // namespace devaccess
