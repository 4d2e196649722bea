// Finds the opening of a descriptor, and numbers for descriptors.
#include "sim/devices/opening.h"

#include <algorithm>

namespace chassis_sim
{

void opening_table::forget(const opening *gone)
{
    std::erase_if(openings_, [gone](const auto &open) { return open.get() == gone; });
}

void opening_table::forget_closed()
{
    std::erase_if(openings_, [](const auto &open) { return !open->is_open(); });
}

opening *opening_table::find(const asking_process &client, int fd) const
{
    const std::string link = client.link_of(fd);
    const auto found = std::find_if(openings_.begin(), openings_.end(), [&](const auto &open) {
        return open->is_behind(link, client, fd);
    });
    return found == openings_.end() ? nullptr : found->get();
}

opening *opening_table::find(const std::string &link) const
{
    const asking_process nobody(0);
    const auto found = std::find_if(openings_.begin(), openings_.end(), [&](const auto &open) {
        return open->is_behind(link, nobody, -1);
    });
    return found == openings_.end() ? nullptr : found->get();
}

void opening_table::before_wait(const asked_call &call) const
{
    for (const auto &open : openings_)
        open->before_wait(call);
}

std::optional<unsigned int> opening_table::free_number(const asking_process &client)
{
    const unsigned int end = client.descriptor_limit();
    unsigned int &next = next_numbers_.try_emplace(client.id(), first_number_).first->second;
    // Some may have been given back unseen.
    for (const unsigned int from : {next, first_number_})
        for (next = from; next < end; ++next)
            if (client.link_of(static_cast<int>(next)).empty())
                return next++;
    return std::nullopt;
}

void opening_table::freed(const asking_process &client, int fd)
{
    if (const auto next = next_numbers_.find(client.id()); next != next_numbers_.end())
        next->second = std::min(next->second, static_cast<unsigned int>(fd));
}

} // namespace chassis_sim
