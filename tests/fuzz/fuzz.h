// What a fuzzer consists of, and what fuzzers share.
//
// A fuzzer is one file NAME_fuzz.cpp, fuzz_target(NAME) in the build, and a folder corpus/NAME
// once there are inputs to keep. The file defines the two functions below.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// Does with these bytes whatever the fuzzer is for; a promise that does not hold ends the process.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

namespace fuzz {

// Valid inputs, made from the tables in support/ so that they stay valid.
std::vector<std::string> seeds();

// Ends the process where the promise does not hold. Says why, where there is something to say.
void require(bool promise, std::string_view complaint = {});

// Takes an input apart, from its beginning. At the end there are zeros and empty strings.
class Input {
public:
    Input(const std::uint8_t *data, std::size_t size)
        : rest_(reinterpret_cast<const char *>(data), size)
    {
    }

    bool empty() const
    {
        return rest_.empty();
    }
    unsigned char byte()
    {
        return rest_.empty() ? static_cast<unsigned char>(0)
                             : static_cast<unsigned char>(bytes(1)[0]);
    }
    std::size_t below(std::size_t bound)
    {
        return byte() % bound;
    }
    // One byte of length and the string.
    std::string text()
    {
        return std::string(bytes(byte()));
    }
    std::string_view bytes(std::size_t most)
    {
        const std::string_view taken = rest_.substr(0, most);
        rest_.remove_prefix(taken.size());
        return taken;
    }
    std::string rest()
    {
        return std::string(bytes(rest_.size()));
    }

private:
    std::string_view rest_;
};

} // namespace fuzz
