// DER helpers shared by the PKI objects: whole-value encoding and decoding
// through the ASN.1 runtime, and the identifier/length split of an encoding.
#pragma once

#include <string>

#include "asn1/asn1.h"

namespace kv::pki {

// The DER encoding of obj (the runtime's exceptions pass through).
MiByte Der(const AsnObject& obj);

// Decodes obj from exactly n octets; false when the octets are not one
// complete encoding of it (nothing may follow). The runtime's exceptions are
// caught: a false result is all the caller gets.
bool DecodeWhole(AsnObject& obj, const unsigned char* p, unsigned n);
inline bool DecodeWhole(AsnObject& obj, const MiByte& in) {
  return DecodeWhole(obj, in.GetBytes(), in.GetLength());
}

// Splits one encoding at p: header octets (identifier and length) and content
// length. False unless the encoding is well formed, definite and fills n.
bool SplitTlv(const unsigned char* p, unsigned n, unsigned& header, unsigned& content);

// The content octets of obj's encoding.
MiByte ContentOctets(const AsnObject& obj);

inline std::string ToStd(const MiByte& b) {
  return b.Empty() ? std::string() : std::string(b.GetChars(), b.GetLength());
}

}  // namespace kv::pki
