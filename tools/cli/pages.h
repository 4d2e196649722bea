// The manual page and the Markdown page of the program, out of its own description.
#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace devaccess
{

std::string manual_page(CLI::App &program);

// Takes "### `pci list`" out of the notes for the place of that command, and all else as it is.
std::string markdown_page(CLI::App &program, const std::string &notes);

} // namespace devaccess
