// Shared pieces of the PFX tests: the fixed test key and certificates, a
// library context, and running the independent readers.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "pki/pkcs12.h"
#include "support/support.h"

namespace p12test {

// tests/data/pkcs12/NAME.
std::string DataPath(const std::string& name);
// The DER of the first PEM block of a data file.
std::string PemDer(const std::string& name);

// Records of "NAME = value" lines separated by blank lines ("#" comments) of
// a data file.
std::vector<std::map<std::string, std::string>> Records(const std::string& name);

// A PKCS#1 PEM key of the data folder as a key record (decoded here with the
// generic DER types, not with the key conversions under test elsewhere).
class KeyRecord {
 public:
  explicit KeyRecord(const std::string& name);
  ~KeyRecord();
  KeyRecord(const KeyRecord&) = delete;
  KeyRecord& operator=(const KeyRecord&) = delete;
  const PKCS_PRIKEY* get() const { return &key_; }
  PKCS_PRIKEY* get() { return &key_; }
  std::string ModulusHex() const;

 private:
  PKCS_PRIKEY key_{};
};

// PKCS_Initialize and one context for the life of the object.
class Library {
 public:
  Library();
  ~Library();
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  PKCS_CTX ctx() const { return ctx_; }

 private:
  PKCS_CTX ctx_ = nullptr;
};

// KV_GenPFXEx into a string; the status in *status (expected 0 by default).
std::string Build(const Library& lib, const std::string& cert, const PKCS_PRIKEY* key,
                  const char* password, const KV_PFX_OPTIONS* opt = nullptr, int* status = nullptr);

// Owns the result of KV_ParsePFX.
struct Parsed {
  Parsed() { KV_InitPFXContents(&c); }
  ~Parsed() { KV_FreePFXContents(&c); }
  Parsed(const Parsed&) = delete;
  Parsed& operator=(const Parsed&) = delete;
  std::string Cert() const { return std::string(reinterpret_cast<char*>(c.cert), c.certLen); }
  std::vector<std::string> Others() const;
  std::string ModulusHex() const;
  KV_PFX_CONTENTS c;
};

int Parse(const Library& lib, const std::string& pfx, const char* password, Parsed& out);

std::string Hex(const unsigned char* p, unsigned n);
std::string Hex(const std::string& s);

// Single-quoted for the shell.
std::string Quote(const std::string& s);

}  // namespace p12test
