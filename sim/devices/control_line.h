#pragma once

#include "sim/base/support.h"

#include <functional>
#include <string>

namespace chassis_sim
{

// The server's end of a client's opening of /dev/chassis: takes its lines and tells what became of
// them.
class control_line
{
public:
    // Does what a line says; throws a failure when that cannot be done.
    using obey_line = std::function<void(const std::string &)>;
    control_line(bool client_reads, obey_line obey);

    int fd() const { return own_end_.get(); }
    owned_fd take_client_end() { return std::move(client_end_); }

    // Obeys the lines that are there; false when the client has closed its end.
    bool read();

private:
    void handle(const std::string &line);

    bool client_reads_;
    obey_line obey_;
    owned_fd client_end_;
    owned_fd own_end_;
    std::string text_; // of a line without its end
};

} // namespace chassis_sim
