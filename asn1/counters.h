// Process-wide object counters of the toolkit's exported interface. Nothing in
// the toolkit changes them; they stay 0 for the life of the process.
#pragma once

#include <cstdint>

extern "C" {
extern int32_t newnumber;
extern int32_t delnumber;

// Writes both counters to standard output.
void terminal(void);
}
