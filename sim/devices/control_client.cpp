// Writes to /dev/chassis, and reads the answer.
#include "sim/devices/control_client.h"

#include "sim/base/files.h"
#include "sim/parts/nodes.h"

#include <algorithm>

#include <fcntl.h>
#include <unistd.h>

namespace chassis_sim
{

std::string answer_to(const std::string &line)
{
    const owned_fd fd(must(::open(control_path, O_RDWR | O_CLOEXEC), control_path));
    const std::string text = line + "\n";
    must(static_cast<int>(::write(fd.get(), text.data(), text.size())), control_path);
    char answer[4096];
    const ssize_t length = ::read(fd.get(), answer, sizeof answer);
    const std::string said(answer, static_cast<size_t>(std::max<ssize_t>(length, 1)) - 1);
    if (said != "ok" && !said.starts_with("ok "))
        throw failure(said);
    return said.substr(std::min<size_t>(said.size(), 3));
}

void control(const std::string &line)
{
    answer_to(line);
}

} // namespace chassis_sim
