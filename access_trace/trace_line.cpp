// Reads traces.
#include "access_trace/trace_line.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <nlohmann/json.hpp>

namespace access_trace
{
namespace
{

using nlohmann::json;

// Throws what nlohmann's own members throw.
trace_line line_of(const json &object)
{
    trace_line line;
    object.at("time").get_to(line.time);
    object.at("thread").get_to(line.thread);
    if (const json &device = object.at("device"); !device.is_null())
        device.get_to(line.device);
    if (object.contains("event")) {
        object.at("event").get_to(line.event);
        return line;
    }
    const json &map = object.at("map");
    line.is_configuration = map.is_string();
    if (map.is_number_unsigned())
        line.map = map.get<uint32_t>();
    object.at("offset").get_to(line.offset);
    object.at("width").get_to(line.width);
    object.at("value").get_to(line.value);
    line.is_write = object.at("access").get<std::string>() == "write";
    line.count = object.value("count", uint64_t{1});
    if (const auto name = object.find("name"); name != object.end() && name->is_string())
        name->get_to(line.name);
    return line;
}

} // namespace

trace_reader::trace_reader(const std::string &path) : path_(path), file_(path, std::ios::binary)
{
    if (!file_)
        throw std::runtime_error("cannot read the trace " + path + ": " + std::strerror(errno));
}

std::optional<trace_line> trace_reader::next()
{
    std::string text;
    if (!problem_.empty() || !std::getline(file_, text))
        return std::nullopt;
    ++number_;
    try {
        return line_of(json::parse(text));
    } catch (const json::exception &) {
        problem_ = path_ + ": line " + std::to_string(number_) +
                   (file_.eof() ? " is cut short" : " is no line of a trace");
    }
    return std::nullopt;
}

} // namespace access_trace
