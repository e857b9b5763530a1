#pragma once

#include <android/log.h>

// Lines in the Android log under kLogTag, which each source has in scope. The function name that a message
// begins with is passed as an argument, spelt out, since a line may be written from a lambda or a helper of
// the method that it names.
#define VEL_LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, kLogTag, __VA_ARGS__)
#define VEL_LOGI(...) __android_log_print(ANDROID_LOG_INFO, kLogTag, __VA_ARGS__)
#define VEL_LOGW(...) __android_log_print(ANDROID_LOG_WARN, kLogTag, __VA_ARGS__)
#define VEL_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, kLogTag, __VA_ARGS__)
