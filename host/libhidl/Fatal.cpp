#include "Fatal.h"

#include <android/log.h>

#include <cstdlib>

namespace vel::host {

void fatal(const std::string& text) {
    __android_log_write(ANDROID_LOG_FATAL, "hidl", text.c_str());
    abort();
}

}  // namespace vel::host
