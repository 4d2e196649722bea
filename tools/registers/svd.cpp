// Reads CMSIS-SVD.
#include "tools/registers/svd.h"

#include "tools/base/errors.h"
#include "tools/base/numbers.h"
#include "tools/base/suggest.h"

#include "register_map/register_map_json.h"

#include <algorithm>
#include <charconv>
#include <optional>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

using register_map::reg;

// What is wrong, and where.
using json_members::invalid;

// "12", "0x1f", "#101", "0b101", all perhaps with k, m, g or t after it; nothing for what is none.
std::optional<uint64_t> number_in(std::string text)
{
    const std::string capitals = in_capitals(text);
    int base = 10;
    size_t digits = text.starts_with('+') ? 1 : 0;
    if (capitals.compare(digits, 2, "0X") == 0)
        base = 16, digits += 2;
    else if (capitals.compare(digits, 2, "0B") == 0)
        base = 2, digits += 2;
    else if (text.compare(digits, 1, "#") == 0)
        base = 2, ++digits;
    uint64_t value = 0;
    const char *const last = text.data() + text.size();
    const auto [end, error] = std::from_chars(text.data() + digits, last, value, base);
    if (error != std::errc() || last - end > 1)
        return std::nullopt;
    if (end == last)
        return value;
    constexpr std::string_view scales = "KMGT";
    const size_t scale = scales.find(capitals.back());
    return scale == scales.npos ? std::nullopt : std::optional(value << 10 * (scale + 1));
}

uint64_t number_of(const xml_element &element, const char *member, const std::string &where,
                   std::optional<uint64_t> otherwise = std::nullopt)
{
    const xml_element *const found = element.child(member);
    if (!found && otherwise)
        return *otherwise;
    const auto value = number_in(found ? found->text : "");
    if (!value)
        throw invalid(
            fmt::format("{}: {} '{}' is no number", where, member, found ? found->text : ""));
    return *value;
}

template <typename Kind>
Kind word_of(const xml_element &element, const char *member, Kind otherwise,
             std::initializer_list<std::pair<const char *, Kind>> words, const std::string &where)
{
    const xml_element *const found = element.child(member);
    if (!found)
        return otherwise;
    for (const auto &[word, kind] : words)
        if (found->text == word)
            return kind;
    throw invalid(fmt::format("{}: {} '{}' is unknown", where, member, found->text));
}

register_map::behaviour behaviour_of(const xml_element &element, register_map::behaviour whole,
                                     const std::string &where)
{
    using register_map::access;
    using register_map::read_action;
    using register_map::write_values;
    whole.access = word_of(element, "access", whole.access,
                           {{"read-write", access::read_write},
                            {"read-only", access::read_only},
                            {"write-only", access::write_only},
                            {"writeOnce", access::write_once},
                            {"read-writeOnce", access::read_write_once}},
                           where);
    whole.read_action = word_of(element, "readAction", whole.read_action,
                                {{"clear", read_action::clear},
                                 {"set", read_action::set},
                                 {"modify", read_action::modify},
                                 {"modifyExternal", read_action::modify_external}},
                                where);
    whole.write_values = word_of(element, "modifiedWriteValues", whole.write_values,
                                 {{"modify", write_values::modify},
                                  {"oneToClear", write_values::one_to_clear},
                                  {"oneToSet", write_values::one_to_set},
                                  {"oneToToggle", write_values::one_to_toggle},
                                  {"zeroToClear", write_values::zero_to_clear},
                                  {"zeroToSet", write_values::zero_to_set},
                                  {"zeroToToggle", write_values::zero_to_toggle},
                                  {"clear", write_values::clear},
                                  {"set", write_values::set}},
                                 where);
    return whole;
}

// A name and the distance from the first, for each that an element stands for.
struct instance {
    std::string name;
    uint64_t distance;
};

std::vector<instance> instances_of(const xml_element &element, const std::string &where)
{
    const std::string name = element.text_of("name");
    if (!element.child("dim"))
        return {{name, 0}};
    const uint64_t count = number_of(element, "dim", where);
    const uint64_t increment = number_of(element, "dimIncrement", where);
    if (count == 0 || count > register_map::most_parts || increment > UINT32_MAX)
        throw invalid(where + ": dim is too large");
    const size_t mark = name.find("%s");
    if (mark == name.npos)
        throw invalid(where + ": the name of an array has no %s");
    std::vector<instance> all;
    for (const std::string &word :
         register_map::index_words(element.text_of("dimIndex"), count, where + ": dimIndex"))
        all.push_back({std::string(name).replace(mark, 2, word), increment * all.size()});
    return all;
}

// What registers have that say nothing else.
struct defaults {
    uint64_t size = 32;
    uint64_t reset = 0;
    register_map::behaviour bits;

    defaults within(const xml_element &element, const std::string &where) const
    {
        return {number_of(element, "size", where, size),
                number_of(element, "resetValue", where, reset), behaviour_of(element, bits, where)};
    }
};

bool is_list(const xml_element &element)
{
    return element.name == "registers" || element.name == "fields" || element.name == "peripherals";
}

// Finds elements by the names in them.
class finder
{
public:
    // "A.B"
    const xml_element *find(const xml_element &from, std::string_view path)
    {
        const size_t dot = path.find('.');
        const xml_element *const found = find_child(from, path.substr(0, dot));
        return !found || dot == path.npos ? found : find(*found, path.substr(dot + 1));
    }

    // Lists of words are found wherever they stand.
    const xml_element *find_words(const xml_element &from, std::string_view name)
    {
        for (const xml_element &one : from.children) {
            look();
            if (one.name == "enumeratedValues" && one.text_of("name") == name)
                return &one;
            if (const xml_element *const found = find_words(one, name))
                return found;
        }
        return nullptr;
    }

private:
    // The child of this name, in a list of them too.
    const xml_element *find_child(const xml_element &from, std::string_view name)
    {
        for (const xml_element &one : from.children) {
            look();
            if (const xml_element *const its = one.child("name"); its && its->text == name)
                return &one;
            if (is_list(one))
                if (const xml_element *const found = find_child(one, name))
                    return found;
        }
        return nullptr;
    }

    // So that no file takes longer than seconds.
    void look()
    {
        if (++looks_ > 50'000'000)
            throw invalid("too much in it is derived from something else");
    }

    size_t looks_ = 0;
};

// Builds the map of one peripheral.
class map_builder
{
public:
    explicit map_builder(const xml_element &device) { scopes_.push_back(&device); }

    register_map::map run(const xml_element &peripheral, const instance &which)
    {
        const std::string where = which.name;
        const xml_element whole = resolved(peripheral, where);
        map_.name = which.name;
        map_.description = whole.text_of("description");
        map_.address = number_of(whole, "baseAddress", where) + which.distance;
        for (const xml_element &block : whole.children)
            if (block.name == "addressBlock")
                map_.size = std::max(map_.size, number_of(block, "offset", where) +
                                                    number_of(block, "size", where));
        const defaults of_device = defaults().within(*scopes_.front(), "device");
        if (const xml_element *const registers = whole.child("registers")) {
            scopes_.push_back(&whole);
            add_registers(*registers, of_device.within(whole, where), {"", 0}, where);
        }
        return std::move(map_);
    }

private:
    // What an element stands for that is derived from another: that, but for what it says itself.
    xml_element resolved(const xml_element &element, const std::string &where, int depth = 0)
    {
        const std::string origin = element.attribute("derivedFrom");
        if (origin.empty())
            return element;
        const xml_element *found = nullptr;
        for (auto scope = scopes_.rbegin(); scope != scopes_.rend() && !found; ++scope)
            found = element.name == "enumeratedValues"
                        ? finder_.find_words(**scope, origin.substr(origin.rfind('.') + 1))
                        : finder_.find(**scope, origin);
        if (!found || found == &element || depth > 16)
            throw invalid(fmt::format("{}: '{}', from which it is derived, {}", where, origin,
                                      depth > 16 ? "is derived from it" : "is not there"));
        xml_element made = resolved(*found, where, depth + 1);
        for (const xml_element &own : element.children) {
            std::erase_if(made.children, [&](const auto &old) { return old.name == own.name; });
            made.children.push_back(own);
        }
        if (!element.child("dim")) // one that is like those of an array
            std::erase_if(made.children, [](const auto &old) { return old.name == "dim"; });
        return made;
    }

    void count(size_t parts, const std::string &where)
    {
        parts_ += parts;
        if (parts_ > register_map::most_parts)
            throw invalid(fmt::format("{}: there are more than {} registers, fields and words",
                                      where, register_map::most_parts));
    }

    void add_registers(const xml_element &list, const defaults &usual, const instance &cluster,
                       const std::string &where)
    {
        for (const xml_element &one : list.children) {
            if (one.name != "register" && one.name != "cluster")
                continue;
            const std::string at = where + "/" + one.text_of("name");
            const xml_element whole = resolved(one, at);
            const uint64_t offset = number_of(whole, "addressOffset", at) + cluster.distance;
            for (const instance &each : instances_of(whole, at)) {
                count(1, at);
                const instance placed = {cluster.name + each.name, offset + each.distance};
                if (one.name == "register")
                    add_register(whole, usual.within(whole, at), placed, at);
                else
                    add_cluster(whole, usual.within(whole, at), placed, at);
            }
        }
    }

    void add_cluster(const xml_element &cluster, const defaults &usual, instance placed,
                     const std::string &where)
    {
        placed.name += '_';
        scopes_.push_back(&cluster);
        add_registers(cluster, usual, placed, where);
        scopes_.pop_back();
    }

    void add_register(const xml_element &element, const defaults &usual, const instance &placed,
                      const std::string &where)
    {
        if (placed.distance > UINT32_MAX || usual.size > 64)
            throw invalid(where + " lies beyond 2^32, or has more than 64 bits");
        reg &one = map_.registers.emplace_back();
        one.element = static_cast<uint32_t>(map_.registers.size() - 1);
        one.name = placed.name;
        one.description = element.text_of("description");
        one.offset = static_cast<uint32_t>(placed.distance);
        one.size = static_cast<uint32_t>(usual.size);
        one.reset = one.size == 64 ? usual.reset : usual.reset & ~(~uint64_t{0} << one.size);
        one.bits = usual.bits;
        const xml_element *const fields = element.child("fields");
        if (!fields)
            return;
        scopes_.push_back(&element);
        for (const xml_element &part : fields->children)
            if (part.name == "field")
                add_fields(resolved(part, where), one, where + "/" + part.text_of("name"));
        scopes_.pop_back();
    }

    void add_fields(const xml_element &element, reg &to, const std::string &where)
    {
        register_map::field made;
        read_bits(element, made, where);
        made.description = element.text_of("description");
        made.bits = behaviour_of(element, to.bits, where);
        read_values(element, made, where);
        for (const instance &each : instances_of(element, where)) {
            count(1 + made.values.size(), where);
            register_map::field &one = to.fields.emplace_back(made);
            one.name = each.name;
            if (made.msb + each.distance > 63)
                throw invalid(where + " has no such bits");
            one.lsb += static_cast<unsigned>(each.distance);
            one.msb += static_cast<unsigned>(each.distance);
        }
    }

    // "[7:4]"; the lowest and the highest bit; or the lowest and how many.
    static void read_bits(const xml_element &element, register_map::field &to,
                          const std::string &where)
    {
        const std::string range = element.text_of("bitRange");
        uint64_t low = 0, high = 0;
        char rest = 0;
        if (!range.empty()) {
            unsigned a = 0, b = 0;
            if (std::sscanf(range.c_str(), "[%3u:%3u%c", &a, &b, &rest) != 3 || rest != ']')
                throw invalid(where + ": bitRange cannot be '" + range + "'");
            low = b, high = a;
        } else if (element.child("lsb")) {
            low = number_of(element, "lsb", where);
            high = number_of(element, "msb", where);
        } else {
            low = number_of(element, "bitOffset", where);
            high = low + number_of(element, "bitWidth", where, 1) - 1;
        }
        if (low > high || high > 63)
            throw invalid(where + " has no such bits");
        to.lsb = static_cast<unsigned>(low);
        to.msb = static_cast<unsigned>(high);
    }

    // The words of all its lists; one list may be for reads and another for writes.
    void read_values(const xml_element &element, register_map::field &to, const std::string &where)
    {
        for (const xml_element &list : element.children) {
            if (list.name != "enumeratedValues")
                continue;
            for (const xml_element &one : resolved(list, where).children) {
                const std::string name = one.text_of("name");
                const auto value = number_in(one.text_of("value")); // none: several, as "#1x"
                const bool is_new =
                    std::none_of(to.values.begin(), to.values.end(),
                                 [&](const auto &old) { return old.first == name; });
                if (one.name == "enumeratedValue" && value && is_new)
                    to.values.emplace_back(name, *value);
            }
        }
    }

    std::vector<const xml_element *> scopes_; // from the device to where it is
    finder finder_;
    register_map::map map_;
    size_t parts_ = 0;
};

} // namespace

svd_file::svd_file(const std::string &file) : file_(file), device_(read_xml(file))
{
    if (device_.name != "device" || !device_.child("peripherals"))
        throw failure("read " + file, "it describes no device", "SVD files have a <device>");
}

std::vector<svd_peripheral> svd_file::peripherals() const
try {
    std::vector<svd_peripheral> all;
    for (const xml_element &one : device_.child("peripherals")->children) {
        const std::string where = one.text_of("name");
        for (const instance &each : instances_of(one, where))
            all.push_back({each.name, number_of(one, "baseAddress", where) + each.distance,
                           one.text_of("description")});
    }
    return all;
} catch (const std::runtime_error &wrong) {
    throw failure("read " + file_, wrong.what(), "");
}

register_map::map svd_file::map_of(const std::string &peripheral) const
{
    std::vector<std::string> names;
    try {
        for (const xml_element &one : device_.child("peripherals")->children)
            for (const instance &each : instances_of(one, one.text_of("name"))) {
                if (in_capitals(each.name) == in_capitals(peripheral))
                    return map_builder(device_).run(one, each);
                names.push_back(each.name);
            }
    } catch (const std::runtime_error &wrong) {
        throw failure("read " + file_, wrong.what(), "correct it there");
    }
    throw usage_error(fmt::format("'{}' is no peripheral in {}", peripheral, file_),
                      did_you_mean(peripheral, names));
}

} // namespace devaccess
