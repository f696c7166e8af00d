// kv::pki::Guard: the one place where C++ exceptions stop before a C boundary.
#pragma once

#include <new>

#include "asn1/mi_exception.h"
#include "pki/errors.h"

namespace kv::pki {

template <typename Fn>
int Guard(Fn&& fn) noexcept {
  try {
    return fn();
  } catch (const std::bad_alloc&) {
    return KV_ERR_MEMORY;
  } catch (const AsnEncodeExp&) {
    return KV_ERR_ENCODE;
  } catch (const MiException&) {
    // Decode failures, range errors and data errors all mean the input was
    // not what it claimed to be.
    return KV_ERR_DECODE;
  } catch (...) {
    return KV_ERR_ARGUMENT;
  }
}

}  // namespace kv::pki
