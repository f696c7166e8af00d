// libFuzzer target: DN text. Whatever parses must format, and the formatted
// text must parse to a name that formats to the very same text; when the input
// gave no value in hex, the two names must encode identically.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "pki/pki.h"

namespace {

bool Parse(const std::string& text, std::string& der) {
  unsigned len = 0;
  int rv = KV_ParseDN(text.c_str(), nullptr, &len);
  if (rv != 0) {
    if (rv != KV_ERR_SYNTAX && rv != KV_ERR_UNSUPPORTED) std::abort();
    return false;
  }
  der.assign(len, '\0');
  if (KV_ParseDN(text.c_str(), reinterpret_cast<unsigned char*>(&der[0]), &len) != 0) std::abort();
  der.resize(len);
  return true;
}

std::string Format(const std::string& der) {
  unsigned len = 0;
  auto p = reinterpret_cast<const unsigned char*>(der.data());
  if (KV_NameToText(p, static_cast<unsigned>(der.size()), nullptr, &len) != 0) std::abort();
  std::string text(len, '\0');
  if (KV_NameToText(p, static_cast<unsigned>(der.size()), &text[0], &len) != 0) std::abort();
  text.resize(len - 1);
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 4096) return 0;
  std::string text(reinterpret_cast<const char*>(data), size);
  if (text.find('\0') != std::string::npos) return 0;
  std::string der1, der2;
  if (!Parse(text, der1)) return 0;
  std::string text1 = Format(der1);
  if (!Parse(text1, der2)) std::abort();
  if (Format(der2) != text1) std::abort();
  if (text.find('#') == std::string::npos && der1 != der2) std::abort();
  return 0;
}
