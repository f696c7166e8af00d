// Known answers from the PKCS#1 test vector files shipped with Python
// cryptography: one reader for their common layout, one driver for the three
// schemes (v1.5 encryption, v1.5 signature, OAEP).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "crypto/rsa.h"
#include "crypto/sha1.h"
#include "rsa/rsa_test_util.h"

using rsatest::Bytes;
using rsatest::Case;
using rsatest::KeyVectors;
using rsatest::ReadVectors;

namespace {

enum class Scheme { kV15Encrypt, kV15Sign, kOaep };

struct VectorFile {
  const char* path;  // under the vectors directory
  Scheme scheme;
  int keys;  // expected counts, so a reader fault cannot silently skip cases
  int cases;
};

class RsaVectors : public ::testing::TestWithParam<VectorFile> {};

void RunCase(Scheme scheme, KV_RSA_CTX* pub, KV_RSA_CTX* priv, const Case& c) {
  const unsigned int k = KV_RSA_ModulusLength(pub);
  Bytes out(k);
  unsigned int out_len = 0;
  switch (scheme) {
    case Scheme::kV15Encrypt: {
      {
        rsatest::FixedPadding pad(c.seed);
        ASSERT_EQ(0, KV_RSA_Encrypt(pub, c.message.data(), out.data(),
                                    static_cast<unsigned>(c.message.size()), &out_len));
        EXPECT_TRUE(pad.Exhausted()) << "padding length differs from the seed";
      }
      EXPECT_EQ(rsatest::Hex(c.result), rsatest::Hex(Bytes(out.begin(), out.begin() + out_len)));
      ASSERT_EQ(0, KV_RSA_Decrypt(priv, c.result.data(), out.data(),
                                  static_cast<unsigned>(c.result.size()), &out_len));
      EXPECT_EQ(rsatest::Hex(c.message), rsatest::Hex(Bytes(out.begin(), out.begin() + out_len)));
      break;
    }
    case Scheme::kV15Sign: {
      std::uint8_t digest[20];
      kv::Sha1::Digest(c.message.data(), c.message.size(), digest);
      ASSERT_EQ(0, KV_RSA_SignDigest(priv, KV_RSA_SHA1, digest, 20, out.data(), &out_len));
      EXPECT_EQ(rsatest::Hex(c.result), rsatest::Hex(Bytes(out.begin(), out.begin() + out_len)));
      EXPECT_EQ(0, KV_RSA_VerifyDigest(pub, KV_RSA_SHA1, digest, 20, c.result.data(),
                                       static_cast<unsigned>(c.result.size())));
      Bytes bad = c.result;
      bad[bad.size() / 2] ^= 0x10;
      int rc = KV_RSA_VerifyDigest(pub, KV_RSA_SHA1, digest, 20, bad.data(),
                                   static_cast<unsigned>(bad.size()));
      EXPECT_TRUE(rc == -107 || rc == -108) << rc;
      break;
    }
    case Scheme::kOaep: {
      {
        rsatest::FixedPadding pad(c.seed);
        ASSERT_EQ(0,
                  KV_RSA_OaepEncrypt(pub, c.message.data(), static_cast<unsigned>(c.message.size()),
                                     nullptr, 0, out.data(), &out_len));
        EXPECT_TRUE(pad.Exhausted());
      }
      EXPECT_EQ(rsatest::Hex(c.result), rsatest::Hex(Bytes(out.begin(), out.begin() + out_len)));
      ASSERT_EQ(0, KV_RSA_OaepDecrypt(priv, c.result.data(), static_cast<unsigned>(c.result.size()),
                                      nullptr, 0, out.data(), &out_len));
      EXPECT_EQ(rsatest::Hex(c.message), rsatest::Hex(Bytes(out.begin(), out.begin() + out_len)));
      break;
    }
  }
}

TEST_P(RsaVectors, EveryExampleMatches) {
  const VectorFile& f = GetParam();
  auto keys = ReadVectors(std::string(KV_VECTORS_DIR) + "/asymmetric/RSA/" + f.path);
  int cases = 0;
  for (const auto& kv : keys) {
    SCOPED_TRACE(kv.title);
    auto pub = kv.key.LoadPublic();
    auto priv = kv.key.LoadPrivate();
    ASSERT_TRUE(pub && priv);
    for (const auto& c : kv.cases) {
      SCOPED_TRACE("line " + std::to_string(c.line));
      RunCase(f.scheme, pub.get(), priv.get(), c);
      ++cases;
    }
  }
  EXPECT_EQ(f.keys, static_cast<int>(keys.size()));
  EXPECT_EQ(f.cases, cases);
}

INSTANTIATE_TEST_SUITE_P(
    Files, RsaVectors,
    ::testing::Values(VectorFile{"pkcs1v15crypt-vectors.txt", Scheme::kV15Encrypt, 15, 300},
                      VectorFile{"pkcs1v15sign-vectors.txt", Scheme::kV15Sign, 15, 300},
                      VectorFile{"pkcs-1v2-1d2-vec/oaep-vect.txt", Scheme::kOaep, 10, 60}),
    [](const ::testing::TestParamInfo<VectorFile>& info) {
      switch (info.param.scheme) {
        case Scheme::kV15Encrypt:
          return std::string("V15Encrypt");
        case Scheme::kV15Sign:
          return std::string("V15Sign");
        default:
          return std::string("Oaep");
      }
    });

}  // namespace
