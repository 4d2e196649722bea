/// @file
/// The chassis: its slots, the inventory of its cards, the library's version and the logs'
/// checksum. slot_names.h and diag_inventory.h describe the calls behind it.
#ifndef DEVICE_ACCESS_CHASSIS_HPP
#define DEVICE_ACCESS_CHASSIS_HPP

#include <device_access/device_access_version.h>
#include <device_access/diag_inventory.h>
#include <device_access/pod_log_crc_tmp.h>
#include <device_access/result.hpp>
#include <device_access/slot_names.h>

#include <optional>
#include <span>

namespace device_access
{
inline namespace wrapper
{

//--- slots ----------------------------------------------------------------------------------------

/// The types of slot tables.
enum class chassis_stack {
    first = ChassisType_1st_Stack,  ///< 6 slots.
    second = ChassisType_2nd_Stack, ///< 12 slots.
};

/// Selects the slot table for the whole process.
inline void select_chassis_stack(chassis_stack stack) noexcept
{
    SetChassisType(static_cast<chassis_t>(stack));
}

/// The slot table in force.
inline chassis_stack selected_chassis_stack() noexcept
{
    return static_cast<chassis_stack>(GetChassisType());
}

/// What a slot is for.
enum class slot_kind {
    line_card = SLOT_INFO_LC,       ///< A line card.
    route_processor = SLOT_INFO_RP, ///< A route processor.
    switch_card = SLOT_INFO_SW,     ///< A switch card.
    other = SLOT_INFO_OTHER,        ///< A fan tray or a power module.
};

/// A slot of the chassis. It is compared, hashed, written to streams and formatted.
class slot
{
public:
    /// The slot of a name, in any case; none when the table in force has none.
    static std::optional<slot> find(c_string name) noexcept
    {
        return known(*GetSlotByName(name.c_str()));
    }
    /// The slot of a number; none when the table in force has none.
    static std::optional<slot> at(int number) noexcept { return known(*GetSlotById(number)); }

    /// Its number.
    int number() const noexcept { return row_->slotN; }
    /// What it is for.
    slot_kind kind() const noexcept { return static_cast<slot_kind>(row_->slotType); }
    /// Its name, which lives for the process: "SW1".
    std::string_view name() const noexcept { return row_->slot_name; }
    /// The same.
    std::string_view text() const noexcept { return name(); }

    /// Equal when number and name are.
    friend bool operator==(const slot &one, const slot &other) noexcept
    {
        return one.number() == other.number() && one.name() == other.name();
    }
    /// In the order of the numbers.
    friend auto operator<=>(const slot &one, const slot &other) noexcept
    {
        const auto by_number = one.number() <=> other.number();
        return by_number != 0 ? by_number : one.name() <=> other.name();
    }

private:
    explicit slot(const SLOT_INFO &row) noexcept : row_(&row) {}
    static std::optional<slot> known(const SLOT_INFO &row) noexcept
    {
        return row.slotN == -1 ? std::nullopt : std::optional(slot(row));
    }

    const SLOT_INFO *row_;
};

namespace detail
{
template <>
inline constexpr bool has_text<slot> = true;
} // namespace detail

//--- the inventory --------------------------------------------------------------------------------

/// What the inventory holds of a card.
class inventory_record
{
public:
    /// The record as the C interface has it.
    explicit inventory_record(const diag_inventory_t &record) noexcept : record_(record) {}
    /// Serial number, of which 14 bytes count, and product code, of which 5 do.
    inventory_record(std::string_view serial_number, std::string_view product_code) noexcept
    {
        (void)serial_number.copy(reinterpret_cast<char *>(record_.serNo), sizeof record_.serNo);
        (void)product_code.copy(reinterpret_cast<char *>(record_.prodCode),
                                sizeof record_.prodCode);
    }

    /// The serial number, valid as long as this.
    std::string_view serial_number() const noexcept { return text(record_.serNo); }
    /// The product code, valid as long as this: that of the record, where
    /// diag_inventory_get_prod_code() gives the beginning of the serial number.
    std::string_view product_code() const noexcept { return text(record_.prodCode); }
    /// The record as the C interface has it.
    const diag_inventory_t &record() const noexcept { return record_; }

    /// Equal when serial number and product code are.
    friend bool operator==(const inventory_record &one, const inventory_record &other) noexcept
    {
        return one.serial_number() == other.serial_number() &&
               one.product_code() == other.product_code();
    }

private:
    template <size_t Size>
    static std::string_view text(const uint8_t (&field)[Size]) noexcept
    {
        const char *const start = reinterpret_cast<const char *>(field);
        return {start, ::strnlen(start, Size)};
    }

    diag_inventory_t record_ = {};
};

/// The inventory: a record for each slot, by the slot's name.
struct inventory {
    /// A slot's record. Prints why there is none.
    static result<inventory_record> read(c_string slot) noexcept
    {
        diag_inventory_t record = {};
        errno = 0;
        const bool read = diag_inventory_get_all(slot.c_str(), &record) == 1;
        return detail::done(read, inventory_record(record), "diag_inventory_get_all");
    }
    /// Writes a slot's record and reads it back: EIO when that is not what was written.
    static result<void> store(c_string slot, inventory_record record) noexcept
    {
        diag_inventory_t written = record.record();
        errno = 0;
        if (diag_inventory_store(slot.c_str(), &written) != 1)
            return failure{"diag_inventory_store", errno};
        const auto stored = read(slot);
        return stored && *stored == record ? result<void>() : failure{"diag_inventory_store", EIO};
    }
    /// Deletes a slot's record, if it has one.
    static void clear(c_string slot) noexcept { diag_inventory_clear(slot.c_str()); }
    /// Makes the directories, and deletes the records of the route processors and switch cards.
    static void clear_all() noexcept { diag_inventory_clear_all(); }
};

//--- version and checksum -------------------------------------------------------------------------

/// The version of the library that the program runs with; DEVICE_ACCESS_VERSION is the one that it
/// was compiled for.
inline const char *library_version() noexcept
{
    return device_access_version();
}

/// The checksum of the logs' records: the CRC of POSIX cksum.
inline uint32_t cksum(std::span<const std::byte> bytes) noexcept
{
    return crc32_cksum(bytes.data(), bytes.size());
}

} // namespace wrapper
} // namespace device_access

/// @cond
template <>
struct std::hash<device_access::slot> {
    size_t operator()(const device_access::slot &slot) const noexcept
    {
        return std::hash<int>()(slot.number());
    }
};
/// @endcond

#endif
