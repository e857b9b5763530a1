// Runs the benchmarks and prints each as a ratio to a floor measured in the same run. --ratios_to=FILE writes
// the ratios to a file, --ratios_beside=FILE prints those that another build has written beside its own; the
// other arguments are Google Benchmark's.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <string>
#include <vector>

#include "RatioReporter.h"

namespace {

// Takes the word that begins with the prefix out of the words and returns its rest; "" when there is none.
std::string takeOption(std::vector<std::string>& words, const std::string& prefix) {
    const auto found = std::find_if(words.begin(), words.end(), [&](const std::string& word) {
        return word.compare(0, prefix.size(), prefix) == 0;
    });
    if (found == words.end()) return "";
    const std::string rest = found->substr(prefix.size());
    words.erase(found);
    return rest;
}

}  // namespace

int main(int argc, char** argv) {
    // Product and floor take turns, so that a busy moment of the machine falls on both. What the caller gives
    // comes later and wins.
    std::vector<std::string> words = {argv[0], "--benchmark_enable_random_interleaving=true",
                                      "--benchmark_repetitions=9", "--benchmark_min_time=0.05"};
    words.insert(words.end(), argv + 1, argv + argc);
    const std::string ratiosTo = takeOption(words, "--ratios_to=");
    const std::string ratiosBeside = takeOption(words, "--ratios_beside=");
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) return 2;

    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const int above = reporter.printRatios(ratiosBeside);
    reporter.printAllocations();
    reporter.printTables();
    if (above > 0) std::printf("\n%d above their aims\n", above);
    if (!ratiosTo.empty() && !reporter.writeRatios(ratiosTo)) return 2;
    return 0;
}
