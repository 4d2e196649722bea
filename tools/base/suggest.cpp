// Finds the word that a misspelt one is likely to mean.
#include "tools/base/suggest.h"

#include "tools/base/numbers.h"

#include <algorithm>
#include <numeric>

namespace devaccess
{
namespace
{

// How many letters have to be changed, put in, left out or swapped with the next one.
size_t distance(const std::string &one, const std::string &other)
{
    std::vector<size_t> before_last, last(other.size() + 1), current(other.size() + 1);
    std::iota(last.begin(), last.end(), size_t{0});
    for (size_t i = 1; i <= one.size(); ++i) {
        current[0] = i;
        for (size_t j = 1; j <= other.size(); ++j) {
            const bool differs = one[i - 1] != other[j - 1];
            current[j] = std::min({last[j] + 1, current[j - 1] + 1, last[j - 1] + differs});
            if (i > 1 && j > 1 && one[i - 1] == other[j - 2] && one[i - 2] == other[j - 1])
                current[j] = std::min(current[j], before_last[j - 2] + 1);
        }
        before_last = last;
        last = current;
    }
    return last.back();
}

} // namespace

std::string did_you_mean(const std::string &typed, const std::vector<std::string> &words)
{
    std::string nearest;
    size_t least = std::max<size_t>(1, std::min<size_t>(typed.size(), 30) / 3) + 1;
    for (const std::string &word : words) {
        const size_t letters =
            distance(in_capitals(typed.substr(0, 30)), in_capitals(word.substr(0, 30)));
        if (letters <= least)
            nearest = letters < least ? word : "";
        least = std::min(least, letters);
    }
    return nearest.empty() ? "" : "did you mean '" + nearest + "'? ";
}

} // namespace devaccess
