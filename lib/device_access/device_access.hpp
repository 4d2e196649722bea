// The C++ face of the library: owners, register windows, ranges and results over the C calls, which
// their own headers describe. Header only, C++20; works without exceptions; allocates nothing where
// the C call does not.
//
// A call that can fail returns a result: the value, or the call's name and errno (0 where the call
// promises none). A range that has ended early says so: failed().
#ifndef DEVICE_ACCESS_DEVICE_ACCESS_HPP
#define DEVICE_ACCESS_DEVICE_ACCESS_HPP

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <variant>

#include <device_access/libuio.h>
#include <device_access/pci_config.h>
#include <device_access/pci_sysfs.h>
#include <device_access/pod_log.h>
#include <device_access/post_log_nvram.h>
#include <device_access/regiomap_x86.h>

namespace device_access
{
inline namespace face // apart from what a static library has inside
{

//--- results --------------------------------------------------------------------------------------

struct failure {
    const char *call; // of the C interface
    int error;        // errno; 0 where the call promises none

    const char *reason() const { return error ? std::strerror(error) : "no reason given"; }
};

// A value or a failure, in the shape of C++23's std::expected.
template <typename T>
class [[nodiscard]] result
{
public:
    result(T value) : state_(std::in_place_index<0>, std::move(value)) {}
    result(failure what) : state_(std::in_place_index<1>, what) {}

    bool has_value() const { return state_.index() == 0; }
    explicit operator bool() const { return has_value(); }
    const failure &error() const { return *std::get_if<1>(&state_); }

    T &operator*() & { return *std::get_if<0>(&state_); }
    const T &operator*() const & { return *std::get_if<0>(&state_); }
    T *operator->() { return std::get_if<0>(&state_); }
    const T *operator->() const { return std::get_if<0>(&state_); }

    T value_or(T other) const { return has_value() ? **this : std::move(other); }

private:
    std::variant<T, failure> state_;
};

using done = std::monostate; // the value of a call that only succeeds

template <typename T>
result<T> checked(bool succeeded, T value, const char *call)
{
    if (succeeded)
        return value;
    return failure{call, errno};
}

//--- registers ------------------------------------------------------------------------------------

template <typename T>
concept register_value = std::same_as<T, uint8_t> || std::same_as<T, uint16_t> ||
    std::same_as<T, uint32_t> || std::same_as<T, uint64_t>;

// A mapped window: each access is one of the register's width. Does not own the mapping.
class window
{
public:
    window(void *base, size_t size) : base_(static_cast<char *>(base)), size_(size) {}

    size_t size() const { return size_; }

    template <register_value T>
    T read(size_t offset) const
    {
        return load(at(offset, sizeof(T)), T());
    }

    template <register_value T>
    void write(size_t offset, T value) const
    {
        store(at(offset, sizeof(T)), value);
    }

private:
    using place = volatile void *;

    static uint8_t load(place from, uint8_t) { return ioread8(from); }
    static uint16_t load(place from, uint16_t) { return ioread16(from); }
    static uint32_t load(place from, uint32_t) { return ioread32(from); }
    static uint64_t load(place from, uint64_t) { return ioread64(from); }
    static void store(place to, uint8_t value) { iowrite8(value, to); }
    static void store(place to, uint16_t value) { iowrite16(value, to); }
    static void store(place to, uint32_t value) { iowrite32(value, to); }
    static void store(place to, uint64_t value) { iowrite64(value, to); }

    place at(size_t offset, [[maybe_unused]] size_t width) const
    {
        assert(offset <= size_ && width <= size_ - offset);
        return base_ + offset;
    }

    char *base_;
    size_t size_;
};

//--- ranges ---------------------------------------------------------------------------------------

// A range that is read once, from begin() on: *it is what the walk stands at.
template <typename Walk>
class range
{
public:
    struct iterator {
        Walk *walk;
        auto operator*() const { return walk->current(); }
        void operator++() { walk->advance(); }
        bool operator==(std::default_sentinel_t) const { return walk->ended(); }
    };

    range(const range &) = delete;
    range &operator=(const range &) = delete;

    iterator begin() { return {static_cast<Walk *>(this)}; }
    std::default_sentinel_t end() const { return {}; }

protected:
    range() = default;
};

//--- UIO devices ----------------------------------------------------------------------------------

// An open device, real or emulated; a removal shuts it, and it is closed in the end all the same.
class uio
{
public:
    using clock = std::chrono::steady_clock; // CLOCK_MONOTONIC

    // Waits for the node: without limit unless one is given, which counts as for
    // libuio_open_timed().
    static result<uio> open(const char *node, std::optional<timespec> limit = {})
    {
        libuio_dev_t *const handle = libuio_open_timed(node, limit ? &*limit : nullptr);
        return checked(handle != nullptr, uio(handle), "libuio_open_timed");
    }

    // Maps what is not mapped and has no bit in `without`; the number of new windows.
    result<int> map(uint64_t without = 0)
    {
        const int mapped = libuio_mmap(handle_.get(), without);
        return checked(mapped >= 0, mapped, "libuio_mmap");
    }

    std::optional<window> mapped(unsigned int index) const
    {
        size_t size = 0;
        void *const base = libuio_get_mapinfo(handle_.get(), index, &size);
        return base ? std::optional(window(base, size)) : std::nullopt;
    }

    result<done> enable_interrupt(bool enable = true)
    {
        return checked(libuio_irqcontrol(handle_.get(), enable) == 0, done(), "libuio_irqcontrol");
    }

    // The driver's count of interrupts. Errors that a daemon meets: ETIMEDOUT, EINTR, and ECANCELED
    // for a device that has been removed.
    result<uint32_t> wait(std::optional<clock::time_point> deadline = {})
    {
        using namespace std::chrono;
        timespec until = {};
        if (deadline) {
            const auto since = deadline->time_since_epoch();
            const auto whole = floor<seconds>(since);
            until = {static_cast<time_t>(whole.count()),
                     static_cast<long>(nanoseconds(since - whole).count())};
        }
        uint32_t count = 0;
        const int waited = libuio_irqwait(handle_.get(), deadline ? &until : nullptr, &count);
        return checked(waited == 0, count, "libuio_irqwait");
    }

    // For the other calls, such as libuio_get_uio_fd() for an event loop of one's own.
    libuio_dev_t *get() const { return handle_.get(); }

private:
    struct closer {
        void operator()(libuio_dev_t *handle) const { libuio_close(handle); }
    };
    explicit uio(libuio_dev_t *handle) : handle_(handle) {}

    std::unique_ptr<libuio_dev_t, closer> handle_;
};

//--- PCI functions --------------------------------------------------------------------------------

using pci_id = sysfs_pci_identity_t;

// "dddd:bb:ss.f"
inline pci_id pci_function(std::string_view text)
{
    pci_id id = {};
    text.copy(id.str, sizeof id.str - 1);
    return id;
}

// Functions as one of the calls lists them.
class pci_functions
{
public:
    // All of the machine, and those below a bridge.
    static result<pci_functions> all() { return owned(sysfs_pci_list(), "sysfs_pci_list"); }
    static result<pci_functions> below(const pci_id &bridge)
    {
        return owned(sysfs_pci_children_list(&bridge), "sysfs_pci_children_list");
    }

    const pci_id *begin() const { return list_.get(); }
    const pci_id *end() const
    {
        const pci_id *last = list_.get();
        while (last->str[0] != '\0')
            ++last;
        return last;
    }

private:
    struct releaser {
        void operator()(pci_id *list) const { std::free(list); }
    };
    static result<pci_functions> owned(pci_id *list, const char *call)
    {
        return checked(list != nullptr, pci_functions(list), call);
    }
    explicit pci_functions(pci_id *list) : list_(list) {}

    std::unique_ptr<pci_id, releaser> list_;
};

// A function's configuration space.
class pci_config
{
public:
    static result<pci_config> open(const pci_id &function)
    {
        void *const handle = pci_config_open(&function);
        return checked(handle != nullptr, pci_config(handle), "pci_config_open");
    }

    template <register_value T>
    result<T> read(uint32_t offset) const
    {
        static_assert(sizeof(T) <= 4);
        errno = EIO; // an access that moved too few bytes leaves it alone
        constexpr auto call = sizeof(T) == 1   ? pci_config_read8
                              : sizeof(T) == 2 ? pci_config_read16
                                               : pci_config_read32;
        const uint32_t value = call(offset, handle_.get());
        return checked(value != UINT32_MAX || errno == 0, static_cast<T>(value), "pci_config_read");
    }

    bool has_hotplug_slot() const { return pcie_config_is_hotplug(handle_.get()) == 1; }

private:
    struct closer {
        void operator()(void *handle) const { pci_config_close(handle); }
    };
    explicit pci_config(void *handle) : handle_(handle) {}

    std::unique_ptr<void, closer> handle_;
};

struct capability {
    uint8_t id;
    uint8_t offset;
};

// The entries of a function's capability list, in their order. A list in a circle ends, too; that
// of a function that has gone is empty.
class capabilities : public range<capabilities>
{
public:
    explicit capabilities(const pci_config &config) : config_(config) // keeps the reference
    {
        const auto status = config.read<uint16_t>(0x06), type = config.read<uint16_t>(0x0e);
        failed_ = !status || !type;
        constexpr uint16_t has_list = 0x10, cardbus = 2;
        if (!failed_ && (*status & has_list))
            go(config.read<uint8_t>((*type & 0x7f) == cardbus ? 0x14 : 0x34));
    }

    bool failed() const { return failed_; }

    capability current() const { return at_; }
    bool ended() const { return at_.offset == 0; }
    void advance() { go(config_.read<uint8_t>(at_.offset + 1u)); }

private:
    void go(const result<uint8_t> &place)
    {
        const auto offset = static_cast<uint8_t>(left_-- > 0 ? place.value_or(0) & 0xfc : 0);
        const auto id = offset ? config_.read<uint8_t>(offset) : result<uint8_t>(0);
        failed_ = !place || !id;
        at_ = {id.value_or(0), static_cast<uint8_t>(failed_ || *id == 0xff ? 0 : offset)};
    }

    const pci_config &config_;
    capability at_ = {};
    int left_ = 48; // as many have room
    bool failed_;
};

// The memory of a function, mapped while this lives.
class pci_memory
{
public:
    static constexpr size_t bars = 6;

    static result<pci_memory> map(const pci_id &function)
    {
        pci_memory memory(function);
        memory.mapped_ = sysfs_pci_mmap(memory.bases_.data(), 0, &function) == 0;
        const bool succeeded = memory.mapped_;
        return checked(succeeded, std::move(memory), "sysfs_pci_mmap");
    }
    ~pci_memory()
    {
        const pci_id function = pci_function(name_.data());
        if (mapped_)
            sysfs_pci_munmap(bases_.data(), &function);
    }
    pci_memory(pci_memory &&other) noexcept
        : name_(other.name_), bases_(other.bases_), mapped_(std::exchange(other.mapped_, false))
    {
    }
    pci_memory &operator=(pci_memory &&) = delete;

    // The whole window of a base address register that is mapped.
    std::optional<window> bar(size_t number) const
    {
        const pci_id function = pci_function(name_.data());
        int64_t lines[3 * bars]; // of the table: start, end, flags
        if (number >= bars || !mapped_ || !bases_[number] ||
            sysfs_pci_show_nums(lines, std::size(lines), "resource", &function) <
                static_cast<ssize_t>(3 * (number + 1)))
            return {};
        const int64_t size = lines[3 * number + 1] - lines[3 * number] + 1;
        return window(bases_[number], static_cast<size_t>(size));
    }

private:
    explicit pci_memory(const pci_id &function)
    {
        std::copy_n(function.str, name_.size(), name_.data());
    }

    std::array<char, sizeof(pci_id::str)>
        name_; // a pci_id is no member: it ends with an empty array
    std::array<void *, bars> bases_ = {};
    bool mapped_ = false;
};

//--- logs -----------------------------------------------------------------------------------------

struct log_entry {
    time_t time;           // since the epoch
    std::string_view text; // until the next one is read
};

// A card's POD log. Configure the registry first, with podlog_config_pod_storage_n20_n10() or
// podlog_config_pod_storage_info().
struct pod_log {
    const char *card;

    int open_dir() const { return podlog_open_dir(card); }
    int read_dir(int history, time_t *time) const { return podlog_read_dir(history, time); }
    void close_dir() const { podlog_close_dir(card); }
    int open_log(int history) const { return podlog_open_log(card, history); }
    int read_log(int position, time_t *time, char *text, uint32_t size) const
    {
        return podlog_read_log(position, time, text, size);
    }
    void close_log(int history) const { podlog_close_log(card, history); }
};

// One of the firmware's POST logs. Map an access method first, with postlog_map_def_nvram_access()
// or postlog_map_pcie_nvram_access().
struct post_log {
    log_type_t block;

    int open_dir() const { return postlog_nvram_open_dir(block); }
    int read_dir(int history, time_t *time) const
    {
        return postlog_nvram_read_dir(block, history, time);
    }
    void close_dir() const { postlog_nvram_close_dir(block); }
    int open_log(int history) const { return postlog_nvram_open_log(block, history); }
    int read_log(int position, time_t *time, char *text, uint32_t size) const
    {
        return postlog_nvram_read_log(block, position, time, text, size);
    }
    void close_log(int history) const { postlog_nvram_close_log(block, history); }
};

// The numbers of a log's histories that hold entries, newest first. A log is open for one purpose
// at a time: let the walk end its life before a history is read.
template <typename Log>
class histories : public range<histories<Log>>
{
public:
    explicit histories(Log log) : log_(log), number_(log.open_dir()) {}
    ~histories() { log_.close_dir(); }

    // Whether the walk has ended early; no log at all is no failure.
    bool failed() const { return number_ == -1; }

    int current() const { return number_; }
    bool ended() const { return number_ < 0; }
    void advance()
    {
        time_t time;
        number_ = log_.read_dir(number_, &time);
    }

private:
    Log log_;
    int number_;
};

// The entries of a history, oldest first, each cut to 255 characters.
template <typename Log>
class entries : public range<entries<Log>>
{
public:
    entries(Log log, int history) : log_(log), history_(history), next_(log.open_log(history))
    {
        opened_ = next_ > 0;
        advance();
    }
    ~entries()
    {
        if (opened_)
            log_.close_log(history_);
    }

    // Whether an entry could not be read.
    bool failed() const { return next_ == -1; }

    log_entry current() const { return {time_, text_}; }
    bool ended() const { return ended_; }
    void advance()
    {
        ended_ = next_ <= 0;
        if (ended_)
            return;
        std::memset(text_, 0, sizeof text_);
        next_ = log_.read_log(next_, &time_, text_, sizeof text_ - 1);
        ended_ = next_ == -1;
    }

private:
    Log log_;
    int history_;
    int next_; // where the entry behind the current one is; -2: there is none
    bool opened_ = false;
    bool ended_ = false;
    time_t time_ = 0;
    char text_[256] = {};
};

// A run of a card's diagnostics: claimed, with its log open for writing; in the end it closes its
// history.
class pod_run
{
public:
    static result<pod_run> begin(const char *card)
    {
        int instance;
        if (podlog_find_pod_instance(const_cast<char *>(card), &instance) != 1)
            return failure{"podlog_find_pod_instance", 0};
        if (podlog_set_curr_active_inst(instance, 0) != 0)
            return failure{"podlog_set_curr_active_inst", 0};
        if (podlog_init(instance, 0) == 1)
            return pod_run(instance);
        podlog_clr_curr_active_inst(instance, 0);
        return failure{"podlog_init", 0};
    }
    ~pod_run()
    {
        if (!claimed_)
            return;
        podlog_use_nxt_log(instance_);
        podlog_close(instance_);
        podlog_clr_curr_active_inst(instance_, 0);
    }
    pod_run(pod_run &&other) noexcept
        : instance_(other.instance_), claimed_(std::exchange(other.claimed_, false))
    {
    }
    pod_run &operator=(pod_run &&) = delete;

    int instance() const { return instance_; }

    // Level brings its own separator ("INFO: "). The value: whether there is room for more; without
    // it, the next entry overwrites this one.
    result<bool> add(const char *level, const char *diagnostic, const char *outcome,
                     const char *text)
    {
        const int added = podlog_add(instance_, const_cast<char *>(level),
                                     const_cast<char *>(diagnostic), outcome, "%s", text);
        if (added == -1)
            return failure{"podlog_add", 0};
        return added == 1;
    }

private:
    explicit pod_run(int instance) : instance_(instance) {}

    int instance_; // any number: a card that the chassis does not have shares -1 with others
    bool claimed_ = true;
};

} // namespace face
} // namespace device_access

#endif
