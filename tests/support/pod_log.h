// The POD log in a test: its storages, the log as one text, and the world around the library.
#pragma once

#include "tests/support/pod_calls.h"

#include <climits>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <vector>

#include <unistd.h>

namespace test
{

// The library's calls of time() and usleep() come here first.
inline time_t now = 1700000000;
inline int time_error = 0; // with which time() fails
inline int pauses = 0;
inline useconds_t shortest_pause = UINT_MAX;
inline useconds_t longest_pause = 0;

// EEPROMs of 8300 bytes, in files that child processes share, and how the library reaches them.
int eeprom_file(int number);
std::string eeprom_path(int number);

template <int Number>
int eeprom_reader(uint32_t position, uint8_t *buffer, uint32_t size)
{
    return static_cast<int>(::pread(eeprom_file(Number), buffer, size, position));
}
template <int Number>
int eeprom_writer(uint32_t position, uint8_t *buffer, uint32_t size)
{
    return static_cast<int>(::pwrite(eeprom_file(Number), buffer, size, position));
}
template <int Number>
void bind_eeprom(int id)
{
    podlog_bind_eeprom_access_func(id, eeprom_reader<Number>, eeprom_writer<Number>);
}

// One of the three storages: device 0 of its kind.
struct pod_storage : pod_log_calls {
    std::string name;
    std::string path; // of the file behind it; "": an EEPROM that is not bound yet
    chassis_sim::pod_layout layout;

    // The device gets so many histories of this size.
    void describe(uint32_t histories, uint32_t history_size);

    bool is_nvram() const { return layout.is_nvram(); }
    uint32_t header_at(uint32_t history) const { return layout.header_at(history); }
    uint32_t entry_at(uint32_t history, uint32_t number) const
    {
        return header_at(history) + 20 + number * 80;
    }
    std::string index(uint32_t current) const { return chassis_sim::pod_index(layout, current); }
    std::string image(uint32_t current = 0,
                      const std::vector<chassis_sim::pod_run> &histories = {}) const
    {
        return chassis_sim::log_image(layout, current, histories);
    }

    int add_parts(const char *level, const char *diag, const char *ret, const char *fmt, ...) const;
    int add_text(const char *text) const { return add_parts(text, nullptr, nullptr, ""); }
    std::string text(int id = 0) const;
};
extern const pod_storage pod_storages[3]; // NVRAM, file, EEPROM
void PrintTo(const pod_storage &storage, std::ostream *stream);

std::string words(std::initializer_list<uint32_t> values);
void put(std::string &image, size_t position, const std::string &record);

} // namespace test
