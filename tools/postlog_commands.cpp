#include "command.h"
#include "library.h"
#include "output.h"
#include "pci_device.h"

#include <device_access/post_log_nvram.h>
#include <device_access/post_log_nvram_pcie_access.h>

#include <cstring>
#include <optional>

#include <unistd.h>

namespace devaccess
{
namespace
{

struct postlog_arguments {
    std::string block;
    std::string history;
    std::string pcie;
    std::string directory;
};

constexpr struct {
    const char *name;
    log_type_t block;
} blocks[] = {{"event", OFWEVENT_LOG}, {"test", OFWDIAG_TEST_LOG}, {"error", OFWDIAG_ERROR_LOG}};

//--- access ---------------------------------------------------------------------------------------

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

// A block that is opened for each use, or, behind a controller, never closed: once closed it could
// not be opened again.
class post_block
{
public:
    post_block(const char *name, log_type_t block, bool closes)
        : name_(name), block_(block), closes_(closes)
    {
    }

    const char *name() const { return name_; }

    struct history {
        int number;
        time_t time;
    };

    std::vector<history> histories() const
    {
        std::vector<history> found;
        const std::string what = std::string("read the POST ") + name_ + " log";
        auto reply = ask_log([&] { return postlog_nvram_open_dir(block_); });
        if (reply.result == -1)
            fail(what, reply, hint());
        while (reply.result >= 0) {
            history next = {reply.result, 0};
            reply =
                ask_log([&] { return postlog_nvram_read_dir(block_, next.number, &next.time); });
            if (reply.result == -1)
                fail(what, reply, hint());
            found.push_back(next);
        }
        close();
        return found;
    }

    // Hands each entry to use, in order.
    template <typename Use>
    void read(int number, Use use) const
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

private:
    const char *hint() const
    {
        return closes_
                   ? "where the logs are not device files, --pcie ID:BAR or --post-dir reads them"
                   : "is it the window of an NVRAM controller?";
    }

    void close() const
    {
        if (!closes_)
            return;
        ask([this] { return postlog_nvram_close_dir(block_); });
    }

    const char *name_;
    log_type_t block_;
    bool closes_;
};

std::vector<post_block> open_blocks(const postlog_arguments &arguments)
{
    if (!arguments.pcie.empty())
        map_controller(arguments.pcie);
    else if (!arguments.directory.empty())
        map_directory(arguments.directory);
    else
        postlog_map_def_nvram_access();
    std::vector<post_block> wanted;
    for (const auto &known : blocks)
        if (arguments.block.empty() || arguments.block == known.name)
            wanted.emplace_back(known.name, known.block, arguments.pcie.empty());
    return wanted;
}

//--- commands -------------------------------------------------------------------------------------

void list(const postlog_arguments &arguments)
{
    record_set set = {"histories", {}};
    std::optional<failure> first;
    for (const post_block &block : open_blocks(arguments)) {
        try {
            for (const post_block::history &history : block.histories())
                set.rows.push_back(record()
                                       .add("block", block.name())
                                       .add("history", history.number)
                                       .add_time("time", history.time));
        } catch (const failure &failed) {
            first = first ? first : failed;
        }
    }
    print(record()
              .add_hidden("block", arguments.block.empty() ? json() : json(arguments.block))
              .add(std::move(set)));
    if (first)
        throw *first;
}

std::optional<int> wanted_history(const postlog_arguments &arguments, const post_block &block)
{
    if (!arguments.history.empty())
        return static_cast<int>(parse_number("the history", arguments.history, INT32_MAX));
    const std::vector<post_block::history> histories = block.histories();
    return histories.empty() ? std::nullopt : std::optional(histories.front().number);
}

void show(const postlog_arguments &arguments)
{
    const post_block block = open_blocks(arguments).front();
    const std::optional<int> history = wanted_history(arguments, block);
    record_set entries = {"entries", {}};
    std::optional<failure> broken;
    try {
        if (history)
            block.read(*history, [&](time_t time, const std::string &message) {
                entries.rows.push_back(
                    record().add_time("time", time).add("message", printable(message)));
            });
    } catch (const failure &failed) {
        if (entries.rows.empty())
            throw;
        broken = failed;
    }
    print(record()
              .add("block", block.name())
              .add("history", if_any(history))
              .add(std::move(entries)));
    if (broken)
        throw *broken;
}

} // namespace

void add_postlog_commands(CLI::App &program)
{
    command_family<postlog_arguments> postlog(program, "postlog", "POST logs of the firmware");
    const auto &arguments = postlog.arguments;
    const auto add = [&](const char *name, const char *description,
                         command_family<postlog_arguments>::action act) {
        CLI::App *command = postlog.add(name, description, act);
        one_of(command->add_option("BLOCK", arguments->block, "event, test or error"),
               {"event", "test", "error"});
        return command;
    };
    const auto add_places = [&](CLI::App &app) {
        CLI::Option *pcie = app.add_option("--pcie", arguments->pcie,
                                           "read through the NVRAM controller in this window");
        offer_paths(app.add_option("--post-dir", arguments->directory,
                                   "read files of this with the blocks' bytes"))
            ->option_text("DIRECTORY")
            ->excludes(pcie->option_text("ID:BAR"));
    };
    CLI::App *listed = add("list", "List the logs' histories, newest first", list);
    CLI::App *shown = add("show", "Show the entries of a history", show);
    shown->get_option("BLOCK")->required();
    shown->add_option("HISTORY", arguments->history, "its number; without it, the newest");
    for (CLI::App *app : {&postlog.app, listed, shown})
        add_places(*app);
}

} // namespace devaccess
