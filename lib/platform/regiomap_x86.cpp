// Reads and writes of memory-mapped registers.
#include <device_access/regiomap_x86.h>

namespace
{

template <typename T>
void store(T val, volatile void *addr)
{
    if (addr)
        *static_cast<volatile T *>(addr) = val;
}

template <typename T>
T load(const volatile void *addr)
{
    return *static_cast<const volatile T *>(addr);
}

} // namespace

void iowrite8(uint8_t val, volatile void *addr)
{
    store(val, addr);
}

void iowrite16(uint16_t val, volatile void *addr)
{
    store(val, addr);
}

void iowrite32(uint32_t val, volatile void *addr)
{
    store(val, addr);
}

void iowrite64(uint64_t val, volatile void *addr)
{
    if (!addr)
        return;
    volatile uint32_t *half = static_cast<volatile uint32_t *>(addr);
    half[0] = static_cast<uint32_t>(val);
    half[1] = static_cast<uint32_t>(val >> 32);
}

uint8_t ioread8(const volatile void *addr)
{
    return load<uint8_t>(addr);
}

uint16_t ioread16(const volatile void *addr)
{
    return load<uint16_t>(addr);
}

uint32_t ioread32(const volatile void *addr)
{
    return load<uint32_t>(addr);
}

// The upper half is read first: the opposite of iowrite64's order, and kept so.
uint64_t ioread64(const volatile void *addr)
{
    const volatile uint32_t *half = static_cast<const volatile uint32_t *>(addr);
    const uint64_t upper = half[1];
    const uint64_t lower = half[0];
    return upper << 32 | lower;
}
