// Stands in for the fuzzer: gives a target every file of a directory once. Without a fuzzer it can
// be compiled by any compiler.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace
{

struct input {
    std::string name, bytes;
};

std::vector<input> files_of(const std::string &directory)
{
    std::vector<input> files;
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        std::ifstream file(entry.path(), std::ios::binary);
        files.push_back({entry.path().filename(), {std::istreambuf_iterator<char>(file), {}}});
    }
    std::sort(files.begin(), files.end(),
              [](const input &one, const input &other) { return one.name < other.name; });
    return files;
}

// Ends the program with a failure if the target ends it.
bool has_run_all = false;
void check_end()
{
    if (!has_run_all)
        std::_Exit(EXIT_FAILURE);
}

} // namespace

int main(int argc, char **argv)
{
    std::atexit(check_end);
    const auto files = files_of(argc > 1 ? argv[1] : "."); // before the target enters its own root
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    for (const input &file : files) {
        // The last of these lines tells which one failed.
        std::fprintf(stderr, "input %s\n", file.name.c_str());
        std::fflush(nullptr);
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(file.bytes.data()),
                               file.bytes.size());
    }
    has_run_all = true;
    return files.empty() ? EXIT_FAILURE : EXIT_SUCCESS;
}
