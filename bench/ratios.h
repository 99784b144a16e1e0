// Runs the registered benchmarks several times in random order and then prints how the times of
// pairs of them compare. Ratios of one run say more than times do: both sides had the same
// machine, the same load and the same data.
#pragma once

#include <string>
#include <vector>

namespace bench {

// By the names that Google Benchmark prints, "library/100".
struct Ratio {
    std::string subject;
    std::string baseline;
};

int run(int argc, char **argv, const std::vector<Ratio> &ratios);

} // namespace bench
