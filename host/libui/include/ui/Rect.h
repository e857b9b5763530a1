#pragma once

#include <android/rect.h>

namespace android {

/** A rectangle of pixels; right and bottom lie one past the last pixel. */
class Rect : public ARect {
  public:
    static const Rect INVALID_RECT;  // 0, 0, -1, -1
    static const Rect EMPTY_RECT;    // 0, 0, 0, 0

    Rect() : Rect(0, 0, -1, -1) {}
    Rect(int32_t l, int32_t t, int32_t r, int32_t b) : ARect() {
        left = l;
        top = t;
        right = r;
        bottom = b;
    }
    /** From 0, 0; a size above INT32_MAX is cut to it. */
    template <typename T>
    Rect(T w, T h) : Rect(0, 0, clamped(w), clamped(h)) {}

    int32_t getWidth() const { return static_cast<int32_t>(static_cast<uint32_t>(right) - left); }
    int32_t getHeight() const { return static_cast<int32_t>(static_cast<uint32_t>(bottom) - top); }
    bool isEmpty() const { return getWidth() <= 0 || getHeight() <= 0; }
    bool isValid() const { return getWidth() >= 0 && getHeight() >= 0; }

    bool operator==(const Rect& other) const {
        return left == other.left && top == other.top && right == other.right && bottom == other.bottom;
    }
    bool operator!=(const Rect& other) const { return !(*this == other); }

  private:
    template <typename T>
    static int32_t clamped(T size) {
        return size > static_cast<T>(INT32_MAX) ? INT32_MAX : static_cast<int32_t>(size);
    }
};

}  // namespace android
