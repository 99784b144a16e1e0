// Runs a fuzzer's entry over kept inputs, each of them whole and cut at every byte.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int main(int argc, char **argv)
{
    std::size_t inputs = 0;
    for (int i = 1; i < argc; ++i) {
        for (const auto &file : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream in(file.path(), std::ios::binary);
            const std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
            for (std::size_t size = 0; size <= bytes.size(); ++size) {
                // A copy of just this size, so that a sanitizer sees a read behind its end.
                const std::vector<std::uint8_t> cut(
                    bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(size));
                LLVMFuzzerTestOneInput(cut.data(), cut.size());
            }
            ++inputs;
        }
    }
    std::printf("%zu inputs, whole and cut at every byte\n", inputs);
    return inputs > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
