#include "ratios.h"

#include <algorithm>
#include <iostream>
#include <map>

#include <benchmark/benchmark.h>
#include <unistd.h>

namespace bench {

namespace {

// Prints the median of each benchmark and keeps the processor time of every repetition.
class Collector : public benchmark::ConsoleReporter {
public:
    Collector() : ConsoleReporter(isatty(STDOUT_FILENO) != 0 ? OO_Defaults : OO_None) {}

    void ReportRuns(const std::vector<Run> &reports) override
    {
        std::vector<Run> shown;
        for (const Run &run : reports) {
            if (run.error_occurred ||
                (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median"))
                shown.push_back(run);
            failed_ = failed_ || run.error_occurred;
            if (run.run_type == Run::RT_Iteration && !run.error_occurred)
                times_[run.run_name.function_name +
                       (run.run_name.args.empty() ? "" : "/" + run.run_name.args)]
                    .push_back(run.cpu_accumulated_time / static_cast<double>(run.iterations));
        }
        ConsoleReporter::ReportRuns(shown);
    }

    bool failed() const
    {
        return failed_;
    }

    // The median; 0 when the benchmark did not run.
    double time(const std::string &name) const
    {
        const auto found = times_.find(name);
        if (found == times_.end())
            return 0;
        std::vector<double> sorted = found->second;
        std::sort(sorted.begin(), sorted.end());
        return sorted[sorted.size() / 2];
    }

private:
    std::map<std::string, std::vector<double>> times_;
    bool failed_ = false;
};

} // namespace

int run(int argc, char **argv, const std::vector<Ratio> &ratios)
{
    // What the command line says comes later and so counts instead of these.
    std::vector<std::string> arguments = {argv[0], "--benchmark_repetitions=9",
                                          "--benchmark_enable_random_interleaving=true"};
    arguments.insert(arguments.end(), argv + 1, argv + argc);
    std::vector<char *> pointers;
    pointers.reserve(arguments.size());
    for (std::string &argument : arguments)
        pointers.push_back(argument.data());
    int count = static_cast<int>(pointers.size());
    benchmark::Initialize(&count, pointers.data());
    if (benchmark::ReportUnrecognizedArguments(count, pointers.data()))
        return 2;

    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);

    std::cout << "\nMedian processor time, compared within this run:\n";
    for (const Ratio &ratio : ratios) {
        const double subject = collector.time(ratio.subject);
        const double baseline = collector.time(ratio.baseline);
        if (subject > 0 && baseline > 0)
            std::cout << "  " << ratio.subject << " / " << ratio.baseline << " = "
                      << subject / baseline << '\n';
    }
    return collector.failed() ? 1 : 0;
}

} // namespace bench
