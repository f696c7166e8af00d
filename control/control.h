// Umbrella header of the enrolment control.
#pragma once

#include "control/korvanta_control.h"
#include "control/platform.h"

#ifdef _WIN32
#include "control/win32/win32_platform.h"
#else
#include "control/portable/portable_platform.h"
#endif
