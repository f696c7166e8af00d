// Umbrella header of the enrolment control.
#pragma once

#include "control/korvanta_control.h"
#include "control/platform.h"

#ifndef _WIN32
#include "control/portable/portable_platform.h"
#endif
