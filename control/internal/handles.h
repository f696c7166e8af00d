// Owners of the platform's handles: each releases its handle with the
// matching platform call when it goes out of scope, on every path.
#pragma once

#include <utility>

#include "control/platform.h"

namespace kv::control {

template <typename H, bool (Platform::*Release)(H)>
class Handle {
 public:
  explicit Handle(Platform& p) : p_(&p) {}
  ~Handle() { Reset(); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  H get() const { return h_; }
  H* out() {
    Reset();
    return &h_;
  }
  explicit operator bool() const { return h_ != 0; }
  void Reset() {
    if (h_ != 0) (p_->*Release)(h_);
    h_ = 0;
  }
  // Gives up ownership (the platform freed the handle itself).
  H release() { return std::exchange(h_, H{}); }

 private:
  Platform* p_;
  H h_{};
};

using ProvOwner = Handle<ProvHandle, &Platform::ReleaseContext>;
using KeyOwner = Handle<KeyHandle, &Platform::DestroyKey>;
using HashOwner = Handle<HashHandle, &Platform::DestroyHash>;
using StoreOwner = Handle<StoreHandle, &Platform::CloseStore>;
using CertOwner = Handle<CertHandle, &Platform::FreeCertificateContext>;

}  // namespace kv::control
