// Small helpers shared by the ASN.1 runtime tests.
#pragma once

#include <cctype>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "asn1/asn1.h"
#include "support/support.h"

namespace asntest {

inline std::string Hex(const unsigned char* p, unsigned n) {
  static const char digits[] = "0123456789ABCDEF";
  std::string s;
  for (unsigned i = 0; i < n; ++i) {
    s.push_back(digits[p[i] >> 4]);
    s.push_back(digits[p[i] & 15]);
  }
  return s;
}
inline std::string Hex(const MiByteBuffer& b) {
  return Hex(b.GetBytes(), b.GetLength());
}
inline std::string Hex(const MiByte& b) {
  return Hex(b.GetBytes(), b.GetLength());
}

// Hex text (spaces ignored) to octets.
inline MiByte Bytes(const std::string& hex) {
  std::string raw;
  int hi = -1;
  for (char c : hex) {
    if (std::isspace(static_cast<unsigned char>(c))) continue;
    int v = std::isdigit(static_cast<unsigned char>(c))
                ? c - '0'
                : std::toupper(static_cast<unsigned char>(c)) - 'A' + 10;
    if (hi < 0) {
      hi = v;
    } else {
      raw.push_back(static_cast<char>(hi * 16 + v));
      hi = -1;
    }
  }
  if (raw.empty()) return MiByte();
  return MiByte(raw.data(), static_cast<unsigned>(raw.size()));
}

inline std::string Der(const AsnObject& obj) {
  MiByteBuffer out;
  obj.DerEncode(out, 0);
  return Hex(out);
}

inline std::string Dump(const AsnObject& obj, unsigned indent = 0) {
  std::ostringstream os;
  obj.ToOstream(os, indent);
  return os.str();
}

// The message of the exception fn throws, or "" when it throws none.
template <class Fn>
std::string ThrownMessage(Fn fn) {
  try {
    fn();
  } catch (const MiException& e) {
    return e.GetMessage();
  }
  return "";
}

using kvtest::ReadFile;

}  // namespace asntest
