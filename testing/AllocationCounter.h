#pragma once

#include <cstddef>

/**
 * Counts what the calling thread asks of the heap while it lives: each malloc, calloc, realloc and operator
 * new is one, over-aligned ones excepted. Asks of other threads do not count. Link the target
 * allocation_counter, which puts its own functions before the C library's in the whole program.
 */
class AllocationCounter {
  public:
    /**
     * False in sanitized builds, where the sanitizer owns the heap: count() stays 0, skip what relies on it.
     */
    static bool available();

    AllocationCounter();
    /** So far since construction. */
    size_t count() const;

  private:
    size_t mStart;
};
