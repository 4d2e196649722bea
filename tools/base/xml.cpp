// Parses XML into a tree.
#include "tools/base/xml.h"

#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/shared_library.h"

#include <algorithm>
#include <cctype>
#include <memory>

#include <expat.h>
#include <fmt/format.h>

namespace devaccess
{
namespace
{

constexpr size_t longest_document = 64u << 20;
constexpr size_t most_elements = 1u << 20;
constexpr size_t deepest = 64;

const shared_library &libexpat()
{
    static const shared_library library("libexpat.so.1", "read XML");
    return library;
}

// A function of the library that is loaded.
#define EXPAT(function) libexpat().find<decltype(function)>(#function)

// What the parser calls; an exception must not go through it.
struct tree_builder {
    XML_Parser parser;
    decltype(XML_StopParser) *stop;
    std::vector<xml_element> open = std::vector<xml_element>(1); // the root is a child of the first
    size_t elements = 0;
    const char *problem = nullptr;

    void give_up(const char *why)
    {
        problem = why;
        stop(parser, XML_FALSE);
    }

    static void on_start(void *self, const XML_Char *name, const XML_Char **attributes)
    {
        auto &tree = *static_cast<tree_builder *>(self);
        if (tree.open.size() > deepest)
            return tree.give_up("it is nested too deeply");
        if (++tree.elements > most_elements)
            return tree.give_up("it has too many elements");
        xml_element &added = tree.open.emplace_back();
        added.name = name;
        for (; *attributes; attributes += 2)
            added.attributes.emplace_back(attributes[0], attributes[1]);
    }
    static void on_end(void *self, const XML_Char *)
    {
        auto &tree = *static_cast<tree_builder *>(self);
        xml_element ended = std::move(tree.open.back());
        tree.open.pop_back();
        if (ended.text.ends_with(' '))
            ended.text.pop_back();
        tree.open.back().children.push_back(std::move(ended));
    }
    static void on_text(void *self, const XML_Char *text, int size)
    {
        std::string &to = static_cast<tree_builder *>(self)->open.back().text;
        for (const char c : std::string_view(text, static_cast<size_t>(size)))
            if (!std::isspace(static_cast<unsigned char>(c)))
                to += c;
            else if (!to.empty() && to.back() != ' ')
                to += ' ';
    }
    static void on_type(void *self, const XML_Char *, const XML_Char *, const XML_Char *, int)
    {
        static_cast<tree_builder *>(self)->give_up("it has a document type, which is not read");
    }
};

} // namespace

const xml_element *xml_element::child(std::string_view child_name) const
{
    const auto found = std::find_if(children.begin(), children.end(),
                                    [&](const xml_element &one) { return one.name == child_name; });
    return found == children.end() ? nullptr : &*found;
}

std::string xml_element::text_of(std::string_view child_name) const
{
    const xml_element *const found = child(child_name);
    return found ? found->text : "";
}

std::string xml_element::attribute(std::string_view attribute_name) const
{
    for (const auto &[key, value] : attributes)
        if (key == attribute_name)
            return value;
    return "";
}

xml_element read_xml(const std::string &file)
{
    const auto text = read_file(file, longest_document + 1);
    const std::string what = "read " + file;
    if (!text)
        throw failure(what, "there is no such file", "is the name right?");
    if (text->size() > longest_document)
        throw failure(what, fmt::format("it is larger than {} bytes", longest_document),
                      "a part of it may do");
    const std::unique_ptr<XML_ParserStruct, decltype(XML_ParserFree) *> parser(
        EXPAT(XML_ParserCreate)(nullptr), EXPAT(XML_ParserFree));
    tree_builder tree = {parser.get(), EXPAT(XML_StopParser)};
    EXPAT(XML_SetUserData)(parser.get(), &tree);
    EXPAT(XML_SetElementHandler)(parser.get(), tree_builder::on_start, tree_builder::on_end);
    EXPAT(XML_SetCharacterDataHandler)(parser.get(), tree_builder::on_text);
    EXPAT(XML_SetStartDoctypeDeclHandler)(parser.get(), tree_builder::on_type);
    if (EXPAT(XML_Parse)(parser.get(), text->data(), static_cast<int>(text->size()), XML_TRUE) !=
        XML_STATUS_OK)
        throw failure(what,
                      fmt::format("line {}: {}", EXPAT(XML_GetCurrentLineNumber)(parser.get()),
                                  tree.problem ? tree.problem
                                               : EXPAT(XML_ErrorString)(
                                                     EXPAT(XML_GetErrorCode)(parser.get()))),
                      "is it an XML file?");
    return std::move(tree.open.front().children.front());
}

} // namespace devaccess
