// Files that the tool itself reads and writes.
#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace devaccess
{

// As many bytes as the largest log could have.
inline constexpr size_t longest_log = 65536;

// The bytes of an open file, or of the file of this name; nothing when there is none. At most so
// many. Nothing is waited for: a FIFO, a socket or a terminal is refused, unless it is one of the
// program's own streams.
std::string read_all(int descriptor, const std::string &path);
std::optional<std::string> read_file(const std::string &path, size_t most = longest_log);

// All of a file that must be there; the hint says how to come by one.
std::string expect_file(const std::string &path, const char *hint);

// Fails when there is something of this name that is no regular file.
void expect_regular(const std::string &path);

// Stands for standard output where a file is to be written, and for standard input where one is
// read.
inline constexpr char standard_stream[] = "-";

// Writes the bytes to a file beside it, which then takes the file's place: a failure leaves what
// was there. A file that must be new is not replaced.
void write_file(const std::string &path, const std::string &bytes, bool must_be_new);

// Writes where the bytes differ from what the open file holds; room is made before.
void write_changes(int descriptor, const std::string &path, const std::string &before,
                   const std::string &after);

} // namespace devaccess
