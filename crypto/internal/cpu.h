// Run-time choice between the processor's crypto extensions and portable code.
#pragma once

namespace kv::internal {

// True when the processor has the SHA extensions (and SSE4.1 alongside).
bool CpuHasShaNi();

// Accelerated code is used only when the processor has it and this switch is
// on (the default). Tests turn it off to exercise the portable code.
void SetAccelerationAllowed(bool allowed);
bool AccelerationAllowed();

}  // namespace kv::internal
