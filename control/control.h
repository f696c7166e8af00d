// Umbrella header of the enrolment control.
#pragma once

#include "control/platform.h"
