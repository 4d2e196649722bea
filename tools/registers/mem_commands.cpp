// Physical memory: mem read, write, dump.
#include "tools/base/captured_call.h"
#include "tools/base/errors.h"
#include "tools/base/numbers.h"
#include "tools/registers/register_bank.h"
#include "tools/registers/register_commands.h"

#include <device_access/mmap_device.h>

#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

using mem_arguments = bank_arguments;

constexpr uint32_t longest_access = 1u << 30;

// The pages that hold these bytes of physical memory, mapped.
class mapped_memory
{
public:
    mapped_memory(uint64_t address, uint64_t bytes)
    {
        const auto page = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
        start_ = address / page * page;
        const std::string what = fmt::format("map memory at {:#x}", address);
        if (bytes > longest_access || address > UINT64_MAX - bytes)
            throw usage_error("that is more than can be mapped");
        size_ = static_cast<uint32_t>((address - start_ + bytes + page - 1) / page * page);
        const auto mapped = ask([&] { return mmap_device_open(start_, size_); });
        if (!mapped.result || mapped.result == MAP_FAILED)
            fail(what, mapped,
                 "kernels built with strict protection of /dev/mem only give what is no memory");
        base_ = mapped.result;
    }
    ~mapped_memory() { mmap_device_close(base_, size_); }
    mapped_memory(const mapped_memory &) = delete;
    mapped_memory &operator=(const mapped_memory &) = delete;

    register_bank bank() const
    {
        return {"memory", {}, "address", start_, device_access::window(base_, size_)};
    }

private:
    uint64_t start_;
    uint32_t size_;
    void *base_;
};

uint64_t address_of(const mem_arguments &arguments)
{
    return parse_number("the address", arguments.offset, UINT64_MAX);
}

void read(const mem_arguments &arguments)
{
    const uint64_t count =
        arguments.count.empty() ? 1 : parse_count("the count", arguments.count, longest_access);
    const mapped_memory memory(address_of(arguments), count * arguments.width / 8);
    read_bank(memory.bank(), address_of(arguments), arguments);
}

void write(const mem_arguments &arguments)
{
    const mapped_memory memory(address_of(arguments), arguments.width / 8);
    write_bank(memory.bank(), address_of(arguments), arguments);
}

void dump(const mem_arguments &arguments)
{
    const uint64_t bytes =
        arguments.count.empty() ? 256 : parse_count("the length", arguments.count, longest_access);
    const mapped_memory memory(address_of(arguments), bytes);
    dump_bank(memory.bank(), address_of(arguments), bytes, arguments.width);
}

void add_address(command &to, mem_arguments &arguments)
{
    to.argument("ADDRESS", arguments.offset, "Physical address in bytes").required();
}

void add_read(command &to, mem_arguments &arguments)
{
    add_address(to, arguments);
    add_count(to, arguments);
}

void add_write(command &to, mem_arguments &arguments)
{
    add_address(to, arguments);
    add_value(to, arguments);
}

void add_dump(command &to, mem_arguments &arguments)
{
    add_address(to, arguments);
    to.argument("LENGTH", arguments.count, "Number of bytes (default: 256)");
    add_width(to, arguments);
}

} // namespace

void describe_mem(command &mem)
{
    mem.add("read", "Read registers", add_read, read);
    mem.add("write", "Write a register", add_write, write);
    mem.add("dump", "Print registers in hexadecimal", add_dump, dump);
}

} // namespace devaccess
