#include "Recorder.h"

#include <algorithm>
#include <cstdio>

namespace vel::sim {

namespace {

// Puts the program's name behind the stamp that the line begins with.
std::string withSource(const std::string& source, const std::string& line) {
    const size_t stampEnd = line.find("] ");
    const size_t textStart = stampEnd == std::string::npos ? 0 : stampEnd + 2;
    std::string name = source;
    name.resize(std::max<size_t>(name.size(), 14), ' ');
    return line.substr(0, textStart) + name + " " + line.substr(textStart);
}

}  // namespace

std::string Expectation::text() const {
    std::string result = source + ":";
    for (const std::string& part : parts)
        result += " " + part;
    return result;
}

void Recorder::add(const std::string& source, const std::string& line) {
    {
        std::lock_guard<std::mutex> lock(mLock);
        mEntries.push_back({source, line});
        std::printf("%s\n", withSource(source, line).c_str());
        std::fflush(stdout);
    }
    mChanged.notify_all();
}

bool Recorder::waitFor(const Expectation& expectation, size_t mark, std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> lock(mLock);
    return mChanged.wait_for(lock, limit, [&] { return mInterrupted || isMetSince(expectation, mark); }) &&
           !mInterrupted;
}

bool Recorder::isMetSince(const Expectation& expectation, size_t mark) const {
    return std::any_of(
        mEntries.begin() + static_cast<ptrdiff_t>(mark), mEntries.end(), [&](const Entry& entry) {
            return entry.source == expectation.source &&
                   std::all_of(
                       expectation.parts.begin(), expectation.parts.end(),
                       [&](const std::string& part) { return entry.line.find(part) != std::string::npos; });
        });
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
