/// @file
/// How the POD and the POST logs are read: histories as a list, entries as a range.
#ifndef DEVICE_ACCESS_LOG_READING_HPP
#define DEVICE_ACCESS_LOG_READING_HPP

#include <device_access/result.hpp>

#include <chrono>
#include <concepts>
#include <cstdint>
#include <ctime>
#include <iterator>
#include <memory>
#include <span>

namespace device_access
{
inline namespace wrapper
{

/// An entry of a log.
struct log_entry {
    std::chrono::sys_seconds time; ///< When it was made; right until 2106.
    std::string_view text;         ///< Up to its first NUL; valid until the next entry is read.
};

/// A history of a log.
struct log_history {
    int number;                    ///< By which it is read.
    std::chrono::sys_seconds time; ///< When its first entry was made; the epoch when it has none.
};

/// What logs are read from: pod_log, post_log, and every type of your own that can be copied with
/// these calls, which do what podlog_open_dir() and so on do. A call that opens and gives no number
/// leaves nothing open.
template <typename T>
concept log_source = std::copy_constructible<T> &&
    requires(const T &log, int number, time_t *time, char *text, uint32_t size)
{
    number = log.open_dir();
    number = log.read_dir(number, time);
    log.close_dir();
    number = log.open_log(number);
    number = log.read_log(number, time, text, size);
    log.close_log(number);
};

namespace detail
{

// What a failure to open is called: by the call that the log makes for it, if it tells that.
template <typename Source>
const char *open_dir_name(const Source &log) noexcept
{
    if constexpr (requires { log.open_dir_name(); })
        return log.open_dir_name();
    else
        return "open_dir";
}
template <typename Source>
const char *open_log_name(const Source &log) noexcept
{
    if constexpr (requires { log.open_log_name(); })
        return log.open_log_name();
    else
        return "open_log";
}

} // namespace detail

/// The histories of a log that hold entries, newest first: a list of its own, for which nothing
/// stays open.
class log_histories
{
public:
    /// Walks over a log, which nobody may have open meanwhile.
    template <log_source Source>
    static result<log_histories> of(const Source &log)
    {
        log_histories found;
        errno = 0;
        int number = log.open_dir();
        if (number == failed_walk)
            return failure{detail::open_dir_name(log), errno};
        const bool is_open = number >= 0;
        while (number >= 0) {
            time_t time = 0;
            const int next = log.read_dir(number, &time);
            if (next == failed_walk || !found.add(number, time))
                found.failed_ = true;
            number = found.failed_ ? failed_walk : next;
        }
        if (is_open)
            log.close_dir();
        return found;
    }

    /// The newest one.
    const log_history *begin() const noexcept { return list_.get(); }
    /// Behind the oldest one.
    const log_history *end() const noexcept { return list_.get() + size_; }
    /// How many they are.
    size_t size() const noexcept { return size_; }
    /// Whether there are none.
    bool empty() const noexcept { return size_ == 0; }
    /// The one of a place in the list, the newest being 0; below size().
    const log_history &operator[](size_t place) const noexcept
    {
        assert(place < size_);
        return list_.get()[place];
    }

    /// Whether the walk has ended early: older histories are missing.
    bool failed() const noexcept { return failed_; }

private:
    static constexpr int failed_walk = -1;
    struct releaser {
        void operator()(log_history *list) const noexcept { std::free(list); }
    };

    log_histories() noexcept = default;

    bool add(int number, time_t time) noexcept
    {
        void *const larger = std::realloc(list_.get(), (size_ + 1) * sizeof(log_history));
        if (!larger)
            return false;
        (void)list_.release();
        list_.reset(static_cast<log_history *>(larger));
        const std::chrono::seconds since(static_cast<uint32_t>(time));
        new (list_.get() + size_++) log_history{number, std::chrono::sys_seconds(since)};
        return true;
    }

    std::unique_ptr<log_history, releaser> list_;
    size_t size_ = 0;
    bool failed_ = false;
};

/// The entries of a history, oldest first, each cut to 255 characters: a range that is read once,
/// with the log open until it ends.
template <typename Source>
class log_entries
{
public:
    /// Opens a history, which holds entries, of a log that nobody has open.
    static result<log_entries> of(const Source &log, int history)
    {
        static_assert(log_source<Source>);
        errno = 0;
        const int first = log.open_log(history);
        if (first <= 0)
            return failure{detail::open_log_name(log), errno};
        log_entries opened(log, history, first);
        opened.advance();
        return opened;
    }
    /// Closes the log.
    ~log_entries() { close(); }
    /// Takes the reading over; iterators end.
    log_entries(log_entries &&other) noexcept
        : log_(other.log_), history_(other.history_), next_(other.next_),
          open_(std::exchange(other.open_, false)), ended_(std::exchange(other.ended_, true)),
          time_(other.time_)
    {
        std::memcpy(text_, other.text_, sizeof text_);
    }
    /// Closes its own log, and takes the other's reading over; iterators end.
    log_entries &operator=(log_entries &&other) noexcept
    {
        if (this != &other) {
            close();
            std::destroy_at(this);
            std::construct_at(this, std::move(other));
        }
        return *this;
    }

    /// The place of the reading.
    class iterator
    {
    public:
        using iterator_concept = std::input_iterator_tag; ///< Each entry is read once.
        using value_type = log_entry;                     ///< An entry.
        using difference_type = std::ptrdiff_t;           ///< As for every iterator.

        /// An entry, for the arrow.
        struct pointer {
            log_entry entry; ///< The entry.
            /// Its address.
            const log_entry *operator->() const noexcept { return &entry; }
        };

        iterator() noexcept = default; ///< No place.
        /// The entry here.
        log_entry operator*() const noexcept { return walk_->current(); }
        /// A member of the entry here.
        pointer operator->() const noexcept { return {walk_->current()}; }
        /// Reads the next entry.
        iterator &operator++()
        {
            walk_->advance();
            return *this;
        }
        /// Reads the next entry.
        void operator++(int) { walk_->advance(); }
        /// Whether there is no more.
        friend bool operator==(const iterator &place, std::default_sentinel_t) noexcept
        {
            return place.is_end();
        }

    private:
        friend class log_entries;
        explicit iterator(log_entries *walk) noexcept : walk_(walk) {}
        bool is_end() const noexcept { return walk_->ended_; }
        log_entries *walk_ = nullptr;
    };

    /// Where the reading stands.
    iterator begin() noexcept { return iterator(this); }
    /// Where it ends.
    std::default_sentinel_t end() const noexcept { return {}; }

    /// Whether the reading has ended early, at an entry that could not be read or is not valid.
    bool failed() const noexcept { return next_ == failed_read; }

    /// Closes the log now: the reading ends.
    void close() noexcept
    {
        ended_ = true;
        if (std::exchange(open_, false))
            log_.close_log(history_);
    }

private:
    static constexpr int failed_read = -1;

    log_entries(const Source &log, int history, int first)
        : log_(log), history_(history), next_(first), open_(true)
    {
    }

    log_entry current() const noexcept
    {
        const std::chrono::seconds since(static_cast<uint32_t>(time_));
        return {std::chrono::sys_seconds(since), text_};
    }

    void advance()
    {
        ended_ = ended_ || next_ <= 0;
        if (ended_)
            return;
        std::memset(text_, 0, sizeof text_);
        next_ = log_.read_log(next_, &time_, text_, sizeof text_ - 1);
        ended_ = next_ == failed_read;
    }

    Source log_;
    int history_;
    int next_; // where the entry after the current one is; -2: there is none
    bool open_;
    bool ended_ = false;
    time_t time_ = 0;
    char text_[256] = {};
};

} // namespace wrapper
} // namespace device_access

#endif
