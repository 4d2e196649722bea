// Reads, writes, watches and dumps mapped registers.
#include "tools/registers/register_bank.h"

#include "tools/base/errors.h"
#include "tools/base/numbers.h"
#include "tools/base/settings.h"

#include <algorithm>

#include <fmt/format.h>

namespace devaccess
{

uint64_t read_register(const device_access::window &window, size_t offset, unsigned width)
{
    switch (width) {
    case 8:
        return window.read<uint8_t>(offset);
    case 16:
        return window.read<uint16_t>(offset);
    case 32:
        return window.read<uint32_t>(offset);
    default:
        return window.read<uint64_t>(offset);
    }
}

void write_register(const device_access::window &window, size_t offset, unsigned width,
                    uint64_t value)
{
    switch (width) {
    case 8:
        return window.write(offset, static_cast<uint8_t>(value));
    case 16:
        return window.write(offset, static_cast<uint16_t>(value));
    case 32:
        return window.write(offset, static_cast<uint32_t>(value));
    default:
        return window.write(offset, value);
    }
}

size_t offset_in(const register_bank &bank, uint64_t place, uint64_t bytes, unsigned width)
{
    if (place % (width / 8) != 0)
        throw usage_error(
            fmt::format("the {} must be a multiple of {} bytes, the width", bank.place, width / 8));
    const uint64_t size = bank.window.size();
    const uint64_t least = std::max<uint64_t>(bytes, 1); // nothing can lie past the end either
    if (place < bank.start || least > size || place - bank.start > size - least)
        throw failure(fmt::format("reach {} {:#x} of {}", bank.place, place, bank.name),
                      fmt::format("the window has {:#x} bytes", size),
                      "read fewer registers, or at a lower offset");
    return static_cast<size_t>(place - bank.start);
}

int digits_of(unsigned width)
{
    return static_cast<int>(width / 4);
}

namespace
{

record value_row(const register_bank &bank, uint64_t place, unsigned width, uint64_t value)
{
    return record()
        .add_hex(bank.place, place, 2)
        .add("width", width)
        .add_hex("value", value, digits_of(width))
        .add_hidden("value_hex", hex(value)); // which no reader rounds
}

record_set rows_of(const register_bank &bank, uint64_t place, uint64_t count, unsigned width)
{
    const unsigned step = width / 8;
    const size_t first = offset_in(bank, place, count * step, width);
    record_set set = {"registers", {}};
    for (uint64_t i = 0; i < count; ++i)
        set.rows.push_back(
            value_row(bank, place + i * step, width,
                      read_register(bank.window, first + static_cast<size_t>(i) * step, width)));
    return set;
}

} // namespace

uint64_t parse_count(const std::string &name, const std::string &text, uint64_t max)
{
    const uint64_t count = parse_number(name, text, max);
    if (count == 0)
        throw usage_error(name + " must be at least 1");
    return count;
}

void read_bank(const register_bank &bank, uint64_t place, const std::string &count_text,
               unsigned width)
{
    record shown = bank.identity;
    if (count_text.empty()) {
        offset_in(bank, place, width / 8, width);
        print(shown.append(rows_of(bank, place, 1, width).rows[0]));
        return;
    }
    const auto count = parse_count("the count", count_text, UINT32_MAX);
    print(shown.add(rows_of(bank, place, count, width)));
}

void write_bank(const register_bank &bank, uint64_t place, const std::string &text, unsigned width,
                bool is_dry)
{
    const masked_value wanted = parse_masked(text, highest(width));
    const size_t offset = offset_in(bank, place, width / 8, width);
    std::optional<uint64_t> before; // not read unless needed: that may have effects
    if (is_dry || !wanted.is_whole())
        before = read_register(bank.window, offset, width);
    const uint64_t value = wanted.applied_to(before.value_or(0));
    if (!is_dry)
        write_register(bank.window, offset, width, value);
    record shown = bank.identity;
    shown.add("before", before, before ? hex(*before, digits_of(width)) : "-")
        .append(value_row(bank, place, width, value));
    if (is_dry)
        print(shown);
    else
        print_done(shown);
}

void watch_bank(const register_bank &bank, uint64_t place, unsigned width,
                const wait_options &options)
{
    const size_t offset = offset_in(bank, place, width / 8, width);
    watch_register(
        fmt::format("{:#x} of {}", place, bank.name), bank.directory, width, options,
        [&] { return read_register(bank.window, offset, width); },
        [&](uint64_t value) { return value_row(bank, place, width, value); });
}

void dump_bank(const register_bank &bank, uint64_t place, uint64_t bytes, unsigned width)
{
    const size_t step = width / 8;
    if (bytes % step != 0)
        throw usage_error(
            fmt::format("the length must be a multiple of {} bytes, the width", step));
    if (settings.as_json) {
        record shown = bank.identity;
        print(shown.add(rows_of(bank, place, bytes / step, width)));
        return;
    }
    const size_t first = offset_in(bank, place, bytes, width);
    std::string text;
    for (size_t at = 0; at < bytes; at += step) {
        const std::string value =
            hex(read_register(bank.window, first + at, width), digits_of(width));
        text += fmt::format("{}{}", at % 16 == 0 ? fmt::format("{:08x}: ", place + at) : " ",
                            value.substr(2));
        if (at % 16 + step == 16 || at + step == bytes)
            text += '\n';
    }
    print_text(text);
}

} // namespace devaccess
