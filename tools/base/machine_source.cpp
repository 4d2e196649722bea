// This machine, through its files.
#include "tools/base/machine_source.h"

#include "tools/base/errors.h"
#include "tools/base/files.h"
#include "tools/base/settings.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <sstream>

#include <sys/utsname.h>
#include <unistd.h>

namespace devaccess
{
namespace
{

namespace fs = std::filesystem;

// "none [integrity] confidentiality": the word in brackets is in force.
std::string lockdown_in(const std::string &line)
{
    const size_t begin = line.find('[');
    const size_t end = line.find(']');
    return begin < end && end != line.npos ? line.substr(begin + 1, end - begin - 1) : "";
}

// Others can hold secrets.
std::vector<std::string> parameters_in(const std::string &line)
{
    std::vector<std::string> found;
    std::istringstream words(line);
    for (std::string word; words >> word;)
        if (word.starts_with("pci") || word.starts_with("iomem="))
            found.push_back(word);
    return found;
}

// As a shell takes it for one word, whatever is in it. What is printed has no lone backslash.
std::string quoted(const std::string &word)
{
    const bool is_plain = std::all_of(word.begin(), word.end(), [](unsigned char c) {
        return std::isalnum(c) || std::strchr("/._+-", c);
    });
    if (is_plain)
        return word;
    std::string text = "'";
    for (const char c : word)
        text += c == '\'' ? std::string("'\"'\"'") : std::string(1, c);
    return text + "'";
}

class live_machine : public machine_source
{
public:
    std::string archive() const override { return ""; }

    const machine_facts &facts() const override
    {
        static const machine_facts known = look();
        return known;
    }

    std::optional<std::string> read(const std::string &path) const override
    {
        return read_file(path);
    }

    std::vector<std::string> names_in(const std::string &directory) const override
    {
        std::vector<std::string> names;
        std::error_code none;
        for (const auto &entry : fs::directory_iterator(directory, none))
            names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }

    std::string target(const std::string &path) const override
    {
        std::error_code none;
        return fs::read_symlink(path, none);
    }

    std::string real_path(const std::string &path) const override
    {
        std::error_code none;
        return fs::canonical(path, none);
    }

private:
    machine_facts look() const
    {
        utsname kernel = {};
        ::uname(&kernel);
        machine_facts facts;
        facts.host = kernel.nodename;
        facts.time = ::time(nullptr);
        facts.chassis = chassis_type();
        facts.is_rp2 = settings.is_rp2;
        facts.kernel = kernel.release;
        facts.lockdown = lockdown_in(line("/sys/kernel/security/lockdown"));
        facts.parameters = parameters_in(line("/proc/cmdline"));
        for (const std::string &name : names_in("/sys/class/uio"))
            if (::access(("/dev/" + name).c_str(), R_OK | W_OK) != 0)
                facts.nodes.push_back({name, std::strerror(errno)});
        return facts;
    }
};

} // namespace

std::string machine_source::text(const std::string &path) const
{
    try {
        return read(path).value_or("");
    } catch (const failure &) {
        return "";
    }
}

std::string machine_source::line(const std::string &path) const
{
    const std::string all = text(path);
    return all.substr(0, all.find('\n'));
}

std::string machine_source::option() const
{
    return is_archive() ? " --from " + quoted(archive()) : "";
}

const machine_source &this_machine()
{
    static const live_machine machine;
    return machine;
}

} // namespace devaccess
