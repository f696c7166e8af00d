// Root of every value, exception and ASN.1 class of the toolkit.
#pragma once

class MiObject {
 public:
  MiObject() noexcept = default;
  // The root holds no data: copying it has nothing to do.
  MiObject(const MiObject&) noexcept {}
  MiObject& operator=(const MiObject&) noexcept { return *this; }
  virtual ~MiObject();
};
