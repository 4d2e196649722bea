// Files that the tool itself reads and writes.
#pragma once

#include <optional>
#include <string>

namespace devaccess
{

// The bytes of an open file, or of the file of this name; nothing when there is none. At most as
// many as the largest log could have.
std::string read_all(int descriptor, const std::string &path);
std::optional<std::string> read_file(const std::string &path);

// Stands for standard output where a file is to be written.
inline constexpr char standard_output[] = "-";

// Writes the bytes to a file beside it, which then takes the file's place: a failure leaves what
// was there. A file that must be new is not replaced.
void write_file(const std::string &path, const std::string &bytes, bool must_be_new);

// Writes where the bytes differ from what the open file holds; room is made before.
void write_changes(int descriptor, const std::string &path, const std::string &before,
                   const std::string &after);

} // namespace devaccess
