// Runs the benchmarks and prints each as a ratio to a floor measured in the same run.

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "RatioReporter.h"

int main(int argc, char** argv) {
    // Product and floor take turns, so that a busy moment of the machine falls on both. What the caller gives
    // comes later and wins.
    std::vector<std::string> words = {argv[0], "--benchmark_enable_random_interleaving=true",
                                      "--benchmark_repetitions=9", "--benchmark_min_time=0.05"};
    words.insert(words.end(), argv + 1, argv + argc);
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;

    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const int above = reporter.printRatios();
    reporter.printAllocations();
    reporter.printTables();
    if (above > 0) std::printf("\n%d above their aims\n", above);
    return 0;
}
