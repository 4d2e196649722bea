// Sorts by time what is more than memory should hold: sorted runs go to temporary files, and are
// merged when they are read.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace devaccess
{

class time_sorter
{
public:
    void add(int64_t time, std::string item);

    // In the order of time; of one time, in the order in which they were added.
    void for_each(const std::function<void(int64_t time, const std::string &item)> &work);

private:
    struct entry {
        int64_t time;
        std::string item;
    };
    struct closer {
        void operator()(std::FILE *file) const { std::fclose(file); }
    };
    using run = std::unique_ptr<std::FILE, closer>;
    struct cursor;

    void sort();
    void spill();

    std::vector<entry> entries_;
    size_t bytes_ = 0; // that they take
    std::vector<run> runs_;
};

} // namespace devaccess
