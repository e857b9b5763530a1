#pragma once

#include <string>
#include <system_error>
#include <thread>
#include <utility>

namespace vel::sim {

/** A thread that runs the body. Throws std::system_error, which names the purpose, when the system has none.
 */
template <typename Body>
std::thread startThread(const char* purpose, Body&& body) try {
    return std::thread(std::forward<Body>(body));
} catch (const std::system_error& error) {
    throw std::system_error(error.code(), std::string("no thread for ") + purpose);
}

}  // namespace vel::sim
