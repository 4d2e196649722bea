// Registers that behave: what a description says of them is what any program finds.
#include "register_map/lookup.h"
#include "sim/devices/memory.h"
#include "sim/devices/register_window.h"
#include "support/test.h"

#include <array>
#include <filesystem>
#include <thread>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

// Whoever looks for leaks traces the process, which is traced by the chassis.
extern "C" const char *__asan_default_options()
{
    return "detect_leaks=0";
}

namespace
{

using namespace chassis_sim;
using register_map::reg;
using std::string;

// The registers of a JSON text.
std::vector<reg> registers_of(const string &text)
{
    const string file = std::filesystem::temp_directory_path() / test::printed("map%d", ::getpid());
    write_file(file, "{\"registers\": [" + text + "]}");
    const register_map::map map = register_map::read(file);
    std::filesystem::remove(file);
    return map.registers;
}

//--- one window -----------------------------------------------------------------------------------

register_window window_of(const string &registers)
{
    return {"window", registers_of(registers), 0, 4096, make_memory("window", 4096)};
}

TEST(register_window, write_does_with_its_bits_what_the_register_says)
{
    const struct {
        const char *meaning;
        uint64_t after; // of writing 0x0f to 0x3c
    } cases[] = {{"modify", 0x0f},       {"oneToClear", 0x30},  {"oneToSet", 0x3f},
                 {"oneToToggle", 0x33},  {"zeroToClear", 0x0c}, {"zeroToSet", 0xfc},
                 {"zeroToToggle", 0xcc}, {"clear", 0x00},       {"set", 0xff}};
    for (const auto &[meaning, after] : cases) {
        register_window window =
            window_of(test::printed(R"({"name": "R", "offset": 0, "size": 8, "reset": "0x3c",
                                        "modifiedWriteValues": "%s"})",
                                    meaning));
        window.write(0, 1, 0x0f);
        EXPECT_EQ(window.read(0, 1), after) << meaning;
    }
}

TEST(register_window, read_clears_or_sets_only_the_fields_that_say_so)
{
    register_window window = window_of(R"({"name": "R", "offset": 0, "reset": "0xff", "fields": [
        {"name": "GONE", "bits": "3:0", "readAction": "clear"}, {"name": "STAYS", "bits": "7:4"},
        {"name": "COMES", "bits": "8", "readAction": "set"}]})");
    EXPECT_EQ(window.read(0, 4), 0xffu);
    EXPECT_EQ(window.read(0, 4), 0x1f0u);
}

TEST(register_window, access_of_a_field_decides_what_is_read_and_written_of_it)
{
    register_window window = window_of(R"({"name": "R", "offset": 0, "reset": "0x321", "fields": [
        {"name": "RO", "bits": "3:0", "access": "read-only"},
        {"name": "WO", "bits": "7:4", "access": "write-only"},
        {"name": "ONCE", "bits": "11:8", "access": "read-writeOnce"}]})");
    EXPECT_EQ(window.read(0, 4), 0x301u);
    window.write(0, 4, 0x789);
    EXPECT_EQ(window.value(*window.find("R")), 0x781u);
    window.write(0, 4, 0x000);
    EXPECT_EQ(window.value(*window.find("R")), 0x701u);
}

TEST(register_window, fifo_gives_back_its_words_in_order_and_loses_those_it_has_no_place_for)
{
    register_window window = window_of(R"({"name": "DATA", "offset": 8, "fifo": 3})");
    for (const uint64_t word : {1, 0, 3, 4})
        window.write(8, 4, word);
    for (const uint64_t word : {1, 0, 3, 0, 0})
        EXPECT_EQ(window.read(8, 4), word);
}

TEST(register_window, narrow_and_wide_accesses_touch_the_registers_they_reach)
{
    register_window window = window_of(
        R"({"name": "A", "offset": 4, "reset": "0xffffffff", "modifiedWriteValues": "oneToClear"},
           {"name": "B", "offset": 8, "reset": "0x11", "readAction": "clear"})");
    window.write(5, 1, 0xff);
    EXPECT_EQ(window.read(4, 4), 0xffff00ffu);
    EXPECT_EQ(window.read(4, 8), 0x11ffff00ffu);
    EXPECT_EQ(window.read(8, 4), 0u);
    window.write(2, 4, 0x0003abcd); // memory before the register is memory
    EXPECT_EQ(window.read(0, 8), 0xffff00fcabcd0000u);
}

TEST(register_window, counter_counts_on_from_what_is_written)
{
    register_window window =
        window_of(R"({"name": "TICKS", "offset": 0, "counts_per_ms": 1000, "reset": 5})");
    std::this_thread::sleep_for(std::chrono::milliseconds(3));
    EXPECT_GE(window.read(0, 4), 3005u);
    window.write(0, 4, 0);
    EXPECT_LT(window.read(0, 4), 3000u);
}

//--- maps -----------------------------------------------------------------------------------------

TEST(register_map, names_arrays_and_derived_registers_and_decodes_their_fields)
{
    register_map::map map;
    map.registers = registers_of(R"(
        {"name": "CH[%s]", "dim": 2, "dimIncrement": "0x10", "offset": 0, "map": 1, "fields": [
            {"name": "ON%s", "bits": "8", "dim": 2, "dimIncrement": 4, "dimIndex": "A-B"},
            {"name": "MODE", "bits": "2:1", "values": {"slow": 0, "fast": 1}}]},
        {"name": "COPY", "derivedFrom": "CH[%s]", "offset": "0x80", "access": "read-only"})");
    const register_map::index names(map);
    const auto place = names.find("ch[1].onb");
    ASSERT_TRUE(place && place->part);
    EXPECT_EQ(place->is->offset, 0x10u);
    EXPECT_EQ(place->mask(), 0x1000u);
    EXPECT_EQ(names.at(1, 0x11, 8), place->is); // a byte of it
    EXPECT_EQ(names.at(0, 0x10, 32), nullptr);
    const auto byte = register_map::fields_of(*names.find("COPY")->is, 0x80, 8, 0xfa);
    ASSERT_EQ(byte.size(), 1u); // the others lie in the next byte
    EXPECT_EQ(*byte[0].word, "fast");
    EXPECT_EQ(byte[0].is->bits.access, register_map::access::read_only);
    EXPECT_FALSE(names.find("COPY.ON"));
}

//--- a program at a window ------------------------------------------------------------------------

// The registers of /dev/uio0, whose window this process has mapped.
struct mapped_registers : testing::Test {
    volatile uint32_t *start(const string &registers)
    {
        enter_private_root();
        uio_description device;
        device.maps[0].registers = registers_of(registers);
        device_server server;
        add_uio(server, device);
        server.start();
        fd = ::open("/dev/uio0", O_RDWR | O_CLOEXEC);
        void *const at = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        EXPECT_NE(at, MAP_FAILED) << std::strerror(errno);
        return static_cast<volatile uint32_t *>(at);
    }

    // Accesses that the chassis has seen.
    static size_t seen()
    {
        control("log");
        const string lines = test::read_file("/.chassis/accesses");
        return static_cast<size_t>(std::count(lines.begin(), lines.end(), '\n'));
    }
    int fd = -1;
};

TEST_F(mapped_registers, every_access_is_seen_once_and_in_order)
{
    auto *const registers = start(R"({"name": "DATA", "offset": 0, "fifo": 4096})");
    for (uint32_t i = 0; i < 1000; ++i)
        registers[0] = i * i;
    for (uint32_t i = 0; i < 1000; ++i)
        ASSERT_EQ(registers[0], i * i);
    EXPECT_EQ(seen(), 2000u);
}

TEST_F(mapped_registers, threads_lose_none_of_each_others_accesses)
{
    auto *const registers = start(R"({"name": "DATA", "offset": 0, "fifo": 4096})");
    std::array<std::thread, 4> threads;
    for (std::thread &thread : threads)
        thread = std::thread([=] {
            for (uint32_t i = 1; i <= 200; ++i)
                registers[0] = i;
        });
    for (std::thread &thread : threads)
        thread.join();
    uint64_t sum = 0;
    while (const uint32_t word = registers[0])
        sum += word;
    EXPECT_EQ(sum, threads.size() * 200 * 201 / 2);
}

TEST_F(mapped_registers, instructions_of_any_width_and_kind_have_their_effect)
{
    auto *const registers = start(R"({"name": "R", "offset": 0, "modifiedWriteValues": "oneToSet"},
                                     {"name": "TEXT", "offset": 256})");
    auto *const bytes = reinterpret_cast<volatile uint8_t *>(registers);
    bytes[1] = 0xa5;
    EXPECT_EQ(registers[0], 0xa500u);
    EXPECT_EQ(*reinterpret_cast<volatile int8_t *>(bytes + 1), -0x5b) << "with its sign";
    *reinterpret_cast<volatile uint16_t *>(bytes + 2) = 0x1234;
    EXPECT_EQ(registers[0], 0x1234a500u);
    uint32_t added = 1;
    asm volatile("lock xaddl %0, %1" : "+r"(added), "+m"(const_cast<uint32_t &>(registers[1])));
    asm volatile("orl $0x70, %0" : "+m"(const_cast<uint32_t &>(registers[1])));
    EXPECT_EQ(registers[1], 0x71u);
    auto *const text = const_cast<char *>(reinterpret_cast<volatile char *>(bytes + 256));
    char copy[300] = {};
    std::memcpy(text, string(300, 'x').data(), 300);
    std::memcpy(copy, text, 300);
    EXPECT_EQ(string(copy, 300), string(300, 'x'));
}

TEST_F(mapped_registers, write_sets_another_register_later_and_interrupts)
{
    auto *const registers = start(R"({"name": "STATUS", "offset": 4, "fields": [
            {"name": "READY", "bits": "0"}, {"name": "KIND", "bits": "7:4"}]},
        {"name": "START", "offset": 0, "fields": [{"name": "GO", "bits": "0"}], "on_write": [
            {"when": {"GO": 1}, "set": {"STATUS.KIND": 5}},
            {"when": "0x3", "set": {"STATUS.READY": 1}, "after_ms": 20, "interrupt": "uio0"}]})");
    const uint32_t on = 1;
    ASSERT_EQ(::write(fd, &on, sizeof on), 4);
    registers[0] = 2;
    EXPECT_EQ(registers[1], 0u);
    registers[0] = 3;
    EXPECT_EQ(registers[1], 0x50u);
    uint32_t count = 0;
    EXPECT_EQ(::read(fd, &count, sizeof count), 4);
    EXPECT_EQ(count, 1u);
    EXPECT_EQ(registers[1], 0x51u);
}

TEST_F(mapped_registers, control_lines_get_and_set_them_without_an_access)
{
    auto *const registers = start(R"({"name": "STATUS", "offset": 4, "readAction": "clear",
                                      "fields": [{"name": "KIND", "bits": "7:4"}]})");
    control("set uio0.map0.STATUS.KIND 0xa");
    EXPECT_EQ(answer_to("get STATUS"), "0xa0");
    EXPECT_EQ(answer_to("get STATUS.KIND"), "0xa");
    EXPECT_EQ(registers[1], 0xa0u);
    EXPECT_EQ(answer_to("get STATUS"), "0x0");
    EXPECT_EQ(seen(), 1u);
    EXPECT_THROW(control("get NOTHING"), failure);
    EXPECT_THROW(control("set STATUS.KIND 16"), failure);
}

TEST_F(mapped_registers, child_that_executes_a_program_is_left_alone)
{
    auto *const registers =
        start(R"({"name": "ONCE", "offset": 0, "reset": 1, "readAction": "clear"})");
    const pid_t child = ::fork();
    if (child == 0) {
        if (registers[0] == 1)
            ::execl("/bin/sh", "sh", "-c", "exit 7", nullptr);
        ::_exit(1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(registers[0], 0u);
}

} // namespace
