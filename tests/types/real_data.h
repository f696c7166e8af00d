// Small helpers of the real-data tests: files, PEM armour, hex and DER round
// trips. Base64 is decoded here on purpose: the toolkit's own codec is tested
// elsewhere and must not be able to hide a fault of the ASN.1 types.
#pragma once

#include <string>
#include <vector>

#include "asn1/asn1.h"

namespace kvtest {

// The whole file; empty when it cannot be read.
std::string ReadFile(const std::string& path);

// The Base64-decoded bodies of the PEM blocks whose label is in labels, in
// file order.
std::vector<std::string> PemBlocks(const std::string& text, const std::vector<std::string>& labels);

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

// Runs a command and returns its standard output; exit status in *status.
std::string RunCommand(const std::string& command, int* status);

}  // namespace kvtest
