#include "check.h"

#include <cstdio>
#include <cstring>

namespace guest
{

void check(const std::string &name, bool good, const std::string &detail)
{
    if (good)
        ::dprintf(3, "ok %s\n", name.c_str());
    else
        ::dprintf(3, "FAILED %s: %s\n", name.c_str(), detail.c_str());
}

std::string text_of(long long number)
{
    char text[48];
    std::snprintf(text, sizeof text, "%lld (0x%llx)", number, number);
    return text;
}

std::string text_of(const std::string &text)
{
    return "\"" + text + "\"";
}

std::string text_of(const outcome &done)
{
    std::string text = std::to_string(done.result);
    if (done.error)
        text.append(" with \"").append(std::strerror(done.error)).append("\"");
    return text;
}

} // namespace guest
