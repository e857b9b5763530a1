#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

using NamedActions = std::vector<std::pair<std::string, std::function<void()>>>;

/**
 * Expects of each action, each on a thread of its own, that it does not end while the lock is held. What is
 * to happen before the lock is free again is done by beforeRelease.
 */
inline void expectEachWaitsFor(
    std::mutex& lock, const NamedActions& actions, const std::function<void()>& beforeRelease = [] {}) {
    std::vector<std::future<void>> ends;
    std::unique_lock<std::mutex> held(lock);
    for (const auto& [name, action] : actions)
        ends.push_back(std::async(std::launch::async, action));
    for (size_t i = 0; i < ends.size(); ++i) {
        const auto limit = std::chrono::milliseconds(i == 0 ? 30 : 0);  // which is for all of them
        EXPECT_EQ(ends[i].wait_for(limit), std::future_status::timeout) << actions[i].first;
    }
    beforeRelease();
    held.unlock();
    for (std::future<void>& end : ends)
        end.get();
}

/** Whether another thread could have the lock at once. */
inline bool isFree(std::mutex& lock) {
    return std::async(std::launch::async,
                      [&] { return std::unique_lock<std::mutex>(lock, std::try_to_lock).owns_lock(); })
        .get();
}
