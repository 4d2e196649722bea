// XML documents, by expat.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace devaccess
{

struct xml_element {
    std::string name;
    std::string text; // its own, with one blank for several
    std::vector<std::pair<std::string, std::string>> attributes;
    std::vector<xml_element> children;

    // The first child of this name; NULL: there is none.
    const xml_element *child(std::string_view child_name) const;
    // Its text; empty without such a child.
    std::string text_of(std::string_view child_name) const;
    // Empty without such an attribute.
    std::string attribute(std::string_view attribute_name) const;
};

// The root of a document. Fails on what is no XML, and on a document type, whose entities could
// make a short text endless.
xml_element read_xml(const std::string &file);

} // namespace devaccess
