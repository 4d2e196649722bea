// What a path in the chassis leads to, as far as the device server answers for it.
#pragma once

#include "sim/devices/asking_process.h"

#include <memory>
#include <string>
#include <vector>

namespace chassis_sim
{

class node
{
public:
    node() = default;
    node(const node &) = delete;
    node &operator=(const node &) = delete;
    virtual ~node() = default;

    // Whether it is what is opened by this path, with these flags of open(2).
    virtual bool is_at(const std::string &path, int flags) const = 0;

    // Answers the opening of it, which the file's mode allows.
    virtual void open(const asked_call &call, const std::string &path, int flags) = 0;
};

using node_list = std::vector<std::unique_ptr<node>>;

} // namespace chassis_sim
