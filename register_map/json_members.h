// Structs as JSON objects: a visit() for a struct names its members once, for reading and writing.
// Unlike nlohmann's own macros it knows members that are not known, and says where what is wrong
// stands.
#pragma once

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <set>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace json_members
{

using json = nlohmann::ordered_json;

// These two are compiled once, which takes longer than most files do.
// The document that a text is; discarded if it is not JSON.
json parsed(const std::string &text, bool may_have_comments = false);
// Bytes of strings that are not UTF-8 are replaced.
std::string text_of(const json &document, int indent = -1);

// What is wrong with a document; the text begins with the JSON path of the member.
struct invalid : std::runtime_error {
    using std::runtime_error::runtime_error;
};

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
    // A member that is left out when it says nothing.
    template <typename T>
    void unless_empty(const char *name, T &value)
    {
        if (value != T())
            object_[name] = value;
    }
    template <typename T>
    void hex(const char *name, T &value)
    {
        char text[32];
        std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
        object_[name] = text;
    }
    template <size_t Count, typename Names, typename T>
    void named(const char *name, T &value, const Names (&names)[Count])
    {
        for (const auto &known : names)
            if (known.number == static_cast<int>(value))
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

    json &raw(const char *name) { return object_[name]; }

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
            throw invalid((where_.empty() ? "the description" : where_) + " is not an object");
    }

    template <typename T>
    void operator()(const char *name, T &value)
    {
        if (const json *member = find(name))
            take(name, *member, value);
    }
    template <typename T>
    void unless_empty(const char *name, T &value)
    {
        (*this)(name, value);
    }
    template <typename T>
    void hex(const char *name, T &value)
    {
        if (const json *member = find(name))
            value = number(at(name), *member, std::numeric_limits<T>::max());
    }
    template <size_t Count, typename Names, typename T>
    void named(const char *name, T &value, const Names (&names)[Count])
    {
        std::string text;
        (*this)(name, text);
        if (text.empty() && !find(name))
            return;
        for (const auto &known : names)
            if (text == known.name) {
                value = static_cast<T>(known.number);
                return;
            }
        throw invalid(at(name) + " cannot be '" + text + "'");
    }
    template <typename T>
    void list(const char *name, std::vector<T> &values)
    {
        values.clear();
        const json *member = find(name);
        if (!member)
            return;
        if (!member->is_array())
            throw invalid(at(name) + " is not an array");
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

    // A member as it is; NULL: it is not there.
    const json *find(const char *name)
    {
        known_.insert(name);
        const auto found = object_.find(name);
        return found == object_.end() ? nullptr : &*found;
    }

    void finish() const
    {
        for (const auto &[name, value] : object_.items())
            if (!known_.contains(name))
                throw invalid("unknown member " + at(name));
    }

    std::string at(const std::string &name) const { return where_ + "/" + name; }

    // A number, or a text with its hexadecimal digits after 0x.
    template <typename T>
    static T number(const std::string &where, const json &member, T most)
    {
        if (!member.is_string())
            return integer<T>(where, member, most);
        const auto text = member.get<std::string>();
        char *end = nullptr;
        errno = 0;
        const unsigned long long value = std::strtoull(text.c_str(), &end, 16);
        if (!text.starts_with("0x") || text.size() < 3 || *end != '\0' || errno != 0 ||
            value > most)
            throw invalid(where + " is not a number");
        return static_cast<T>(value);
    }

private:
    template <typename T>
    static T integer(const std::string &where, const json &member, T most)
    {
        if (!member.is_number_integer() ||
            (member.is_number_unsigned()
                 ? member.get<uint64_t>() > uint64_t(most)
                 : member.get<int64_t>() < int64_t(std::numeric_limits<T>::min())))
            throw invalid(where + " is out of range");
        return member.get<T>();
    }

    template <typename T>
    void take(const char *name, const json &member, T &value) const
    {
        if constexpr (std::is_integral_v<T> && !std::is_same_v<T, bool>) {
            value = integer<T>(at(name), member, std::numeric_limits<T>::max());
        } else if constexpr (std::is_same_v<T, std::vector<uint64_t>>) {
            if (!member.is_array())
                throw invalid(at(name) + " is not an array");
            value.clear();
            for (const json &element : member)
                value.push_back(integer<uint64_t>(at(name) + "/" + std::to_string(value.size()),
                                                  element, UINT64_MAX));
        } else {
            try {
                value = member.get<T>();
            } catch (const nlohmann::json::exception &) {
                throw invalid(at(name) + " is of a wrong kind");
            }
        }
    }

    const json &object_;
    std::string where_;
    std::set<std::string> known_;
};

} // namespace json_members
