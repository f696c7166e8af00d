// Platform key blobs <-> records <-> PKCS#1 DER, held against the blobs
// OpenSSL reads and writes (-inform/-outform MSBLOB), and the fixed sizes,
// headers and limits of each conversion at their boundaries.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "crypto/keyconv.h"
#include "keyconv/keyconv_test_util.h"
#include "support/support.h"

using namespace kctest;

namespace {

using Buf = std::vector<unsigned char>;

const char* const kReadable[] = {"rsa512",        "rsa1024",       "rsa2048",
                                 "rsa1024-short", "rsa2048-short", "rsa2048-e3"};

Bytes Of(const Buf& b) {
  return ToBytes(b.data(), static_cast<unsigned>(b.size()));
}

uint32_t Le32(const Bytes& b, size_t at) {
  uint32_t v = 0;
  for (int i = 3; i >= 0; --i) v = (v << 8) | static_cast<unsigned char>(b[at + i]);
  return v;
}

// A copy of a blob with another bit length in its header.
Bytes WithBits(Bytes blob, uint32_t bits) {
  for (int i = 0; i < 4; ++i) blob[12 + i] = static_cast<char>(bits >> (8 * i));
  return blob;
}

// Calls a blob writer the way the control does: size first, then a zeroed
// buffer of that size.
template <typename F>
Bytes Write(F&& writer, int* status = nullptr) {
  unsigned len = 0;
  int rc = writer(nullptr, &len);
  Buf out(len, 0);
  if (rc == 0) rc = writer(out.data(), &len);
  if (status) *status = rc;
  out.resize(rc == 0 ? len : 0);
  return Of(out);
}

// OpenSSL reads one of our blobs: its PKCS#1 DER as OpenSSL sees it (a
// private key must also pass OpenSSL's key check).
std::string OpenSslReadsBlob(const Bytes& blob, bool pub) {
  kvtest::TempDir dir;
  const std::string in = dir.Write("k.blob", blob);
  const std::string out = dir / "k.der";
  std::string log;
  if (pub) {
    EXPECT_EQ(0, OpenSsl("rsa -pubin -inform MSBLOB -RSAPublicKey_out -outform DER -in " + in +
                             " -out " + out,
                         &log))
        << log;
  } else {
    EXPECT_EQ(0, OpenSsl("rsa -inform MSBLOB -check -noout -in " + in, &log)) << log;
    EXPECT_NE(std::string::npos, log.find("RSA key ok")) << log;
    EXPECT_EQ(
        0, OpenSsl("rsa -inform MSBLOB -outform DER -traditional -in " + in + " -out " + out, &log))
        << log;
  }
  return kvtest::ReadFile(out);
}

TEST(BlobReaders, OpenSslBlobsGiveTheKeysIntegers) {
  for (const char* name : kReadable) {
    SCOPED_TRACE(name);
    const OpenSslKey& key = Key(name);
    const unsigned k = key.bits / 8;
    PriRec pri;
    // The same record is read into twice: the first buffers must be freed.
    ASSERT_EQ(0, KV_MSPriKeyToIPK(nullptr, U(key.privBlob), &pri.k));
    ASSERT_EQ(0, KV_MSPriKeyToIPKEx(nullptr, U(key.privBlob), N(key.privBlob), &pri.k));
    // Integers keep their slot sizes; the exponent is minimal.
    const unsigned sizes[8] = {k, 0, k, k / 2, k / 2, k / 2, k / 2, k / 2};
    for (int i = 0; i < 8; ++i) {
      const Bytes part = pri.Part(i);
      EXPECT_EQ(ToHex(key.parts.at(kPrivateNames[i])), ToHex(StripZeros(part))) << kPrivateNames[i];
      if (i == 1) {
        EXPECT_EQ(key.parts.at("publicExponent"), part);
      } else {
        EXPECT_EQ(sizes[i], part.size()) << kPrivateNames[i];
      }
    }
    EXPECT_EQ(0, pri.k.modulus[pri.k.modulusLen]);  // the spare octet
    EXPECT_EQ(0, pri.k.coefficient[pri.k.coefficientLen]);

    PubRec pub;
    ASSERT_EQ(0, KV_MSPubKeyToIPK(nullptr, U(key.pubBlob), &pub.k));
    ASSERT_EQ(0, KV_MSPubKeyToIPKEx(nullptr, U(key.pubBlob), N(key.pubBlob), &pub.k));
    EXPECT_EQ(pri.Part(0), ToBytes(pub.k.modulus, pub.k.modulusLen));
    EXPECT_EQ(key.parts.at("publicExponent"), ToBytes(pub.k.exponent, pub.k.exponentLen));
    EXPECT_EQ(0, pub.k.exponent[pub.k.exponentLen]);
  }
}

TEST(BlobWriters, PrivateBlobsMatchOpenSslAndReadBack) {
  for (const char* name : {"rsa1024", "rsa2048", "rsa1024-short", "rsa2048-short", "rsa2048-e3"}) {
    SCOPED_TRACE(name);
    const OpenSslKey& key = Key(name);
    // From OpenSSL's DER, so that our blob reader plays no part.
    PriRec pri;
    ASSERT_EQ(0, KV_PKCS1PriKeyDecode(nullptr, U(key.privDer), N(key.privDer), &pri.k));
    auto writer = [&](unsigned char* out, unsigned* len) {
      return key.bits == 2048 ? KV_IPKToMSPriKey(nullptr, &pri.k, out, len)
                              : KV_IPKToMSPriKey1024(nullptr, &pri.k, out, len);
    };
    const Bytes blob = Write(writer);
    ASSERT_EQ(key.bits == 2048 ? 1172u : 596u, blob.size());
    EXPECT_EQ(ToHex(key.privBlob), ToHex(blob));
    EXPECT_EQ(ToHex(key.privDer), ToHex(OpenSslReadsBlob(blob, false)));
  }
}

TEST(BlobWriters, PrivateSizesAndFixedBitLength) {
  PriRec pri;
  const OpenSslKey& key = Key("rsa1024");
  ASSERT_EQ(0, KV_PKCS1PriKeyDecode(nullptr, U(key.privDer), N(key.privDer), &pri.k));
  struct Case {
    int (*fn)(PKCS_CTX, const PKCS_PRIKEY*, unsigned char*, unsigned*);
    unsigned size, bits;
  } cases[] = {{KV_IPKToMSPriKey, 1172, 2048}, {KV_IPKToMSPriKey1024, 596, 1024}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.size);
    unsigned len = 0;
    ASSERT_EQ(0, c.fn(nullptr, &pri.k, nullptr, &len));
    EXPECT_EQ(c.size, len);
    Buf buf(c.size, 0);
    len = c.size - 1;
    EXPECT_EQ(-1019, c.fn(nullptr, &pri.k, buf.data(), &len));
    EXPECT_EQ(Buf(c.size, 0), buf);
    // The 1024-bit key goes into the 2048-bit layout too: the caller picks,
    // and the header keeps the writer's bit length.
    len = c.size;
    ASSERT_EQ(0, c.fn(nullptr, &pri.k, buf.data(), &len));
    EXPECT_EQ(c.bits, Le32(Of(buf), 12));
    EXPECT_EQ(key.privBlob.substr(0, 12), Of(buf).substr(0, 12));
  }
  EXPECT_EQ(-1010, KV_IPKToMSPriKey(nullptr, nullptr, nullptr, nullptr));
  unsigned len = 596;
  EXPECT_EQ(-1010, KV_IPKToMSPriKey1024(nullptr, nullptr, nullptr, &len));
}

// Slots are not cleared: a component shorter than its slot leaves the
// caller's octets behind it. The control passes zeroed buffers.
TEST(BlobWriters, PrivateSlotsAreNotCleared) {
  const OpenSslKey& key = Key("rsa2048-short");  // d is one octet short
  PriRec pri;
  ASSERT_EQ(0, KV_PKCS1PriKeyDecode(nullptr, U(key.privDer), N(key.privDer), &pri.k));
  ASSERT_EQ(255u, pri.k.privateExponentLen);
  Buf buf(1172, 0xEE);
  unsigned len = 1172;
  ASSERT_EQ(0, KV_IPKToMSPriKey(nullptr, &pri.k, buf.data(), &len));
  EXPECT_EQ(0xEE, buf[1171]);  // top octet of d's slot
  buf[1171] = 0;
  EXPECT_EQ(ToHex(key.privBlob), ToHex(Of(buf)));
}

TEST(BlobWriters, ComponentsLargerThanTheirSlotsAreRefused) {
  const OpenSslKey& key = Key("rsa2048");
  PriRec pri;
  ASSERT_EQ(0, KV_PKCS1PriKeyDecode(nullptr, U(key.privDer), N(key.privDer), &pri.k));
  Buf buf(596, 0x5A);
  unsigned len = 596;
  EXPECT_EQ(-1006, KV_IPKToMSPriKey1024(nullptr, &pri.k, buf.data(), &len));
  EXPECT_EQ(Buf(596, 0x5A), buf);  // nothing written
  // Leading zero octets do not count against the slot. (Views of the record
  // borrow test buffers; the record itself keeps and frees its own.)
  Bytes padded = Bytes(4, '\0') + key.parts.at("prime1");
  PKCS_PRIKEY view = pri.k;
  view.prime1 = reinterpret_cast<unsigned char*>(&padded[0]);
  view.prime1Len = N(padded);
  Buf big(1172, 0);
  len = 1172;
  EXPECT_EQ(0, KV_IPKToMSPriKey(nullptr, &view, big.data(), &len));
  EXPECT_EQ(ToHex(key.privBlob), ToHex(Of(big)));
  // An exponent beyond the 32-bit header word.
  Bytes wide = Hex("0100000001");
  view.publicExponent = reinterpret_cast<unsigned char*>(&wide[0]);
  view.publicExponentLen = N(wide);
  EXPECT_EQ(-1006, KV_IPKToMSPriKey(nullptr, &view, big.data(), &len));
  // A null component with a length is the caller's fault.
  view.publicExponent = nullptr;
  EXPECT_EQ(-1010, KV_IPKToMSPriKey(nullptr, &view, big.data(), &len));
}

// OpenSSL writes CALG_RSA_KEYX into public blobs; ours carry CALG_RSA_SIGN,
// from a record read from its blob (the round trip) or from its DER.
TEST(BlobWriters, PublicBlobMatchesOpenSslButForTheAlgorithm) {
  const OpenSslKey& key = Key("rsa2048");
  ASSERT_EQ(41984u, Le32(key.pubBlob, 4));
  Bytes expected = key.pubBlob;
  expected[5] = 0x24;  // 9216
  PubRec fromBlob, fromDer;
  ASSERT_EQ(0, KV_MSPubKeyToIPK(nullptr, U(key.pubBlob), &fromBlob.k));
  ASSERT_EQ(0, KV_PKCS1PubKeyDecode(nullptr, U(key.pubDer), N(key.pubDer), &fromDer.k));
  for (const PubRec* rec : {&fromBlob, &fromDer}) {
    const Bytes blob = Write(
        [&](unsigned char* o, unsigned* l) { return KV_IPKToMSPubKey(nullptr, &rec->k, o, l); });
    EXPECT_EQ(ToHex(expected), ToHex(blob));
  }
  EXPECT_EQ(ToHex(key.pubDer), ToHex(OpenSslReadsBlob(expected, true)));
}

TEST(BlobWriters, PublicBlobSizeAndShapeRules) {
  PubRec p2048, p1024, e3;
  const OpenSslKey &k2048 = Key("rsa2048"), &k1024 = Key("rsa1024"), &ke3 = Key("rsa2048-e3");
  ASSERT_EQ(0, KV_PKCS1PubKeyDecode(nullptr, U(k2048.pubDer), N(k2048.pubDer), &p2048.k));
  ASSERT_EQ(0, KV_PKCS1PubKeyDecode(nullptr, U(k1024.pubDer), N(k1024.pubDer), &p1024.k));
  ASSERT_EQ(0, KV_PKCS1PubKeyDecode(nullptr, U(ke3.pubDer), N(ke3.pubDer), &e3.k));
  unsigned len = 0;
  EXPECT_EQ(0, KV_IPKToMSPubKey(nullptr, &p2048.k, nullptr, &len));
  EXPECT_EQ(276u, len);
  Buf buf(276, 0);
  len = 275;
  EXPECT_EQ(-1019, KV_IPKToMSPubKey(nullptr, &p2048.k, buf.data(), &len));
  len = 276;
  EXPECT_EQ(-1006, KV_IPKToMSPubKey(nullptr, &p1024.k, buf.data(), &len));
  EXPECT_EQ(-1006, KV_IPKToMSPubKey(nullptr, &e3.k, buf.data(), &len));
  EXPECT_EQ(Buf(276, 0), buf);
  // The size query answers before the shape is looked at.
  len = 0;
  EXPECT_EQ(0, KV_IPKToMSPubKey(nullptr, &p1024.k, nullptr, &len));
  EXPECT_EQ(276u, len);
  EXPECT_EQ(-1010, KV_IPKToMSPubKey(nullptr, nullptr, buf.data(), &len));
  EXPECT_EQ(-1010, KV_IPKToMSPubKey(nullptr, &p2048.k, buf.data(), nullptr));
}

TEST(BlobReaders, BitLengthsOtherThan512_1024_2048AreRefused) {
  const OpenSslKey& big = Key("rsa4096");
  ASSERT_EQ(4096u, Le32(big.privBlob, 12));
  Bytes pub1024 = Key("rsa1024").pubBlob, pri2048 = Key("rsa2048").privBlob;
  std::vector<std::pair<Bytes, Bytes>> blobs = {{big.pubBlob, big.privBlob}};
  for (uint32_t bits : {0u, 8u, 511u, 513u, 768u, 1023u, 1025u, 1536u, 2047u, 2049u, 0x80000800u})
    blobs.push_back({WithBits(pub1024, bits), WithBits(pri2048, bits)});
  for (const auto& b : blobs) {
    SCOPED_TRACE(Le32(b.first, 12));
    PubRec pub;
    PriRec pri;
    unsigned len = 0;
    EXPECT_EQ(-1008, KV_MSPubKeyToIPK(nullptr, U(b.first), &pub.k));
    EXPECT_EQ(-1008, KV_MSPubKeyToIPKEx(nullptr, U(b.first), N(b.first), &pub.k));
    EXPECT_EQ(-1008, KV_MSPubKeyToP1Der(U(b.first), nullptr, &len));
    EXPECT_EQ(-1008, KV_MSPriKeyToIPK(nullptr, U(b.second), &pri.k));
    EXPECT_EQ(-1008, KV_MSPriKeyToIPKEx(nullptr, U(b.second), N(b.second), &pri.k));
    EXPECT_EQ(-1008, KV_MSPriKeyToP1Der(U(b.second), nullptr, &len));
    // Nothing allocated.
    EXPECT_TRUE(pub.k.modulus == nullptr && pub.k.exponent == nullptr);
    EXPECT_TRUE(pri.k.modulus == nullptr && pri.k.publicExponent == nullptr);
  }
}

TEST(BlobReaders, ExReadersCheckTheLengthAgainstTheHeader) {
  for (const char* name : {"rsa512", "rsa2048"}) {
    SCOPED_TRACE(name);
    const OpenSslKey& key = Key(name);
    PubRec pub;
    PriRec pri;
    const unsigned pubSize = N(key.pubBlob), priSize = N(key.privBlob);
    ASSERT_EQ(20 + key.bits / 8, pubSize);
    ASSERT_EQ(20 + key.bits / 16 * 9, priSize);
    EXPECT_EQ(-1010, KV_MSPubKeyToIPKEx(nullptr, U(key.pubBlob), pubSize - 1, &pub.k));
    EXPECT_EQ(-1010, KV_MSPubKeyToIPKEx(nullptr, U(key.pubBlob), 19, &pub.k));
    EXPECT_EQ(-1010, KV_MSPriKeyToIPKEx(nullptr, U(key.privBlob), priSize - 1, &pri.k));
    EXPECT_EQ(-1010, KV_MSPriKeyToIPKEx(nullptr, U(key.privBlob), 0, &pri.k));
    EXPECT_EQ(nullptr, pri.k.modulus);
    // A private blob holds a public one at its start.
    EXPECT_EQ(-1010, KV_MSPriKeyToIPKEx(nullptr, U(key.pubBlob), pubSize, &pri.k));
    EXPECT_EQ(0, KV_MSPubKeyToIPKEx(nullptr, U(key.privBlob), pubSize, &pub.k));
    EXPECT_EQ(0, KV_MSPriKeyToIPKEx(nullptr, U(key.privBlob), priSize, &pri.k));
  }
  PubRec pub;
  PriRec pri;
  const Bytes& blob = Key("rsa512").privBlob;
  EXPECT_EQ(-1010, KV_MSPubKeyToIPK(nullptr, nullptr, &pub.k));
  EXPECT_EQ(-1010, KV_MSPubKeyToIPK(nullptr, U(blob), nullptr));
  EXPECT_EQ(-1010, KV_MSPriKeyToIPK(nullptr, nullptr, &pri.k));
  EXPECT_EQ(-1010, KV_MSPriKeyToIPKEx(nullptr, U(blob), N(blob), nullptr));
}

TEST(BlobDer, BlobsToDerMatchOpenSsl) {
  for (const char* name : kReadable) {
    SCOPED_TRACE(name);
    const OpenSslKey& key = Key(name);
    EXPECT_EQ(key.pubDer, Write([&](unsigned char* o, unsigned* l) {
                return KV_MSPubKeyToP1Der(U(key.pubBlob), o, l);
              }));
    EXPECT_EQ(key.privDer, Write([&](unsigned char* o, unsigned* l) {
                return KV_MSPriKeyToP1Der(U(key.privBlob), o, l);
              }));
  }
  const Bytes& blob = Key("rsa1024").pubBlob;
  unsigned len = 0;
  ASSERT_EQ(0, KV_MSPubKeyToP1Der(U(blob), nullptr, &len));
  Buf buf(len);
  --len;
  EXPECT_EQ(-1019, KV_MSPubKeyToP1Der(U(blob), buf.data(), &len));
  EXPECT_EQ(-1010, KV_MSPubKeyToP1Der(nullptr, buf.data(), &len));
  EXPECT_EQ(-1010, KV_MSPubKeyToP1Der(U(blob), buf.data(), nullptr));
  EXPECT_EQ(-1010, KV_MSPriKeyToP1Der(nullptr, buf.data(), &len));
}

TEST(BlobDer, DerToBlobsMatchOpenSsl) {
  for (const char* name : kReadable) {
    SCOPED_TRACE(name);
    const OpenSslKey& key = Key(name);
    // Filled with a pattern: short components must still come out zero-padded.
    auto patterned = [](auto fn) {
      unsigned len = 0;
      int rc = fn(nullptr, &len);
      Buf out(len, 0xEE);
      if (rc == 0) rc = fn(out.data(), &len);
      EXPECT_EQ(0, rc);
      return Of(out);
    };
    EXPECT_EQ(ToHex(key.privBlob), ToHex(patterned([&](unsigned char* o, unsigned* l) {
                return KV_P1DerToMSPriKey(U(key.privDer), N(key.privDer), o, l);
              })));
    const Bytes pub = patterned([&](unsigned char* o, unsigned* l) {
      return KV_P1DerToMSPubKey(U(key.pubDer), N(key.pubDer), o, l);
    });
    ASSERT_EQ(key.pubBlob.size(), pub.size());
    EXPECT_EQ(9216u, Le32(pub, 4));
    EXPECT_EQ(ToHex(key.pubBlob.substr(8)), ToHex(pub.substr(8)));
    EXPECT_EQ(key.pubBlob.substr(0, 4), pub.substr(0, 4));
  }
}

TEST(BlobDer, DerToBlobLimits) {
  const OpenSslKey& big = Key("rsa4096");
  unsigned len = 0;
  EXPECT_EQ(-1008, KV_P1DerToMSPriKey(U(big.privDer), N(big.privDer), nullptr, &len));
  EXPECT_EQ(-1008, KV_P1DerToMSPubKey(U(big.pubDer), N(big.pubDer), nullptr, &len));
  // A toy key decodes but has no blob size.
  const Bytes toy = Hex("300602010d020103");
  EXPECT_EQ(-1008, KV_P1DerToMSPubKey(U(toy), N(toy), nullptr, &len));
  // The exponent must fit the header's 32-bit word.
  const Bytes& n = Key("rsa1024").parts.at("modulus");
  Bytes wide = Hex("308190") + Hex("028181") + Bytes(1, '\0') + n + Hex("0205") + Hex("0100000001");
  wide[2] = static_cast<char>(wide.size() - 3);
  EXPECT_EQ(-1006, KV_P1DerToMSPubKey(U(wide), N(wide), nullptr, &len));
  // Decoder statuses pass through.
  EXPECT_EQ(-1002, KV_P1DerToMSPubKey(U(toy), N(toy) - 1, nullptr, &len));
  EXPECT_EQ(-1001, KV_P1DerToMSPriKey(U(toy), N(toy), nullptr, &len));
  EXPECT_EQ(-1010, KV_P1DerToMSPriKey(nullptr, 8, nullptr, &len));
  EXPECT_EQ(-1010, KV_P1DerToMSPubKey(U(toy), N(toy), nullptr, nullptr));
  const Bytes& der = Key("rsa1024").privDer;
  ASSERT_EQ(0, KV_P1DerToMSPriKey(U(der), N(der), nullptr, &len));
  EXPECT_EQ(596u, len);
  Buf buf(len);
  --len;
  EXPECT_EQ(-1019, KV_P1DerToMSPriKey(U(der), N(der), buf.data(), &len));
}

}  // namespace
