// Known answers from the PKCS#1 test vector files shipped with Python
// cryptography: one reader for their common layout, one driver for the three
// schemes (v1.5 encryption, v1.5 signature, OAEP).
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "crypto/rsa.h"
#include "crypto/sha1.h"
#include "rsa/rsa_test_util.h"

using rsatest::Bytes;

namespace {

struct Case {
  Bytes message, seed, result;
  int line = 0;
};

struct KeyVectors {
  rsatest::Key key;
  std::string title;
  std::vector<Case> cases;
};

// The files are "# Label:" lines followed by lines of hex; "# Example N: ..."
// starts a key, "# Private key" its private half, and each "# Message..."
// a case.
std::vector<KeyVectors> ReadVectors(const std::string& path) {
  std::ifstream in(path);
  EXPECT_TRUE(in) << path;
  std::vector<KeyVectors> keys;
  Bytes* target = nullptr;
  bool in_private = false;
  std::string line;
  int lineno = 0;
  auto label_is = [](const std::string& l, const char* name) {
    return l == std::string("# ") + name + ":";
  };
  while (std::getline(in, line)) {
    ++lineno;
    while (!line.empty() && (line.back() == ' ' || line.back() == '\r')) line.pop_back();
    if (line.rfind("#", 0) != 0) {
      if (target && !line.empty()) {
        Bytes b = rsatest::Unhex(line);
        target->insert(target->end(), b.begin(), b.end());
      }
      continue;
    }
    target = nullptr;
    if (line.rfind("# Example ", 0) == 0 && line.find("key pair") != std::string::npos) {
      keys.emplace_back();
      keys.back().title = line.substr(2);
      in_private = false;
      continue;
    }
    if (keys.empty()) continue;
    KeyVectors& kv = keys.back();
    auto& part = kv.key.part;
    if (line == "# Private key") {
      in_private = true;
    } else if (label_is(line, "Modulus")) {
      part[KV_RSA_MODULUS].clear();
      target = &part[KV_RSA_MODULUS];
    } else if (label_is(line, "Public exponent") || (!in_private && label_is(line, "Exponent"))) {
      part[KV_RSA_PUBLIC_EXPONENT].clear();
      target = &part[KV_RSA_PUBLIC_EXPONENT];
    } else if (label_is(line, "Exponent")) {
      target = &part[KV_RSA_PRIVATE_EXPONENT];
    } else if (label_is(line, "Prime 1")) {
      target = &part[KV_RSA_PRIME1];
    } else if (label_is(line, "Prime 2")) {
      target = &part[KV_RSA_PRIME2];
    } else if (label_is(line, "Prime exponent 1")) {
      target = &part[KV_RSA_EXPONENT1];
    } else if (label_is(line, "Prime exponent 2")) {
      target = &part[KV_RSA_EXPONENT2];
    } else if (label_is(line, "Coefficient")) {
      target = &part[KV_RSA_COEFFICIENT];
    } else if (label_is(line, "Message") || label_is(line, "Message to be signed")) {
      kv.cases.emplace_back();
      kv.cases.back().line = lineno;
      target = &kv.cases.back().message;
    } else if (label_is(line, "Seed") && !kv.cases.empty()) {
      target = &kv.cases.back().seed;
    } else if ((label_is(line, "Encryption") || label_is(line, "Signature")) && !kv.cases.empty()) {
      target = &kv.cases.back().result;
    }
  }
  return keys;
}

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
