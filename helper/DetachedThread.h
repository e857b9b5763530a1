#pragma once

#include <functional>

/**
 * Short-lived threads that nobody joins. Their bodies may outlive the call that started them, so they carry
 * copies, and they touch the helper only during a helper_lifetime::Visit.
 */
namespace detached_thread {

/**
 * Runs the body on a new detached thread. When the system refuses the thread, the body is dropped and an
 * error line names the purpose. Never blocks.
 */
void start(const char* purpose, std::function<void()> body);

/** How many started bodies have not returned yet. */
int liveCount();

}  // namespace detached_thread
