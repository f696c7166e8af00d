// KV_P11_OP on the soft token: key-pair generation and its size rule, token
// objects kept by the chooser, the statuses of the failure table, copies.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "asn1/types/types.h"
#include "p11/p11_util.h"

namespace p11test {
namespace {

class SoftOp : public testing::Test {
 protected:
  void SetUp() override { OpenSoft(op_); }
  KV_P11_OP op_;
  MiByte pubLabel_ = M(std::string("pub")), privLabel_ = M(std::string("priv"));
};

// 768 and other sizes become 1024; OpenSSL checks a pair made in memory and
// verifies a signature made with it.
TEST_F(SoftOp, GenRSAKeyPairInMemory) {
  for (auto [asked, octets] : {std::pair<int, size_t>{512, 64}, {768, 128}, {2048, 256}}) {
    KV_P11_Key pub, priv;
    ASSERT_EQ(op_.GenRSAKeyPair(pub, pubLabel_, priv, privLabel_, asked, 0), 0) << asked;
    int kinds[2];
    pub.getKeyType(kinds[0]);
    priv.getKeyType(kinds[1]);
    EXPECT_EQ(kinds[0], KV_KEY_RSA_PUBLIC);
    EXPECT_EQ(kinds[1], KV_KEY_RSA_PRIVATE);
    const std::vector<Bytes> p = Components(pub), v = Components(priv);
    ASSERT_EQ(v.size(), 8u);
    EXPECT_EQ(p[0].size(), octets);
    EXPECT_EQ(p[0], v[0]);
    EXPECT_EQ(Hex(p[1]), "010001");
    if (asked != 2048 || !HaveOracles()) continue;
    const RsaKey k = KeyFromComponents(v);
    std::string out;
    EXPECT_EQ(Shell("openssl rsa -check -noout -in " + k.privPem + " 2>&1", &out), 0) << out;
    KV_P11_Alg alg;
    alg.setAlgType(KV_ALG_SHA1_RSA);
    MiByte msg = M(std::string("generated")), sig;
    ASSERT_EQ(op_.Sign(alg, priv, msg, sig), 0);
    WriteScratch("gen.sig", B(sig));
    int rc = 0;
    Openssl("dgst -sha1 -verify " + k.pubPem + " -signature gen.sig", B(msg), &rc);
    EXPECT_EQ(rc, 0);
  }
}

// On the soft token's object store: labels, the public key read back, the
// private key used by reference, key-pair checks and certificates.
TEST_F(SoftOp, TokenObjects) {
  KV_P11_Key pub, priv, p2, v2;
  ASSERT_EQ(op_.GenRSAKeyPair(pub, pubLabel_, priv, privLabel_, 1024, 7), 0);  // any nonzero
  EXPECT_TRUE(priv.isTokenKey());
  EXPECT_STREQ(priv.getTokenKeyLabel(), "priv");
  EXPECT_TRUE(Components(priv).empty()) << "the private half stays on the token";
  EXPECT_TRUE(op_.CheckLabelExistInToken(U("pub"), 3, KV_OBJ_PUBLIC_KEY));
  EXPECT_TRUE(op_.CheckLabelExistInToken(U("priv"), 4, KV_OBJ_PRIVATE_KEY));
  EXPECT_FALSE(op_.CheckLabelExistInToken(U("pub"), 3, KV_OBJ_PRIVATE_KEY));
  EXPECT_FALSE(op_.CheckLabelExistInToken(U("pub"), 3, 4));
  MiByte other = M(std::string("other"));
  EXPECT_EQ(op_.GenRSAKeyPair(p2, pubLabel_, v2, other, 1024, 1), -1029);
  EXPECT_EQ(op_.GenRSAKeyPair(p2, other, v2, privLabel_, 1024, 1), -1030);
  EXPECT_EQ(op_.GenRSAKeyPair(p2, pubLabel_, v2, privLabel_, 512, 0), 0) << "not looked up";

  KV_P11_Key hard;
  ASSERT_EQ(op_.GetHardPubKey(pubLabel_, hard), 0);
  EXPECT_EQ(Components(hard), Components(pub));
  KV_P11_Alg alg;
  alg.setAlgType(KV_ALG_SHA1_RSA);
  MiByte msg = M(std::string("on token")), sig;
  ASSERT_EQ(op_.Sign(alg, priv, msg, sig), 0);
  EXPECT_EQ(op_.Verify(alg, hard, msg, sig), 0);
  MiByte nobody = M(std::string("nobody")), empty;
  EXPECT_EQ(op_.GetHardPubKey(nobody, hard), -19);
  EXPECT_EQ(op_.GetHardPubKey(empty, hard), -1010);
  KV_P11_Key ghost;
  ghost.setKeyType(KV_KEY_RSA_PRIVATE);
  ghost.setTokenKeyLabel(U("nobody"));
  EXPECT_EQ(op_.Sign(alg, ghost, msg, sig), -19);

  RSAPublicKey mine, theirs, blank;
  ASSERT_EQ(pub.getRSAPublicKey(mine), 0);
  ASSERT_EQ(p2.getRSAPublicKey(theirs), 0);
  EXPECT_TRUE(op_.CheckRSAKeyPair(mine, U("priv"), 4));
  EXPECT_FALSE(op_.CheckRSAKeyPair(theirs, U("priv"), 4));
  EXPECT_FALSE(op_.CheckRSAKeyPair(mine, U("pub"), 3));
  EXPECT_FALSE(op_.CheckRSAKeyPair(mine, U("priv"), 0));
  EXPECT_FALSE(op_.CheckRSAKeyPair(blank, U("priv"), 4));

  unsigned char der[] = {0x30, 0x03, 0x02, 0x01, 0x05}, out[5] = {};
  unsigned len = 99;
  EXPECT_EQ(op_.GetCertFromToken(U("cert"), 4, nullptr, &len), 0);
  EXPECT_EQ(len, 0u) << "missing: 0 with length 0";
  EXPECT_EQ(op_.SetCertIntoToken(U("cert"), 4, der, 5), 0);
  EXPECT_EQ(op_.SetCertIntoToken(U("cert"), 4, der, 5), -1028);
  EXPECT_TRUE(op_.CheckLabelExistInToken(U("cert"), 4, KV_OBJ_CERTIFICATE));
  ASSERT_EQ(op_.GetCertFromToken(U("cert"), 4, nullptr, &len), 0);
  ASSERT_EQ(len, 5u);
  ASSERT_EQ(op_.GetCertFromToken(U("cert"), 4, out, &len), 0);
  EXPECT_EQ(std::memcmp(out, der, 5), 0);
  EXPECT_EQ(op_.GetCertFromToken(U("cert"), 3, nullptr, &len), 0);
  EXPECT_EQ(len, 0u) << "a prefix of the label is another label";

  KV_P11_OP second;
  OpenSoft(second);
  EXPECT_FALSE(second.CheckLabelExistInToken(U("pub"), 3, KV_OBJ_PUBLIC_KEY)) << "per chooser";
}

// Each status from a call that produces it.
TEST_F(SoftOp, FailureTable) {
  KV_P11_Key pub, priv;
  MiByte empty;
  EXPECT_EQ(op_.GenRSAKeyPair(pub, empty, priv, privLabel_, 512, 0), -1010);
  EXPECT_EQ(op_.GenRSAKeyPair(pub, pubLabel_, priv, empty, 512, 0), -1010);
  unsigned char der[] = {0x30, 0x00};
  unsigned len = 0;
  EXPECT_EQ(op_.SetCertIntoToken(nullptr, 1, der, 2), -1010);
  EXPECT_EQ(op_.SetCertIntoToken(U("c"), 0, der, 2), -1010);
  EXPECT_EQ(op_.SetCertIntoToken(U("c"), 1, nullptr, 2), -1010);
  EXPECT_EQ(op_.SetCertIntoToken(U("c"), 1, der, 0), -1010);
  EXPECT_EQ(op_.GetCertFromToken(nullptr, 1, der, &len), -1010);
  EXPECT_EQ(op_.GetCertFromToken(U("c"), 1, der, nullptr), -1010);

  auto session = [](int kind, Bytes bytes, int size) {
    KV_P11_Key k;
    KV_PKCS11_SESSION_KEY sk{bytes.data(), unsigned(bytes.size()), size};
    k.setSessionKey(&sk);
    k.setKeyType(kind);
    return k;
  };
  auto alg = [](int kind, size_t ivLen) {
    KV_P11_Alg a;
    a.setAlgType(kind);
    MiByte iv = M(Bytes(ivLen, 1));
    if (ivLen) a.setIV(iv);
    return a;
  };
  const RsaKey& rsa = OpensslKey(1024);
  RsaKey broken = rsa;
  broken.comp[7].back() ^= 1;  // coefficient no longer matches the primes
  Bytes e = {1, 0, 1}, n11(11, 0xff), even(64, 0xfe);
  KV_PKCS11_RSA_PUBLIC_KEY tiny{n11.data(), 11, e.data(), 3}, evenN{even.data(), 64, e.data(), 3};
  KV_P11_Key none, bare, tinyKey, evenKey;
  bare.setKeyType(KV_KEY_DES);
  tinyKey.setPublicKey(&tiny);
  evenKey.setPublicKey(&evenN);
  KV_P11_Key des = session(KV_KEY_DES, Bytes(8, 2), 8);
  struct Case {
    int expect;
    KV_P11_Alg alg;
    KV_P11_Key key;
    bool sign;
  } cases[] = {
      {-1006, alg(KV_ALG_DES_CBC, 8), none, false},  // no key kind
      {-1003, alg(KV_ALG_DES_CBC, 8), bare, false},  // kind without material
      {-1007, alg(KV_ALG_RC2_CBC, 8), session(KV_KEY_RC2, Bytes(5, 1), 6), false},
      {-5, alg(0, 8), des, false},                          // algorithm not set
      {-6, alg(KV_ALG_SHA1, 0), des, false},                // a digest is no cipher
      {-6, alg(KV_ALG_DES_CBC, 8), des, true},              // nor a signature
      {-8, alg(KV_ALG_DES_CBC, 0), des, false},             // no IV
      {-8, alg(KV_ALG_DES_CBC, 7), des, false},             // IV of 7 octets
      {-7, alg(KV_ALG_DES_EDE3_CBC, 8), des, false},        // 8 octets: no triple DES key
      {-4, alg(KV_ALG_SHA1_RSA, 0), des, true},             // a session key cannot sign
      {-4, alg(KV_ALG_SHA1_RSA, 0), PublicKey(rsa), true},  // nor a public key
      {-106, alg(KV_ALG_RSA, 0), tinyKey, false},           // engine codes pass through
      {-10, alg(KV_ALG_RSA, 0), evenKey, false},
      {-14, alg(KV_ALG_SHA1_RSA, 0), PrivateKey(broken), true},
  };
  MiByte in = M(std::string("data")), out;
  for (Case& c : cases) {
    EXPECT_EQ(c.sign ? op_.Sign(c.alg, c.key, in, out) : op_.Encrypt(c.alg, c.key, in, out),
              c.expect);
  }
  KV_P11_Alg noKind, des8 = alg(KV_ALG_DES_CBC, 8);
  EXPECT_EQ(op_.Digest(noKind, in, out), -5);
  EXPECT_EQ(op_.Digest(des8, in, out), -6);
  EXPECT_EQ(op_.GenerateRandom(out, -1, empty), -2);

  KV_P11_OP closed;
  KV_P11_Alg sha1 = alg(KV_ALG_SHA1, 0);
  EXPECT_EQ(closed.createChooser(nullptr), -2);
  EXPECT_EQ(closed.Digest(sha1, in, out), -15);
  KV_PKCS11_S moduleOnly{KV_P11_STORE_MODULE, nullptr, 0, nullptr, 0};
  EXPECT_LT(closed.createChooser(&moduleOnly), 0) << "no module is loaded";
  KV_PKCS11_S automatic{KV_P11_STORE_AUTO, U("any"), 3, U("1234"), 4};
  ASSERT_EQ(closed.createChooser(&automatic), 0) << "falls back to the soft token";
  EXPECT_FALSE(closed.onModule());
  EXPECT_EQ(closed.Digest(sha1, in, out), 0);
  closed.destroyChooser();
  EXPECT_EQ(closed.Encrypt(des8, des, in, out), -15);
}

TEST_F(SoftOp, RandomWithSeed) {
  MiByte a, b, seed = M(std::string("same seed"));
  ASSERT_EQ(op_.GenerateRandom(a, 1000, seed), 0);
  ASSERT_EQ(op_.GenerateRandom(b, 1000, seed), 0);
  EXPECT_EQ(a.GetLength(), 1000u);
  EXPECT_NE(B(a), B(b)) << "a seed adds to the system's randomness, never replaces it";
  ASSERT_EQ(op_.GenerateRandom(a, 0, seed), 0);
  EXPECT_TRUE(a.Empty());
}

// A copy opens its own chooser and works after the source is gone.
TEST_F(SoftOp, Copies) {
  KV_P11_Alg sha1;
  sha1.setAlgType(KV_ALG_SHA1);
  MiByte in = M(std::string("abc")), out;
  auto* source = new KV_P11_OP;
  KV_PKCS11_S s{KV_P11_STORE_SOFT, U("label"), 5, U("pin"), 3};
  ASSERT_EQ(source->createChooser(&s), 0);
  KV_P11_OP copy(*source), assigned;
  assigned = *source;
  KV_P11_OP& alias = assigned;
  assigned = alias;
  delete source;
  for (KV_P11_OP* op : {&copy, &assigned}) {
    ASSERT_EQ(op->Digest(sha1, in, out), 0);
    EXPECT_EQ(Hex(B(out)), "a9993e364706816aba3e25717850c26c9cd0d89d");
  }
  KV_P11_OP unopened, copyOfUnopened(unopened);
  EXPECT_EQ(copyOfUnopened.Digest(sha1, in, out), -15);
  copy.Reset();
  EXPECT_EQ(copy.Digest(sha1, in, out), -15);
}

}  // namespace
}  // namespace p11test
