#pragma once

#include <chrono>
#include <thread>

/**
 * Waits until the predicate holds, at most for the limit; true when it held. The limit is generous, since
 * machines are shared; a passing test never waits for it.
 */
template <typename Predicate>
bool waitUntil(Predicate predicate, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= end) return predicate();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}
