#pragma once

#include "VelLog.h"

// The tag of every line that the desktop helper writes.
constexpr char kLogTag[] = "VelCameraDesktopChiHelper";
