// What the fuzz targets share. A target calls the library as its clients do; what it promises
// beyond memory safety (results, ends of walks, descriptors closed) is checked with require().
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace fuzz
{

void require(bool kept, const char *file = __builtin_FILE(), int line = __builtin_LINE());

// Takes the first byte off the input: the options of this run. 0 for an empty input.
uint8_t take_options(std::string_view &input);

// The input's parts, which the byte 0x1e separates: exactly count, the missing ones empty.
std::vector<std::string> parts(std::string_view input, size_t count);

// Numbers in an image; those that lie outside it are 0, and are not written.
uint32_t load32(const std::string &image, uint64_t position);
void store32(std::string &image, uint64_t position, uint32_t value);
bool is_blank(const std::string &image, uint64_t position, size_t size);

// Replaces the contents of a file that stays the same one.
void set_contents(const char *path, std::string_view contents);

// Every run must leave as many descriptors open as it found.
class descriptor_check
{
public:
    ~descriptor_check() { require(next_free() == before_); }

private:
    static int next_free();
    int before_ = next_free();
};

} // namespace fuzz
