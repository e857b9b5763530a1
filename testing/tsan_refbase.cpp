// Shows ThreadSanitizer the order that reference counts give. Debian's libutils is not instrumented, so its
// atomic counts are invisible: without this file every object whose last reference goes on another thread is
// reported as a race. Linked into programs of a ThreadSanitizer build only, whose definitions the loader
// prefers to the library's.

#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>
#include <utils/RefBase.h>

#include <cstdlib>

namespace android {

// What the thread did with the object comes before the object's end.
void RefBase::decStrong(const void* id) const {
    using Function = void (*)(const RefBase*, const void*);
    static const Function real =
        reinterpret_cast<Function>(dlsym(RTLD_NEXT, "_ZNK7android7RefBase9decStrongEPKv"));
    if (real == nullptr) abort();
    __tsan_release(const_cast<RefBase*>(this));
    real(this, id);
}

// The library calls this on the thread that dropped the last reference, before it deletes the object. The
// library's own does nothing.
void RefBase::onLastStrongRef(const void*) {
    __tsan_acquire(this);
}

}  // namespace android
