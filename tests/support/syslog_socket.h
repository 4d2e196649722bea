#pragma once

#include <string>

namespace test_support
{

// Receives what the process sends to syslog, on the socket "/dev/log" of the chassis: build the
// chassis first. The kernel queues few messages (ten by default), then syslog blocks: take them in
// time.
class syslog_socket
{
public:
    syslog_socket();
    ~syslog_socket();
    syslog_socket(const syslog_socket &) = delete;
    syslog_socket &operator=(const syslog_socket &) = delete;

    // What came since the start or the last call, without time and program name: "<PRIORITY>TEXT"
    // each. The priority includes the facility: LOG_ERR of an ordinary program (LOG_USER) is 11.
    std::string take();

private:
    int socket_;
};

} // namespace test_support
