// Small helpers of the real-data tests: hex and DER round trips (files and PEM
// armour come from the shared test support).
#pragma once

#include <string>
#include <vector>

#include "asn1/asn1.h"
#include "support/support.h"

namespace kvtest {

// The DER structures of a file: its PEM blocks of the labels given, or the
// file itself for "der".
std::vector<std::string> DerOf(const std::string& path, const std::string& form,
                               const std::vector<std::string>& labels);

MiByte ToMiByte(const std::string& s);
std::string ToString(const MiByte& b);
std::string Hex(const std::string& s);

// Encodes the object tree (no saved encodings) into a string.
std::string Encode(const AsnObject& obj);

// Decodes der into obj, which must take all of it, and encodes obj again;
// returns "" when the octets are the same, else a short description of the
// first difference. MiExceptions pass through.
std::string RoundTrip(AsnObject& obj, const std::string& der);

}  // namespace kvtest
