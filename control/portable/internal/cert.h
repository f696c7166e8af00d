// What the stores need of a DER certificate: the fields CertCompareCertificate
// compares, the texts the listings and the chooser show, its thumbprint.
#pragma once

#include <string>

#include "control/platform.h"

namespace kv::control::portable {

struct ParsedCertificate {
  Bytes issuerDer;      // the issuer Name as encoded
  Bytes serial;         // INTEGER content octets as encoded
  Bytes spki;           // SubjectPublicKeyInfo DER
  std::string subject;  // "CN=..., O=..." in encoding order
  std::string issuer;
  std::string notAfter;    // "YYYY-MM-DD hh:mm:ss UTC"
  Bytes sha1;              // of the whole DER
  std::string thumbprint;  // upper-case hex of sha1
};

// False when der is not one whole certificate.
bool ParseCertificate(const uint8_t* der, size_t len, ParsedCertificate* out);

}  // namespace kv::control::portable
