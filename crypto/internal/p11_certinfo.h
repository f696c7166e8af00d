// The few fields of an X.509 certificate that a PKCS#11 certificate object
// carries beside its value: subject, issuer and serial number (as their DER
// encodings) and, for an RSA key, the modulus from which the object's CKA_ID
// is derived so that the certificate sits beside its key pair.
#pragma once

#include <cstddef>
#include <vector>

namespace kv::p11 {

struct CertFields {
  std::vector<unsigned char> subject;  // Name, whole DER encoding
  std::vector<unsigned char> issuer;   // Name, whole DER encoding
  std::vector<unsigned char> serial;   // INTEGER, whole DER encoding
  std::vector<unsigned char> modulus;  // unsigned big-endian; empty unless an RSA key
};

// Reads the fields from a DER certificate. False when the outer structure up
// to the subject public key is not a certificate's; a key that is not RSA (or
// unreadable) leaves only the modulus empty. Never reads past der + n.
bool ReadCertFields(const unsigned char* der, size_t n, CertFields* out);

// The CKA_ID of a key pair and of its certificates: SHA-1 of the modulus
// without leading zero octets.
std::vector<unsigned char> KeyIdOfModulus(const std::vector<unsigned char>& modulus);

}  // namespace kv::p11
