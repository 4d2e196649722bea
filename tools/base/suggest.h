// Suggestions for misspelt words.
#pragma once

#include <string>
#include <vector>

namespace devaccess
{

// "did you mean 'read'? ", if one of the words, and no other, is about as near to what was typed as
// a typing error is.
std::string did_you_mean(const std::string &typed, const std::vector<std::string> &words);

} // namespace devaccess
