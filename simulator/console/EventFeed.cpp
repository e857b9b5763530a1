#include "EventFeed.h"

#include <algorithm>

namespace vel::sim {

namespace {

constexpr std::chrono::milliseconds kPause{50};  // gathers what comes meanwhile
constexpr std::chrono::seconds kLongestWait{1};
constexpr std::chrono::seconds kCommentAfter{10};
constexpr size_t kBytesAtATime = size_t{64} << 10;

void append(std::string& text, uint64_t number, const std::string& event) {
    text.append("id: ").append(std::to_string(number)).append("\ndata: ").append(event).append("\n\n");
}

}  // namespace

EventFeed::EventFeed() : EventFeed(Limits()) {}

void EventFeed::add(std::string event, const std::string& keptAs) {
    if (event.find_first_of("\r\n") != std::string::npos) return;
    {
        std::lock_guard<std::mutex> lock(mLock);
        mBytes += event.size();
        mEvents.push_back(std::make_shared<const std::string>(std::move(event)));
        if (!keptAs.empty()) mKept[keptAs] = {newest(), mEvents.back()};
        while (mEvents.size() > mLimits.events || mBytes > mLimits.bytes) {
            mBytes -= mEvents.front()->size();
            mEvents.pop_front();
            ++mFirst;
        }
    }
    mChanged.notify_all();
}

void EventFeed::setState(std::string state) {
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (state == mState) return;
        mState = std::move(state);
        ++mStateNumber;
    }
    mChanged.notify_all();
}

void EventFeed::close() {
    {
        std::lock_guard<std::mutex> lock(mLock);
        mIsClosed = true;
    }
    mChanged.notify_all();
    mClosed.notify_all();
}

std::vector<EventFeed::Event> EventFeed::keptBetween(uint64_t first, uint64_t end) const {
    std::vector<Event> kept;
    for (const auto& [word, event] : mKept) {
        if (event.number >= first && event.number < end) kept.push_back(event);
    }
    std::sort(kept.begin(), kept.end(),
              [](const Event& one, const Event& other) { return one.number < other.number; });
    return kept;
}

EventFeed::Reader EventFeed::open(uint64_t lastSeen) {
    std::lock_guard<std::mutex> lock(mLock);
    Reader reader;
    if (lastSeen > 0 && lastSeen <= newest()) {
        reader.mNext = lastSeen + 1;
        return reader;
    }
    reader.mNext = newest() + 1 - std::min(mEvents.size(), mLimits.history);
    const auto kept = keptBetween(0, reader.mNext);
    reader.mBefore.assign(kept.begin(), kept.end());
    return reader;
}

bool EventFeed::hasMore(const Reader& reader) const {
    return reader.mState != mStateNumber || !reader.mBefore.empty() || reader.mNext <= newest();
}

std::optional<std::string> EventFeed::next(Reader& reader) {
    const auto now = Clock::now();
    std::unique_lock<std::mutex> lock(mLock);
    mClosed.wait_until(lock, std::min(reader.mSent + kPause, now + kPause), [this] { return mIsClosed; });
    mChanged.wait_until(lock, now + kLongestWait, [&] { return mIsClosed || hasMore(reader); });
    if (mIsClosed) return std::nullopt;
    std::string text = take(reader);
    if (text.empty() && Clock::now() - reader.mSent >= kCommentAfter) text = ":\n\n";
    if (!text.empty()) reader.mSent = Clock::now();
    return text;
}

std::string EventFeed::take(Reader& reader) const {
    std::string text;
    if (reader.mState != mStateNumber) {
        text = "event: state\ndata: " + mState + "\n\n";
        reader.mState = mStateNumber;
    }
    skipLost(reader, text);
    for (; !reader.mBefore.empty() && text.size() < kBytesAtATime; reader.mBefore.pop_front())
        append(text, reader.mBefore.front().number, *reader.mBefore.front().text);
    for (; reader.mNext <= newest() && text.size() < kBytesAtATime; ++reader.mNext)
        append(text, reader.mNext, *mEvents[reader.mNext - mFirst]);
    return text;
}

// What the reader missed because it was slow; of it, it gets what is kept.
void EventFeed::skipLost(Reader& reader, std::string& text) const {
    if (reader.mNext >= mFirst) return;
    const auto kept = keptBetween(reader.mNext, mFirst);
    const uint64_t lost = mFirst - reader.mNext - kept.size();
    reader.mBefore.insert(reader.mBefore.end(), kept.begin(), kept.end());
    reader.mNext = mFirst;
    if (lost > 0) text += "event: lost\ndata: {\"count\":" + std::to_string(lost) + "}\n\n";
}

}  // namespace vel::sim
