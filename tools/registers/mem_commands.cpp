// Physical memory: mem read, write, dump, watch, show, diff.
#include "tools/base/captured_call.h"
#include "tools/base/errors.h"
#include "tools/base/numbers.h"
#include "tools/registers/register_commands.h"
#include "tools/registers/source_commands.h"

#include <device_access/mmap_device.h>

#include <memory>

#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

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
                 "a kernel with CONFIG_STRICT_DEVMEM gives access to device registers only");
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

class memory : public register_source
{
public:
    explicit memory(const register_arguments &arguments) : base_(arguments.base) {}

    std::string name() const override { return "memory"; }
    record identity() const override { return {}; }
    const char *window_word() const override { return nullptr; }
    std::vector<std::string> map_names() const override { return {}; }
    uint64_t most_bytes() const override { return longest_access; }
    uint64_t dumped_bytes(const register_bank &, uint64_t) const override { return length; }

    register_bank bank(unsigned, uint64_t place, uint64_t bytes) override
    {
        mapped_ = std::make_unique<mapped_memory>(place, bytes == 0 ? length : bytes);
        return mapped_->bank();
    }

    register_bank bank_of(const register_map::map &map, unsigned window) override
    {
        if (window != 0)
            throw usage_error("only registers of map 0 have an address");
        if (base_.empty() && !map.address)
            throw usage_error("the map says no address; --base ADDRESS does");
        const uint64_t address =
            base_.empty() ? *map.address : parse_number("the base", base_, UINT64_MAX);
        uint64_t end = 1;
        for (const register_map::reg &one : map.registers)
            end = std::max(end, one.offset + uint64_t{one.width()});
        register_bank made = bank(window, address, end);
        made.origin = address;
        return made;
    }

    static std::vector<std::string> map_names_of_device(const std::string &) { return {}; }
    static constexpr char place_words[] = "ADDRESS";
    static constexpr char device_word[] = "";
    static void add_device(command &to, register_arguments &arguments)
    {
        to.add_option("--base", "ADDRESS", arguments.base,
                      "Where named registers begin (default: the map's address)");
    }

private:
    static constexpr uint64_t length = 256; // of a dump

    std::string base_;
    std::unique_ptr<mapped_memory> mapped_;
};

} // namespace

void describe_mem(command &mem)
{
    add_register_commands<memory>(mem);
}

} // namespace devaccess
