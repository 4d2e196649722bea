/// @file
/// The POD log of every card, by the card's name: reading, runs, status words and faults. pod_log.h
/// and the headers of the storages describe the calls behind it.
///
/// Everything here goes by the row that the registry has for a card's name, never by instance ids
/// alone: cards that the slot table lacks share the id -1, with which calls of the C interface
/// reach the first of them. A card is reached, or the call fails.
#ifndef DEVICE_ACCESS_POD_LOG_HPP
#define DEVICE_ACCESS_POD_LOG_HPP

#include <device_access/log_reading.hpp>
#include <device_access/pod_log.h>
#include <device_access/pod_log_eeprom.h>
#include <device_access/pod_log_file.h>
#include <device_access/pod_log_nvram.h>
#include <device_access/result.hpp>
#include <device_access/slot_names.h>

#include <algorithm>
#include <array>
#include <optional>

namespace device_access
{
inline namespace wrapper
{

//--- the registry ---------------------------------------------------------------------------------

/// The types of chassis.
enum class pod_chassis {
    n20 = ChassisType_N20, ///< N20.
    n10 = ChassisType_N10, ///< N10.
    n4 = ChassisType_N4,   ///< N4.
};

/// The route processor that the program runs on.
enum class route_processor {
    rpsw1 = 0, ///< RPSW1.
    rpsw2 = 1, ///< RPSW2.
};

/// Fills the registry with a chassis's cards, selects its slot table and maps its status words.
inline void configure_pod_logs(pod_chassis chassis,
                               route_processor local = route_processor::rpsw1) noexcept
{
    podlog_config_pod_storage_n20_n10(static_cast<int>(chassis), static_cast<int>(local));
}

/// Replaces the registry by rows of your own, 22 at most.
inline result<void> configure_pod_logs(std::span<const storage_info_t> rows) noexcept
{
    pod_storage_info_t table = {};
    if (rows.size() > std::size(table.dev))
        return failure{"podlog_config_pod_storage_info", EINVAL};
    std::copy(rows.begin(), rows.end(), table.dev);
    table.num_storage = static_cast<int>(rows.size());
    podlog_config_pod_storage_info(&table);
    return {};
}

/// Replaces the mapping that says which instances have a status word in an NVRAM.
inline void map_pod_status_words(pod_nvram_inst_map_t mapping, int nvram_id = 0) noexcept
{
    podlog_nvram_config_inst_mapping(nvram_id, &mapping);
}

/// Sets the magic number of all later checks and formats of NVRAMs; 0x1FE2C365 at first.
inline void set_pod_nvram_magic(uint32_t number) noexcept
{
    podlog_nvram_set_magic_number(number);
}

//--- a log ----------------------------------------------------------------------------------------

namespace detail
{

template <typename Call>
struct pod_call {
    Call *call;
    const char *name;
};

// The calls of a storage by its ids.
struct pod_storage_calls {
    pod_call<int(int, int)> init;
    void (*close)(int);
    pod_call<int(int)> reset, use_nxt_log;
    pod_call<int(int, int)> set_curr_log_status;
    pod_call<decltype(podlog_file_add)> add;
    pod_call<int(int)> open_dir, dump_curr_log_msgs, dump_all_log_msgs;
    int (*read_dir)(int, int, time_t *);
    pod_call<int(int, int)> open_log, dump_log_msgs;
    int (*read_log)(int, int, time_t *, char *, uint32_t);
    void (*set_pod_info)(int, char *, int, int, int, uint32_t);
};

/// @cond
#define DEVICE_ACCESS_POD_CALL(storage, name)                                                      \
    {                                                                                              \
        podlog_##storage##_##name, "podlog_" #storage "_" #name                                    \
    }
#define DEVICE_ACCESS_POD_CALLS(storage)                                                           \
    {                                                                                              \
        DEVICE_ACCESS_POD_CALL(storage, init), podlog_##storage##_close,                           \
            DEVICE_ACCESS_POD_CALL(storage, reset), DEVICE_ACCESS_POD_CALL(storage, use_nxt_log),  \
            DEVICE_ACCESS_POD_CALL(storage, set_curr_log_status),                                  \
            DEVICE_ACCESS_POD_CALL(storage, add), DEVICE_ACCESS_POD_CALL(storage, open_dir),       \
            DEVICE_ACCESS_POD_CALL(storage, dump_curr_log_msgs),                                   \
            DEVICE_ACCESS_POD_CALL(storage, dump_all_log_msgs), podlog_##storage##_read_dir,       \
            DEVICE_ACCESS_POD_CALL(storage, open_log),                                             \
            DEVICE_ACCESS_POD_CALL(storage, dump_log_msgs), podlog_##storage##_read_log,           \
            podlog_##storage##_set_pod_info                                                        \
    }
// By pod_storage_type_t.
inline constexpr pod_storage_calls pod_calls[] = {
    DEVICE_ACCESS_POD_CALLS(nvram), DEVICE_ACCESS_POD_CALLS(file), DEVICE_ACCESS_POD_CALLS(eeprom)};
#undef DEVICE_ACCESS_POD_CALLS
#undef DEVICE_ACCESS_POD_CALL
/// @endcond

// The result of a call of a storage. Making the directory of the files leaves EEXIST, which is no
// reason for anything.
inline result<void> pod_done(bool succeeded, const char *call) noexcept
{
    return succeeded ? result<void>() : failure{call, errno == EEXIST ? 0 : errno};
}

template <typename Call, typename... Arguments>
result<void> pod_called(const pod_call<Call> &which, Arguments... arguments) noexcept
{
    errno = 0;
    return pod_done(which.call(arguments...) == 1, which.name);
}

} // namespace detail

class pod_writer;

/// A log: where it is kept. Nothing is open until something is asked of it, and what a call opens
/// it closes again, on failure too, so that it never closes what somebody else has open. A log that
/// is open, as for a run, cannot be read; that fails, and the run goes on (an EEPROM can be read).
class pod_log
{
public:
    /// The log of an NVRAM, 0 or 1.
    static pod_log nvram(int id = 0) noexcept { return {PODSTORAGE_NVRAM, id}; }
    /// The log of a file, 0 to 16.
    static pod_log file(int id) noexcept { return {PODSTORAGE_FILE, id}; }
    /// The log of an EEPROM, 0 to 5, whose functions are bound (eeprom_binding).
    static pod_log eeprom(int id) noexcept { return {PODSTORAGE_EEPROM, id}; }
    /// The log of a card, by its name in the registry: "SW3". ENOENT when there is none.
    static result<pod_log> of(c_string card) noexcept;

    /// Its kind of storage.
    pod_storage_type_t storage() const noexcept { return storage_; }
    /// Its number in that storage.
    int id() const noexcept { return id_; }

    /// The histories that hold entries, newest first.
    result<log_histories> histories() const { return log_histories::of(*this); }
    /// The entries of a history, oldest first. Fails for a history without entries.
    result<log_entries<pod_log>> entries(int history) const
    {
        return log_entries<pod_log>::of(*this, history);
    }

    /// Opens it for writing; a missing file is made, and a storage without a log is formatted.
    result<pod_writer> open() const noexcept;
    /// Opens it for reading and closes it: whether it is a log.
    result<void> check() const noexcept
    {
        const auto opened = detail::pod_called(calls().init, id_, 1);
        if (opened)
            calls().close(id_);
        return opened;
    }
    /// Prints all histories on standard output, newest first.
    result<void> dump() const noexcept
    {
        return detail::pod_called(calls().dump_all_log_msgs, id_);
    }

    /// Describes the storage, before use: the path of its file or node, its size, histories, and
    /// message area in bytes, and the mask applied to the size of a history.
    void describe(c_string path, int size, int histories, int message_size = 64,
                  uint32_t alignment_mask = UINT32_MAX) const noexcept
    {
        calls().set_pod_info(id_, const_cast<char *>(path.c_str()), size, histories, message_size,
                             alignment_mask);
    }

    /// As podlog_open_dir() and so on, of its storage: what log_source asks for.
    int open_dir() const noexcept { return calls().open_dir.call(id_); }
    /// As above.
    int read_dir(int history, time_t *time) const noexcept
    {
        return calls().read_dir(id_, history, time);
    }
    /// As above.
    void close_dir() const noexcept { calls().close(id_); }
    /// As above.
    int open_log(int history) const noexcept { return calls().open_log.call(id_, history); }
    /// As above.
    int read_log(int position, time_t *time, char *text, uint32_t size) const noexcept
    {
        return calls().read_log(id_, position, time, text, size);
    }
    /// As above.
    void close_log(int) const noexcept { calls().close(id_); }
    /// The name of the call that open_dir() makes.
    const char *open_dir_name() const noexcept { return calls().open_dir.name; }
    /// The name of the call that open_log() makes.
    const char *open_log_name() const noexcept { return calls().open_log.name; }

    /// Equal when they are kept at the same place.
    friend bool operator==(const pod_log &, const pod_log &) noexcept = default;

private:
    friend class pod_card;
    friend class pod_writer;

    // A type that is none is an EEPROM without functions, of which everything fails.
    pod_log(pod_storage_type_t storage, int id) noexcept
        : storage_(storage >= 0 && storage <= PODSTORAGE_EEPROM ? storage : PODSTORAGE_EEPROM),
          id_(storage_ == storage ? id : -1)
    {
    }
    const detail::pod_storage_calls &calls() const noexcept { return detail::pod_calls[storage_]; }

    pod_storage_type_t storage_;
    int id_;
};

/// Whether the history of an entry takes more.
enum class log_room {
    left, ///< It does.
    none, ///< It is full: the next entry will overwrite this one.
};

/// A log that is open for writing. After close(), or when it has been moved from, its calls fail
/// with EBADF.
class pod_writer
{
public:
    /// Opens a log, as pod_log::open() does.
    static result<pod_writer> open(const pod_log &log) noexcept
    {
        const auto opened = detail::pod_called(log.calls().init, log.id(), 0);
        return opened ? result<pod_writer>(pod_writer(log)) : opened.error();
    }
    /// Closes it.
    ~pod_writer() { close(); }
    /// Takes the open log over.
    pod_writer(pod_writer &&other) noexcept
        : log_(other.log_), open_(std::exchange(other.open_, false))
    {
    }
    /// Closes its own, and takes the other's over.
    pod_writer &operator=(pod_writer &&other) noexcept
    {
        if (this != &other) {
            close();
            log_ = other.log_;
            open_ = std::exchange(other.open_, false);
        }
        return *this;
    }

    /// Adds an entry, stamped with the time of now, to the current history, composed as
    /// podlog_add() says and cut to 63 bytes. The level brings its own separator: "INFO: ". Empty
    /// parts are left out.
    result<log_room> add(std::string_view level, std::string_view diagnostic,
                         std::string_view outcome, std::string_view text) noexcept
    {
        if (!open_)
            return failure{log_.calls().add.name, EBADF};
        part parts[] = {part(level), part(diagnostic), part(outcome), part(text)};
        errno = 0;
        const int added = add_formatted(log_.calls().add.call, log_.id(), parts[0].text,
                                        parts[1].text, parts[2].text, "%s", parts[3].text);
        if (added == -1)
            return failure{log_.calls().add.name, errno};
        return added == 1 ? log_room::left : log_room::none;
    }

    /// Makes the next history the current one, and empties it.
    result<void> next_history() noexcept { return call(log_.calls().use_nxt_log); }
    /// Formats the storage: an index and empty histories.
    result<void> reset() noexcept { return call(log_.calls().reset); }
    /// Writes the index back as it is; in a file, to its beginning.
    result<void> save_index() noexcept { return call(log_.calls().set_curr_log_status, 0); }
    /// Prints the entries of the current history on standard output.
    result<void> dump_current() noexcept { return call(log_.calls().dump_curr_log_msgs); }
    /// Prints the entries of a history on standard output.
    result<void> dump(int history) noexcept { return call(log_.calls().dump_log_msgs, history); }

    /// Which log it is.
    const pod_log &log() const noexcept { return log_; }
    /// Whether it is open.
    bool is_open() const noexcept { return open_; }

    /// Closes it now. Entries are in the storage when add() returns: closing loses nothing.
    void close() noexcept
    {
        if (std::exchange(open_, false))
            log_.calls().close(log_.id());
    }

private:
    // A part that is longer than a message has no room anyway.
    struct part {
        char text[72] = {};
        explicit part(std::string_view whole) noexcept { whole.copy(text, sizeof text - 1); }
    };

    explicit pod_writer(const pod_log &log) noexcept : log_(log), open_(true) {}

    template <typename Call, typename... Arguments>
    result<void> call(const detail::pod_call<Call> &which, Arguments... arguments) noexcept
    {
        return open_ ? detail::pod_called(which, log_.id(), arguments...)
                     : failure{which.name, EBADF};
    }

    [[gnu::format(printf, 6, 7)]] static int add_formatted(decltype(podlog_file_add) *add, int id,
                                                           char *level, char *diagnostic,
                                                           const char *outcome, const char *format,
                                                           ...) noexcept
    {
        va_list arguments;
        va_start(arguments, format);
        const int added = add(id, level, diagnostic, outcome, format, arguments);
        va_end(arguments);
        return added;
    }

    pod_log log_;
    bool open_;
};

inline result<pod_writer> pod_log::open() const noexcept
{
    return pod_writer::open(*this);
}

/// The functions that reach an EEPROM, bound while this lives.
class eeprom_binding
{
public:
    /// Binds the functions to an EEPROM, 0 to 5, in place of others.
    eeprom_binding(int id, mem_access_fp_t read, mem_access_fp_t write) noexcept : id_(id)
    {
        podlog_bind_eeprom_access_func(id, read, write);
    }
    /// Unbinds them.
    ~eeprom_binding()
    {
        if (id_ >= 0)
            podlog_unbind_eeprom_access_func(id_);
    }
    /// Takes the binding over.
    eeprom_binding(eeprom_binding &&other) noexcept : id_(std::exchange(other.id_, -1)) {}
    /// Two bindings do not become one.
    eeprom_binding &operator=(eeprom_binding &&) = delete;

private:
    int id_;
};

//--- cards ----------------------------------------------------------------------------------------

/// A card of the registry, as its row was when it was looked up.
class pod_card
{
public:
    /// The card of a name; case counts. ENOENT when the registry has none.
    static result<pod_card> find(c_string name) noexcept;

    /// Its name: "SW3".
    std::string_view name() const noexcept
    {
        return {row_.inst_name, ::strnlen(row_.inst_name, sizeof row_.inst_name)};
    }
    /// The same.
    std::string_view text() const noexcept { return name(); }

    /// Where its log is kept.
    pod_log log() const noexcept { return {row_.type, row_.storage_inst_id}; }
    /// The EEPROM on the card, if it has one.
    std::optional<pod_log> secondary_log() const noexcept
    {
        return row_.secondary_storage_type == POD2NDSTORAGE_EEPROM
                   ? std::optional(pod_log::eeprom(row_.secondary_storage_inst_id))
                   : std::nullopt;
    }

    /// Its instance id, for calls of the C interface; none when they would reach another card with
    /// it.
    std::optional<int> instance() const noexcept
    {
        char *holder = nullptr;
        const bool is_own = row_.inst_id != -1 &&
                            podlog_get_pod_instance_name(row_.inst_id, &holder) == 1 &&
                            name() == holder;
        return is_own ? std::optional(row_.inst_id) : std::nullopt;
    }

    /// The id under which its run is claimed: its instance id; without one, -2 less the number of
    /// its row, which no card has for an instance id.
    int claim_id() const noexcept { return instance().value_or(-2 - row_number_); }

    /// Copies the newest history to the EEPROM on the card; podlog_cpy_curr_subblock_to_secondary()
    /// does that. ENOTSUP for cards that it cannot reach, those that the slot table lacks, and for
    /// those without EEPROM.
    result<void> copy_newest_to_secondary() const noexcept;

private:
    friend class pod_cards;

    pod_card() noexcept = default;

    storage_info_t row_ = {};
    int row_number_ = 0;
};

namespace detail
{
template <>
inline constexpr bool has_text<pod_card> = true;
} // namespace detail

/// The cards of the registry, in its order.
class pod_cards
{
public:
    /// As the registry is now.
    pod_cards() noexcept
    {
        pod_storage_info_t table;
        podlog_get_pod_storage_table(&table);
        for (; size_ < static_cast<size_t>(table.num_storage); ++size_) {
            cards_[size_].row_ = table.dev[size_];
            cards_[size_].row_number_ = static_cast<int>(size_);
        }
    }

    /// The first one.
    const pod_card *begin() const noexcept { return cards_; }
    /// Behind the last one.
    const pod_card *end() const noexcept { return begin() + size_; }
    /// How many they are.
    size_t size() const noexcept { return size_; }
    /// Whether there are none.
    bool empty() const noexcept { return size_ == 0; }

private:
    pod_card cards_[POD_MAX_STORAGE];
    size_t size_ = 0;
};

inline result<pod_card> pod_card::find(c_string name) noexcept
{
    for (const pod_card &card : pod_cards())
        if (card.name() == name.c_str())
            return card;
    return failure{"podlog_find_pod_storage", ENOENT};
}

inline result<pod_log> pod_log::of(c_string card) noexcept
{
    return pod_card::find(card).transform([](const pod_card &found) { return found.log(); });
}

inline result<void> pod_card::copy_newest_to_secondary() const noexcept
{
    constexpr const char *call = "podlog_cpy_curr_subblock_to_secondary";
    const auto id = instance();
    if (!secondary_log() || !id || GetSlotByName(row_.inst_name)->slotN != *id)
        return failure{call, ENOTSUP};
    errno = 0;
    return detail::pod_done(podlog_cpy_curr_subblock_to_secondary(*id) == 1, call);
}

/// Opens every card's log for writing and closes it again, which makes and formats what is missing.
/// Every card is tried; the first failure.
inline result<void> prepare_pod_logs() noexcept
{
    result<void> all;
    for (const pod_card &card : pod_cards())
        if (const auto opened = card.log().open(); !opened && all)
            all = opened.error();
    return all;
}

//--- runs -----------------------------------------------------------------------------------------

/// The result of a card's diagnostics.
enum class pod_status : uint32_t {
    passed = POD_STATUS_PASSED,   ///< They have passed.
    failed = POD_STATUS_FAILED,   ///< They have failed.
    unknown = POD_STATUS_INVALID, ///< They have not been run, or the word cannot be read.
};

/// "Passed", "Failed", "Invalid".
inline const char *text_of(pod_status status) noexcept
{
    return podlog_nvram_convert_pod_status_str(static_cast<uint32_t>(status));
}

/// Which of a card's two logs.
enum class pod_target {
    primary,   ///< The one that it always has.
    secondary, ///< The EEPROM on the card.
};

/// A run of a card's diagnostics: the claim of the only run in the process, and the card's log,
/// open for writing. In the end the log's next history begins.
class pod_run
{
public:
    /// Begins a run of a card, by its name in the registry. Fails with ENOENT when there is no such
    /// card, or no such log of it, and with EBUSY while a run goes on, of the same card, too; that
    /// run is left alone.
    static result<pod_run> begin(c_string card, pod_target target = pod_target::primary) noexcept
    {
        const auto found = pod_card::find(card);
        return found ? begin(*found, target) : found.error();
    }
    /// Begins a run of a card.
    static result<pod_run> begin(const pod_card &card,
                                 pod_target target = pod_target::primary) noexcept
    {
        constexpr const char *claiming = "podlog_set_curr_active_inst";
        if (target == pod_target::secondary && !card.secondary_log())
            return failure{"podlog_select_primary_secondary_storage", ENOENT};
        const int id = card.claim_id();
        if (podlog_get_active_inst_id() == id || podlog_set_curr_active_inst(id, 0) != 0)
            return failure{claiming, EBUSY};
        const pod_log log =
            target == pod_target::primary ? card.log() : card.secondary_log().value_or(card.log());
        auto writer = log.open();
        if (writer)
            return pod_run(card, id, std::move(*writer));
        podlog_clr_curr_active_inst(id, 0);
        return writer.error();
    }
    /// Ends the run; end() tells whether that works.
    ~pod_run() { (void)end(); }
    /// Takes the run over.
    pod_run(pod_run &&other) noexcept
        : card_(other.card_), id_(other.id_), writer_(std::move(other.writer_))
    {
    }
    /// Ends its own run, and takes the other's over.
    pod_run &operator=(pod_run &&other) noexcept
    {
        if (this != &other) {
            (void)end();
            card_ = other.card_;
            id_ = other.id_;
            writer_ = std::move(other.writer_);
        }
        return *this;
    }

    /// Adds an entry, as pod_writer::add() does, and tells whether there is room for more.
    result<log_room> add(std::string_view level, std::string_view diagnostic,
                         std::string_view outcome, std::string_view text) noexcept
    {
        return writer_.add(level, diagnostic, outcome, text);
    }

    /// Ends the run now: begins the next history, closes the log, and gives up the claim, in any
    /// case. A failed status is counted as such in the process's state. Ending twice is a success.
    result<void> end(pod_status status = pod_status::passed) noexcept
    {
        if (!writer_.is_open())
            return {};
        const auto ended = writer_.next_history();
        writer_.close();
        podlog_clr_curr_active_inst(id_, status == pod_status::failed);
        return ended;
    }

    /// Whether it goes on.
    bool is_active() const noexcept { return writer_.is_open(); }
    /// The card.
    const pod_card &card() const noexcept { return card_; }
    /// The log, for the calls that this has not.
    pod_writer &writer() noexcept { return writer_; }

private:
    pod_run(const pod_card &card, int id, pod_writer writer) noexcept
        : card_(card), id_(id), writer_(std::move(writer))
    {
    }

    pod_card card_;
    int id_;
    pod_writer writer_;
};

//--- status words and faults ----------------------------------------------------------------------

/// Whether a failure is injected for a card.
enum class pod_fault {
    none,     ///< It is not.
    injected, ///< It is.
};

/// The status words and the fault mask in NVRAM 0, open for writing while this lives, so that no
/// run on it can begin. Cards are found by their instance id in the mapping of the words or, where
/// they share it with others, by their name there; ENOENT for a card that has no word.
class pod_status_words
{
public:
    /// Opens NVRAM 0.
    static result<pod_status_words> open() noexcept
    {
        auto writer = pod_log::nvram(0).open();
        return writer ? result<pod_status_words>(pod_status_words(std::move(*writer)))
                      : writer.error();
    }

    /// A card's status. Of what is stored, 0 is passed, the top bit means unknown, and all else has
    /// failed.
    result<pod_status> status(c_string card) const noexcept
    {
        const auto position = position_of(card);
        if (!position)
            return position.error();
        const auto word = read(*position);
        if (!word)
            return word.error();
        return *word == 0    ? pod_status::passed
               : *word >> 31 ? pod_status::unknown
                             : pod_status::failed;
    }
    /// Sets a card's status.
    result<void> set_status(c_string card, pod_status status) noexcept
    {
        const auto position = position_of(card);
        return position ? write(*position, static_cast<uint32_t>(status)) : position.error();
    }

    /// Whether a failure is injected for a card: its bit in the mask, of which
    /// podlog_is_faultinject() knows nothing.
    result<pod_fault> fault(c_string card) const noexcept
    {
        const auto index = index_of(card);
        const auto mask = read(mask_position());
        if (!index || !mask)
            return index ? mask.error() : index.error();
        return *mask >> *index & 1 ? pod_fault::injected : pod_fault::none;
    }
    /// Injects a failure for a card.
    result<void> inject_fault(c_string card) noexcept { return change_mask(card, true); }
    /// Takes it back.
    result<void> clear_fault(c_string card) noexcept { return change_mask(card, false); }
    /// Takes all of them back.
    result<void> clear_all_faults() noexcept
    {
        errno = 0;
        return detail::pod_done(podlog_nvram_clr_all_faultinject(0) == 1,
                                "podlog_nvram_clr_all_faultinject");
    }
    /// Prints the injected failures on standard output.
    result<void> print_faults() const noexcept
    {
        errno = 0;
        return detail::pod_done(nvram_disp_faultinject_status(0) == 1,
                                "nvram_disp_faultinject_status");
    }
    /// Prints which cards have words on standard output.
    static void print_mapping() noexcept { nvram_dump_podstatus_inst_mapping(0); }

    /// Closes it now.
    void close() noexcept { writer_.close(); }

private:
    explicit pod_status_words(pod_writer writer) noexcept : writer_(std::move(writer)) {}

    static std::string_view name_of(const char (&name)[40]) noexcept
    {
        return {name, ::strnlen(name, sizeof name)};
    }

    // The first words that the predicate is true for; -1 for none.
    static int find(const pod_nvram_inst_map_t &map, auto matches) noexcept
    {
        const int count = std::clamp(map.num_inst, 0, static_cast<int>(std::size(map.index0)));
        for (int index = 0; index < count; ++index)
            if (matches(index))
                return index;
        return -1;
    }

    static result<int> index_of(c_string name) noexcept
    {
        const auto card = pod_card::find(name);
        if (!card)
            return card.error();
        pod_nvram_inst_map_t map = {};
        podlog_nvram_get_inst_mapping(0, &map);
        const auto id = card->instance();
        // Where podlog_nvram_set_podstatus_info() has left words without names, those it has are
        // not to be trusted.
        const bool has_names = find(map, [&](int i) { return map.name0[i][0] == '\0'; }) == -1;
        const int index = find(map, [&](int i) {
            if (id)
                return map.index0[i] == *id || map.index1[i] == *id;
            return has_names &&
                   (name_of(map.name0[i]) == card->name() || name_of(map.name1[i]) == card->name());
        });
        return index >= 0 ? result<int>(index) : failure{"nvram_get_podstatus_inst_info", ENOENT};
    }

    static result<uint32_t> position_of(c_string card) noexcept
    {
        return index_of(card).transform([](int index) {
            return static_cast<uint32_t>(podlog::_nvram_dev_info[0].pod_status_pos + 4 * index);
        });
    }
    static uint32_t mask_position() noexcept
    {
        return static_cast<uint32_t>(podlog_nvram_get_faultinject_pos(0));
    }

    result<uint32_t> read(uint32_t position) const noexcept
    {
        uint32_t word = 0;
        const auto read = moved(pod_nvram_mem_rd, "pod_nvram_mem_rd", position, word);
        return read ? result<uint32_t>(word) : read.error();
    }
    result<void> write(uint32_t position, uint32_t word) noexcept
    {
        return moved(pod_nvram_mem_wr, "pod_nvram_mem_wr", position, word);
    }
    result<void> moved(decltype(pod_nvram_mem_rd) *move, const char *call, uint32_t position,
                       uint32_t &word) const noexcept
    {
        if (!writer_.is_open())
            return failure{call, EBADF};
        errno = 0;
        const int count = move(0, position, reinterpret_cast<uint8_t *>(&word), sizeof word);
        return detail::pod_done(count == sizeof word, call);
    }

    result<void> change_mask(c_string card, bool inject) noexcept
    {
        const auto index = index_of(card);
        const auto mask = read(mask_position());
        if (!index || !mask)
            return index ? mask.error() : index.error();
        const uint32_t bit = uint32_t{1} << *index;
        return write(mask_position(), inject ? *mask | bit : *mask & ~bit);
    }

    pod_writer writer_;
};

} // namespace wrapper
} // namespace device_access

#endif
