#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <atomic>

namespace android {

class ReferenceRenamer;

/**
 * Strong count without weak pointers: a T deletes itself when its last sp<T> goes. Takes the place of the
 * system's header of this name, whose stand-alone fence the thread sanitizer does not understand.
 */
template <class T>
class LightRefBase {
  public:
    LightRefBase() = default;
    void incStrong(const void*) const { mCount.fetch_add(1, std::memory_order_relaxed); }
    void decStrong(const void*) const {
        if (mCount.fetch_sub(1, std::memory_order_acq_rel) == 1) delete static_cast<const T*>(this);
    }
    int32_t getStrongCount() const { return mCount.load(std::memory_order_relaxed); }

  protected:
    ~LightRefBase() = default;

  private:
    friend class ReferenceMover;
    static void renameRefs(size_t, const ReferenceRenamer&) {}
    static void renameRefId(T*, const void*, const void*) {}

    mutable std::atomic<int32_t> mCount{0};
};

class VirtualLightRefBase : public LightRefBase<VirtualLightRefBase> {
  public:
    virtual ~VirtualLightRefBase() = default;
};

}  // namespace android
