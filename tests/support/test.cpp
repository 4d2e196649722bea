#include "support/test.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test
{
namespace
{

// A standard stream that goes to a file while this lives.
class capture
{
public:
    explicit capture(int number)
        : number_(number), saved_(::fcntl(number, F_DUPFD_CLOEXEC, 100)),
          file_(::memfd_create("captured", MFD_CLOEXEC))
    {
        if (saved_ < 0 || file_ < 0 || ::dup2(file_, number) < 0)
            std::abort();
    }

    std::string end()
    {
        std::fflush(nullptr);
        ::dup2(saved_, number_);
        ::close(saved_);
        std::string text(static_cast<size_t>(::lseek(file_, 0, SEEK_END)), '\0');
        if (::pread(file_, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()))
            std::abort();
        ::close(file_);
        return text;
    }

private:
    int number_;
    int saved_;
    int file_;
};

// The library keeps static state, and a process enters one private root. So where more than one
// case is to run, this program runs itself for each.
class each_case_in_a_process : public testing::EmptyTestEventListener
{
    void OnTestProgramStart(const testing::UnitTest &all) override
    {
        if (all.test_to_run_count() < 2)
            return;
        bool passed = true;
        for (int i = 0; i < all.total_test_suite_count(); ++i) {
            const testing::TestSuite &suite = *all.GetTestSuite(i);
            for (int k = 0; k < suite.total_test_count(); ++k)
                if (suite.GetTestInfo(k)->should_run())
                    passed = passes(*suite.GetTestInfo(k)) && passed;
        }
        std::fflush(nullptr);
        ::_exit(passed ? 0 : 1);
    }

    static bool passes(const testing::TestInfo &one)
    {
        const std::string filter =
            std::string("--gtest_filter=") + one.test_suite_name() + "." + one.name();
        const pid_t child = ::fork();
        if (child == 0) {
            ::execl("/proc/self/exe", one.test_suite_name(), filter.c_str(), nullptr);
            ::_exit(1);
        }
        int status;
        return ::waitpid(child, &status, 0) == child && status == 0;
    }
};

const bool is_listening = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new each_case_in_a_process);
    return true;
}();

} // namespace

bool outcome::operator==(const outcome &seen) const
{
    return value == seen.value && err == seen.err && out == seen.out && opens == seen.opens &&
           (error == seen.error || error == any_error || seen.error == any_error);
}

std::ostream &operator<<(std::ostream &stream, const outcome &what)
{
    stream << what.value.number;
    if (what.error == untouched)
        stream << ", errno untouched";
    else if (what.error != any_error)
        stream << ", errno " << what.error << " (" << std::strerror(what.error) << ")";
    if (what.opens != 0)
        stream << ", " << what.opens << " descriptors more";
    return stream << "\nstderr: " << testing::PrintToString(what.err)
                  << "\nstdout: " << testing::PrintToString(what.out);
}

outcome outcome_of(const std::function<result()> &call)
{
    outcome seen;
    std::fflush(nullptr);
    const long before = open_descriptors();
    capture out(STDOUT_FILENO);
    capture err(STDERR_FILENO);
    errno = untouched;
    seen.value = call();
    seen.error = errno;
    seen.err = short_lines(err.end());
    seen.out = short_lines(out.end());
    seen.opens = open_descriptors() - before;
    return seen;
}

streams output_of(const std::function<void()> &code)
{
    const outcome seen = outcome_of([&] {
        code();
        return 0;
    });
    return {seen.out, seen.err};
}

static std::string indented(const std::string &text, const char *mark)
{
    std::istringstream lines(text);
    std::string all;
    for (std::string line; std::getline(lines, line);)
        all.append(mark).append(line).append(lines.eof() ? "\\\n" : "\n");
    return all;
}

result transcript::call(const std::string &what, const std::function<result()> &call)
{
    const outcome seen = outcome_of(call);
    const intmax_t value = seen.value.number;
    text_ += what + (value > 0xFFFFFF ? printed(" = 0x%jx", uintmax_t(value))
                                      : " = " + std::to_string(value));
    if (shows_errno && value <= 0 && seen.error != untouched && seen.error != 0)
        text_ += std::string(", ") + std::strerror(seen.error);
    if (seen.opens != 0)
        text_ += printed(", %+ld descriptors", seen.opens);
    text_ += "\n" + indented(seen.err, "  ! ") + indented(seen.out, "  ");
    return seen.value;
}

testing::AssertionResult is_expected(const std::string &name, const std::string &text)
{
    const std::string path = EXPECTED_TEXTS "/" + name;
    if (std::getenv("RENEW_EXPECTED") && !text.empty()) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::ofstream(path, std::ios::binary) << text;
    }
    const auto lines = [](const std::string &all) {
        std::istringstream stream(all);
        std::vector<std::string> each;
        for (std::string line; std::getline(stream, line);)
            each.push_back(line);
        return each;
    };
    const std::string expected = read_file(path);
    if (expected == text)
        return testing::AssertionSuccess();
    return testing::AssertionFailure()
           << "--- " << path << "\n+++ seen\n"
           << testing::internal::edit_distance::CreateUnifiedDiff(lines(expected), lines(text))
           << "RENEW_EXPECTED=1 in the environment renews the file.";
}

long open_descriptors()
{
    namespace fs = std::filesystem;
    // The one that the count itself uses comes and goes.
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()) - 1;
}

std::string short_lines(const std::string &text)
{
    static const std::regex prefix("(^|\n)(?:log\\[([A-Z_]+)\\]: lib/device_access/libuio|"
                                   "\\[([0-9]+)\\], lib/device_access/pci_sysfs)"
                                   ":[0-9]+:(\\w+)\\(\\): ");
    static const std::regex instance("instance\\(0x[0-9a-f]+\\)");
    return std::regex_replace(std::regex_replace(text, prefix, "$1$2$3 $4: "), instance,
                              "instance");
}

std::string replaced(const std::string &text, const char *pattern, const char *by)
{
    return std::regex_replace(text, std::regex(pattern), by);
}

std::string printed(const char *format, ...)
{
    char text[4096];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

std::vector<std::string> words(const std::string &text)
{
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string difference(const std::string &one, const std::string &other)
{
    if (one.size() != other.size())
        return "sizes " + std::to_string(one.size()) + " and " + std::to_string(other.size());
    for (size_t i = 0; i < one.size(); ++i)
        if (one[i] != other[i])
            return "byte " + std::to_string(i);
    return "";
}

} // namespace test
