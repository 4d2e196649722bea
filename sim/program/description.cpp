// Reads and writes descriptions, and says what is wrong with one.
#include "sim/program/description.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <set>
#include <type_traits>

namespace chassis_sim
{
namespace
{

using json = nlohmann::ordered_json;

constexpr struct {
    int number;
    const char *name;
} errors[] = {{EIO, "EIO"},       {EBUSY, "EBUSY"},   {EAGAIN, "EAGAIN"},
              {EINVAL, "EINVAL"}, {ENODEV, "ENODEV"}, {ENOMEM, "ENOMEM"},
              {EINTR, "EINTR"},   {EACCES, "EACCES"}, {ENOSPC, "ENOSPC"}};
constexpr struct {
    int number;
    const char *name;
} links[] = {{pcie_capability::link_up, "up"},
             {pcie_capability::link_training, "training"},
             {pcie_capability::link_down, "down"}};

// Writes the members that it visits into an object.
class writer
{
public:
    static constexpr bool reads = false;

    json take() { return std::move(object_); }

    template <typename T>
    void operator()(const char *name, T &value)
    {
        object_[name] = value;
    }
    template <typename T>
    void hex(const char *name, T &value)
    {
        char text[32];
        std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
        object_[name] = text;
    }
    // A file of sysfs: without its line's end.
    void line(const char *name, std::string &value)
    {
        object_[name] = value.substr(0, value.find('\n'));
    }
    template <size_t Count, typename Names, typename T>
    void named(const char *name, T &value, const Names (&names)[Count])
    {
        for (const auto &known : names)
            if (known.number == value)
                object_[name] = known.name;
    }
    template <typename T>
    void list(const char *name, std::vector<T> &values)
    {
        if (values.empty())
            return;
        json array = json::array();
        for (T &value : values) {
            writer inner;
            visit(inner, value);
            array.push_back(inner.take());
        }
        object_[name] = array;
    }
    template <typename T>
    void object(const char *name, T &value)
    {
        writer inner;
        visit(inner, value);
        object_[name] = inner.take();
    }

private:
    json object_ = json::object();
};

// Takes the members that it visits from an object, and knows which are left over.
class reader
{
public:
    static constexpr bool reads = true;

    reader(const json &object, std::string where) : object_(object), where_(std::move(where))
    {
        if (!object_.is_object())
            throw failure((where_.empty() ? "the description" : where_) + " is no object");
    }

    template <typename T>
    void operator()(const char *name, T &value)
    {
        if (const json *member = find(name))
            take(name, *member, value);
    }
    template <typename T>
    void hex(const char *name, T &value)
    {
        const json *member = find(name);
        if (!member)
            return;
        if (!member->is_string())
            return take(name, *member, value);
        const auto text = member->get<std::string>();
        char *end = nullptr;
        errno = 0;
        const unsigned long long number = std::strtoull(text.c_str(), &end, 16);
        if (!text.starts_with("0x") || *end != '\0' || errno != 0 ||
            number > std::numeric_limits<T>::max())
            throw failure(at(name) + " is no number");
        value = static_cast<T>(number);
    }
    void line(const char *name, std::string &value)
    {
        (*this)(name, value);
        if (find(name))
            value += '\n';
    }
    template <size_t Count, typename Names, typename T>
    void named(const char *name, T &value, const Names (&names)[Count])
    {
        std::string text;
        (*this)(name, text);
        if (text.empty())
            return;
        for (const auto &known : names)
            if (text == known.name) {
                value = static_cast<T>(known.number);
                return;
            }
        throw failure(at(name) + " cannot be '" + text + "'");
    }
    template <typename T>
    void list(const char *name, std::vector<T> &values)
    {
        values.clear();
        const json *member = find(name);
        if (!member)
            return;
        if (!member->is_array())
            throw failure(at(name) + " is no array");
        for (const json &element : *member) {
            reader inner(element, at(name) + "/" + std::to_string(values.size()));
            visit(inner, values.emplace_back());
            inner.finish();
        }
    }
    template <typename T>
    void object(const char *name, T &value)
    {
        if (const json *member = find(name)) {
            reader inner(*member, at(name));
            visit(inner, value);
            inner.finish();
        }
    }

    void finish() const
    {
        for (const auto &[name, value] : object_.items())
            if (!known_.contains(name))
                throw failure("unknown member " + at(name.c_str()));
    }

private:
    std::string at(const char *name) const { return where_ + "/" + name; }

    const json *find(const char *name)
    {
        known_.insert(name);
        const auto found = object_.find(name);
        return found == object_.end() ? nullptr : &*found;
    }

    template <typename T>
    void take(const char *name, const json &member, T &value) const
    {
        if constexpr (std::is_integral_v<T> && !std::is_same_v<T, bool>) {
            if (!member.is_number_integer() ||
                (member.is_number_unsigned()
                     ? member.get<uint64_t>() > uint64_t{std::numeric_limits<T>::max()}
                     : member.get<int64_t>() < int64_t{std::numeric_limits<T>::min()}))
                throw failure(at(name) + " is no number that is possible here");
        }
        try {
            value = member.get<T>();
        } catch (const nlohmann::json::exception &) {
            throw failure(at(name) + " is of a wrong kind");
        }
    }

    const json &object_;
    std::string where_;
    std::set<std::string> known_;
};

//--- what a description's parts consist of --------------------------------------------------------

template <typename V>
void visit(V &v, register_value &r)
{
    v.hex("offset", r.offset);
    v.hex("value", r.value);
    v("width", r.width);
}

template <typename V>
void visit(V &v, pci_window &window)
{
    v.hex("start", window.start);
    v.hex("size", window.size);
    v.hex("flags", window.flags);
    v.list("registers", window.registers);
}

template <typename V>
void visit(V &v, pcie_capability &pcie)
{
    v("type", pcie.type);
    v("slot", pcie.slot);
    v("hotplug", pcie.hotplug);
    v("reports_active", pcie.reports_active);
    v.named("link", pcie.link_status, links);
}

template <typename V>
void visit(V &v, pci_function &f)
{
    v("id", f.id);
    v("parent", f.parent);
    v.hex("vendor", f.vendor);
    v.hex("device", f.device);
    v.hex("subsystem_vendor", f.subsystem_vendor);
    v.hex("subsystem_device", f.subsystem_device);
    v.hex("class", f.class_code);
    v.hex("header_type", f.header_type);
    v("config_size", f.config_size);
    v("capabilities", f.capabilities);
    if (V::reads || std::count(f.capabilities.begin(), f.capabilities.end(), "pcie") > 0)
        v.object("pcie", f.pcie);
    v.list("config", f.config_registers);
    v.list("bars", f.windows);
}

template <typename V>
void visit(V &v, chassis_description::slot &slot)
{
    v("name", slot.name);
    v("address", slot.address);
}

template <typename V>
void visit(V &v, fpga_card &card)
{
    v("slot", card.slot);
    v("port", card.port);
    v("id", card.id);
    v("code", card.code);
    v("bar_sizes", card.bar_sizes);
}

template <typename V>
void visit(V &v, chassis_description::bridge &bridge)
{
    v("id", bridge.id);
    v("appears_ms", bridge.appears_ms);
    v.object("behind", bridge.behind);
}

template <typename V>
void visit(V &v, uio_map &map)
{
    v("map", map.name);
    v.line("name", map.label);
    v.line("addr", map.addr);
    v.line("offset", map.offset);
    v.line("size", map.size);
}

template <typename V>
void visit(V &v, preset_register &r)
{
    v.hex("address", r.address);
    v.hex("value", r.value);
}

template <typename V>
void visit(V &v, register_answer &answer)
{
    v.hex("address", answer.address);
    v.hex("mask", answer.mask);
    v.hex("value", answer.value);
    v.hex("then_address", answer.then_address);
    v.hex("then_value", answer.then_value);
}

template <typename V>
void visit(V &v, uio_description &uio)
{
    v("number", uio.number);
    v("plugged", uio.plugged);
    v("removal_notice", uio.removal_notice);
    v("irq_control", uio.irq_control);
    v("irq_delay_ms", uio.irq_delay_ms);
    v.list("maps", uio.maps);
    v.list("registers", uio.registers);
    v.list("answers", uio.answers);
}

template <typename V>
void visit(V &v, chassis_description::log_settings &logs)
{
    v("chassis", logs.chassis);
    v("pod", logs.pod);
    v("post", logs.post);
    v("states", logs.states);
    v("unreachable", logs.unreachable);
}

template <typename V>
void visit(V &v, chassis_description::eeprom &eeprom)
{
    v("path", eeprom.path);
    v("size", eeprom.size);
}

template <typename V>
void visit(V &v, call_fault &fault)
{
    v("device", fault.device);
    v("call", fault.call);
    v("nth", fault.nth);
    v.named("error", fault.error, errors);
}

template <typename V>
void visit(V &v, timed_line &line)
{
    v("at_ms", line.at_ms);
    v("every_ms", line.every_ms);
    v("do", line.line);
}

template <typename V>
void visit(V &v, chassis_description &chassis)
{
    v.list("functions", chassis.functions);
    v.list("slots", chassis.slots);
    v.list("fpga_cards", chassis.fpga_cards);
    v.list("hotswap_bridges", chassis.hotswap_bridges);
    v.list("uio", chassis.uio);
    v.object("logs", chassis.logs);
    v.list("eeproms", chassis.eeproms);
    v.list("faults", chassis.faults);
    v.list("timeline", chassis.timeline);
    v("pci_devices", chassis.pci_devices);
}

void require(bool good, const std::string &what)
{
    if (!good)
        throw failure("the description's " + what);
}

void check_id(const std::string &id)
{
    unsigned int domain, bus, slot, function;
    require(std::sscanf(id.c_str(), "%4x:%2x:%2x.%1x", &domain, &bus, &slot, &function) == 4 &&
                id.size() == sizeof "0000:00:00.0" - 1,
            "function id '" + id + "' is no PCI address");
}

void check(const pci_function &f)
{
    check_id(f.id);
    require(f.config_size == 256 || f.config_size == 4096,
            "config_size of " + f.id + " is not 256 or 4096");
    for (const register_value &r : f.config_registers)
        require(uint64_t{r.offset} + r.width <= f.config_size,
                "config of " + f.id + " is too long");
    for (const pci_window &window : f.windows)
        for (const register_value &r : window.registers)
            require(uint64_t{r.offset} + r.width <= window.size,
                    "registers of " + f.id + " lie outside its BAR");
}

// What would break the tree, or the server, if it were taken at its word.
void check(const chassis_description &chassis)
{
    for (const pci_function &f : chassis.functions)
        check(f);
    for (const fpga_card &card : chassis.fpga_cards) {
        check_id(card.port);
        check_id(card.id);
    }
    for (const auto &bridge : chassis.hotswap_bridges) {
        check_id(bridge.id);
        check(bridge.behind);
    }
    for (const uio_description &uio : chassis.uio) {
        for (const uio_map &map : uio.maps)
            require(map.name.find('/') == std::string::npos, "map name has a slash");
        for (const preset_register &r : uio.registers)
            require(r.address % 4 == 0, "register address is no multiple of 4");
        for (const register_answer &a : uio.answers)
            require(a.address % 4 + a.then_address % 4 == 0, "answer has an impossible address");
    }
    require(chassis.pci_devices <= most_pci_devices, "pci_devices are too many");
}

} // namespace

std::string description_text(const chassis_description &description)
{
    chassis_description copy = description;
    writer members;
    visit(members, copy);
    return members.take().dump(2, ' ', false, json::error_handler_t::replace);
}

chassis_description read_description(const std::string &path)
{
    std::error_code none;
    const std::string text = std::filesystem::is_directory(path, none) ? "" : file_text(path);
    if (text.empty())
        throw failure("cannot read a description from " + path);
    const json document = json::parse(text, nullptr, false, true);
    if (document.is_discarded())
        throw failure(path + " is no JSON text");
    chassis_description chassis;
    reader members(document, "");
    visit(members, chassis);
    members.finish();
    check(chassis);
    return chassis;
}

} // namespace chassis_sim
