// Interoperability with the OpenSSL command line: keys made by OpenSSL used by
// the engine and the reverse, v1.5 and OAEP encryption both ways, signatures
// both ways, and OpenSSL's key check on generated keys (as PKCS#1 DER).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include "crypto/rsa.h"
#include "rsa/rsa_test_util.h"
#include "support/support.h"

using rsatest::Bytes;
using rsatest::Key;

namespace {

using kvtest::TempDir;

// Runs a shell command; returns its exit status and standard output.
int Shell(const std::string& cmd, std::string* out = nullptr) {
  kvtest::ShellResult r = kvtest::RunShell(cmd + " 2>&1");
  if (out) *out = r.out;
  return r.status;
}

void WriteFile(const std::string& path, const Bytes& data) {
  std::ofstream f(path, std::ios::binary);
  f.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
}

Bytes ReadFile(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

// Just enough DER for PKCS#1 keys.
void PutLength(Bytes& out, std::size_t len) {
  if (len < 0x80) {
    out.push_back(static_cast<std::uint8_t>(len));
    return;
  }
  Bytes digits;
  for (; len; len >>= 8) digits.insert(digits.begin(), static_cast<std::uint8_t>(len));
  out.push_back(static_cast<std::uint8_t>(0x80 | digits.size()));
  out.insert(out.end(), digits.begin(), digits.end());
}

void PutInteger(Bytes& out, Bytes v) {
  while (v.size() > 1 && v[0] == 0) v.erase(v.begin());
  if (v.empty()) v.push_back(0);
  if (v[0] & 0x80) v.insert(v.begin(), 0);
  out.push_back(0x02);
  PutLength(out, v.size());
  out.insert(out.end(), v.begin(), v.end());
}

Bytes Sequence(const Bytes& body) {
  Bytes out{0x30};
  PutLength(out, body.size());
  out.insert(out.end(), body.begin(), body.end());
  return out;
}

Bytes PrivateKeyDer(const Key& key) {
  Bytes body;
  PutInteger(body, Bytes{0});
  for (const auto& part : key.part) PutInteger(body, part);
  return Sequence(body);
}

// Reads the integers of an RSAPrivateKey (version first).
bool ParsePrivateKeyDer(const Bytes& der, Key& key) {
  std::size_t pos = 0;
  auto length = [&](std::size_t& len) {
    if (pos >= der.size()) return false;
    std::uint8_t b = der[pos++];
    if (b < 0x80) {
      len = b;
      return true;
    }
    int count = b & 0x7f;
    len = 0;
    while (count-- > 0) {
      if (pos >= der.size()) return false;
      len = (len << 8) | der[pos++];
    }
    return true;
  };
  std::size_t len = 0;
  if (der.empty() || der[pos++] != 0x30 || !length(len)) return false;
  for (int i = -1; i < KV_RSA_COMPONENT_COUNT; ++i) {
    if (pos >= der.size() || der[pos++] != 0x02 || !length(len) || pos + len > der.size()) {
      return false;
    }
    if (i >= 0) key.part[i].assign(der.begin() + pos, der.begin() + pos + len);
    pos += len;
  }
  return true;
}

Key OpenSslKey(const TempDir& dir, const std::string& pem) {
  Key key;
  std::string der = dir / "key.der";
  std::string log;
  EXPECT_EQ(0, Shell("openssl rsa -traditional -in " + pem + " -outform DER -out " + der, &log))
      << log;
  EXPECT_TRUE(ParsePrivateKeyDer(ReadFile(der), key));
  return key;
}

bool Verified(const std::string& log) {
  return log.find("Signature Verified Successfully") != std::string::npos;
}

// Every exchange between the engine and OpenSSL for one key whose PEM file is
// at `pem`.
void ExchangeWithOpenSsl(const TempDir& dir, const std::string& pem, const Key& key) {
  auto pub = key.LoadPublic();
  auto priv = key.LoadPrivate();
  ASSERT_TRUE(pub && priv);
  const unsigned int k = KV_RSA_ModulusLength(pub.get());
  const std::string in = dir / "in.bin", out = dir / "out.bin", back = dir / "back.bin";
  const std::string pkeyutl = "openssl pkeyutl -inkey " + pem;
  Bytes msg(k - 42 < 60 ? k - 42 : 60);
  for (std::size_t i = 0; i < msg.size(); ++i) msg[i] = static_cast<std::uint8_t>(i * 7 + 1);
  Bytes buf(k);
  unsigned int len = 0;
  std::string log;

  for (const char* mode : {"pkcs1", "oaep"}) {
    SCOPED_TRACE(mode);
    bool oaep = std::string(mode) == "oaep";
    std::string opt = std::string(" -pkeyopt rsa_padding_mode:") + mode;
    // Ours to OpenSSL.
    int rc = oaep ? KV_RSA_OaepEncrypt(pub.get(), msg.data(), static_cast<unsigned>(msg.size()),
                                       nullptr, 0, buf.data(), &len)
                  : KV_RSA_Encrypt(pub.get(), msg.data(), buf.data(),
                                   static_cast<unsigned>(msg.size()), &len);
    ASSERT_EQ(0, rc);
    WriteFile(in, Bytes(buf.begin(), buf.begin() + len));
    ASSERT_EQ(0, Shell(pkeyutl + " -decrypt" + opt + " -in " + in + " -out " + out, &log)) << log;
    EXPECT_EQ(msg, ReadFile(out));
    // OpenSSL to ours.
    WriteFile(in, msg);
    ASSERT_EQ(0, Shell(pkeyutl + " -encrypt" + opt + " -in " + in + " -out " + out, &log)) << log;
    Bytes c = ReadFile(out);
    ASSERT_EQ(k, c.size());
    rc = oaep ? KV_RSA_OaepDecrypt(priv.get(), c.data(), k, nullptr, 0, buf.data(), &len)
              : KV_RSA_Decrypt(priv.get(), c.data(), buf.data(), k, &len);
    ASSERT_EQ(0, rc);
    EXPECT_EQ(msg, Bytes(buf.begin(), buf.begin() + len));
  }

  // OAEP with an encoding parameter (OpenSSL calls it the label).
  Bytes label = rsatest::Unhex("0102030405060708090a");
  WriteFile(in, msg);
  ASSERT_EQ(0, Shell(pkeyutl + " -encrypt -pkeyopt rsa_padding_mode:oaep -pkeyopt rsa_oaep_label:" +
                         rsatest::Hex(label) + " -in " + in + " -out " + out,
                     &log))
      << log;
  Bytes c = ReadFile(out);
  ASSERT_EQ(0, KV_RSA_OaepDecrypt(priv.get(), c.data(), k, label.data(), 10, buf.data(), &len));
  EXPECT_EQ(msg, Bytes(buf.begin(), buf.begin() + len));

  // Signatures over SHA-1 and SHA-256 digests, both ways.
  for (auto [kind, name, size] : {std::tuple<int, const char*, unsigned>{KV_RSA_SHA1, "sha1", 20},
                                  {KV_RSA_SHA256, "sha256", 32}}) {
    SCOPED_TRACE(name);
    Bytes digest(size);
    for (unsigned i = 0; i < size; ++i) digest[i] = static_cast<std::uint8_t>(0xa0 + i);
    WriteFile(in, digest);
    ASSERT_EQ(0, KV_RSA_SignDigest(priv.get(), kind, digest.data(), size, buf.data(), &len));
    WriteFile(back, Bytes(buf.begin(), buf.begin() + len));
    Shell(pkeyutl + " -verify -pkeyopt digest:" + name + " -in " + in + " -sigfile " + back, &log);
    EXPECT_TRUE(Verified(log)) << log;
    ASSERT_EQ(
        0, Shell(pkeyutl + " -sign -pkeyopt digest:" + name + " -in " + in + " -out " + out, &log))
        << log;
    Bytes sig = ReadFile(out);
    EXPECT_EQ(Bytes(buf.begin(), buf.begin() + len), sig);  // v1.5 signatures are deterministic
    EXPECT_EQ(0, KV_RSA_VerifyDigest(pub.get(), kind, digest.data(), size, sig.data(),
                                     static_cast<unsigned>(sig.size())));
  }
}

class RsaWithOpenSslKey : public ::testing::TestWithParam<int> {};

TEST_P(RsaWithOpenSslKey, EncryptionAndSignaturesInteroperate) {
  TempDir dir;
  const std::string pem = dir / "key.pem";
  std::string log;
  ASSERT_EQ(0, Shell("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:" +
                         std::to_string(GetParam()) + " -out " + pem,
                     &log))
      << log;
  Key key = OpenSslKey(dir, pem);
  EXPECT_EQ(GetParam(), key.Bits());
  ExchangeWithOpenSsl(dir, pem, key);
}

INSTANTIATE_TEST_SUITE_P(Sizes, RsaWithOpenSslKey, ::testing::Values(512, 1024, 2048, 4096));

TEST(RsaWithOpenSslKey8192, EncryptionAndSignaturesInteroperate) {
  TempDir dir;
  const std::string pem = std::string(KV_TEST_DATA_DIR) + "/rsa/openssl-8192.pem";
  Key key = OpenSslKey(dir, pem);
  ASSERT_EQ(8192, key.Bits());
  ExchangeWithOpenSsl(dir, pem, key);
}

class RsaGeneratedKey : public ::testing::TestWithParam<int> {};

TEST_P(RsaGeneratedKey, PassesOpenSslCheckAndInteroperates) {
  TempDir dir;
  KV_RSA_COMPONENT* block = nullptr;
  ASSERT_EQ(0, KV_RSA_GenerateKeyPair(GetParam(), &block, nullptr));
  kv::RsaKeyPairPtr hold(block);
  Key key = rsatest::FromBlock(block);
  const std::string der = dir / "ours.der", pem = dir / "ours.pem";
  WriteFile(der, PrivateKeyDer(key));
  std::string log;
  EXPECT_EQ(0, Shell("openssl rsa -check -noout -inform DER -in " + der, &log)) << log;
  EXPECT_NE(std::string::npos, log.find("RSA key ok")) << log;
  ASSERT_EQ(0, Shell("openssl rsa -inform DER -in " + der + " -out " + pem, &log)) << log;
  ExchangeWithOpenSsl(dir, pem, key);
}

INSTANTIATE_TEST_SUITE_P(Sizes, RsaGeneratedKey, ::testing::Values(512, 1024, 2048, 4096));

}  // namespace
