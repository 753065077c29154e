// Runs a fuzzer's function once over each file of a folder: the checked-in inputs as an ordinary test, without a
// fuzzer.
//
//   PROGRAM FOLDER
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <unistd.h>
#include <vector>

#include "rest_of.h"

extern "C" {
int LLVMFuzzerInitialize(int *argument_count, char ***arguments) __attribute__((weak));
int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);
int __lsan_do_recoverable_leak_check();
}

namespace
{

bool run_file(const std::filesystem::path &path)
{
    std::ifstream file(path, std::ios::binary);
    const auto content = rest_of<std::vector<char>>(file);
    // A block of exactly the input's size: what is read behind it is seen.
    const std::unique_ptr<std::uint8_t[]> input(new std::uint8_t[content.size()]);
    std::copy(content.begin(), content.end(), input.get());
    (void)::dprintf(STDERR_FILENO, "%s, %zu bytes\n", path.filename().c_str(), content.size());
    (void)LLVMFuzzerTestOneInput(input.get(), content.size());
    return __lsan_do_recoverable_leak_check() == 0;
}

} // namespace

int main(int argument_count, char **arguments)
{
    if (argument_count != 2) {
        (void)::dprintf(STDERR_FILENO, "usage: PROGRAM FOLDER\n");
        return EXIT_FAILURE;
    }
    if (LLVMFuzzerInitialize != nullptr)
        (void)LLVMFuzzerInitialize(&argument_count, &arguments);
    unsigned inputs = 0;
    bool clean = true;
    for (const auto &entry : std::filesystem::directory_iterator(arguments[1])) {
        clean = run_file(entry.path()) && clean;
        ++inputs;
    }
    (void)::dprintf(STDERR_FILENO, "%u inputs\n", inputs);
    return inputs > 0 && clean ? EXIT_SUCCESS : EXIT_FAILURE;
}
