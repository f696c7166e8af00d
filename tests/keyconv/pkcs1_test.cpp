// PKCS#1 DER <-> records, with OpenSSL as the oracle: its DER decodes to the
// integers of its text dump and re-encodes to the same octets; what we encode
// passes its key check. Malformed input comes from tests/data/keyconv.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <vector>

#include "crypto/keyconv.h"
#include "keyconv/keyconv_test_util.h"
#include "support/support.h"

using namespace kctest;

namespace {

const char* const kKeys[] = {"rsa512",        "rsa1024",       "rsa2048",   "rsa4096",
                             "rsa1024-short", "rsa2048-short", "rsa2048-e3"};

Bytes EncodePri(const PKCS_PRIKEY& k, int* status = nullptr) {
  unsigned len = 0;
  int rc = KV_PKCS1PriKeyEncode(nullptr, &k, nullptr, &len);
  Bytes out(len, '\0');
  if (rc == 0)
    rc = KV_PKCS1PriKeyEncode(nullptr, &k, reinterpret_cast<unsigned char*>(&out[0]), &len);
  if (status) *status = rc;
  EXPECT_EQ(0, rc);
  out.resize(len);
  return out;
}

Bytes EncodePub(const PKCS_PUBKEY& k) {
  unsigned len = 0;
  EXPECT_EQ(0, KV_PKCS1PubKeyEncode(nullptr, &k, nullptr, &len));
  Bytes out(len, '\0');
  EXPECT_EQ(0, KV_PKCS1PubKeyEncode(nullptr, &k, reinterpret_cast<unsigned char*>(&out[0]), &len));
  out.resize(len);
  return out;
}

TEST(Pkcs1, OpenSslKeysDecodeToTheirIntegersAndReencodeIdentically) {
  for (const char* name : kKeys) {
    SCOPED_TRACE(name);
    const OpenSslKey& key = Key(name);
    PriRec pri;
    ASSERT_EQ(0, KV_PKCS1PriKeyDecode(nullptr, U(key.privDer), N(key.privDer), &pri.k));
    for (int i = 0; i < 8; ++i) {
      // Minimal unsigned octets: no sign octet even where the top bit is set.
      EXPECT_EQ(ToHex(key.parts.at(kPrivateNames[i])), ToHex(pri.Part(i))) << kPrivateNames[i];
    }
    EXPECT_EQ(key.privDer, EncodePri(pri.k));

    PubRec pub;
    ASSERT_EQ(0, KV_PKCS1PubKeyDecode(nullptr, U(key.pubDer), N(key.pubDer), &pub.k));
    EXPECT_EQ(ToHex(key.parts.at("modulus")), ToHex(ToBytes(pub.k.modulus, pub.k.modulusLen)));
    EXPECT_EQ(ToHex(key.parts.at("publicExponent")),
              ToHex(ToBytes(pub.k.exponent, pub.k.exponentLen)));
    EXPECT_EQ(key.pubDer, EncodePub(pub.k));
  }
}

// Records read from blobs keep leading zero octets (d of this key has one);
// the encoders must still write DER that OpenSSL accepts and checks.
TEST(Pkcs1, EncodedKeysPassOpenSslChecks) {
  kvtest::TempDir dir;
  const OpenSslKey& key = Key("rsa2048-short");
  PriRec pri;
  PubRec pub;
  ASSERT_EQ(0, KV_MSPriKeyToIPK(nullptr, U(key.privBlob), &pri.k));
  ASSERT_EQ(0, KV_MSPubKeyToIPK(nullptr, U(key.pubBlob), &pub.k));
  ASSERT_EQ(0, pri.k.privateExponent[0]);
  const Bytes der = EncodePri(pri.k);
  EXPECT_EQ(key.privDer, der);
  std::string out;
  EXPECT_EQ(0, OpenSsl("rsa -inform DER -check -noout -in " + dir.Write("k.der", der), &out));
  EXPECT_NE(std::string::npos, out.find("RSA key ok")) << out;
  EXPECT_EQ(0,
            OpenSsl("rsa -pubin -inform DER -RSAPublicKey_in -RSAPublicKey_out -outform DER -in " +
                        dir.Write("p.der", EncodePub(pub.k)) + " -out " + (dir / "o.der"),
                    &out))
      << out;
  EXPECT_EQ(key.pubDer, kvtest::ReadFile(dir / "o.der"));
}

TEST(Pkcs1, EncodersFollowTheBufferRule) {
  const OpenSslKey& key = Key("rsa1024");
  PriRec pri;
  ASSERT_EQ(0, KV_PKCS1PriKeyDecode(nullptr, U(key.privDer), N(key.privDer), &pri.k));
  unsigned len = 0;
  ASSERT_EQ(0, KV_PKCS1PriKeyEncode(nullptr, &pri.k, nullptr, &len));
  EXPECT_EQ(key.privDer.size(), len);
  std::vector<unsigned char> buf(len + 8, 0xEE);
  unsigned shortLen = len - 1;
  EXPECT_EQ(-1019, KV_PKCS1PriKeyEncode(nullptr, &pri.k, buf.data(), &shortLen));
  EXPECT_EQ(len - 1, shortLen);
  unsigned bigLen = len + 8;
  ASSERT_EQ(0, KV_PKCS1PriKeyEncode(nullptr, &pri.k, buf.data(), &bigLen));
  EXPECT_EQ(len, bigLen);
  EXPECT_EQ(key.privDer, ToBytes(buf.data(), len));
  EXPECT_EQ(0xEE, buf[len]);  // nothing written past the encoding

  PubRec pub;
  ASSERT_EQ(0, KV_PKCS1PubKeyDecode(nullptr, U(key.pubDer), N(key.pubDer), &pub.k));
  ASSERT_EQ(0, KV_PKCS1PubKeyEncode(nullptr, &pub.k, nullptr, &len));
  shortLen = len - 1;
  EXPECT_EQ(-1019, KV_PKCS1PubKeyEncode(nullptr, &pub.k, buf.data(), &shortLen));
}

TEST(Pkcs1, NullsAndIncompleteRecords) {
  const Bytes der = Hex("300602010d020103");
  unsigned len = 0;
  PubRec pub;
  PriRec pri;
  EXPECT_EQ(-1010, KV_PKCS1PubKeyDecode(nullptr, nullptr, 8, &pub.k));
  EXPECT_EQ(-1010, KV_PKCS1PubKeyDecode(nullptr, U(der), N(der), nullptr));
  EXPECT_EQ(-1010, KV_PKCS1PriKeyDecode(nullptr, nullptr, 8, &pri.k));
  EXPECT_EQ(-1010, KV_PKCS1PriKeyDecode(nullptr, U(der), N(der), nullptr));
  EXPECT_EQ(-1010, KV_PKCS1PubKeyEncode(nullptr, nullptr, nullptr, &len));
  EXPECT_EQ(-1010, KV_PKCS1PriKeyEncode(nullptr, nullptr, nullptr, &len));
  // An empty record has nothing to encode.
  EXPECT_EQ(-1010, KV_PKCS1PubKeyEncode(nullptr, &pub.k, nullptr, &len));
  EXPECT_EQ(-1010, KV_PKCS1PriKeyEncode(nullptr, &pri.k, nullptr, &len));
  ASSERT_EQ(0, KV_PKCS1PubKeyDecode(nullptr, U(der), N(der), &pub.k));
  EXPECT_EQ(-1010, KV_PKCS1PubKeyEncode(nullptr, &pub.k, nullptr, nullptr));
  // A private record missing only its coefficient.
  const OpenSslKey& key = Key("rsa512");
  ASSERT_EQ(0, KV_PKCS1PriKeyDecode(nullptr, U(key.privDer), N(key.privDer), &pri.k));
  PKCS_PRIKEY partial = pri.k;
  partial.coefficient = nullptr;
  EXPECT_EQ(-1010, KV_PKCS1PriKeyEncode(nullptr, &partial, nullptr, &len));
}

// A failed decode leaves the caller's record as it was; a successful one
// replaces it (the old buffers freed: the sanitizer build sees a leak else).
TEST(Pkcs1, DecodeReplacesTheRecordOnlyOnSuccess) {
  PubRec pub;
  const Bytes a = Hex("300602010d020103"), b = Hex("300702020080020111");
  ASSERT_EQ(0, KV_PKCS1PubKeyDecode(nullptr, U(a), N(a), &pub.k));
  EXPECT_EQ(-1002, KV_PKCS1PubKeyDecode(nullptr, U(b), N(b) - 1, &pub.k));
  EXPECT_EQ("0d", ToHex(ToBytes(pub.k.modulus, pub.k.modulusLen)));
  ASSERT_EQ(0, KV_PKCS1PubKeyDecode(nullptr, U(b), N(b), &pub.k));
  EXPECT_EQ("80", ToHex(ToBytes(pub.k.modulus, pub.k.modulusLen)));
  EXPECT_EQ("11", ToHex(ToBytes(pub.k.exponent, pub.k.exponentLen)));
}

TEST(Pkcs1, DecoderCasesFromDataFile) {
  std::ifstream in(std::string(KV_TEST_DATA_DIR) + "/keyconv/pkcs1_decode.txt");
  ASSERT_TRUE(in) << "pkcs1_decode.txt missing";
  std::string line;
  int cases = 0;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    std::string type, hex;
    int status = 1;
    fields >> type >> status >> hex;
    SCOPED_TRACE(line);
    const Bytes der = hex == "-" ? Bytes() : Hex(hex);
    // A non-null pointer even for empty input: emptiness is what is tested.
    const unsigned char* p = der.empty() ? reinterpret_cast<const unsigned char*>("") : U(der);
    if (type == "pub") {
      PubRec rec;
      EXPECT_EQ(status, KV_PKCS1PubKeyDecode(nullptr, p, N(der), &rec.k));
      if (status == 0) {
        EXPECT_EQ(der, EncodePub(rec.k));
      }
    } else {
      ASSERT_EQ("pri", type);
      PriRec rec;
      EXPECT_EQ(status, KV_PKCS1PriKeyDecode(nullptr, p, N(der), &rec.k));
      if (status == 0) {
        EXPECT_EQ(der, EncodePri(rec.k));
      }
    }
    ++cases;
  }
  EXPECT_GT(cases, 30);
}

// Every proper prefix of a real key is refused, whatever length it cuts.
TEST(Pkcs1, EveryTruncationIsRefused) {
  const OpenSslKey& key = Key("rsa512");
  for (unsigned n = 0; n < N(key.privDer); ++n) {
    PriRec rec;
    const int rc = KV_PKCS1PriKeyDecode(nullptr, U(key.privDer), n, &rec.k);
    EXPECT_TRUE(rc == -1002 || rc == -1001) << "prefix " << n << " gave " << rc;
    EXPECT_EQ(nullptr, rec.k.modulus);
  }
  for (unsigned n = 0; n < N(key.pubDer); ++n) {
    PubRec rec;
    EXPECT_EQ(-1002, KV_PKCS1PubKeyDecode(nullptr, U(key.pubDer), n, &rec.k)) << n;
  }
}

}  // namespace
