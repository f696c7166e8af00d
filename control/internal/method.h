// The frame every method body runs in: no exception leaves a method; an
// internal fault becomes the failing automation result.
#pragma once

#include <utility>

#include "control/internal/codes.h"
#include "control/internal/support.h"
#include "control/korvanta_control.h"

namespace kv::control {

template <typename Fn>
int32_t Guarded(Fn&& body) noexcept {
  try {
    return body();
  } catch (...) {
    return KV_E_FAIL;
  }
}

// A string result in automation text.
inline void SetText(Platform& p, CBrendalKorvanta::Text* out, const std::string& narrow) {
  *out = Wide(p, narrow);
}

}  // namespace kv::control
