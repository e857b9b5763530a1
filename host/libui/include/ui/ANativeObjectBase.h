#pragma once

#include <nativebase/nativebase.h>
#include <utils/RefBase.h>

namespace android {

/**
 * Joins a plain C object (NATIVE_TYPE, whose first member is android_native_base_t common) with a reference
 * count (REF), so that a pointer to either form names the same object and counts the same references.
 */
template <typename NATIVE_TYPE, typename TYPE, typename REF, typename NATIVE_BASE = android_native_base_t>
class ANativeObjectBase : public NATIVE_TYPE, public REF {
  public:
    void incStrong(const void* id) const { REF::incStrong(id); }
    void decStrong(const void* id) const { REF::decStrong(id); }

  protected:
    ANativeObjectBase() {
        NATIVE_TYPE::common.incRef = [](NATIVE_BASE* base) { self(base)->incStrong(self(base)); };
        NATIVE_TYPE::common.decRef = [](NATIVE_BASE* base) { self(base)->decStrong(self(base)); };
    }
    ~ANativeObjectBase() override = default;

  private:
    static TYPE* self(NATIVE_BASE* base) { return static_cast<TYPE*>(reinterpret_cast<NATIVE_TYPE*>(base)); }
};

}  // namespace android
