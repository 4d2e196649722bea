// Reads the POST logs through the library.
#include "tools/postlog/reader.h"

#include "tools/base/captured_call.h"
#include "tools/base/errors.h"
#include "tools/base/numbers.h"
#include "tools/base/output.h"
#include "tools/pci/device.h"

#include <device_access/post_log_nvram_pcie_access.h>

#include <cstring>

#include <fmt/format.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

constexpr log_type_t numbers[] = {OFWEVENT_LOG, OFWDIAG_TEST_LOG, OFWDIAG_ERROR_LOG};

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
        throw failure(what, "it is no memory", "'devaccess pci show' shows a function's resources");
    postlog_map_pcie_nvram_access(windows[bar]);
}

// Files with the blocks' bytes instead of the devices. The block table has no room for long paths,
// so they are looked for from within the directory; without names, none leads to a device.
void map_directory(const std::string &directory)
{
    static postlog::nvram_dev_info_t table[] = {
        {"nvlog-ofw-event", "", 0, 8192, 1, 128, 0xFFFFFFE0, 0, -1, 0},
        {"nvlog-diag-test", "", 0, 16384, 10, 32, 0xFFFFFFE0, 0, -1, 0},
        {"nvlog-diag-error", "", 0, 32768, 10, 128, 0xFFFFFFE0, 0, -1, 0},
    };
    if (::chdir(directory.c_str()) != 0)
        throw failure("enter " + directory, std::strerror(errno), "it must be a directory", errno);
    postlog_map_nvram_access(table, postlog_dev_file_nvram_init, post_dev_file_nvram_mem_rd,
                             postlog_dev_file_nvram_close, postlog_dev_rd_log_index,
                             postlog_dev_rd_log_header, postlog_dev_rd_log,
                             postlog_dev_validate_log_header, postlog_dev_validate_log_entry);
}

} // namespace

std::string postlog_place::list_command() const
{
    return fmt::format("'devaccess postlog list{}{}'", pcie.empty() ? "" : " --pcie " + pcie,
                       directory.empty() ? "" : " --post-dir " + directory);
}

std::vector<post_block> open_blocks(const postlog_place &place, const std::string &name)
{
    if (!place.pcie.empty())
        map_controller(place.pcie);
    else if (!place.directory.empty())
        map_directory(place.directory);
    else
        postlog_map_def_nvram_access();
    std::vector<post_block> wanted;
    for (size_t i = 0; i < post_block_names.size(); ++i)
        if (name.empty() || name == post_block_names[i])
            wanted.emplace_back(post_block_names[i].c_str(), numbers[i], place.pcie.empty());
    return wanted;
}

std::vector<post_block::history> post_block::histories() const
{
    std::vector<history> found;
    const std::string what = std::string("read the POST ") + name_ + " log";
    auto reply = ask_log([&] { return postlog_nvram_open_dir(block_); });
    if (reply.result == -1)
        fail(what, reply, hint());
    while (reply.result >= 0) {
        history next = {reply.result, 0};
        reply = ask_log([&] { return postlog_nvram_read_dir(block_, next.number, &next.time); });
        if (reply.result == -1)
            fail(what, reply, hint());
        found.push_back(next);
    }
    close();
    return found;
}

void post_block::read(int number, const user &use) const
{
    const std::string what =
        "read history " + std::to_string(number) + " of the POST " + name_ + " log";
    auto reply = ask_log([&] { return postlog_nvram_open_log(block_, number); });
    if (reply.result < 0)
        throw failure(what, reply.said.empty() ? "it holds no good entry" : reply.why(),
                      "'devaccess postlog list' shows the histories");
    while (reply.result >= 0) {
        char message[4096] = "";
        time_t time = 0;
        const int position = reply.result;
        reply = ask_log([&] {
            return postlog_nvram_read_log(block_, position, &time, message, sizeof message);
        });
        if (reply.result == -1)
            fail(what, reply, "what is shown is good");
        use(time, std::string(message, sizeof message));
    }
    close();
}

const char *post_block::hint() const
{
    return closes_ ? "where the logs are not device files, --pcie ID:BAR or --post-dir reads them"
                   : "is it the window of an NVRAM controller?";
}

void post_block::close() const
{
    if (!closes_)
        return;
    ask([this] { return postlog_nvram_close_dir(block_); });
}

} // namespace devaccess
