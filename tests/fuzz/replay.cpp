// Runs a fuzzer's entry over its seeds and its kept inputs, each of them whole and cut at every
// byte; or, as NAME_replay --seeds DIR, writes the seeds for libFuzzer to start from.

#include "fuzz.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

void run(const std::string &input)
{
    for (std::size_t size = 0; size <= input.size(); ++size) {
        // A copy of just this size, so that a sanitizer sees a read behind its end.
        const std::vector<std::uint8_t> cut(input.begin(),
                                            input.begin() + static_cast<std::ptrdiff_t>(size));
        LLVMFuzzerTestOneInput(cut.data(), cut.size());
    }
}

void write_seeds(const std::filesystem::path &folder)
{
    std::filesystem::create_directories(folder);
    int number = 0;
    for (const std::string &seed : fuzz::seeds())
        std::ofstream(folder / ("seed-" + std::to_string(number++)), std::ios::binary) << seed;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--seeds") == 0) {
        write_seeds(argv[2]);
        return EXIT_SUCCESS;
    }

    std::size_t seeds = 0, kept = 0;
    for (const std::string &seed : fuzz::seeds()) {
        run(seed);
        ++seeds;
    }
    for (int i = 1; i < argc; ++i)
        for (const auto &file : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream in(file.path(), std::ios::binary);
            run({std::istreambuf_iterator<char>(in), {}});
            ++kept;
        }
    std::printf("%zu seeds and %zu kept inputs, whole and cut at every byte\n", seeds, kept);
    return seeds > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
