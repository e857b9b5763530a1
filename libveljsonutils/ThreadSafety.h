#pragma once

// Which lock guards what, and who must hold it, in a form that clang checks: ./dev check does, with annotated
// mutexes. Nothing anywhere else.
#if defined(__clang__) && defined(_LIBCPP_ENABLE_THREAD_SAFETY_ANNOTATIONS)
#define VEL_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define VEL_THREAD_SAFETY(attribute)
#endif

#define VEL_GUARDED_BY(lock) VEL_THREAD_SAFETY(guarded_by(lock))
#define VEL_REQUIRES(lock) VEL_THREAD_SAFETY(requires_capability(lock))
// For what lets go of a lock on its way, or hands guarded data to what takes the lock.
#define VEL_UNCHECKED VEL_THREAD_SAFETY(no_thread_safety_analysis)
