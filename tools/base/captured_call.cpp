// Keeps what the library prints, and makes one line of its failures.
#include "tools/base/captured_call.h"

#include "tools/base/errors.h"
#include "tools/base/output.h"
#include "tools/base/rights.h"
#include "tools/base/settings.h"

#include <cstdlib>
#include <cstring>
#include <sstream>

#include <fmt/format.h>

namespace devaccess
{
namespace
{

std::string without_blanks_around(const std::string &text)
{
    const size_t begin = text.find_first_not_of(" \t");
    return begin == std::string::npos
               ? ""
               : text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

bool is_error(const std::string &line)
{
    return line.compare(0, 5, "ERROR") == 0;
}

std::string without_prefixes(std::string line)
{
    for (const std::string prefix : {"ERROR:", "ERROR", "DIAG's INVENTORY:"})
        while (line.compare(0, prefix.size(), prefix) == 0)
            line = without_blanks_around(line.substr(prefix.size()));
    return line;
}

} // namespace

kept_output::kept_output() : memory_(::open_memstream(&text_, &size_))
{
    if (!memory_)
        throw std::runtime_error(std::string("cannot keep output: ") + std::strerror(errno));
    stdout = stderr = memory_;
}

kept_output::~kept_output()
{
    stdout = out_;
    stderr = err_;
    std::fclose(memory_);
    std::free(text_);
}

std::string kept_output::text()
{
    std::fflush(memory_);
    return {text_, size_};
}

std::string outcome::why() const
{
    std::istringstream lines(said);
    std::string cause;
    for (std::string line; !is_error(cause) && std::getline(lines, line);)
        if (line = without_blanks_around(line); !line.empty())
            cause = line;
    cause = without_prefixes(cause);
    if (cause.empty())
        return error ? std::strerror(error) : "the library gives no reason";
    const bool lacks_error = error && cause.find(std::strerror(error)) == std::string::npos;
    return lacks_error ? fmt::format("{}: {}", cause, std::strerror(error)) : cause;
}

void pass_on(const std::string &said)
{
    if (!settings.verbose)
        return;
    std::istringstream lines(said);
    for (std::string line; std::getline(lines, line);)
        if (!line.empty())
            print_error_line("library: " + printable(line));
}

void fail(const std::string &what, const outcome &how, const std::string &hint)
{
    throw failure(what, how.why(), missing_right(how.said, 0).value_or(hint), how.error);
}

} // namespace devaccess
