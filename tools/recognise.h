// Telling which structure a DER encoding holds, from the shape of its
// identifiers and, for PEM input, the armour label.
#pragma once

#include <string>

namespace kvtool {

// The catalogue class name for the structure ("Certificate",
// "CertificateList", "CertificationRequest", "ContentInfo", "PFX",
// "RSAPublicKey", "RSAPrivateKey", "SubjectPublicKeyInfo", "PrivateKeyInfo",
// "EncryptedPrivateKeyInfo"), or empty when it is none of them.
std::string RecogniseLabel(const std::string& pemLabel);
std::string RecogniseDer(const std::string& der);

// The catalogue class for a PKCS#7 content type identifier, or empty.
std::string Pkcs7ContentClass(const std::string& oid);

}  // namespace kvtool
