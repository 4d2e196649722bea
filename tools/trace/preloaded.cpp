// The object that "devaccess trace" loads into programs: it stands before the library's accessors
// and the C library's calls on devices, and writes down what they do. It needs the C library alone.
#include "tools/trace/device_path.h"
#include "tools/trace/ring.h"

#include <device_access/libuio.h>
#include <device_access/regiomap_x86.h>

#include <cstdarg>
#include <ctime>

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>

namespace
{

using devaccess::device_kind;
using devaccess::device_path;
namespace ring = devaccess::trace_ring;
using ring::action;

ring::ring *shared;
thread_local uint32_t own_thread;
thread_local bool is_waiting; // in a call that says itself what it has waited for

// The function that this object stands before. The library may have been loaded for one module
// alone, which searches this object but is not searched by it.
template <typename Function>
Function *next(const char *name)
{
    void *found = ::dlsym(RTLD_NEXT, name);
    if (!found)
        if (void *const library = ::dlopen(DEVICE_ACCESS_SONAME, RTLD_NOLOAD | RTLD_LAZY))
            found = ::dlsym(library, name);
    return reinterpret_cast<Function *>(found);
}
#define NEXT(function) static const auto next_##function = next<decltype(::function)>(#function)

uint64_t now()
{
    timespec time;
    ::clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
}

//--- the ring -------------------------------------------------------------------------------------

uint32_t thread()
{
    if (own_thread == 0)
        own_thread = static_cast<uint32_t>(::syscall(SYS_gettid));
    return own_thread;
}

// Until the tracer has read what is in the place. False: it reads no more, or has given up on this
// record because the writer had stopped.
[[gnu::noinline]] bool wait_for(const ring::record &place, uint32_t turn)
{
    for (unsigned looks = 1; shared->closed.load(std::memory_order_relaxed) == 0; ++looks) {
        const uint32_t is = place.turn.load(std::memory_order_acquire);
        if (is == turn)
            return true;
        if (static_cast<int32_t>(is - turn) > 0)
            return false;
        constexpr timespec moment = {0, 50'000};
        ::nanosleep(&moment, nullptr);
        if (looks % 1024 == 0 && ::kill(shared->tracer, 0) != 0 && errno == ESRCH)
            shared->closed.store(1);
    }
    return false;
}

void write_down(action what, uint16_t window, uint64_t offset, uint64_t value, unsigned width)
{
    if (!shared || shared->closed.load(std::memory_order_relaxed) != 0)
        return;
    const int error = errno;
    const uint64_t ticket = shared->next.fetch_add(1, std::memory_order_relaxed);
    ring::record &place = shared->ring[ticket % ring::records];
    const auto turn = static_cast<uint32_t>(ticket / ring::records * 2);
    if (place.turn.load(std::memory_order_acquire) == turn || wait_for(place, turn)) {
        place.thread.store(thread(), std::memory_order_relaxed);
        place.time = now();
        place.offset = offset;
        place.value = value;
        place.window = window;
        place.what = what;
        place.width = static_cast<uint8_t>(width);
        place.turn.store(turn + 1, std::memory_order_release);
    }
    errno = error;
}

// The number of a device, or of a window of it, in the table.
uint16_t number_of(const char *device, int32_t map)
{
    constexpr uint32_t last = ring::windows - 1;
    for (uint32_t i = 0; i < last; ++i) {
        ring::window &entry = shared->table[i];
        uint32_t state = 0;
        if (entry.state.compare_exchange_strong(state, 1)) {
            entry.map = map;
            std::snprintf(entry.device, sizeof entry.device, "%s", device);
            entry.state.store(2, std::memory_order_release);
            return static_cast<uint16_t>(i);
        }
        for (int looks = 0; looks < 1000 && state == 1; ++looks) {
            ::sched_yield();
            state = entry.state.load(std::memory_order_acquire);
        }
        if (state == 2 && entry.map == map && std::strcmp(entry.device, device) == 0)
            return static_cast<uint16_t>(i);
    }
    return static_cast<uint16_t>(last);
}

//--- descriptors ----------------------------------------------------------------------------------

struct opened {
    std::atomic<device_kind> kind;
    int bar;
    uint16_t window;
};
constexpr int descriptors = 4096;
opened table[descriptors];

opened *find(int fd)
{
    if (!shared || fd < 0 || fd >= descriptors)
        return nullptr;
    opened *const found = &table[fd];
    return found->kind.load(std::memory_order_acquire) == device_kind::none ? nullptr : found;
}

int remember(int fd, const char *path)
{
    if (!shared || fd < 0 || fd >= descriptors)
        return fd;
    table[fd].kind = device_kind::none;
    const device_path device = devaccess::device_of(path);
    if (device.kind == device_kind::none)
        return fd;
    const int32_t map = device.kind == device_kind::configuration ? ring::configuration
                        : device.kind == device_kind::resource    ? device.bar
                                                                  : ring::no_map;
    table[fd].bar = device.bar;
    table[fd].window = number_of(device.name, map);
    table[fd].kind.store(device.kind, std::memory_order_release);
    write_down(action::open, table[fd].window, 0, 0, 0);
    return fd;
}

//--- windows --------------------------------------------------------------------------------------

struct mapped {
    std::atomic<uintptr_t> start;
    std::atomic<size_t> size; // 0: free
    uint64_t base;            // of offsets
    uint16_t window;
};
constexpr unsigned most_mapped = 256;
mapped all_mapped[most_mapped];
std::atomic<unsigned> ever_mapped;
pthread_mutex_t mapping = PTHREAD_MUTEX_INITIALIZER;

void add_mapping(void *address, size_t length, const opened &of, uint64_t offset)
{
    if (address == MAP_FAILED)
        return;
    const auto page = static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
    const bool is_uio = of.kind == device_kind::uio;
    const uint16_t window =
        is_uio ? number_of(shared->table[of.window].device, static_cast<int32_t>(offset / page))
               : of.window;
    const uint64_t base = is_uio ? 0 : offset;
    ::pthread_mutex_lock(&mapping);
    unsigned i = 0;
    while (i < most_mapped && all_mapped[i].size.load() != 0)
        ++i;
    if (i < most_mapped) {
        all_mapped[i].start = reinterpret_cast<uintptr_t>(address);
        all_mapped[i].base = base;
        all_mapped[i].window = window;
        all_mapped[i].size.store(length, std::memory_order_release);
        if (i >= ever_mapped)
            ever_mapped = i + 1;
    }
    ::pthread_mutex_unlock(&mapping);
    write_down(action::map, window, base, length, 0);
}

void remove_mappings(uintptr_t address, size_t length)
{
    for (unsigned i = 0; i < ever_mapped; ++i) {
        mapped &one = all_mapped[i];
        const size_t size = one.size.load(std::memory_order_acquire);
        if (size == 0 || one.start < address || one.start - address >= length)
            continue;
        one.size = 0;
        write_down(action::unmap, one.window, 0, 0, 0);
    }
}

// Accesses by the library's calls to what is no window are told with their address.
inline void write_down_access(action what, const volatile void *at, uint64_t value, unsigned width)
{
    if (!shared)
        return;
    const auto address = reinterpret_cast<uintptr_t>(at);
    const unsigned end = ever_mapped.load(std::memory_order_relaxed);
    for (unsigned i = 0; i < end; ++i) {
        const mapped &one = all_mapped[i];
        const size_t size = one.size.load(std::memory_order_acquire);
        const uintptr_t offset = address - one.start.load(std::memory_order_relaxed);
        if (offset < size)
            return write_down(what, one.window, one.base + offset, value, width);
    }
    write_down(what, number_of("", ring::no_map), address, value, width);
}

//--- beginning ------------------------------------------------------------------------------------

[[gnu::constructor]] void attach()
{
    const char *const path = ::getenv(ring::file_variable);
    if (!path)
        return;
    NEXT(open64);
    NEXT(mmap64);
    NEXT(close);
    const int error = errno;
    const int fd = next_open64(path, O_RDWR | O_CLOEXEC);
    void *const memory = fd < 0 ? MAP_FAILED
                                : next_mmap64(nullptr, sizeof(ring::ring), PROT_READ | PROT_WRITE,
                                              MAP_SHARED, fd, 0);
    if (fd >= 0)
        next_close(fd);
    if (memory != MAP_FAILED) {
        shared = static_cast<ring::ring *>(memory);
        ::pthread_atfork(nullptr, nullptr, [] { own_thread = 0; });
        write_down(action::attach, ring::windows - 1, 0, static_cast<uint64_t>(::getpid()), 0);
    }
    errno = error;
}

} // namespace

#define SHOWN extern "C" [[gnu::visibility("default")]]

//--- the library's calls --------------------------------------------------------------------------

namespace
{

template <typename T>
T traced_load(const volatile void *addr)
{
    const T value = *static_cast<const volatile T *>(addr);
    write_down_access(action::read, addr, value, sizeof value);
    return value;
}

template <typename T>
void traced_store(T value, volatile void *addr)
{
    if (!addr)
        return;
    write_down_access(action::write, addr, value, sizeof value);
    *static_cast<volatile T *>(addr) = value;
}

} // namespace

SHOWN uint8_t ioread8(const volatile void *addr)
{
    return traced_load<uint8_t>(addr);
}
SHOWN uint16_t ioread16(const volatile void *addr)
{
    return traced_load<uint16_t>(addr);
}
SHOWN uint32_t ioread32(const volatile void *addr)
{
    return traced_load<uint32_t>(addr);
}
SHOWN void iowrite8(uint8_t val, volatile void *addr)
{
    traced_store(val, addr);
}
SHOWN void iowrite16(uint16_t val, volatile void *addr)
{
    traced_store(val, addr);
}
SHOWN void iowrite32(uint32_t val, volatile void *addr)
{
    traced_store(val, addr);
}

// The halves in the library's own order.
SHOWN uint64_t ioread64(const volatile void *addr)
{
    const volatile uint32_t *const half = static_cast<const volatile uint32_t *>(addr);
    const uint64_t upper = traced_load<uint32_t>(half + 1);
    return upper << 32 | traced_load<uint32_t>(half);
}
SHOWN void iowrite64(uint64_t val, volatile void *addr)
{
    if (!addr)
        return;
    volatile uint32_t *const half = static_cast<volatile uint32_t *>(addr);
    traced_store(static_cast<uint32_t>(val), half);
    traced_store(static_cast<uint32_t>(val >> 32), half + 1);
}

SHOWN int libuio_irqwait(libuio_dev_t *uio, const struct timespec *abs_timeout,
                         uint32_t *event_count)
{
    NEXT(libuio_irqwait);
    const opened *const of = uio ? find(uio->uio_fd) : nullptr;
    if (!of)
        return next_libuio_irqwait(uio, abs_timeout, event_count);
    const uint16_t window = of->window;
    const uint64_t start = now();
    is_waiting = true;
    const int result = next_libuio_irqwait(uio, abs_timeout, event_count);
    is_waiting = false;
    if (result == 0)
        write_down(action::interrupt, window, now() - start,
                   event_count ? *event_count : ring::unknown_count, 0);
    return result;
}

//--- the C library's ------------------------------------------------------------------------------

namespace
{

int mode_of(int flags, va_list arguments)
{
    const bool has_mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
    return has_mode ? va_arg(arguments, int) : 0;
}

void write_down_configuration(action what, const opened &of, const void *data, ssize_t length,
                              uint64_t offset)
{
    constexpr ssize_t widest = 4; // of the accesses that the kernel makes of a longer one
    for (ssize_t done = 0; done < length;) {
        const ssize_t width = length - done >= widest ? widest : length - done;
        uint64_t value = 0;
        std::memcpy(&value, static_cast<const char *>(data) + done, static_cast<size_t>(width));
        write_down(what, of.window, offset + static_cast<uint64_t>(done), value,
                   static_cast<unsigned>(width));
        done += width;
    }
}

ssize_t after_transfer(action what, int fd, const void *data, ssize_t length, int64_t offset)
{
    const opened *const of = length > 0 ? find(fd) : nullptr;
    if (!of || is_waiting)
        return length;
    if (of->kind == device_kind::configuration) {
        if (offset < 0) // where the file's position was
            offset = ::lseek64(fd, 0, SEEK_CUR) - length;
        write_down_configuration(what, *of, data, length, static_cast<uint64_t>(offset));
    } else if (of->kind == device_kind::uio && length == sizeof(uint32_t)) {
        uint32_t value;
        std::memcpy(&value, data, sizeof value);
        write_down(what == action::read ? action::interrupt : action::control, of->window, 0, value,
                   0);
    }
    return length;
}

} // namespace

#define OPENS(function, parameters, ...)                                                           \
    SHOWN int function parameters                                                                  \
    {                                                                                              \
        NEXT(function);                                                                            \
        va_list arguments;                                                                         \
        va_start(arguments, flags);                                                                \
        const int mode = mode_of(flags, arguments);                                                \
        va_end(arguments);                                                                         \
        return remember(next_##function(__VA_ARGS__, flags, mode), path);                          \
    }
OPENS(open, (const char *path, int flags, ...), path)
OPENS(open64, (const char *path, int flags, ...), path)
OPENS(openat, (int directory, const char *path, int flags, ...), directory, path)
OPENS(openat64, (int directory, const char *path, int flags, ...), directory, path)

extern "C" int __open_2(const char *path, int flags);
extern "C" int __open64_2(const char *path, int flags);

SHOWN int __open_2(const char *path, int flags)
{
    NEXT(__open_2);
    return remember(next___open_2(path, flags), path);
}
SHOWN int __open64_2(const char *path, int flags)
{
    NEXT(__open64_2);
    return remember(next___open64_2(path, flags), path);
}

SHOWN int close(int fd)
{
    NEXT(close);
    if (opened *const of = find(fd)) {
        of->kind = device_kind::none;
        write_down(action::close, of->window, 0, 0, 0);
    }
    return next_close(fd);
}

SHOWN void *mmap(void *start, size_t length, int protection, int flags, int fd,
                 off_t offset) noexcept
{
    NEXT(mmap);
    void *const address = next_mmap(start, length, protection, flags, fd, offset);
    if (const opened *const of = flags & MAP_ANONYMOUS ? nullptr : find(fd))
        add_mapping(address, length, *of, static_cast<uint64_t>(offset));
    return address;
}
SHOWN void *mmap64(void *start, size_t length, int protection, int flags, int fd,
                   off64_t offset) noexcept
{
    NEXT(mmap64);
    void *const address = next_mmap64(start, length, protection, flags, fd, offset);
    if (const opened *const of = flags & MAP_ANONYMOUS ? nullptr : find(fd))
        add_mapping(address, length, *of, static_cast<uint64_t>(offset));
    return address;
}
SHOWN int munmap(void *start, size_t length) noexcept
{
    NEXT(munmap);
    if (shared)
        remove_mappings(reinterpret_cast<uintptr_t>(start), length);
    return next_munmap(start, length);
}

SHOWN ssize_t read(int fd, void *data, size_t length)
{
    NEXT(read);
    return after_transfer(action::read, fd, data, next_read(fd, data, length), -1);
}
SHOWN ssize_t write(int fd, const void *data, size_t length)
{
    NEXT(write);
    return after_transfer(action::write, fd, data, next_write(fd, data, length), -1);
}
SHOWN ssize_t pread(int fd, void *data, size_t length, off_t offset)
{
    NEXT(pread);
    return after_transfer(action::read, fd, data, next_pread(fd, data, length, offset), offset);
}
SHOWN ssize_t pread64(int fd, void *data, size_t length, off64_t offset)
{
    NEXT(pread64);
    return after_transfer(action::read, fd, data, next_pread64(fd, data, length, offset), offset);
}
SHOWN ssize_t pwrite(int fd, const void *data, size_t length, off_t offset)
{
    NEXT(pwrite);
    return after_transfer(action::write, fd, data, next_pwrite(fd, data, length, offset), offset);
}
SHOWN ssize_t pwrite64(int fd, const void *data, size_t length, off64_t offset)
{
    NEXT(pwrite64);
    return after_transfer(action::write, fd, data, next_pwrite64(fd, data, length, offset), offset);
}
