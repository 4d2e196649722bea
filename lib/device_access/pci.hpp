/// @file
/// PCI functions: their identities and addresses, lists and scans, attributes, memory and hot-swap
/// bridges. pci_sysfs.h and qel_pci_hotswap.h describe the calls behind it.
#ifndef DEVICE_ACCESS_PCI_HPP
#define DEVICE_ACCESS_PCI_HPP

#include <device_access/attribute_file.hpp>
#include <device_access/pci_sysfs.h>
#include <device_access/qel_pci_hotswap.h>
#include <device_access/registers.hpp>
#include <device_access/result.hpp>

#include <array>
#include <charconv>
#include <compare>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <ranges>

namespace device_access
{
inline namespace wrapper
{

/// The text of an address.
class pci_text
{
public:
    /// Keeps the first 12 characters.
    explicit pci_text(std::string_view text) noexcept { text.copy(text_, sizeof text_ - 1); }

    /// The text, NUL-terminated.
    const char *c_str() const noexcept { return text_; }
    /// The text.
    operator std::string_view() const noexcept { return text_; }

private:
    char text_[13] = {};
};

/// Where a function is, in numbers: domain, bus, slot (device) and function, as the hexadecimal
/// numbers in its name say. It is compared, hashed, written to streams and formatted.
struct pci_address {
    uint16_t domain;  ///< 0 on most machines.
    uint8_t bus;      ///< 0x00 to 0xff.
    uint8_t slot;     ///< 0x00 to 0x1f.
    uint8_t function; ///< 0 to 7.

    /// "dddd:bb:ss.f".
    pci_text text() const noexcept
    {
        char room[24];
        std::snprintf(room, sizeof room, "%04x:%02x:%02x.%x", unsigned{domain}, unsigned{bus},
                      unsigned{slot}, unsigned{function});
        return pci_text(room);
    }

    /// In the order of the numbers.
    friend auto operator<=>(const pci_address &, const pci_address &) noexcept = default;
};

/// The numbers that all of the system uses for a function, which are no hexadecimal numbers;
/// sysfs_pci_identity_atox() tells how they come about.
struct pci_system_numbers {
    int domain;   ///< sysfs_pci_identity_domain().
    int bus;      ///< sysfs_pci_identity_bus().
    int slot;     ///< sysfs_pci_identity_slot().
    int function; ///< sysfs_pci_identity_function().
    int devfn;    ///< sysfs_pci_identity_devfn().
};

/// The name of a function, "dddd:bb:ss.f". It is the C interface's identity, too: its address can
/// be handed to every call. It is compared, hashed, written to streams and formatted.
struct pci_id : sysfs_pci_identity_t {
    /// No function.
    pci_id() noexcept : sysfs_pci_identity_t{} {}
    /// A function by its address.
    explicit pci_id(const pci_address &address) noexcept : pci_id(address.text()) {}
    /// A function by the C interface's name of it.
    pci_id(const sysfs_pci_identity_t &identity) noexcept
        : pci_id(pci_text({identity.str, ::strnlen(identity.str, sizeof identity.str)}))
    {
    }

    /// "dddd:bb:ss.f", or "bb:ss.f" of domain 0, in hexadecimal of either case. Fails with EINVAL
    /// for every other text.
    static result<pci_id> parse(std::string_view text) noexcept
    {
        const bool is_short = text.size() == 7;
        const auto address =
            numbers_of(is_short ? std::string_view("0000:") : text.substr(0, 5),
                       is_short ? text : text.substr(std::min(text.size(), size_t{5})));
        return address ? result<pci_id>(pci_id(*address)) : failure{"pci_id::parse", EINVAL};
    }

    /// Its name.
    std::string_view text() const noexcept { return str; }

    /// Its address; none when its name is no address.
    std::optional<pci_address> address() const noexcept
    {
        const std::string_view name = text();
        return name.size() == 12 ? numbers_of(name.substr(0, 5), name.substr(5)) : std::nullopt;
    }

    /// The numbers that the system uses for it.
    pci_system_numbers system_numbers() const noexcept
    {
        return {sysfs_pci_identity_domain(this), sysfs_pci_identity_bus(this),
                sysfs_pci_identity_slot(this), sysfs_pci_identity_function(this),
                sysfs_pci_identity_devfn(this)};
    }

    /// Equal when the names are.
    friend bool operator==(const pci_id &one, const pci_id &other) noexcept
    {
        return one.text() == other.text();
    }
    /// In the order of the names, which is that of the addresses.
    friend std::strong_ordering operator<=>(const pci_id &one, const pci_id &other) noexcept
    {
        return one.text() <=> other.text();
    }

private:
    explicit pci_id(const pci_text &text) noexcept : sysfs_pci_identity_t{}
    {
        std::memcpy(str, text.c_str(), sizeof str);
    }

    static bool number(std::string_view text, unsigned most, auto &value) noexcept
    {
        unsigned read = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), read, 16);
        value = static_cast<std::remove_reference_t<decltype(value)>>(read);
        return error == std::errc() && end == text.data() + text.size() && read <= most;
    }

    // Of "dddd:" and "bb:ss.f".
    static std::optional<pci_address> numbers_of(std::string_view domain,
                                                 std::string_view rest) noexcept
    {
        pci_address found = {};
        if (domain.size() == 5 && domain[4] == ':' && rest.size() == 7 && rest[2] == ':' &&
            rest[5] == '.' && number(domain.substr(0, 4), 0xffff, found.domain) &&
            number(rest.substr(0, 2), 0xff, found.bus) &&
            number(rest.substr(3, 2), 0x1f, found.slot) &&
            number(rest.substr(6, 1), 7, found.function))
            return found;
        return std::nullopt;
    }
};

namespace detail
{
template <>
inline constexpr bool has_text<pci_id> = true;
template <>
inline constexpr bool has_text<pci_address> = true;
} // namespace detail

/// Functions as one of the calls lists them, sorted by name.
class pci_functions
{
public:
    /// All of the machine.
    static result<pci_functions> all() { return owned(sysfs_pci_list(), "sysfs_pci_list"); }
    /// Those directly below a bridge.
    static result<pci_functions> below(const pci_id &bridge)
    {
        return owned(sysfs_pci_children_list(&bridge), "sysfs_pci_children_list");
    }
    /// Owns a list that one of the C calls has given, or is the failure of that call.
    static result<pci_functions> owned(sysfs_pci_identity_t *list, const char *call)
    {
        return detail::done(list != nullptr, pci_functions(list), call);
    }

    /// The first one.
    const pci_id *begin() const noexcept { return list_.get(); }
    /// Behind the last one.
    const pci_id *end() const noexcept { return list_.get() + size_; }
    /// How many they are.
    size_t size() const noexcept { return size_; }
    /// Whether there are none.
    bool empty() const noexcept { return size_ == 0; }
    /// The one of a number, which must be below size().
    const pci_id &operator[](size_t number) const noexcept
    {
        assert(number < size_);
        return list_[number];
    }

private:
    struct releaser {
        void operator()(pci_id *list) const noexcept { std::free(list); }
    };

    // The records become pci_ids where they are.
    explicit pci_functions(sysfs_pci_identity_t *list) noexcept
    {
        static_assert(sizeof(pci_id) == sizeof(sysfs_pci_identity_t));
        for (; list && list[size_].str[0] != '\0'; ++size_) {
            const pci_id copy(list[size_]);
            new (static_cast<void *>(list + size_)) pci_id(copy);
        }
        list_.reset(std::launder(static_cast<pci_id *>(list)));
    }

    size_t size_ = 0;
    std::unique_ptr<pci_id[], releaser> list_;
};

/// The functions that a scan has found, with their ids and base address registers. What the scan
/// found lives for the process; any number of walks over it may go on at once.
class pci_scan
{
public:
    /// Scans the machine, in place of an earlier scan for walks that begin later. It prints lines
    /// on standard output, as sysfs_pci_info_init() says.
    static result<pci_scan> run() noexcept
    {
        errno = 0;
        return sysfs_pci_info_init() == 0 ? result<pci_scan>(pci_scan())
                                          : failure{"sysfs_pci_info_init", 0};
    }

    /// A place in the walk.
    class iterator
    {
    public:
        using value_type = sysfs_pci_info_t;                 ///< A function.
        using difference_type = std::ptrdiff_t;              ///< Between two places.
        using reference = const sysfs_pci_info_t &;          ///< It lives for the process.
        using pointer = const sysfs_pci_info_t *;            ///< It lives for the process.
        using iterator_category = std::forward_iterator_tag; ///< Each place can be kept.

        iterator() noexcept = default; ///< The end.
        /// The function here.
        reference operator*() const noexcept { return *at_; }
        /// A member of the function here.
        pointer operator->() const noexcept { return at_; }
        /// Goes on.
        iterator &operator++() noexcept
        {
            at_ = sysfs_pci_info_fetch_next(&next_);
            return *this;
        }
        /// Goes on; the place before.
        iterator operator++(int) noexcept
        {
            iterator before = *this;
            ++*this;
            return before;
        }
        /// Whether both are at the same function, or both at the end.
        friend bool operator==(const iterator &one, const iterator &other) noexcept
        {
            return one.at_ == other.at_;
        }

    private:
        friend class pci_scan;
        sysfs_pci_get_next_element_t next_ = {};
        const sysfs_pci_info_t *at_ = nullptr;
    };

    /// The first function.
    iterator begin() const noexcept
    {
        iterator first;
        sysfs_pci_info_fetch_init(&first.next_);
        return ++first;
    }
    /// Behind the last one.
    iterator end() const noexcept { return {}; }

private:
    pci_scan() noexcept = default;
};

/// The function that a record of a scan is about.
inline pci_id function_of(const com_pci_dev_t &device) noexcept
{
    const std::string_view path(device.sys_fs, ::strnlen(device.sys_fs, sizeof device.sys_fs));
    return pci_id::parse(path.substr(path.rfind('/') + 1)).value_or(pci_id());
}

/// The ids of a function: 0xffff for each that cannot be read.
inline com_pci_dev_t pci_device_ids(const pci_id &function) noexcept
{
    com_pci_dev_t ids = {};
    sysfs_pci_dev_fill(&ids, &function);
    return ids;
}

/// The attributes of a function: the files of its sysfs directory, by name.
class pci_attributes
{
public:
    /// Those of a function. Nothing is opened yet.
    explicit pci_attributes(const pci_id &function) noexcept : function_(function) {}

    /// An attribute's text, as it stands in the file.
    result<std::string> text(c_string name) const
    {
        return open(name, O_RDONLY | O_CLOEXEC).and_then([](const attribute_file &file) {
            return file.text();
        });
    }
    /// The number at its beginning.
    result<int64_t> number(c_string name) const
    {
        int64_t value = 0;
        errno = ENODATA;
        const ssize_t count = sysfs_pci_show_nums(&value, 1, name.c_str(), &function_);
        return detail::done(count == 1, value, "sysfs_pci_show_nums");
    }
    /// The numbers at its beginning, as many as there are and have room; how many they are.
    result<size_t> numbers(c_string name, std::span<int64_t> values) const
    {
        return open(name, O_RDONLY | O_CLOEXEC).and_then([values](const attribute_file &file) {
            return file.numbers(values);
        });
    }
    /// Writes a text, which is not empty, in one piece.
    result<void> write(c_string name, c_string text) const noexcept
    {
        errno = EIO;
        return detail::done(sysfs_pci_store(text.c_str(), name.c_str(), &function_) == 0,
                            "sysfs_pci_store");
    }
    /// Writes a number: 0 to 9 as a digit, others in hexadecimal.
    result<void> write_number(c_string name, int64_t value) const noexcept
    {
        errno = EIO;
        return detail::done(sysfs_pci_store_num(value, name.c_str(), &function_) == 0,
                            "sysfs_pci_store_num");
    }
    /// Whether this process may use it so, as access(2) says: R_OK, W_OK, or F_OK for "is there".
    result<void> accessible(c_string name, int mode) const noexcept
    {
        return detail::done(sysfs_pci_access(name.c_str(), mode, &function_) == 0,
                            "sysfs_pci_access");
    }
    /// Opens it, with open(2)'s flags, to be read or written again and again.
    result<attribute_file> open(c_string name, int flags) const
    {
        descriptor file(sysfs_pci_open(name.c_str(), flags, &function_));
        const bool opened = file.get() >= 0;
        return detail::done(opened, attribute_file(std::move(file)), "sysfs_pci_open");
    }
    /// Its path.
    result<std::string> path(c_string name) const
    {
        char room[256];
        const char *const made = sysfs_pci_abspath(room, sizeof room, name.c_str(), &function_);
        return detail::done(made != nullptr, std::string(made ? made : ""), "sysfs_pci_abspath");
    }

private:
    pci_id function_;
};

/// The memory of a function, mapped while this lives.
class pci_memory
{
public:
    static constexpr size_t bars = 6; ///< Base address registers of a function.

    /// Maps what is memory and has no bit in `without`, where bit N stands for base address
    /// register N. Enable the device first.
    static result<pci_memory> map(const pci_id &function, uint32_t without = 0)
    {
        pci_memory memory(function);
        if (sysfs_pci_mmap(memory.bases_.data(), without, &function) != 0) {
            memory.bases_ = {};
            return failure{"sysfs_pci_mmap", errno};
        }
        const auto measured = memory.measure(function);
        return measured ? result<pci_memory>(std::move(memory)) : measured.error();
    }
    /// Unmaps it.
    ~pci_memory() { close(); }
    /// Takes the mapping over.
    pci_memory(pci_memory &&other) noexcept
        : function_(other.function_), bases_(std::exchange(other.bases_, {})), sizes_(other.sizes_)
    {
    }
    /// Unmaps its own, and takes the other's mapping over.
    pci_memory &operator=(pci_memory &&other) noexcept
    {
        if (this != &other) {
            close();
            function_ = other.function_;
            bases_ = std::exchange(other.bases_, {});
            sizes_ = other.sizes_;
        }
        return *this;
    }

    /// The whole window of a base address register, while this lives; none when it is not mapped.
    std::optional<window> bar(size_t number) const noexcept
    {
        const bool is_mapped = number < bars && bases_[number];
        return is_mapped ? std::optional(window(bases_[number], sizes_[number])) : std::nullopt;
    }

    /// Unmaps it now. What a device that has gone had mapped stays for the process's life.
    void close() noexcept { sysfs_pci_munmap(bases_.data(), &function_); }

private:
    explicit pci_memory(const pci_id &function) noexcept : function_(function) {}

    // The lengths, from the table of start, end and flags in the attribute "resource".
    result<void> measure(const pci_id &function)
    {
        std::array<int64_t, 3 * bars> lines;
        const auto read = pci_attributes(function).numbers("resource", lines);
        if (!read)
            return read.error();
        for (size_t number = 0; number < bars; ++number) {
            if (!bases_[number])
                continue;
            if (*read < 3 * number + 2)
                return failure{"sysfs_pci_fshow_nums", ENODATA};
            sizes_[number] = static_cast<size_t>(lines[3 * number + 1] - lines[3 * number] + 1);
        }
        return {};
    }

    pci_id function_;
    std::array<void *, bars> bases_ = {};
    std::array<size_t, bars> sizes_ = {};
};

/// A bridge in front of a card, whose downstream side can be switched.
class hotswap_bridge
{
public:
    /// The bridges that the kernel module is to manage.
    enum class managed {
        all_pci = QEL_PCI_HOTSWAP_ALL_PCI_BRIDGES,         ///< All bridges.
        all_pcie = QEL_PCI_HOTSWAP_ALL_PCIE_BRIDGES,       ///< PCI Express bridges.
        hotplug_pcie = QEL_PCI_HOTSWAP_ALL_PCIEHP_BRIDGES, ///< Those that can do hot-plug.
    };

    /// Loads the kernel module with modprobe(8) and waits for that.
    static result<void> load_driver(managed bridges)
    {
        const auto options = static_cast<qel_pci_hotswap_options_t>(bridges);
        return qel_pci_hotswap_install(options) == 0 ? result<void>()
                                                     : failure{"qel_pci_hotswap_install", 0};
    }

    /// The bridge of this identity.
    explicit hotswap_bridge(const pci_id &bridge) noexcept : bridge_(bridge) {}

    /// Whether it can be switched: ENOENT when the module does not manage it.
    result<void> usable() const noexcept
    {
        return detail::done(qel_pci_hotswap_bridge_usable(&bridge_) == 0,
                            "qel_pci_hotswap_bridge_usable");
    }
    /// Switches it on, and waits about half a second for what is below it: at least one function.
    /// ENODEV when none came; the bridge stays on then.
    result<pci_functions> enable() const
    {
        return pci_functions::owned(qel_pci_hotswap_bridge_enable(&bridge_),
                                    "qel_pci_hotswap_bridge_enable");
    }
    /// Switches it off.
    result<void> disable() const noexcept
    {
        errno = EIO;
        return detail::done(qel_pci_hotswap_bridge_disable(&bridge_) == 0,
                            "qel_pci_hotswap_bridge_disable");
    }

private:
    pci_id bridge_;
};

} // namespace wrapper
} // namespace device_access

/// @cond
// A walk's places stay good without the scan.
template <>
inline constexpr bool std::ranges::enable_borrowed_range<device_access::pci_scan> = true;

template <>
struct std::hash<device_access::pci_id> {
    size_t operator()(const device_access::pci_id &function) const noexcept
    {
        return std::hash<std::string_view>()(function.text());
    }
};

template <>
struct std::hash<device_access::pci_address> {
    size_t operator()(const device_access::pci_address &address) const noexcept
    {
        const uint32_t number = uint32_t{address.domain} << 16 | uint32_t{address.bus} << 8 |
                                uint32_t{address.slot} << 3 | address.function;
        return std::hash<uint32_t>()(number);
    }
};
/// @endcond

#endif
