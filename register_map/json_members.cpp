// Reads and writes the text of JSON documents.
#include "register_map/json_members.h"

namespace json_members
{

json parsed(const std::string &text, bool may_have_comments)
{
    return json::parse(text, nullptr, false, may_have_comments);
}

std::string text_of(const json &document, int indent)
{
    return document.dump(indent, ' ', false, json::error_handler_t::replace);
}

} // namespace json_members
