// Reading the command's inputs: files or standard input holding DER, PEM or
// bare Base64 text.
#pragma once

#include <string>
#include <vector>

namespace kvtool {

// One structure found in an input: its DER octets and, for PEM, the label of
// its armour ("CERTIFICATE", "X509 CRL", ...; empty otherwise).
struct Blob {
  std::string label;
  std::string der;
};

// Reads a whole file ("-" is standard input). False with a message in error
// when it cannot be read.
bool ReadAll(const std::string& path, std::string& data, std::string& error);

// Writes data to path ("-" is standard output). A file is written beside its
// final name and renamed into place, so a failure never leaves half a file.
bool WriteAll(const std::string& path, const std::string& data, std::string& error);

// Splits an input into its structures: every PEM block, or the whole input
// as DER, or the whole input as Base64 text. False with a message in error
// when nothing usable is found.
bool ParseInput(const std::string& data, std::vector<Blob>& blobs, std::string& error);

// Base64 through the toolkit codec. Decode fails on text that ends in an
// incomplete group.
std::string Base64Encode(const std::string& bytes, bool lineBreaks);
bool Base64Decode(const std::string& text, std::string& bytes);

}  // namespace kvtool
