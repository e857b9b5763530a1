#pragma once

#include <android/log.h>

// The helper's lines in the Android log. The function name that a message begins with is passed as an
// argument, spelt out, since a line may be written from a lambda or a helper of the method that it names.
#define HELPER_LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, "VelCameraDesktopChiHelper", __VA_ARGS__)
#define HELPER_LOGI(...) __android_log_print(ANDROID_LOG_INFO, "VelCameraDesktopChiHelper", __VA_ARGS__)
#define HELPER_LOGW(...) __android_log_print(ANDROID_LOG_WARN, "VelCameraDesktopChiHelper", __VA_ARGS__)
#define HELPER_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, "VelCameraDesktopChiHelper", __VA_ARGS__)
