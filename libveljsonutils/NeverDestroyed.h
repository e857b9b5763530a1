#pragma once

namespace android {

/**
 * A global for threads that may outlive the static destructors, as those of a HAL do when its process exits:
 * it exists before any code runs, and nothing ends it. T needs a constexpr constructor without arguments.
 */
template <typename T>
class NeverDestroyed {
  public:
    constexpr NeverDestroyed() : mValue() {}
    ~NeverDestroyed() {}  // not T's
    NeverDestroyed(const NeverDestroyed&) = delete;
    NeverDestroyed& operator=(const NeverDestroyed&) = delete;

    T& get() { return mValue; }

  private:
    union {
        T mValue;
    };
};

}  // namespace android
