/// @file
/// The firmware's POST logs: how they are reached, histories and entries, raw records, and the PCIe
/// NVRAM controller. post_log_nvram.h and post_log_nvram_pcie_access.h describe the calls behind
/// it.
#ifndef DEVICE_ACCESS_POST_LOG_HPP
#define DEVICE_ACCESS_POST_LOG_HPP

#include <device_access/log_reading.hpp>
#include <device_access/post_log_nvram.h>
#include <device_access/post_log_nvram_pcie_access.h>
#include <device_access/registers.hpp>
#include <device_access/result.hpp>

namespace device_access
{
inline namespace wrapper
{

/// Lets the POST logs be read through the machine's device files. One of these calls comes first.
inline void reach_post_logs_by_device_files() noexcept
{
    postlog_map_def_nvram_access();
}

/// Lets them be read through a PCIe NVRAM controller, whose window must stay mapped as long.
inline void reach_post_logs_by_controller(const window &registers) noexcept
{
    assert(registers.size() >= 0xf00c && "the window of an NVRAM controller is larger");
    postlog_map_pcie_nvram_access(registers.data());
}

/// The three logs.
enum class post_block {
    event = OFWEVENT_LOG,      ///< What the firmware did.
    test = OFWDIAG_TEST_LOG,   ///< Results of its tests.
    error = OFWDIAG_ERROR_LOG, ///< Their errors.
};

/// One of the firmware's logs. Nothing is open until something is asked of it, and what a call
/// opens it closes again.
class post_log
{
public:
    /// The log in a block.
    explicit post_log(post_block block) noexcept : block_(block) {}

    /// Which one it is.
    post_block block() const noexcept { return block_; }

    /// The histories that hold entries, newest first.
    result<log_histories> histories() const { return log_histories::of(*this); }
    /// The entries of a history, oldest first. Fails for a history without entries.
    result<log_entries<post_log>> entries(int history) const
    {
        return log_entries<post_log>::of(*this, history);
    }
    /// Prints all histories on standard output, the current one first.
    result<void> dump() const noexcept
    {
        errno = 0;
        return detail::done(postlog_nvram_dump_all_log_msgs(type()) == 1,
                            "postlog_nvram_dump_all_log_msgs");
    }

    /// Takes the base address, size and mode of the block from sysfs, by its name there.
    result<void> find_properties() const noexcept
    {
        errno = 0;
        return detail::done(postlog_nvram_find_blk_properties(type()) == 1,
                            "postlog_nvram_find_blk_properties");
    }

    /// As postlog_nvram_open_dir() and so on: what log_source asks for.
    int open_dir() const noexcept { return postlog_nvram_open_dir(type()); }
    /// As above.
    int read_dir(int history, time_t *time) const noexcept
    {
        return postlog_nvram_read_dir(type(), history, time);
    }
    /// As above.
    void close_dir() const noexcept { postlog_nvram_close_dir(type()); }
    /// As above.
    int open_log(int history) const noexcept { return postlog_nvram_open_log(type(), history); }
    /// As above.
    int read_log(int position, time_t *time, char *text, uint32_t size) const noexcept
    {
        return postlog_nvram_read_log(type(), position, time, text, size);
    }
    /// As above.
    void close_log(int history) const noexcept { postlog_nvram_close_log(type(), history); }
    /// The name of the call that open_dir() makes.
    static const char *open_dir_name() noexcept { return "postlog_nvram_open_dir"; }
    /// The name of the call that open_log() makes.
    static const char *open_log_name() noexcept { return "postlog_nvram_open_log"; }

    /// The block as the C interface names it.
    log_type_t type() const noexcept { return static_cast<log_type_t>(block_); }

private:
    post_block block_;
};

/// A block of a POST log that is open for its raw bytes and records, while this lives. After
/// close(), or when it has been moved from, its calls fail with EBADF.
class post_log_block
{
public:
    /// Opens it. A block is open for one purpose at a time.
    static result<post_log_block> open(post_block block) noexcept
    {
        errno = 0;
        const bool opened = postlog_nvram_init(static_cast<log_type_t>(block)) == 1;
        return opened ? result<post_log_block>(post_log_block(block))
                      : failure{"postlog_nvram_init", errno};
    }
    /// Closes it.
    ~post_log_block() { close(); }
    /// Takes the open block over.
    post_log_block(post_log_block &&other) noexcept
        : block_(other.block_), open_(std::exchange(other.open_, false))
    {
    }
    /// Closes its own, and takes the other's over.
    post_log_block &operator=(post_log_block &&other) noexcept
    {
        if (this != &other) {
            close();
            block_ = other.block_;
            open_ = std::exchange(other.open_, false);
        }
        return *this;
    }

    /// Reads bytes at an offset; how many, which are fewer at the end of the block.
    result<size_t> read(uint32_t offset, std::span<uint8_t> bytes) noexcept
    {
        const int count =
            moved(post_nvram_mem_rd, offset, bytes.data(), static_cast<uint32_t>(bytes.size()));
        return detail::done(count > 0, static_cast<size_t>(count), "post_nvram_mem_rd");
    }
    /// Reads the index, at the offset 0 of blocks of two or more histories.
    result<postlog::nvram_log_index_t> index(uint32_t offset = 0) noexcept
    {
        return record<postlog::nvram_log_index_t>(postlog_rd_log_index, offset,
                                                  "postlog_rd_log_index");
    }
    /// Reads a history's header.
    result<postlog::nvram_log_header_t> header(uint32_t offset) noexcept
    {
        return record<postlog::nvram_log_header_t>(postlog_rd_log_header, offset,
                                                   "postlog_rd_log_header");
    }
    /// Reads an entry's head.
    result<postlog::nvram_log_t> entry(uint32_t offset) noexcept
    {
        return record<postlog::nvram_log_t>(postlog_rd_log, offset, "postlog_rd_log");
    }
    /// Whether a header's checksum is right.
    static bool valid(postlog::nvram_log_header_t header) noexcept
    {
        return postlog_validate_log_header(&header) == 1;
    }
    /// Whether an entry's checksum is right.
    static bool valid(postlog::nvram_log_t entry) noexcept
    {
        return postlog_validate_log_entry(&entry) == 1;
    }

    /// Where the current history's header is, in bytes.
    result<uint32_t> current_header() noexcept
    {
        return position(post_get_curr_log_hdr_pos, "post_get_curr_log_hdr_pos");
    }
    /// Where the current history's entries end, in bytes, as its header says.
    result<uint32_t> entries_end() noexcept
    {
        return position(post_get_nxt_log_pos, "post_get_nxt_log_pos");
    }
    /// Prints the entries of a history on standard output.
    result<void> dump(int history) noexcept
    {
        return detail::done(moved(postlog_nvram_dump_log_msgs, history) == 1,
                            "postlog_nvram_dump_log_msgs");
    }
    /// Prints the entries of the current history on standard output.
    result<void> dump_current() noexcept
    {
        return detail::done(moved(postlog_nvram_dump_curr_log_msgs) == 1,
                            "postlog_nvram_dump_curr_log_msgs");
    }

    /// Closes it now.
    void close() noexcept
    {
        if (std::exchange(open_, false))
            postlog_nvram_close(type());
    }

private:
    explicit post_log_block(post_block block) noexcept : block_(block), open_(true) {}
    log_type_t type() const noexcept { return static_cast<log_type_t>(block_); }

    template <typename Call, typename... Arguments>
    int moved(Call *call, Arguments... arguments) const noexcept
    {
        errno = open_ ? 0 : EBADF;
        return open_ ? call(type(), arguments...) : -1;
    }
    template <typename Record>
    result<Record> record(int (*call)(log_type_t, uint32_t, Record *), uint32_t offset,
                          const char *name) noexcept
    {
        Record read = {};
        const bool done = moved(call, offset, &read) == 1;
        return detail::done(done, read, name);
    }
    result<uint32_t> position(int (*call)(log_type_t), const char *name) noexcept
    {
        const int found = moved(call);
        return detail::done(found >= 0, static_cast<uint32_t>(found), name);
    }

    post_block block_;
    bool open_;
};

/// The PCIe NVRAM controller behind the POST logs, once reach_post_logs_by_controller() was called.
struct nvram_controller {
    /// Whether it is not busy, waiting for that for 10 ms at most.
    static bool is_ready() noexcept { return check_nvc_ready() == 1; }

    /// Reads bytes at an address of its NVRAM, other than 0. pcie_nvram_read() says what becomes of
    /// a tail that is no whole word.
    static result<void> read(uint32_t address, std::span<uint8_t> bytes, bool swap = false) noexcept
    {
        const auto size = static_cast<uint32_t>(bytes.size());
        return pcie_nvram_read(address, size, bytes.data(), swap) == 0
                   ? result<void>()
                   : failure{"pcie_nvram_read", EIO};
    }

    /// The word that starts a read at an address, for the control register.
    static uint32_t read_command(uint32_t address, bool auto_increment) noexcept
    {
        return set_nvc_ctl_reg(address, 0, auto_increment, 0);
    }
    /// The word that writes a byte at an address, for the control register.
    static uint32_t write_command(uint32_t address, uint8_t byte, bool auto_increment) noexcept
    {
        return set_nvc_ctl_reg(address, 1, auto_increment, byte);
    }
};

} // namespace wrapper
} // namespace device_access

#endif
