// The slots every concrete ASN.1 class implements as one-line dispatches to
// the encoder, the decoder and the dump: one definition for all of them.
#pragma once

#include <ostream>

#include "asn1/asn_ostream.h"

#define KV_DISPATCH_SLOTS(T)                                                                 \
  unsigned T::Encode(AsnEncode& e, MiByteBuffer& out, unsigned pos) const {                  \
    return e.Encode(*this, out, pos);                                                        \
  }                                                                                          \
  unsigned T::EncodeContent(AsnEncode& e, MiByteBuffer& out, unsigned pos) const {           \
    return e.EncodeContent(*this, out, pos);                                                 \
  }                                                                                          \
  unsigned T::Decode(AsnDecode& d, const MiByte& in, unsigned pos) {                         \
    return d.Decode(*this, in, pos);                                                         \
  }                                                                                          \
  unsigned T::DecodeContent(AsnDecode& d, const MiByte& in, unsigned pos, unsigned length) { \
    return d.DecodeContent(*this, in, pos, length);                                          \
  }                                                                                          \
  AsnObject* T::Clone() const {                                                              \
    return new T(*this);                                                                     \
  }                                                                                          \
  void T::ToOstream(std::ostream& os, unsigned indent) const {                               \
    AsnOstream::DoVisit(*this, os, indent);                                                  \
  }
