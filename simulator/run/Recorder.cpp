#include "Recorder.h"

#include <algorithm>
#include <cstdio>

namespace vel::sim {

namespace {

using Clock = std::chrono::steady_clock;

// How long a line waits for earlier ones that another program's pipe still holds.
constexpr std::chrono::milliseconds kSettling{100};

// Puts the program's name behind the stamp that the line begins with.
std::string withSource(const std::string& source, const std::string& line) {
    const size_t stampEnd = line.find("] ");
    const size_t textStart = stampEnd == std::string::npos ? 0 : stampEnd + 2;
    std::string name = source;
    name.resize(std::max<size_t>(name.size(), 14), ' ');
    return line.substr(0, textStart) + name + " " + line.substr(textStart);
}

}  // namespace

bool Expectation::isMetBy(const std::string& lineSource, const std::string& line) const {
    return lineSource == source && std::all_of(parts.begin(), parts.end(), [&](const std::string& part) {
               return line.find(part) != std::string::npos;
           });
}

std::string Expectation::text() const {
    std::string result = source + ":";
    for (const std::string& part : parts)
        result += " " + part;
    return result;
}

void Recorder::add(const std::string& source, const std::string& line) {
    {
        std::lock_guard<std::mutex> lock(mLock);
        mEntries.push_back({source, line, Clock::now()});
    }
    mChanged.notify_all();
}

void Recorder::printOnlyFirst(const Expectation& pattern, size_t count) {
    std::lock_guard<std::mutex> lock(mLock);
    mQuotas.push_back({pattern, count});
}

void Recorder::printAll() {
    std::lock_guard<std::mutex> lock(mLock);
    mQuotas.clear();
}

// Whether the line is to be printed.
bool Recorder::takeFromQuota(const Entry& entry) {
    const auto quota = std::find_if(mQuotas.begin(), mQuotas.end(), [&](const Quota& candidate) {
        return candidate.pattern.isMetBy(entry.source, entry.line);
    });
    if (quota == mQuotas.end()) return true;
    if (quota->left == 0) return false;
    --quota->left;
    return true;
}

void Recorder::print() {
    std::lock_guard<std::mutex> lock(mLock);
    printLinesBefore(Clock::time_point::max());
}

void Recorder::printLinesBefore(Clock::time_point end) {
    std::vector<std::string> lines;
    for (; mPrinted < mEntries.size() && mEntries[mPrinted].arrival < end; ++mPrinted) {
        const Entry& entry = mEntries[mPrinted];
        if (takeFromQuota(entry)) lines.push_back(withSource(entry.source, entry.line));
    }
    // Every line begins with its time, right-aligned: sorting the texts sorts the times.
    std::stable_sort(lines.begin(), lines.end(), [](const std::string& left, const std::string& right) {
        return left.substr(0, left.find(']')) < right.substr(0, right.find(']'));
    });
    for (const std::string& line : lines)
        std::printf("%s\n", line.c_str());
    if (std::fflush(stdout) != 0) mInterrupted = true;
}

bool Recorder::waitFor(const Expectation& expectation, size_t mark, std::chrono::milliseconds limit) {
    const Clock::time_point end = Clock::now() + limit;
    const auto isOver = [&] { return mInterrupted || isMetSince(expectation, mark); };
    std::unique_lock<std::mutex> lock(mLock);
    while (!mChanged.wait_until(lock, std::min(end, Clock::now() + kSettling), isOver)) {
        if (Clock::now() >= end) return false;
        printLinesBefore(Clock::now() - kSettling);
    }
    return !mInterrupted;
}

bool Recorder::isMetSince(const Expectation& expectation, size_t mark) const {
    return std::any_of(mEntries.begin() + static_cast<ptrdiff_t>(mark), mEntries.end(),
                       [&](const Entry& entry) { return expectation.isMetBy(entry.source, entry.line); });
}

std::optional<std::string> Recorder::find(const Expectation& expectation, size_t mark) const {
    std::lock_guard<std::mutex> lock(mLock);
    for (size_t index = mark; index < mEntries.size(); ++index) {
        const Entry& entry = mEntries[index];
        if (expectation.isMetBy(entry.source, entry.line)) return entry.line;
    }
    return std::nullopt;
}

std::string Recorder::newest(const std::string& source) const {
    std::lock_guard<std::mutex> lock(mLock);
    const auto entry = std::find_if(mEntries.rbegin(), mEntries.rend(),
                                    [&](const Entry& candidate) { return candidate.source == source; });
    if (entry == mEntries.rend()) return "";
    return entry->line.substr(entry->line.find("] ") + 1);
}

size_t Recorder::mark() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mEntries.size();
}

void Recorder::interrupt() {
    {
        std::lock_guard<std::mutex> lock(mLock);
        mInterrupted = true;
    }
    mChanged.notify_all();
}

bool Recorder::isInterrupted() const {
    std::lock_guard<std::mutex> lock(mLock);
    return mInterrupted;
}

}  // namespace vel::sim
