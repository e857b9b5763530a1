#pragma once

#include <functional>

// Short-lived threads that nobody joins. Their bodies may outlive the call that started them, so they carry
// copies, and they touch the helper only during a helper_lifetime::Visit.
namespace detached_thread {

/**
 * Runs the body on a new detached thread. Returns false, with an error line that names the purpose, when the
 * system refuses the thread; the body is then dropped. Never blocks.
 */
bool start(const char* purpose, std::function<void()> body);

/** How many started bodies have not returned yet. */
int liveCount();

}  // namespace detached_thread
