// Access to configuration spaces, their capabilities, registers by name, and decoded fields.
#include "tools/pci/config_space.h"

#include "tools/base/captured_call.h"
#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/numbers.h"
#include "tools/base/suggest.h"
#include "tools/pci/device.h"

#include <device_access/pci_sysfs.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <set>

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/pci_regs.h>
#include <unistd.h>

namespace devaccess
{

//--- access ---------------------------------------------------------------------------------------

config_space::config_space(const sysfs_pci_identity_t &device, bool for_writing) : id_(device.str)
{
    const std::string what = "open the configuration space of " + id_;
    const auto found = ask([&] { return sysfs_pci_open("config", O_RDONLY | O_CLOEXEC, &device); });
    if (found.result < 0)
        fail(what, found, list_hint);
    file_.reset(new int(found.result));
    if (!for_writing)
        return;
    const auto writable = ask([&] { return pci_config_open(&device); });
    if (!writable.result)
        fail(what, writable, list_hint);
    writable_.reset(writable.result);
}

config_space::config_space(std::string id, std::string bytes)
    : id_(std::move(id)), bytes_(std::move(bytes))
{
    bytes_.resize(std::min<size_t>(bytes_.size(), PCI_CFG_SPACE_EXP_SIZE));
}

void config_space::closing::operator()(const int *descriptor) const
{
    ::close(*descriptor);
    delete descriptor;
}

std::optional<uint32_t> config_space::try_read(uint32_t offset, unsigned width) const
{
    if (!is_device()) {
        uint32_t value = 0;
        errno = ENODATA;
        if (bytes_.size() < width / 8 || offset > bytes_.size() - width / 8)
            return std::nullopt;
        for (uint32_t i = width / 8; i-- > 0;)
            value = value << 8 | static_cast<unsigned char>(bytes_[offset + i]);
        return value;
    }
    errno = EINVAL;
    if (offset % (width / 8) != 0)
        return std::nullopt;
    errno = ENODATA;
    uint32_t value = 0; // the machine is little-endian, as the space is
    const ssize_t size = width / 8;
    return ::pread(*file_, &value, width / 8, offset) == size ? std::optional(value) : std::nullopt;
}

uint32_t config_space::read(uint32_t offset, unsigned width) const
{
    const std::optional<uint32_t> value = try_read(offset, width);
    if (!value)
        fail_on("read", offset, width);
    return *value;
}

void config_space::write(uint32_t offset, unsigned width, uint32_t value) const
{
    errno = ENODATA;
    void *handle = writable_.get();
    const int result = width == 8 ? pci_config_write8(static_cast<uint8_t>(value), offset, handle)
                       : width == 16
                           ? pci_config_write16(static_cast<uint16_t>(value), offset, handle)
                           : pci_config_write32(value, offset, handle);
    if (result != 0)
        fail_on("write", offset, width);
}

void config_space::fail_on(const char *verb, uint32_t offset, unsigned width) const
{
    const int error = errno;
    const std::string what = fmt::format("{} register {:#x} of {}", verb, offset, id_);
    if (error == ENODATA && !is_device())
        throw failure(what, "the file does not contain it",
                      "'lspci -xxxx' as root keeps all of it");
    if (error == ENODATA)
        throw failure(what, "it lies beyond the end of the configuration space",
                      "without special rights the kernel shows only the first 64 bytes");
    throw failure(what, std::strerror(error),
                  fmt::format("offsets are multiples of the width, {} bytes here", width / 8),
                  error);
}

std::string config_space::all_bytes() const
{
    if (!is_device())
        return bytes_;
    return read_all(*file_, "the configuration space of " + id_);
}

//--- capabilities ---------------------------------------------------------------------------------

namespace
{

const pci_capability_kind *kind_of(bool extended, uint32_t id)
{
    const auto kind =
        std::find_if(pci_capability_kinds.begin(), pci_capability_kinds.end(),
                     [&](const auto &k) { return k.extended == extended && k.id == id; });
    return kind == pci_capability_kinds.end() ? nullptr : &*kind;
}

// By the capability's first register, and the port's type where it is one of PCI Express.
bool is_present(pci_presence presence, uint32_t flags, uint32_t port_type)
{
    const bool is_64_bits = flags & PCI_MSI_FLAGS_64BIT;
    const bool has_mask = flags & PCI_MSI_FLAGS_MASKBIT;
    const bool has_slot = flags & PCI_EXP_FLAGS_SLOT && (port_type == PCI_EXP_TYPE_ROOT_PORT ||
                                                         port_type == PCI_EXP_TYPE_DOWNSTREAM);
    const bool is_root = port_type == PCI_EXP_TYPE_ROOT_PORT || port_type == PCI_EXP_TYPE_RC_EC;
    const bool is_version_2 = (flags & PCI_EXP_FLAGS_VERS) >= 2;
    switch (presence) {
    case pci_presence::msi_32:
        return !is_64_bits;
    case pci_presence::msi_64:
        return is_64_bits;
    case pci_presence::msi_mask_32:
        return has_mask && !is_64_bits;
    case pci_presence::msi_mask_64:
        return has_mask && is_64_bits;
    case pci_presence::exp_link:
        return port_type != PCI_EXP_TYPE_RC_END && port_type != PCI_EXP_TYPE_RC_EC;
    case pci_presence::exp_slot:
        return has_slot;
    case pci_presence::root:
        return is_root;
    case pci_presence::exp_version_2:
        return is_version_2;
    case pci_presence::exp_slot_2:
        return has_slot && is_version_2;
    default:
        return true;
    }
}

class capability_walk
{
public:
    explicit capability_walk(const config_space &config) : config_(config) {}

    capability_list run()
    {
        walk_standard();
        walk_extended();
        return std::move(list_);
    }

private:
    // Where the standard list begins; 0 when there is none.
    uint32_t first() const
    {
        const bool has_list = config_.read(PCI_STATUS, 16) & PCI_STATUS_CAP_LIST;
        const uint32_t layout = config_.read(PCI_HEADER_TYPE, 8) & 0x7f;
        const uint32_t pointer =
            layout == PCI_HEADER_TYPE_CARDBUS ? PCI_CB_CAPABILITY_LIST : PCI_CAPABILITY_LIST;
        return has_list ? config_.read(pointer, 8) & 0xfc : 0;
    }

    // False, and the list is broken, where it leads out of bounds or in a circle.
    bool may_go_to(uint32_t offset, uint32_t least)
    {
        list_.complete = offset >= least && seen_.insert(offset).second;
        return list_.complete;
    }

    void walk_standard()
    {
        for (uint32_t offset = first(); offset != 0 && may_go_to(offset, PCI_STD_HEADER_SIZEOF);) {
            const uint32_t entry = config_.read(offset, 16);
            add(false, offset, entry & 0xff);
            offset = entry >> 8 & 0xfc;
        }
    }

    void walk_extended()
    {
        const bool standard_is_complete = list_.complete;
        for (uint32_t offset = PCI_CFG_SPACE_SIZE; offset != 0;) {
            const std::optional<uint32_t> entry = config_.try_read(offset, 32);
            if (!entry || *entry == 0 || *entry == UINT32_MAX)
                break;
            if (!may_go_to(offset, PCI_CFG_SPACE_SIZE))
                break;
            add(true, offset, *entry & 0xffff);
            offset = PCI_EXT_CAP_NEXT(*entry);
        }
        list_.complete &= standard_is_complete;
    }

    void add(bool extended, uint32_t offset, uint32_t id)
    {
        found_capability capability = {extended, offset, id, kind_of(extended, id), {}};
        const uint32_t flags = config_.try_read(offset + PCI_CAP_FLAGS, 16).value_or(0);
        if (!extended && id == PCI_CAP_ID_EXP)
            port_type_ = (flags & PCI_EXP_FLAGS_TYPE) >> 4;
        if (capability.kind)
            for (const pci_register &known : capability.kind->registers)
                if (is_present(known.presence, flags, port_type_))
                    capability.registers.push_back(
                        {known.name, offset + known.offset, known.width, known.fields});
        list_.found.push_back(std::move(capability));
    }

    const config_space &config_;
    capability_list list_;
    std::set<uint32_t> seen_;
    uint32_t port_type_ = 0;
};

//--- names ----------------------------------------------------------------------------------------

register_place place_of(const pci_register &known, uint32_t base = 0)
{
    return {known.name, base + known.offset, known.width, known.fields};
}

const pci_register *find_name(std::span<const pci_register> registers, const std::string &name)
{
    const auto known = std::find_if(registers.begin(), registers.end(),
                                    [&](const pci_register &r) { return name == r.name; });
    return known == registers.end() ? nullptr : &*known;
}

// Nothing for a name that no header has; fails for one that this header does not have.
const pci_register *find_header_register(const config_space &config, const std::string &name)
{
    if (const pci_register *known = find_name(pci_header_registers, name))
        return known;
    const pci_register *const of_device = find_name(pci_device_registers, name);
    const pci_register *const of_bridge = find_name(pci_bridge_registers, name);
    if (!of_device && !of_bridge)
        return nullptr;
    const uint32_t layout = config.read(PCI_HEADER_TYPE, 8) & 0x7f;
    const pci_register *const known = layout == PCI_HEADER_TYPE_NORMAL   ? of_device
                                      : layout == PCI_HEADER_TYPE_BRIDGE ? of_bridge
                                                                         : nullptr;
    if (!known)
        throw failure(
            fmt::format("find {} of {}", name, config.id()),
            "its kind of header has no such register",
            "bridges and devices have different ones; 'devaccess pci show' tells its class");
    return known;
}

found_capability find_capability(const config_space &config, const pci_capability_kind &kind)
{
    for (found_capability &capability : capabilities_of(config).found)
        if (capability.kind == &kind)
            return std::move(capability);
    throw failure(fmt::format("find {} of {}", kind.name, config.id()), "it has no such capability",
                  "'devaccess pci caps' shows what it has");
}

// What an offset after a capability's name means there.
register_place place_in(const found_capability &capability, uint32_t offset)
{
    const uint32_t at = capability.offset + offset;
    for (const register_place &known : capability.registers)
        if (known.offset == at)
            return known;
    return {fmt::format("{}+{:#x}", capability.name(), offset), at, 32};
}

[[noreturn]] void refuse_name(const std::string &name)
{
    throw usage_error(fmt::format("'{}' is not a register", name),
                      did_you_mean(name, register_names()));
}

register_place find_named(const config_space &config, const std::string &text)
{
    const size_t plus = text.find('+');
    const std::string name = in_capitals(text.substr(0, plus));
    const uint32_t offset =
        plus == text.npos
            ? 0
            : static_cast<uint32_t>(parse_number("the offset", text.substr(plus + 1), 4095));
    if (const pci_register *known = find_header_register(config, name))
        return offset ? register_place{{}, known->offset + offset, 32} : place_of(*known);
    for (const pci_capability_kind &kind : pci_capability_kinds) {
        if (name == kind.name)
            return place_in(find_capability(config, kind), offset);
        if (const pci_register *known = find_name(kind.registers, name))
            return place_in(find_capability(config, kind), known->offset + offset);
    }
    refuse_name(text);
}

} // namespace

capability_list capabilities_of(const config_space &config)
{
    return capability_walk(config).run();
}

std::string found_capability::name() const
{
    return kind ? kind->name : fmt::format("{}{:02X}", extended ? "ECAP" : "CAP", id);
}

std::vector<register_place> header_registers(const config_space &config)
{
    const uint32_t layout = config.read(PCI_HEADER_TYPE, 8) & 0x7f;
    std::vector<register_place> places;
    for (const pci_register &known : pci_header_registers)
        places.push_back(place_of(known));
    if (layout <= PCI_HEADER_TYPE_BRIDGE)
        for (const pci_register &known : layout == 0 ? pci_device_registers : pci_bridge_registers)
            places.push_back(place_of(known));
    return places;
}

register_place find_register(const config_space &config, const std::string &text, unsigned width)
{
    const bool is_number = !text.empty() && text[0] >= '0' && text[0] <= '9';
    register_place place = {{}, 0, 32};
    if (is_number)
        place.offset = static_cast<uint32_t>(parse_number("the offset", text, UINT32_MAX));
    else
        place = find_named(config, text);
    if (width != 0 && width != place.width)
        place = {place.name, place.offset, width};
    if (is_number)
        for (const pci_register &known : pci_header_registers)
            if (known.offset == place.offset && known.width == place.width)
                return place_of(known);
    return place;
}

std::vector<std::string> register_names()
{
    std::vector<std::string> names;
    const auto add = [&](std::span<const pci_register> registers) {
        for (const pci_register &known : registers)
            names.push_back(known.name);
    };
    for (const auto &part : {pci_header_registers, pci_device_registers, pci_bridge_registers})
        add(part);
    for (const pci_capability_kind &kind : pci_capability_kinds) {
        names.push_back(kind.name);
        add(kind.registers);
    }
    return names;
}

std::vector<pci_resource> config_resources(const config_space &config)
{
    std::vector<pci_resource> resources;
    const uint32_t layout = config.read(PCI_HEADER_TYPE, 8) & 0x7f;
    const int bars = layout == PCI_HEADER_TYPE_NORMAL   ? 6
                     : layout == PCI_HEADER_TYPE_BRIDGE ? 2
                                                        : 0;
    for (int bar = 0; bar < bars; ++bar) {
        const auto at = static_cast<uint32_t>(PCI_BASE_ADDRESS_0 + 4 * bar);
        const uint32_t value = config.read(at, 32);
        if (value == 0)
            continue;
        pci_resource resource = {bar, value & PCI_BASE_ADDRESS_MEM_MASK, 0, pci_resource::memory};
        if (value & PCI_BASE_ADDRESS_SPACE_IO)
            resource = {bar, value & PCI_BASE_ADDRESS_IO_MASK, 0, pci_resource::io};
        else if (value & PCI_BASE_ADDRESS_MEM_PREFETCH)
            resource.flags |= pci_resource::prefetch;
        if ((value & 0x7) == PCI_BASE_ADDRESS_MEM_TYPE_64 && bar + 1 < bars) {
            resource.flags |= pci_resource::memory_64;
            resource.base |= uint64_t{config.read(at + 4, 32)} << 32;
            ++bar;
        }
        resources.push_back(resource);
    }
    return resources;
}

//--- fields ---------------------------------------------------------------------------------------

namespace
{

std::string power(uint32_t number)
{
    const uint32_t watts = number & 0xff;
    constexpr double scales[] = {1, 0.1, 0.01, 0.001};
    if (number == 0xff)
        return ">600W";
    if (number >= 0xf0 && number < 0xff) // in steps of 25 watts
        return fmt::format("{}W", 250 + 25 * (number - 0xf0));
    return fmt::format("{:g}W", watts * scales[number >> 8 & 3]);
}

std::string word_of(std::string_view words, uint32_t number)
{
    for (uint32_t i = 0; i < number && !words.empty(); ++i)
        words.remove_prefix(std::min(words.find('|'), words.size() - 1) + 1);
    const std::string word(words.substr(0, words.find('|')));
    return word.empty() ? "unknown" : word;
}

field_value value_of(const pci_field &field, uint32_t value)
{
    const uint32_t number = (value & field.mask) >> std::countr_zero(field.mask);
    switch (field.meaning.how) {
    case field_reading::flag:
        return number != 0;
    case field_reading::words:
        return word_of(field.meaning.text, number);
    case field_reading::plus_one:
        return number + 1;
    case field_reading::in_place:
        return value & field.mask;
    case field_reading::watts:
        return power(number);
    default:
        if (*field.meaning.text == '\0')
            return number;
        return fmt::format("{}{}", field.meaning.text, number);
    }
}

std::string field_as_text(const pci_field &field, uint32_t value)
{
    if (field.meaning.how == field_reading::flag)
        return fmt::format("{}{}", field.name, value & field.mask ? '+' : '-');
    if (field.meaning.how == field_reading::in_place)
        return fmt::format("{}={:#x}", field.name, value & field.mask);
    return fmt::format("{}={}", field.name, value_of(field, value).text());
}

} // namespace

field_value fields_of(const register_place &place, uint32_t value)
{
    field_value::object fields;
    for (const pci_field &field : place.fields)
        fields.push_back({field.name, value_of(field, value)});
    return fields;
}

std::string fields_as_text(const register_place &place, uint32_t value)
{
    std::string text;
    for (const pci_field &field : place.fields) {
        const std::string part = field_as_text(field, value);
        text += fmt::format("{}{}", text.empty() ? "" : " ", part);
        if (part.find('=') != part.npos && &field != &place.fields.back())
            text += ',';
    }
    return text;
}

namespace
{

int digits_of(const register_place &place)
{
    return static_cast<int>(place.width / 4);
}

record place_row(const register_place &place)
{
    return record().add_hex("offset", place.offset, 2).add("width", place.width);
}

record &add_meaning(record &row, const register_place &place, uint32_t value)
{
    return row.add_hex("value", value, digits_of(place))
        .add("register", text_or_null(place.name))
        .add("fields", fields_of(place, value), fields_as_text(place, value));
}

} // namespace

record register_row(const register_place &place, uint32_t value)
{
    record row = place_row(place);
    return add_meaning(row, place, value);
}

record written_row(const register_place &place, std::optional<uint32_t> before, uint32_t value)
{
    record row = place_row(place);
    row.add("before", before, before ? hex(*before, digits_of(place)) : "-");
    return add_meaning(row, place, value);
}

} // namespace devaccess
