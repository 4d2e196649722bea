// The checksum, compared with the same table loop, written out here.
#include "bench/bench.h"

#include <device_access/pod_log_crc_tmp.h>

#include <benchmark/benchmark.h>

#include <array>

namespace bench
{
namespace
{

std::array<uint32_t, 256> table;

void fill_table()
{
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t crc = i << 24;
        for (int bit = 0; bit < 8; ++bit)
            crc = crc << 1 ^ (crc & 0x80000000 ? 0x04C11DB7 : 0);
        table[i] = crc;
    }
}

[[gnu::noinline]] uint32_t plain_loop(const unsigned char *data, size_t size)
{
    uint32_t crc = 0;
    for (size_t i = 0; i < size; ++i)
        crc = crc << 8 ^ table[(crc >> 24 ^ data[i]) & 0xff];
    for (size_t rest = size; rest; rest >>= 8)
        crc = crc << 8 ^ table[(crc >> 24 ^ rest) & 0xff];
    return ~crc;
}

void add_row(size_t size, int times)
{
    const std::vector<unsigned char> data(size, 0x5a);
    require(crc32_cksum(data.data(), size) == plain_loop(data.data(), size), "the checksum");
    add({.name = "crc32_cksum of " + std::to_string(size) + " bytes",
         .library = {"library",
                     [data, times] {
                         return [data, times] {
                             for (int i = 0; i < times; ++i)
                                 benchmark::DoNotOptimize(crc32_cksum(data.data(), data.size()));
                         };
                     }},
         .peers = {{"plain table loop",
                    [data, times] {
                        return [data, times] {
                            for (int i = 0; i < times; ++i)
                                benchmark::DoNotOptimize(plain_loop(data.data(), data.size()));
                        };
                    }}},
         .operations = times});
}

} // namespace

void add_crc_rows()
{
    fill_table();
    add_row(16, 100); // an entry's header
    add_row(16384, 1);
}

} // namespace bench
