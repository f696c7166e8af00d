// Object identifiers and small DER helpers shared by the PFX builder and
// reader.
#pragma once

#include "asn1/asn1.h"

namespace kv::pki::p12 {

inline constexpr char kOidData[] = "1.2.840.113549.1.7.1";
inline constexpr char kOidEncryptedData[] = "1.2.840.113549.1.7.6";
inline constexpr char kOidRsaEncryption[] = "1.2.840.113549.1.1.1";
inline constexpr char kOidSha1[] = "1.3.14.3.2.26";
inline constexpr char kOidFriendlyName[] = "1.2.840.113549.1.9.20";
inline constexpr char kOidLocalKeyId[] = "1.2.840.113549.1.9.21";
inline constexpr char kOidX509Certificate[] = "1.2.840.113549.1.9.22.1";
inline constexpr char kOidKeyBag[] = "1.2.840.113549.1.12.10.1.1";
inline constexpr char kOidShroudedKeyBag[] = "1.2.840.113549.1.12.10.1.2";
inline constexpr char kOidCertBag[] = "1.2.840.113549.1.12.10.1.3";
inline constexpr char kOidCrlBag[] = "1.2.840.113549.1.12.10.1.4";
inline constexpr char kOidSecretBag[] = "1.2.840.113549.1.12.10.1.5";
inline constexpr char kOidSafeContentsBag[] = "1.2.840.113549.1.12.10.1.6";
inline constexpr char kOidPbes2[] = "1.2.840.113549.1.5.13";

// The DER encoding of obj.
inline MiByte Der(const AsnObject& obj) {
  MiByteBuffer buf;
  obj.DerEncode(buf, 0);
  return buf.GetByte();
}

// Decodes the whole of der into obj; AsnDecodeExp when octets are left over.
inline void DecodeAll(AsnObject& obj, const MiByte& der) {
  if (obj.DerDecode(der, 0) != der.GetLength()) throw AsnDecodeExp();
}

}  // namespace kv::pki::p12
