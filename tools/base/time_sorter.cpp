// Spills sorted runs, and merges them with a heap.
#include "tools/base/time_sorter.h"

#include "tools/base/errors.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <queue>

namespace devaccess
{
namespace
{

constexpr size_t most_bytes = 8 << 20; // in memory

[[noreturn]] void give_up()
{
    throw failure("sort entries in a temporary file", std::strerror(errno),
                  "make room in the directory for temporary files", errno);
}

} // namespace

void time_sorter::add(int64_t time, std::string item)
{
    bytes_ += sizeof(entry) + item.size();
    entries_.push_back({time, std::move(item)});
    if (bytes_ > most_bytes)
        spill();
}

void time_sorter::sort()
{
    std::stable_sort(entries_.begin(), entries_.end(),
                     [](const entry &one, const entry &other) { return one.time < other.time; });
}

void time_sorter::spill()
{
    sort();
    run file(std::tmpfile());
    if (!file)
        give_up();
    for (const entry &one : entries_) {
        const size_t size = one.item.size();
        std::fwrite(&one.time, sizeof one.time, 1, file.get());
        std::fwrite(&size, sizeof size, 1, file.get());
        std::fwrite(one.item.data(), 1, size, file.get());
    }
    if (std::fflush(file.get()) != 0 || std::ferror(file.get()))
        give_up();
    std::rewind(file.get());
    runs_.push_back(std::move(file));
    entries_.clear();
    bytes_ = 0;
}

// Where the merge is in a run.
struct time_sorter::cursor {
    size_t number; // of the run
    entry at;

    // False at the end.
    bool read(std::FILE *file)
    {
        size_t size = 0;
        if (std::fread(&at.time, sizeof at.time, 1, file) != 1)
            return false;
        if (std::fread(&size, sizeof size, 1, file) != 1)
            give_up();
        at.item.resize(size);
        if (std::fread(at.item.data(), 1, size, file) != size)
            give_up();
        return true;
    }
    bool operator<(const cursor &other) const // the heap's top is the greatest
    {
        return at.time != other.at.time ? at.time > other.at.time : number > other.number;
    }
};

void time_sorter::for_each(const std::function<void(int64_t time, const std::string &item)> &work)
{
    if (runs_.empty()) {
        sort();
        for (const entry &one : entries_)
            work(one.time, one.item);
        return;
    }
    spill();
    std::priority_queue<cursor> heap;
    for (size_t number = 0; number < runs_.size(); ++number)
        if (cursor next = {number, {}}; next.read(runs_[number].get()))
            heap.push(std::move(next));
    while (!heap.empty()) {
        cursor next = heap.top();
        heap.pop();
        work(next.at.time, next.at.item);
        if (next.read(runs_[next.number].get()))
            heap.push(std::move(next));
    }
}

} // namespace devaccess
