// Behaviour of the engine's interface: load rules, size limits, status codes,
// the message table, key generation and the private-operation safeguards.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "crypto/internal/cpu.h"
#include "crypto/internal/rsa_internal.h"
#include "crypto/rsa.h"
#include "rsa/rsa_test_util.h"

using rsatest::Bytes;
using rsatest::Key;

namespace {

const std::string kVectors = std::string(KV_VECTORS_DIR) + "/asymmetric/RSA/";

// Example 1 of the v1.5 encryption file: a 1024-bit key (k = 128).
const Key& Key1024() {
  static const Key key = rsatest::ReadVectors(kVectors + "pkcs1v15crypt-vectors.txt").at(0).key;
  return key;
}

const std::vector<rsatest::KeyVectors>& TestKeys() {
  static const auto keys =
      rsatest::ReadVectors(std::string(KV_TEST_DATA_DIR) + "/rsa/test-keys.txt");
  return keys;
}

// A 352-bit key (k = 44), too short for a SHA-1 DigestInfo.
const Key& SmallKey() {
  return TestKeys().at(0).key;
}

int Load(const Key& key, unsigned int block, KV_RSA_CTX** ctx) {
  auto c = key.Components();
  return KV_RSA_LoadKey(c.data(), block, ctx);
}

TEST(RsaErrorText, TableAndIndexingRule) {
  EXPECT_STREQ("ok", KV_RSA_ErrorText(0));
  EXPECT_STREQ("RSA key generation failed", KV_RSA_ErrorText(-101));
  EXPECT_STREQ("bad input argument(s)", KV_RSA_ErrorText(-102));
  EXPECT_STREQ("invalid MPI (length too large, etc.)", KV_RSA_ErrorText(-103));
  EXPECT_STREQ("bad input cipher text (not less than modulus n)", KV_RSA_ErrorText(-104));
  EXPECT_STREQ("incorrect format", KV_RSA_ErrorText(-105));
  EXPECT_STREQ("bad modulus (byte-length < 12)", KV_RSA_ErrorText(-106));
  EXPECT_STREQ("invalid signature string", KV_RSA_ErrorText(-107));
  EXPECT_STREQ("signature too large to be handled by this algorithm", KV_RSA_ErrorText(-108));
  EXPECT_STREQ("unsupported algorithm", KV_RSA_ErrorText(-109));
  EXPECT_STREQ("bad algorithm parameter(s)", KV_RSA_ErrorText(-110));
  EXPECT_STREQ("eme encode error", KV_RSA_ErrorText(-111));
  EXPECT_STREQ("eme decode error", KV_RSA_ErrorText(-112));
  EXPECT_STREQ("emsa encode error", KV_RSA_ErrorText(-113));
  EXPECT_STREQ("mgf1 error", KV_RSA_ErrorText(-114));
  const char* last = "bad error code (FATAL ERROR)";
  EXPECT_STREQ(last, KV_RSA_ErrorText(-115));
  for (int code : {-120, -116, -100, -14, -3, -1, 1, 101, -2147483647 - 1}) {
    EXPECT_STREQ(last, KV_RSA_ErrorText(code)) << code;
  }
}

TEST(RsaLoad, BlockSizeSelectsKind) {
  static_assert(2 * sizeof(KV_RSA_COMPONENT) >= 16 && 2 * sizeof(KV_RSA_COMPONENT) < 64,
                "two components form a public block");
  static_assert(8 * sizeof(KV_RSA_COMPONENT) >= 64, "eight components form a private block");
  KV_RSA_CTX* ctx = nullptr;
  EXPECT_EQ(-2, Load(Key1024(), 15, &ctx));
  EXPECT_EQ(nullptr, ctx);
  for (unsigned size : {16u, KV_RSA_PUBLIC_BLOCK_SIZE, 63u}) {
    ASSERT_EQ(0, Load(Key1024(), size, &ctx)) << size;
    EXPECT_EQ(0, KV_RSA_IsPrivate(ctx));
    EXPECT_EQ(128u, KV_RSA_ModulusLength(ctx));
    KV_RSA_FreeCtx(ctx);
  }
  for (unsigned size : {64u, KV_RSA_PRIVATE_BLOCK_SIZE}) {
    ASSERT_EQ(0, Load(Key1024(), size, &ctx)) << size;
    EXPECT_EQ(1, KV_RSA_IsPrivate(ctx));
    KV_RSA_FreeCtx(ctx);
  }
  EXPECT_EQ(-2, KV_RSA_LoadKey(nullptr, 64, &ctx));
  auto c = Key1024().Components();
  EXPECT_EQ(-2, KV_RSA_LoadKey(c.data(), 64, nullptr));
}

TEST(RsaLoad, InconsistentPrivateComponentsAreRejected) {
  // Changing any private component (or e) breaks one of the relations.
  for (int part : {KV_RSA_PUBLIC_EXPONENT, KV_RSA_PRIVATE_EXPONENT, KV_RSA_PRIME1, KV_RSA_PRIME2,
                   KV_RSA_EXPONENT1, KV_RSA_EXPONENT2, KV_RSA_COEFFICIENT}) {
    Key key = Key1024();
    key.part[part].back() ^= 0x02;
    KV_RSA_CTX* ctx = nullptr;
    EXPECT_EQ(-14, Load(key, 64, &ctx)) << "component " << part;
    EXPECT_EQ(nullptr, ctx);
    // The same public half still loads from a 16-byte block.
    if (part != KV_RSA_PUBLIC_EXPONENT) {
      ASSERT_EQ(0, Load(key, 16, &ctx));
      KV_RSA_FreeCtx(ctx);
    }
  }
  Key zero = Key1024();
  zero.part[KV_RSA_EXPONENT1].assign(1, 0);  // a zero component holds no words
  KV_RSA_CTX* ctx = nullptr;
  EXPECT_EQ(-14, Load(zero, 64, &ctx));
  // The coefficient must be reduced below p.
  Key big = Key1024();
  Bytes& qi = big.part[KV_RSA_COEFFICIENT];
  qi.insert(qi.begin(), 0x01);
  EXPECT_EQ(-14, Load(big, 64, &ctx));
}

TEST(RsaLoad, ComponentConversionAndModulusLimits) {
  KV_RSA_CTX* ctx = nullptr;
  Key key = Key1024();
  auto c = key.Components();
  c[KV_RSA_PRIME1].data = nullptr;
  EXPECT_EQ(-10, KV_RSA_LoadKey(c.data(), 64, &ctx));
  c = key.Components();
  c[KV_RSA_MODULUS].data = nullptr;
  EXPECT_EQ(-10, KV_RSA_LoadKey(c.data(), 16, &ctx));

  // Longer than 256 words.
  Key huge = Key1024();
  huge.part[KV_RSA_MODULUS].assign(1025, 0xc5);
  EXPECT_EQ(-103, Load(huge, 16, &ctx));
  huge.part[KV_RSA_MODULUS].assign(1024, 0xc5);  // 8192 bits: fine
  ASSERT_EQ(0, Load(huge, 16, &ctx));
  EXPECT_EQ(1024u, KV_RSA_ModulusLength(ctx));
  KV_RSA_FreeCtx(ctx);
  huge.part[KV_RSA_PRIVATE_EXPONENT].assign(1025, 0x11);
  EXPECT_EQ(-10, Load(huge, 64, &ctx));

  // Leading zero octets do not count toward the modulus length.
  Key padded = Key1024();
  padded.part[KV_RSA_MODULUS].insert(padded.part[KV_RSA_MODULUS].begin(), 4, 0);
  ASSERT_EQ(0, Load(padded, 64, &ctx));
  EXPECT_EQ(128u, KV_RSA_ModulusLength(ctx));
  KV_RSA_FreeCtx(ctx);

  // An even modulus or a zero exponent cannot be used.
  Key even = Key1024();
  even.part[KV_RSA_MODULUS].back() &= 0xfe;
  EXPECT_EQ(-10, Load(even, 16, &ctx));
  Key noexp = Key1024();
  noexp.part[KV_RSA_PUBLIC_EXPONENT].assign(3, 0);
  EXPECT_EQ(-10, Load(noexp, 16, &ctx));
}

class RsaV15 : public ::testing::Test {
 protected:
  void SetUp() override {
    pub_ = Key1024().LoadPublic();
    priv_ = Key1024().LoadPrivate();
    ASSERT_TRUE(pub_ && priv_);
  }
  kv::RsaCtxPtr pub_, priv_;
};

TEST_F(RsaV15, MessageLengthLimitAndRoundTrip) {
  Bytes msg(118, 0x61), out(128), back(128);
  unsigned int len = 0;
  EXPECT_EQ(-3, KV_RSA_Encrypt(pub_.get(), msg.data(), out.data(), 118, &len));
  ASSERT_EQ(0, KV_RSA_Encrypt(pub_.get(), msg.data(), out.data(), 117, &len));
  EXPECT_EQ(128u, len);
  ASSERT_EQ(0, KV_RSA_Decrypt(priv_.get(), out.data(), back.data(), 128, &len));
  EXPECT_EQ(Bytes(msg.begin(), msg.begin() + 117), Bytes(back.begin(), back.begin() + len));
  // The padding is random: a second encryption differs but decrypts alike.
  Bytes out2(128);
  ASSERT_EQ(0, KV_RSA_Encrypt(pub_.get(), msg.data(), out2.data(), 117, &len));
  EXPECT_NE(out, out2);
  // Empty messages are allowed.
  ASSERT_EQ(0, KV_RSA_Encrypt(pub_.get(), msg.data(), out.data(), 0, &len));
  ASSERT_EQ(0, KV_RSA_Decrypt(priv_.get(), out.data(), back.data(), 128, &len));
  EXPECT_EQ(0u, len);
}

TEST_F(RsaV15, PrivateKeyEncryptIsBlockTypeOne) {
  // Deterministic, so repeated private operations (each with fresh blinding)
  // must agree; the public key recovers the data.
  Bytes msg = rsatest::Unhex("00112233445566778899"), s1(128), s2(128), back(128);
  unsigned int len = 0;
  ASSERT_EQ(0, KV_RSA_Encrypt(priv_.get(), msg.data(), s1.data(), 10, &len));
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(0, KV_RSA_Encrypt(priv_.get(), msg.data(), s2.data(), 10, &len));
    EXPECT_EQ(s1, s2);
  }
  ASSERT_EQ(0, KV_RSA_Decrypt(pub_.get(), s1.data(), back.data(), 128, &len));
  EXPECT_EQ(msg, Bytes(back.begin(), back.begin() + len));
  ASSERT_EQ(0, KV_RSA_PublicBlock(pub_.get(), s1.data(), 128, back.data(), &len));
  EXPECT_EQ(0x00, back[0]);
  EXPECT_EQ(0x01, back[1]);
  EXPECT_EQ(0xff, back[2]);
}

TEST_F(RsaV15, SizeQueryAndArgumentChecks) {
  Bytes msg(20, 1), out(128, 0xee);
  unsigned int len = 7;
  ASSERT_EQ(0, KV_RSA_Encrypt(pub_.get(), msg.data(), nullptr, 20, &len));
  EXPECT_EQ(128u, len);
  len = 7;
  ASSERT_EQ(0, KV_RSA_Decrypt(priv_.get(), out.data(), nullptr, 128, &len));
  EXPECT_EQ(128u, len);
  EXPECT_EQ(-2, KV_RSA_Encrypt(nullptr, msg.data(), out.data(), 20, &len));
  EXPECT_EQ(-2, KV_RSA_Encrypt(pub_.get(), nullptr, out.data(), 20, &len));
  EXPECT_EQ(-2, KV_RSA_Encrypt(pub_.get(), msg.data(), out.data(), 20, nullptr));
  EXPECT_EQ(-2, KV_RSA_Decrypt(priv_.get(), nullptr, out.data(), 128, &len));
  EXPECT_EQ(Bytes(128, 0xee), out);
}

TEST_F(RsaV15, CiphertextChecks) {
  Bytes c(128, 0), out(128);
  unsigned int len = 0;
  EXPECT_EQ(-3, KV_RSA_Decrypt(priv_.get(), c.data(), out.data(), 127, &len));
  EXPECT_EQ(-3, KV_RSA_Decrypt(priv_.get(), c.data(), out.data(), 129, &len));
  // Not below the modulus.
  Bytes n = Key1024().part[KV_RSA_MODULUS];
  EXPECT_EQ(-104, KV_RSA_Decrypt(priv_.get(), n.data(), out.data(), 128, &len));
  EXPECT_EQ(-104, KV_RSA_Decrypt(pub_.get(), n.data(), out.data(), 128, &len));
  // A ciphertext that decrypts to a type-1 block is not a type-2 block.
  Bytes em(128, 0xff);
  em[0] = 0;
  em[1] = 1;
  em[100] = 0;
  ASSERT_EQ(0, KV_RSA_PublicBlock(pub_.get(), em.data(), 128, c.data(), &len));
  EXPECT_EQ(-105, KV_RSA_Decrypt(priv_.get(), c.data(), out.data(), 128, &len));
  // Fewer than eight padding octets.
  em.assign(128, 0x42);
  em[0] = 0;
  em[1] = 2;
  em[8] = 0;
  ASSERT_EQ(0, KV_RSA_PublicBlock(pub_.get(), em.data(), 128, c.data(), &len));
  EXPECT_EQ(-105, KV_RSA_Decrypt(priv_.get(), c.data(), out.data(), 128, &len));
  em[8] = 0x42;
  em[10] = 0;
  ASSERT_EQ(0, KV_RSA_PublicBlock(pub_.get(), em.data(), 128, c.data(), &len));
  ASSERT_EQ(0, KV_RSA_Decrypt(priv_.get(), c.data(), out.data(), 128, &len));
  EXPECT_EQ(117u, len);
}

TEST(RsaLimits, ModulusLengthBounds) {
  // 11 octets: too short for any padded operation.
  Key tiny;
  tiny.part[KV_RSA_MODULUS] = rsatest::Unhex("c1 23 45 67 89 ab cd ef 01 23 45");
  tiny.part[KV_RSA_PUBLIC_EXPONENT] = rsatest::Unhex("03");
  KV_RSA_CTX* ctx = nullptr;
  ASSERT_EQ(0, Load(tiny, 16, &ctx));
  kv::RsaCtxPtr hold(ctx);
  Bytes msg(1, 1), out(16), c(11, 0x01);
  unsigned int len = 0;
  EXPECT_EQ(-106, KV_RSA_Encrypt(ctx, msg.data(), out.data(), 1, &len));
  EXPECT_EQ(-106, KV_RSA_Decrypt(ctx, c.data(), out.data(), 11, &len));
  EXPECT_EQ(-106, KV_RSA_OaepEncrypt(ctx, msg.data(), 1, nullptr, 0, out.data(), &len));
  // The bare operation has no padding and so no lower limit.
  EXPECT_EQ(0, KV_RSA_PublicBlock(ctx, c.data(), 11, out.data(), &len));
  // 12 octets are accepted.
  tiny.part[KV_RSA_MODULUS].push_back(0x67);
  ASSERT_EQ(0, Load(tiny, 16, &ctx));
  kv::RsaCtxPtr hold12(ctx);
  EXPECT_EQ(0, KV_RSA_Encrypt(ctx, msg.data(), out.data(), 1, &len));
  EXPECT_EQ(-3, KV_RSA_Encrypt(ctx, msg.data(), out.data(), 2, &len));
}

TEST(RsaSignature, DigestKindsAndFailures) {
  auto priv = Key1024().LoadPrivate();
  auto pub = Key1024().LoadPublic();
  Bytes digest(32, 0x5c), sig(128);
  unsigned int len = 0;
  for (auto [kind, size] : {std::pair<int, unsigned>{KV_RSA_MD2, 16},
                            {KV_RSA_MD5, 16},
                            {KV_RSA_SHA1, 20},
                            {KV_RSA_SHA256, 32}}) {
    ASSERT_EQ(0, KV_RSA_SignDigest(priv.get(), kind, digest.data(), size, sig.data(), &len));
    EXPECT_EQ(0, KV_RSA_VerifyDigest(pub.get(), kind, digest.data(), size, sig.data(), 128));
    EXPECT_EQ(-2, KV_RSA_SignDigest(priv.get(), kind, digest.data(), size + 1, sig.data(), &len));
    // The digest kind is part of what is signed.
    int other = kind == KV_RSA_MD5 ? KV_RSA_MD2 : KV_RSA_MD5;
    EXPECT_EQ(-107, KV_RSA_VerifyDigest(pub.get(), other, digest.data(), 16, sig.data(), 128));
  }
  EXPECT_EQ(-109, KV_RSA_SignDigest(priv.get(), 99, digest.data(), 20, sig.data(), &len));
  EXPECT_EQ(-2, KV_RSA_SignDigest(pub.get(), KV_RSA_SHA1, digest.data(), 20, sig.data(), &len));
  EXPECT_EQ(-3, KV_RSA_VerifyDigest(pub.get(), KV_RSA_SHA1, digest.data(), 20, sig.data(), 127));
  Bytes n = Key1024().part[KV_RSA_MODULUS];
  EXPECT_EQ(-108, KV_RSA_VerifyDigest(pub.get(), KV_RSA_SHA1, digest.data(), 20, n.data(), 128));

  auto small = SmallKey().LoadPrivate();
  ASSERT_EQ(44u, KV_RSA_ModulusLength(small.get()));
  EXPECT_EQ(-113, KV_RSA_SignDigest(small.get(), KV_RSA_SHA1, digest.data(), 20, sig.data(), &len));
  EXPECT_EQ(-113, KV_RSA_SignDigest(small.get(), KV_RSA_MD5, digest.data(), 16, sig.data(), &len));
}

TEST(RsaOaep, LimitsParameterAndFailures) {
  auto priv = Key1024().LoadPrivate();
  auto pub = Key1024().LoadPublic();
  Bytes msg(87, 0x33), out(128), back(128);
  unsigned int len = 0;
  EXPECT_EQ(-111, KV_RSA_OaepEncrypt(pub.get(), msg.data(), 87, nullptr, 0, out.data(), &len));
  ASSERT_EQ(0, KV_RSA_OaepEncrypt(pub.get(), msg.data(), 86, nullptr, 0, out.data(), &len));
  ASSERT_EQ(0, KV_RSA_OaepDecrypt(priv.get(), out.data(), 128, nullptr, 0, back.data(), &len));
  EXPECT_EQ(Bytes(msg.begin(), msg.begin() + 86), Bytes(back.begin(), back.begin() + len));
  EXPECT_EQ(-2, KV_RSA_OaepDecrypt(pub.get(), out.data(), 128, nullptr, 0, back.data(), &len));
  EXPECT_EQ(-3, KV_RSA_OaepDecrypt(priv.get(), out.data(), 127, nullptr, 0, back.data(), &len));

  // An encoding parameter must match on both sides.
  Bytes label = rsatest::Unhex("6b6f7276616e7461");
  ASSERT_EQ(0, KV_RSA_OaepEncrypt(pub.get(), msg.data(), 5, label.data(), 8, out.data(), &len));
  EXPECT_EQ(-112, KV_RSA_OaepDecrypt(priv.get(), out.data(), 128, nullptr, 0, back.data(), &len));
  ASSERT_EQ(0, KV_RSA_OaepDecrypt(priv.get(), out.data(), 128, label.data(), 8, back.data(), &len));
  EXPECT_EQ(5u, len);
  // A v1.5 ciphertext is not an OAEP one.
  ASSERT_EQ(0, KV_RSA_Encrypt(pub.get(), msg.data(), out.data(), 5, &len));
  EXPECT_EQ(-112, KV_RSA_OaepDecrypt(priv.get(), out.data(), 128, nullptr, 0, back.data(), &len));
  // The 44-octet key leaves room for two message octets.
  auto small = SmallKey().LoadPrivate();
  EXPECT_EQ(-111, KV_RSA_OaepEncrypt(small.get(), msg.data(), 3, nullptr, 0, out.data(), &len));
  ASSERT_EQ(0, KV_RSA_OaepEncrypt(small.get(), msg.data(), 2, nullptr, 0, out.data(), &len));
  ASSERT_EQ(0, KV_RSA_OaepDecrypt(small.get(), out.data(), 44, nullptr, 0, back.data(), &len));
  EXPECT_EQ(2u, len);
}

TEST(RsaPrivateOperation, FaultIsCaughtByTheCheck) {
  auto priv = Key1024().LoadPrivate();
  // Corrupt dP after loading, as a computation fault would: the result no
  // longer matches the public operation and the output is wiped.
  priv->dp.d[0] ^= 4;
  Bytes in(128, 0x17), out(128, 0xaa), digest(20, 1);
  in[0] = 0;
  unsigned int len = 0;
  EXPECT_EQ(-12, KV_RSA_PrivateBlock(priv.get(), in.data(), 128, out.data(), &len));
  EXPECT_EQ(Bytes(128, 0), out);
  out.assign(128, 0xaa);
  EXPECT_EQ(-12, KV_RSA_Encrypt(priv.get(), in.data(), out.data(), 20, &len));
  EXPECT_EQ(Bytes(128, 0), out);
  out.assign(128, 0xaa);
  EXPECT_EQ(-12, KV_RSA_SignDigest(priv.get(), KV_RSA_SHA1, digest.data(), 20, out.data(), &len));
  EXPECT_EQ(Bytes(128, 0), out);
}

// Sizes the OpenSSL tests do not cover: odd lengths split into unequal primes.
TEST(RsaKeyGeneration, OddSizesAreExact) {
  for (int bits : {513, 768, 1023, 1025}) {
    KV_RSA_COMPONENT* block = nullptr;
    ASSERT_EQ(0, KV_RSA_GenerateKeyPair(bits, &block, nullptr)) << bits;
    kv::RsaKeyPairPtr hold(block);
    Key key = rsatest::FromBlock(block);
    EXPECT_EQ(bits, key.Bits());
    EXPECT_EQ(Bytes({1, 0, 1}), key.part[KV_RSA_PUBLIC_EXPONENT]);
    EXPECT_EQ(static_cast<size_t>((bits + 7) / 8), key.part[KV_RSA_MODULUS].size());
    EXPECT_TRUE(key.LoadPrivate());  // passes the consistency check
  }
}

int CountingSource(void* arg, unsigned char* buf, unsigned int len) {
  auto* state = static_cast<std::uint64_t*>(arg);
  for (unsigned int i = 0; i < len; ++i) {
    *state = *state * 6364136223846793005ull + 1442695040888963407ull;
    buf[i] = static_cast<unsigned char>(*state >> 56);
  }
  return 0;
}

int FailingSource(void*, unsigned char*, unsigned int) {
  return -1;
}

TEST(RsaKeyGeneration, RandomSourceAndCancel) {
  // The given source is the only randomness: the same seed gives the same key.
  std::uint64_t s1 = 1, s2 = 1, s3 = 2;
  KV_RSA_COMPONENT *a = nullptr, *b = nullptr, *c = nullptr;
  ASSERT_EQ(0, KV_RSA_GenerateKeyPairEx(512, &a, nullptr, CountingSource, &s1));
  ASSERT_EQ(0, KV_RSA_GenerateKeyPairEx(512, &b, nullptr, CountingSource, &s2));
  ASSERT_EQ(0, KV_RSA_GenerateKeyPairEx(512, &c, nullptr, CountingSource, &s3));
  kv::RsaKeyPairPtr ha(a), hb(b), hc(c);
  EXPECT_EQ(rsatest::FromBlock(a).part[KV_RSA_MODULUS], rsatest::FromBlock(b).part[KV_RSA_MODULUS]);
  EXPECT_NE(rsatest::FromBlock(a).part[KV_RSA_MODULUS], rsatest::FromBlock(c).part[KV_RSA_MODULUS]);

  KV_RSA_COMPONENT* os = nullptr;
  ASSERT_EQ(0, KV_RSA_GenerateKeyPairEx(1024, &os, nullptr, KV_RSA_OsRandom, nullptr));
  kv::RsaKeyPairPtr hos(os);
  EXPECT_TRUE(rsatest::FromBlock(os).LoadPrivate());

  KV_RSA_COMPONENT* none = nullptr;
  EXPECT_EQ(-11, KV_RSA_GenerateKeyPairEx(512, &none, nullptr, FailingSource, nullptr));
  EXPECT_EQ(-2, KV_RSA_GenerateKeyPairEx(512, &none, nullptr, nullptr, nullptr));
  volatile int cancel = 1;
  EXPECT_EQ(-11, KV_RSA_GenerateKeyPair(2048, &none, &cancel));
  EXPECT_EQ(nullptr, none);
  EXPECT_EQ(-102, KV_RSA_GenerateKeyPair(511, &none, nullptr));
  EXPECT_EQ(-102, KV_RSA_GenerateKeyPair(8193, &none, nullptr));
  EXPECT_EQ(-2, KV_RSA_GenerateKeyPair(1024, nullptr, nullptr));
}

// The same key with prime 1 < prime 2: the CRT recombination must reduce the
// second half's result modulo the first prime. y = prime1 + 5 lies between the
// primes, so its half modulo prime 2 is not below prime 1.
TEST(RsaPrivateOperation, SmallerFirstPrime) {
  const Key& key = TestKeys().at(1).key;
  auto priv = key.LoadPrivate();
  ASSERT_TRUE(priv);
  Bytes y(128, 0);
  const Bytes& p = key.part[KV_RSA_PRIME1];
  std::copy(p.begin(), p.end(), y.end() - p.size());
  for (int i = 127, carry = 5; carry && i >= 0; --i) {
    carry += y[i];
    y[i] = static_cast<std::uint8_t>(carry);
    carry >>= 8;
  }
  Bytes x(128), back(128);
  unsigned int len = 0;
  ASSERT_EQ(0, KV_RSA_PublicBlock(priv.get(), y.data(), 128, x.data(), &len));
  for (bool accelerate : {true, false}) {
    kv::internal::SetAccelerationAllowed(accelerate);
    int rc = KV_RSA_PrivateBlock(priv.get(), x.data(), 128, back.data(), &len);
    kv::internal::SetAccelerationAllowed(true);
    ASSERT_EQ(0, rc);
    EXPECT_EQ(y, back);
  }
}

// The portable code and the processor-specific code must agree; run the
// operations of every vector key both ways.
TEST(RsaAcceleration, PortablePathMatches) {
  auto keys = rsatest::ReadVectors(kVectors + "pkcs1v15sign-vectors.txt");
  ASSERT_FALSE(keys.empty());
  for (const auto& kv : keys) {
    auto priv = kv.key.LoadPrivate();
    const unsigned int k = KV_RSA_ModulusLength(priv.get());
    Bytes in(k, 0x3c), fast(k), slow(k), pub_fast(k), pub_slow(k);
    in[0] = 0;
    unsigned int len = 0;
    ASSERT_EQ(0, KV_RSA_PrivateBlock(priv.get(), in.data(), k, fast.data(), &len));
    ASSERT_EQ(0, KV_RSA_PublicBlock(priv.get(), in.data(), k, pub_fast.data(), &len));
    kv::internal::SetAccelerationAllowed(false);
    int rc1 = KV_RSA_PrivateBlock(priv.get(), in.data(), k, slow.data(), &len);
    int rc2 = KV_RSA_PublicBlock(priv.get(), in.data(), k, pub_slow.data(), &len);
    kv::internal::SetAccelerationAllowed(true);
    ASSERT_EQ(0, rc1);
    ASSERT_EQ(0, rc2);
    EXPECT_EQ(fast, slow) << kv.title;
    EXPECT_EQ(pub_fast, pub_slow) << kv.title;
  }
}

}  // namespace
