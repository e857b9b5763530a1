#include "RatioReporter.h"

#include <algorithm>
#include <cstdio>
#include <fstream>

namespace {

std::vector<Aim>& aims() {
    static std::vector<Aim> all;
    return all;
}

std::vector<FigureTable>& tables() {
    static std::vector<FigureTable> all;
    return all;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const size_t middle = values.size() / 2;
    return values.size() % 2 != 0 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

// What writeRatios() wrote; nothing when there is no such file.
std::map<std::string, double> readRatios(const std::string& path) {
    std::map<std::string, double> ratios;
    std::ifstream file(path);
    std::string key;
    while (std::getline(file, key, '\t')) {
        file >> ratios[key];
        file.ignore();
    }
    return ratios;
}

// "subject/product/repeats:5" and the like: what the benchmark was registered as.
std::string plainName(const benchmark::BenchmarkReporter::Run& run) {
    return run.run_name.function_name;
}

}  // namespace

void addAim(const Aim& aim) {
    aims().push_back(aim);
}

void addTable(const FigureTable& table) {
    tables().push_back(table);
}

void RatioReporter::ReportRuns(const std::vector<Run>& runs) {
    for (const Run& run : runs) {
        if (run.error_occurred) mSkipped[plainName(run)] = run.error_message;
        if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
        auto& figures = mFigures[plainName(run)];
        figures["real"].push_back(run.GetAdjustedRealTime());
        figures["cpu"].push_back(run.GetAdjustedCPUTime());
        for (const auto& [name, counter] : run.counters)
            figures[name].push_back(counter.value);
    }
}

std::vector<RatioReporter::Measured> RatioReporter::measured() const {
    std::vector<Measured> result;
    for (const Aim& aim : aims()) {
        const auto product = mFigures.find(aim.subject + "/" + aim.product);
        const auto floor = mFigures.find(aim.subject + "/" + aim.floor);
        if (product == mFigures.end() || floor == mFigures.end()) continue;
        result.push_back({aim, median(product->second.at(aim.figure)), median(floor->second.at(aim.figure))});
    }
    return result;
}

bool RatioReporter::writeRatios(const std::string& path) const {
    std::ofstream file(path);
    for (const Measured& row : measured())
        file << row.key() << '\t' << row.ratio() << '\n';
    return file.flush().good();
}

int RatioReporter::printRatios(const std::string& otherBuild) const {
    const std::map<std::string, double> others = readRatios(otherBuild);
    int above = 0;
    std::printf("\n%-28s %-8s %12s %12s %8s %8s %8s\n", "subject", "figure", "product", "floor", "ratio",
                "device", "aim");
    for (const Measured& row : measured()) {
        const Aim& aim = row.aim;
        std::printf("%-28s %-8s %12.1f %12.1f %8.2f ", aim.subject.c_str(), aim.figure.c_str(), row.product,
                    row.floor, row.ratio());
        const auto other = others.find(row.key());
        const double otherRatio = other == others.end() ? 0 : other->second;
        if (other == others.end())
            std::printf("%8s ", "-");
        else
            std::printf("%8.2f ", otherRatio);
        if (aim.ratio == kNoAim) {
            std::printf("%8s\n", aim.floor.c_str());
            continue;
        }
        const bool isAbove = row.ratio() > aim.ratio || otherRatio > aim.ratio;
        if (isAbove) ++above;
        std::printf("%8.2f%s\n", aim.ratio, isAbove ? "  above" : "");
    }
    return above;
}

void RatioReporter::printAllocations() const {
    std::printf("\n%-48s %12s %12s\n", "a call", "cpu ns", "allocations");
    for (const auto& [name, figures] : mFigures) {
        const auto allocations = figures.find("allocs");
        if (allocations == figures.end()) continue;
        std::printf("%-48s %12.1f %12.1f\n", name.c_str(), median(figures.at("cpu")),
                    median(allocations->second));
    }
}

void RatioReporter::printTables() const {
    for (const FigureTable& table : tables()) {
        const auto first = mFigures.lower_bound(table.subject + "/");
        if (first == mFigures.end() || first->first.rfind(table.subject + "/", 0) != 0) continue;
        std::printf("\n%-48s", table.subject.c_str());
        for (const std::string& column : table.columns)
            std::printf(" %10s", column.c_str());
        std::printf("\n");
        for (const FigureTable::Row& row : table.rows)
            printRow(table, row);
    }
    for (const auto& [name, reason] : mSkipped)
        std::printf("skipped: %s: %s\n", name.c_str(), reason.c_str());
}

void RatioReporter::printRow(const FigureTable& table, const FigureTable::Row& row) const {
    std::printf("%-48s", row.label.c_str());
    for (const std::string& column : table.columns) {
        const auto figures = mFigures.find(table.subject + "/" + row.name + " " + column);
        if (figures == mFigures.end())
            std::printf(" %10s", "-");
        else
            std::printf(" %10.1f", median(figures->second.at(row.figure)));
    }
    std::printf("\n");
}
