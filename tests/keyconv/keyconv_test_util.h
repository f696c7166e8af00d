// What OpenSSL makes of the test keys in tests/data/keyconv: the platform
// blobs, PKCS#1 DER and the integers of its text dump, to hold our
// conversions against. Records are wrapped so that every test frees them.
#pragma once

#include <map>
#include <string>

#include "crypto/keyconv.h"

namespace kctest {

using Bytes = std::string;

struct OpenSslKey {
  unsigned bits = 0;
  Bytes privBlob, pubBlob;  // -outform MSBLOB, with and without -pubout
  Bytes privDer, pubDer;    // RSAPrivateKey (-traditional), RSAPublicKey
  // Minimal big-endian integers by OpenSSL's names: modulus, publicExponent,
  // privateExponent, prime1, prime2, exponent1, exponent2, coefficient.
  std::map<std::string, Bytes> parts;
};

// Converts tests/data/keyconv/NAME.pem once per test program; fails the
// test (fatally) when OpenSSL cannot.
const OpenSslKey& Key(const std::string& name);

// OpenSSL's names of the private record's fields, in record order.
extern const char* const kPrivateNames[8];

Bytes Hex(const std::string& hex);
std::string ToHex(const Bytes& b);
Bytes StripZeros(const Bytes& b);
inline Bytes ToBytes(const unsigned char* p, unsigned n) {
  return p ? Bytes(reinterpret_cast<const char*>(p), n) : Bytes();
}
inline const unsigned char* U(const Bytes& b) {
  return reinterpret_cast<const unsigned char*>(b.data());
}
inline unsigned N(const Bytes& b) {
  return static_cast<unsigned>(b.size());
}

// Runs an OpenSSL command line (stderr joined to the output).
int OpenSsl(const std::string& args, std::string* out = nullptr);

struct PubRec {
  PKCS_PUBKEY k;
  PubRec() { PKCS_InitPubKey(nullptr, &k); }
  ~PubRec() { PKCS_FreePubKey(nullptr, &k); }
  PubRec(const PubRec&) = delete;
  PubRec& operator=(const PubRec&) = delete;
};

struct PriRec {
  PKCS_PRIKEY k;
  PriRec() { PKCS_InitPriKey(nullptr, &k); }
  ~PriRec() { PKCS_FreePriKey(nullptr, &k); }
  PriRec(const PriRec&) = delete;
  PriRec& operator=(const PriRec&) = delete;
  // Field i in record order.
  Bytes Part(int i) const;
};

}  // namespace kctest
