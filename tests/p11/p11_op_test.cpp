// KV_P11_OP on the soft token: key-pair generation and its size rule, the
// in-memory token objects, every status of the failure table that the API
// can reach, and copies of the operation object.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "asn1/types/types.h"
#include "p11/p11_util.h"

namespace p11test {
namespace {

unsigned char* U(const char* s) {
  return reinterpret_cast<unsigned char*>(const_cast<char*>(s));
}

class SoftOp : public testing::Test {
 protected:
  void SetUp() override { OpenSoft(op_); }
  KV_P11_OP op_;
};

// Size rule and the generated material: OpenSSL checks the private key made
// in memory and verifies a signature made with it.
TEST_F(SoftOp, GenRSAKeyPairSizesAndOpensslCheck) {
  for (auto [asked, made] :
       {std::pair<int, unsigned>{512, 64}, {2048, 256}, {768, 128}, {0, 128}}) {
    KV_P11_Key pub, priv;
    MiByte pl = M(std::string("pub")), vl = M(std::string("priv"));
    ASSERT_EQ(op_.GenRSAKeyPair(pub, pl, priv, vl, asked, 0), 0) << asked;
    int kind = 0;
    pub.getKeyType(kind);
    EXPECT_EQ(kind, KV_KEY_RSA_PUBLIC);
    priv.getKeyType(kind);
    EXPECT_EQ(kind, KV_KEY_RSA_PRIVATE);
    EXPECT_FALSE(priv.isTokenKey());
    std::vector<Bytes> p = Components(pub), v = Components(priv);
    ASSERT_EQ(p.size(), 2u);
    ASSERT_EQ(v.size(), 8u);
    EXPECT_EQ(p[0].size(), made) << asked;
    EXPECT_EQ(Hex(p[1]), "010001");
    EXPECT_EQ(p[0], v[0]);
    if (asked != 2048 || !HaveOpenssl() || !HavePython("cryptography")) continue;
    const RsaKey k = KeyFromComponents(v.data(), 8);
    std::string out;
    EXPECT_EQ(Shell("openssl rsa -check -noout -in '" + k.privPem + "' 2>&1", &out), 0) << out;
    KV_P11_Alg alg;
    alg.setAlgType(KV_ALG_SHA1_RSA);
    MiByte msg = M(std::string("generated")), sig;
    ASSERT_EQ(op_.Sign(alg, priv, msg, sig), 0);
    WriteScratch("gen.sig", B(sig));
    int rc = 0;
    Openssl("dgst -sha1 -verify '" + k.pubPem + "' -signature gen.sig", B(msg), &rc);
    EXPECT_EQ(rc, 0);
  }
}

TEST_F(SoftOp, TokenKeysLiveInTheChooser) {
  KV_P11_Key pub, priv;
  MiByte pl = M(std::string("sig-pub")), vl = M(std::string("sig-priv"));
  ASSERT_EQ(op_.GenRSAKeyPair(pub, pl, priv, vl, 1024, 7), 0);  // any nonzero is "on token"
  EXPECT_TRUE(priv.isTokenKey());
  EXPECT_STREQ(priv.getTokenKeyLabel(), "sig-priv");
  int kind = 0;
  priv.getKeyType(kind);
  EXPECT_EQ(kind, KV_KEY_RSA_PRIVATE);
  EXPECT_EQ(Components(priv).size(), 0u) << "the private half stays on the token";

  EXPECT_TRUE(op_.CheckLabelExistInToken(U("sig-pub"), 7, KV_OBJ_PUBLIC_KEY));
  EXPECT_TRUE(op_.CheckLabelExistInToken(U("sig-priv"), 8, KV_OBJ_PRIVATE_KEY));
  EXPECT_FALSE(op_.CheckLabelExistInToken(U("sig-pub"), 7, KV_OBJ_PRIVATE_KEY));
  EXPECT_FALSE(op_.CheckLabelExistInToken(U("sig-pub"), 7, KV_OBJ_CERTIFICATE));
  EXPECT_FALSE(op_.CheckLabelExistInToken(U("sig-pub"), 7, 4));
  EXPECT_FALSE(op_.CheckLabelExistInToken(U("sig-pub"), 0, KV_OBJ_PUBLIC_KEY));

  // Taken labels.
  KV_P11_Key p2, v2;
  MiByte other = M(std::string("other"));
  EXPECT_EQ(op_.GenRSAKeyPair(p2, pl, v2, other, 1024, 1), -1029);
  EXPECT_EQ(op_.GenRSAKeyPair(p2, other, v2, vl, 1024, 1), -1030);
  EXPECT_EQ(op_.GenRSAKeyPair(p2, pl, v2, vl, 512, 0), 0)
      << "in memory the labels are not looked up";

  // The token key signs; the public key read back verifies.
  KV_P11_Key hard;
  ASSERT_EQ(op_.GetHardPubKey(pl, hard), 0);
  hard.getKeyType(kind);
  EXPECT_EQ(kind, KV_KEY_RSA_PUBLIC);
  EXPECT_EQ(Components(hard), Components(pub));
  KV_P11_Alg alg;
  alg.setAlgType(KV_ALG_SHA1_RSA);
  MiByte msg = M(std::string("on token")), sig;
  ASSERT_EQ(op_.Sign(alg, priv, msg, sig), 0);
  EXPECT_EQ(op_.Verify(alg, hard, msg, sig), 0);
  MiByte missing = M(std::string("nobody"));
  EXPECT_EQ(op_.GetHardPubKey(missing, hard), -19);
  MiByte empty;
  EXPECT_EQ(op_.GetHardPubKey(empty, hard), -1010);
  KV_P11_Key ghost;
  ghost.setKeyType(KV_KEY_RSA_PRIVATE);
  ghost.setTokenKeyLabel(U("nobody"));
  EXPECT_EQ(op_.Sign(alg, ghost, msg, sig), -19);

  // Key pair check against the private key's label.
  RSAPublicKey rpub, rother;
  ASSERT_EQ(pub.getRSAPublicKey(rpub), 0);
  ASSERT_EQ(p2.getRSAPublicKey(rother), 0);
  EXPECT_TRUE(op_.CheckRSAKeyPair(rpub, U("sig-priv"), 8));
  EXPECT_FALSE(op_.CheckRSAKeyPair(rother, U("sig-priv"), 8));
  EXPECT_FALSE(op_.CheckRSAKeyPair(rpub, U("sig-pub"), 7));
  EXPECT_FALSE(op_.CheckRSAKeyPair(rpub, U("sig-priv"), 0));
  RSAPublicKey blank;
  EXPECT_FALSE(op_.CheckRSAKeyPair(blank, U("sig-priv"), 8));

  // Another chooser has its own objects.
  KV_P11_OP second;
  OpenSoft(second);
  EXPECT_FALSE(second.CheckLabelExistInToken(U("sig-pub"), 7, KV_OBJ_PUBLIC_KEY));
}

TEST_F(SoftOp, Certificates) {
  unsigned char der[] = {0x30, 0x03, 0x02, 0x01, 0x05};
  unsigned len = 99;
  EXPECT_EQ(op_.GetCertFromToken(U("cert"), 4, nullptr, &len), 0);
  EXPECT_EQ(len, 0u) << "missing: 0 with length 0";
  EXPECT_EQ(op_.SetCertIntoToken(U("cert"), 4, der, sizeof der), 0);
  EXPECT_TRUE(op_.CheckLabelExistInToken(U("cert"), 4, KV_OBJ_CERTIFICATE));
  EXPECT_EQ(op_.SetCertIntoToken(U("cert"), 4, der, sizeof der), -1028);
  ASSERT_EQ(op_.GetCertFromToken(U("cert"), 4, nullptr, &len), 0);
  ASSERT_EQ(len, sizeof der);
  unsigned char out[sizeof der] = {};
  ASSERT_EQ(op_.GetCertFromToken(U("cert"), 4, out, &len), 0);
  EXPECT_EQ(std::memcmp(out, der, sizeof der), 0);
  // The label is the given bytes, not a prefix of them.
  EXPECT_EQ(op_.GetCertFromToken(U("cert"), 3, nullptr, &len), 0);
  EXPECT_EQ(len, 0u);

  EXPECT_EQ(op_.SetCertIntoToken(nullptr, 4, der, sizeof der), -1010);
  EXPECT_EQ(op_.SetCertIntoToken(U("c2"), 0, der, sizeof der), -1010);
  EXPECT_EQ(op_.SetCertIntoToken(U("c2"), 2, nullptr, sizeof der), -1010);
  EXPECT_EQ(op_.SetCertIntoToken(U("c2"), 2, der, 0), -1010);
  EXPECT_EQ(op_.GetCertFromToken(nullptr, 4, out, &len), -1010);
  EXPECT_EQ(op_.GetCertFromToken(U("cert"), 4, out, nullptr), -1010);
}

// The object layer's statuses, each from the call that produces it.
TEST_F(SoftOp, FailureTable) {
  KV_P11_Key pub, priv;
  MiByte label = M(std::string("x")), empty;
  EXPECT_EQ(op_.GenRSAKeyPair(pub, empty, priv, label, 512, 0), -1010);
  EXPECT_EQ(op_.GenRSAKeyPair(pub, label, priv, empty, 512, 0), -1010);

  KV_P11_Alg des;
  des.setAlgType(KV_ALG_DES_CBC);
  MiByte iv = M(Bytes(8, 1)), in = M(std::string("data")), out;
  des.setIV(iv);
  KV_P11_Key noKey;  // no kind: -1006
  EXPECT_EQ(op_.Encrypt(des, noKey, in, out), -1006);
  KV_P11_Key bare;  // a kind without its material: -1003
  bare.setKeyType(KV_KEY_DES);
  EXPECT_EQ(op_.Encrypt(des, bare, in, out), -1003);
  bare.setKeyType(KV_KEY_RSA_PUBLIC);
  EXPECT_EQ(op_.Encrypt(des, bare, in, out), -1003);
  bare.setKeyType(KV_KEY_RSA_PRIVATE);
  EXPECT_EQ(op_.Sign(des, bare, in, out), -1003);
  KV_P11_Key rc2;  // size value above the key length: -1007
  unsigned char k5[5] = {1, 2, 3, 4, 5};
  KV_PKCS11_SESSION_KEY sk{k5, 5, 6};
  rc2.setSessionKey(&sk);
  rc2.setKeyType(KV_KEY_RC2);
  EXPECT_EQ(op_.Encrypt(des, rc2, in, out), -1007);

  // Statuses of the soft token.
  KV_P11_Key desKey;
  unsigned char k8[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  KV_PKCS11_SESSION_KEY s8{k8, 8, 8};
  desKey.setSessionKey(&s8);
  desKey.setKeyType(KV_KEY_DES);
  KV_P11_Alg none;
  EXPECT_EQ(op_.Encrypt(none, desKey, in, out), -5);
  EXPECT_EQ(op_.Digest(none, in, out), -5);
  KV_P11_Alg sha1;
  sha1.setAlgType(KV_ALG_SHA1);
  EXPECT_EQ(op_.Encrypt(sha1, desKey, in, out), -6);
  EXPECT_EQ(op_.Digest(des, in, out), -6);
  EXPECT_EQ(op_.Sign(des, desKey, in, out), -6);
  KV_P11_Alg noIv;
  noIv.setAlgType(KV_ALG_DES_CBC);
  EXPECT_EQ(op_.Encrypt(noIv, desKey, in, out), -8);
  KV_P11_Alg triple;
  triple.setAlgType(KV_ALG_DES_EDE3_CBC);
  triple.setIV(iv);
  EXPECT_EQ(op_.Encrypt(triple, desKey, in, out), -7) << "an 8-byte key is no triple DES key";
  KV_P11_Alg sig;
  sig.setAlgType(KV_ALG_SHA1_RSA);
  EXPECT_EQ(op_.Sign(sig, desKey, in, out), -4);
  const RsaKey& k = OpensslKey(1024);
  KV_P11_Key pubOnly = PublicKey(k);
  EXPECT_EQ(op_.Sign(sig, pubOnly, in, out), -4) << "signing needs the private key";
  // RSA engine codes come through unchanged.
  Bytes shortN(11, 0xff);
  Bytes e{1, 0, 1};
  KV_PKCS11_RSA_PUBLIC_KEY tiny{shortN.data(), 11, e.data(), 3};
  KV_P11_Key tinyKey;
  tinyKey.setPublicKey(&tiny);
  KV_P11_Alg rsa;
  rsa.setAlgType(KV_ALG_RSA);
  EXPECT_EQ(op_.Encrypt(rsa, tinyKey, in, out), -106);
  Bytes evenN(64, 0xfe);
  KV_PKCS11_RSA_PUBLIC_KEY even{evenN.data(), 64, e.data(), 3};
  KV_P11_Key evenKey;
  evenKey.setPublicKey(&even);
  EXPECT_EQ(op_.Encrypt(rsa, evenKey, in, out), -10);
  Bytes wrongQinv = k.comp[7];
  wrongQinv.back() ^= 1;
  RsaKey broken = k;
  broken.comp[7] = wrongQinv;
  KV_P11_Key brokenKey = PrivateKey(broken);
  EXPECT_EQ(op_.Sign(sig, brokenKey, in, out), -14);

  // The big operations refuse a partial block.
  KV_P11_Key privKey = PrivateKey(k), pubKey = PublicKey(k);
  MiByte ct;
  MiByte longIn = M(Random(300, 1));
  ASSERT_EQ(op_.RSABigEncrypt(pubKey, longIn, ct), 0);
  EXPECT_EQ(ct.GetLength(), 3 * k.ModulusBytes());  // 300 octets in chunks of k - 11
  MiByte back;
  ASSERT_EQ(op_.RSABigDecrypt(privKey, ct, back), 0);
  EXPECT_EQ(B(back), B(longIn));
  Bytes cut = B(ct);
  cut.pop_back();
  MiByte partial = M(cut);
  EXPECT_EQ(op_.RSABigDecrypt(privKey, partial, back), -3);

  // Creating and using the chooser.
  KV_P11_OP closed;
  EXPECT_EQ(closed.createChooser(nullptr), -2);
  EXPECT_EQ(closed.Digest(sha1, in, out), -15);
  EXPECT_EQ(closed.Encrypt(des, desKey, in, out), -15);
  KV_PKCS11_S onlyModule{KV_P11_STORE_MODULE, nullptr, 0, nullptr, 0};
  EXPECT_LT(closed.createChooser(&onlyModule), 0) << "no module is loaded";
  EXPECT_EQ(closed.Digest(sha1, in, out), -15);
  KV_PKCS11_S automatic{KV_P11_STORE_AUTO, U("any"), 3, U("1234"), 4};
  ASSERT_EQ(closed.createChooser(&automatic), 0);
  EXPECT_FALSE(closed.onModule());
  EXPECT_EQ(closed.Digest(sha1, in, out), 0);
  EXPECT_EQ(closed.destroyChooser(), 0);
  EXPECT_EQ(closed.Digest(sha1, in, out), -15);
}

TEST_F(SoftOp, RandomAndSeed) {
  MiByte a, b, seed, out;
  ASSERT_EQ(op_.GenerateRandom(a, 64, seed), 0);
  ASSERT_EQ(op_.GenerateRandom(b, 64, seed), 0);
  EXPECT_EQ(a.GetLength(), 64u);
  EXPECT_NE(B(a), B(b));
  MiByte fixed = M(std::string("same seed"));
  ASSERT_EQ(op_.GenerateRandom(a, 1000, fixed), 0);
  ASSERT_EQ(op_.GenerateRandom(b, 1000, fixed), 0);
  EXPECT_NE(B(a), B(b)) << "a seed adds to the system's randomness, never replaces it";
  ASSERT_EQ(op_.GenerateRandom(out, 0, seed), 0);
  EXPECT_EQ(out.GetLength(), 0u);
  EXPECT_EQ(op_.GenerateRandom(out, -1, seed), -2);
}

// A copy opens its own chooser and keeps working after the source is gone;
// assignment and copy construction behave alike.
TEST_F(SoftOp, CopiesOpenTheirOwnChooser) {
  KV_P11_Alg sha1;
  sha1.setAlgType(KV_ALG_SHA1);
  MiByte in = M(std::string("abc")), out;
  auto* source = new KV_P11_OP;
  KV_PKCS11_S s{KV_P11_STORE_SOFT, U("label"), 5, U("pin"), 3};
  ASSERT_EQ(source->createChooser(&s), 0);
  unsigned char der[] = {0x30, 0x00};
  ASSERT_EQ(source->SetCertIntoToken(U("c"), 1, der, 2), 0);
  KV_P11_OP copy(*source);
  KV_P11_OP assigned;
  assigned = *source;
  KV_P11_OP& alias = assigned;
  assigned = alias;  // self-assignment keeps the chooser
  delete source;
  for (KV_P11_OP* op : {&copy, &assigned}) {
    ASSERT_EQ(op->Digest(sha1, in, out), 0);
    EXPECT_EQ(Hex(B(out)), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_FALSE(op->CheckLabelExistInToken(U("c"), 1, KV_OBJ_CERTIFICATE));
  }
  KV_P11_OP unopened, copyOfUnopened(unopened);
  EXPECT_EQ(copyOfUnopened.Digest(sha1, in, out), -15);
  copy.Reset();
  EXPECT_EQ(copy.Digest(sha1, in, out), -15);
}

}  // namespace
}  // namespace p11test
