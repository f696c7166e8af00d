#include "control/control_util.h"

#include <cstring>
#include <fstream>

namespace kvtest {

std::u16string U(const std::string& utf8) {
  std::u16string out;
  for (size_t i = 0; i < utf8.size();) {
    auto b = static_cast<unsigned char>(utf8[i]);
    uint32_t c = b;
    size_t n = b < 0x80 ? 1 : b < 0xE0 ? 2 : b < 0xF0 ? 3 : 4;
    if (n > 1) c = b & (0xFF >> (n + 1));
    for (size_t k = 1; k < n; ++k) c = (c << 6) | (static_cast<unsigned char>(utf8[i + k]) & 0x3F);
    i += n;
    if (c >= 0x10000) {
      c -= 0x10000;
      out += static_cast<char16_t>(0xD800 + (c >> 10));
      out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    } else {
      out += static_cast<char16_t>(c);
    }
  }
  return out;
}

std::string Utf8(const CBrendalKorvanta::Text& text) {
  if (!text) return "<null>";
  std::string out;
  for (size_t i = 0; i < text->size(); ++i) {
    uint32_t c = (*text)[i];
    if (c >= 0xD800 && c < 0xDC00 && i + 1 < text->size()) {
      c = 0x10000 + ((c - 0xD800) << 10) + ((*text)[++i] - 0xDC00);
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

namespace {
const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
}

std::string B64(const std::string& bytes) {
  std::string out;
  size_t i = 0;
  for (; i + 2 < bytes.size(); i += 3) {
    uint32_t v = (static_cast<unsigned char>(bytes[i]) << 16) |
                 (static_cast<unsigned char>(bytes[i + 1]) << 8) |
                 static_cast<unsigned char>(bytes[i + 2]);
    for (int k = 18; k >= 0; k -= 6) out += kAlphabet[(v >> k) & 63];
  }
  if (i < bytes.size()) {
    uint32_t v = static_cast<unsigned char>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) v |= static_cast<unsigned char>(bytes[i + 1]) << 8;
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += i + 1 < bytes.size() ? kAlphabet[(v >> 6) & 63] : '=';
    out += '=';
  }
  return out;
}

std::string UnB64(const std::string& text) {
  std::string out;
  uint32_t acc = 0;
  int bits = 0;
  for (char ch : text) {
    const char* p = std::strchr(kAlphabet, ch);
    if (!p || ch == '\0') continue;
    acc = (acc << 6) | static_cast<uint32_t>(p - kAlphabet);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out += static_cast<char>((acc >> bits) & 0xFF);
    }
  }
  return out;
}

std::string PublicB64(const RsaKey& key) {
  const Bytes der = key.PublicDer();
  return B64(std::string(der.begin(), der.end()));
}

ShellResult RefCa(const std::string& args) {
  return RunShell(std::string("/usr/bin/python3 ") + KV_SOURCE_DIR + "/tests/refca/refca.py " +
                  args);
}

bool OpensslReadPfx(const TempDir& dir, const Bytes& pfx, const std::string& password, Bytes* key,
                    std::vector<Bytes>* certs) {
  const std::string in = dir.Write("in.p12", std::string(pfx.begin(), pfx.end()));
  const std::string pass = " -passin pass:" + password + " -legacy";
  if (RunShell("openssl pkcs12 -in " + in + pass + " -nodes -nocerts 2>/dev/null | openssl rsa " +
               "-traditional -outform DER -out " + dir / "pfxkey.der" + " 2>/dev/null")
          .status != 0) {
    return false;
  }
  const std::string k = ReadFile(dir / "pfxkey.der");
  key->assign(k.begin(), k.end());
  std::string pem;
  for (const char* which : {" -clcerts", " -cacerts"}) {
    ShellResult r =
        RunShell("openssl pkcs12 -in " + in + pass + " -nokeys" + which + " 2>/dev/null");
    if (r.status != 0) return false;
    pem += r.out;
  }
  certs->clear();
  for (const std::string& der : PemBlocks(pem, {"CERTIFICATE"}))
    certs->emplace_back(der.begin(), der.end());
  return !key->empty() && !certs->empty();
}

std::string OpensslKeyModulus(const std::string& path) {
  const bool der = path.size() > 4 && path.compare(path.size() - 4, 4, ".der") == 0;
  return RunShell("openssl rsa " + std::string(der ? "-inform DER " : "") + "-in " + path +
                  " -noout -modulus 2>&1")
      .out;
}

std::string ControlTest::MakeKey(const std::string& provider, int bits) {
  EXPECT_EQ(control_.setCSP(U(provider)), 0);
  CBrendalKorvanta::Text key;
  EXPECT_EQ(control_.genKeyPair(bits, &key), 0);
  return Utf8(key);
}

std::string ControlTest::Issue(const std::string& pubkeyB64, const std::string& extra) {
  const std::string key = dir_.Write("pub.b64", pubkeyB64);
  const std::string out = Path("p7.b64");
  ShellResult r = RefCa("issue --pubkey " + key + " --out " + out + " " + extra);
  EXPECT_EQ(r.status, 0) << extra;
  return ReadFile(out);
}

}  // namespace kvtest
