// Umbrella header of the enrolment control.
#pragma once

#include "control/platform.h"

#ifndef _WIN32
#include "control/portable/portable_platform.h"
#endif
