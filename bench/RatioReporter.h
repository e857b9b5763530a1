#pragma once

#include <benchmark/benchmark.h>

#include <limits>
#include <map>
#include <string>
#include <vector>

constexpr double kNoAim = std::numeric_limits<double>::infinity();

/** What a figure should stay below: the product's median over the floor's, measured in one run. */
struct Aim {
    std::string subject;              // benchmarks "<subject>/product" and "<subject>/floor"
    std::string figure;               // "real" or "cpu" time, or the name of a counter
    double ratio;                     // kNoAim prints the ratio alone
    std::string product = "product";  // other endings of the two names
    std::string floor = "floor";
};

/** Figures side by side, without an aim: benchmarks "<subject>/<row's name> <column>". */
struct FigureTable {
    struct Row {
        std::string label;
        std::string name;
        std::string figure;
    };
    std::string subject;
    std::vector<std::string> columns;
    std::vector<Row> rows;
};

/** Says what to compare; called by each subject's file before the benchmarks run. */
void addAim(const Aim& aim);
/** Says what to print; likewise. */
void addTable(const FigureTable& table);

/**
 * Prints each benchmark as it ends, and at the end a table of the ratios beside their aims. Times are medians
 * over the repetitions.
 */
class RatioReporter : public benchmark::BenchmarkReporter {
  public:
    bool ReportContext(const Context&) override { return true; }
    void ReportRuns(const std::vector<Run>& runs) override;
    /**
     * Prints the table, beside the ratios that another build has written to a file; an empty path names none.
     * Returns how many ratios lie above their aims.
     */
    int printRatios(const std::string& otherBuild) const;
    /** Writes the ratios to a file for the run of another build. False when that fails. */
    bool writeRatios(const std::string& path) const;
    /** Prints a table of the benchmarks that count heap allocations, in the order of their names. */
    void printAllocations() const;
    /** Prints the tables of figures that were measured, and why a benchmark was skipped. */
    void printTables() const;

  private:
    struct Measured {
        const Aim& aim;
        double product;
        double floor;
        double ratio() const { return product / floor; }
        /** What tells it from the others, in every build. */
        std::string key() const { return aim.subject + "/" + aim.floor + "/" + aim.figure; }
    };

    std::vector<Measured> measured() const;
    void printRow(const FigureTable& table, const FigureTable::Row& row) const;

    // By benchmark name, then by figure: one value a repetition.
    std::map<std::string, std::map<std::string, std::vector<double>>> mFigures;
    std::map<std::string, std::string> mSkipped;  // reasons by benchmark name
};
