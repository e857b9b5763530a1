#pragma once

#include <android/rect.h>
#include <stdint.h>

/** A window is only passed around here; <system/window.h> has its body. */
struct ANativeWindow;
typedef struct ANativeWindow ANativeWindow;
