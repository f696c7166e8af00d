// The algorithm and key objects: identifiers in and out (read back by
// OpenSSL), RC2 versions, the session-key kinds, the key descriptor's -1007,
// PKCS#1 conversion against OpenSSL's DER, deep copies, and the GBK message
// table against Python's codec.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>

#include "asn1/asn_any.h"
#include "asn1/types/types.h"
#include "p11/p11_util.h"

namespace p11test {
namespace {

AlgorithmIdentifier Identifier(const char* oid, const AsnObject* params = nullptr) {
  AlgorithmIdentifier id;
  id.SetAlgorithm(AsnOid(oid));
  if (params) id.SetParameters(AsnAny(*params));
  return id;
}

AlgorithmIdentifier Rc2(int64_t version) {
  RC2_CBC_parameter p;
  p.SetRc2ParameterVersion(AsnInteger(version));
  p.SetIv(AsnOctetString("12345678", 8));
  return Identifier("1.2.840.113549.3.2", &p);
}

Bytes Der(const AsnObject& obj) {
  MiByteBuffer buf;
  obj.DerEncode(buf, 0);
  return B(buf.GetByte());
}

TEST(P11Alg, Identifiers) {
  int kind = 0, bits = 0;
  KV_P11_Alg fresh;
  fresh.getAlgType(kind);
  EXPECT_EQ(kind, -1);
  fresh.setAlgType(12);
  fresh.getAlgType(kind);
  EXPECT_EQ(kind, -1);
  // Written and read back to the same kind; OpenSSL names what we wrote.
  const char* names[] = {"sha1",
                         "md5",
                         "md2",
                         "des-cbc",
                         "des-ede3-cbc",
                         "rc2-cbc",
                         "rc4",
                         "rsaEncryption",
                         "sha1WithRSAEncryption",
                         "md5WithRSAEncryption",
                         "md2WithRSAEncryption"};
  for (int k = 1; k <= 11; ++k) {
    KV_P11_Alg a, back;
    a.setAlgType(k);
    MiByte iv = M(Bytes(8, 0x11));
    a.setIV(iv);
    a.setEffectiveBits(64);
    AlgorithmIdentifier id;
    ASSERT_EQ(a.getAlgorithmIdentifier(id), 0) << k;
    ASSERT_EQ(back.setAlgorithmIdentifier(id), 0) << k;
    back.getAlgType(kind);
    EXPECT_EQ(kind, k);
    if (!HaveOracles()) continue;
    std::string out;
    WriteScratch("alg.der", Der(id));
    Shell("openssl asn1parse -inform DER -in alg.der", &out);
    EXPECT_NE(out.find(std::string(":") + names[k - 1] + "\n"), std::string::npos) << out;
  }
  KV_P11_Alg alg;
  for (auto [version, expect] : {std::pair<int, int>{160, 40}, {120, 64}, {58, 128}}) {
    AlgorithmIdentifier id = Rc2(version), out;
    ASSERT_EQ(alg.setAlgorithmIdentifier(id), 0);
    alg.getEffectiveBits(bits);
    EXPECT_EQ(bits, expect);
    ASSERT_EQ(alg.getAlgorithmIdentifier(out), 0);
    EXPECT_EQ(Der(out), Der(id));
  }
  const AsnNull null;
  AlgorithmIdentifier v100 = Rc2(100), bare = Identifier("1.2.840.113549.3.2"),
                      withNull = Identifier("1.2.840.113549.3.2", &null),
                      sha256 = Identifier("2.16.840.1.101.3.4.2.1"), noOid;
  EXPECT_EQ(alg.setAlgorithmIdentifier(v100), -1006);
  alg.getAlgType(kind);
  EXPECT_EQ(kind, -1) << "a failed call leaves the object cleared";
  EXPECT_EQ(alg.setAlgorithmIdentifier(bare), -1016);
  EXPECT_EQ(alg.setAlgorithmIdentifier(withNull), -1016);
  EXPECT_EQ(alg.setAlgorithmIdentifier(sha256), -1006);
  EXPECT_EQ(alg.setAlgorithmIdentifier(noOid), -1001);
  AsnOctetString iv("abcdefgh", 8);
  AlgorithmIdentifier des = Identifier("1.3.14.3.2.7", &iv);
  ASSERT_EQ(alg.setAlgorithmIdentifier(des), 0);
  MiByte got;
  ASSERT_EQ(alg.getIV(got), 0);
  EXPECT_EQ(std::string(got.GetChars(), 8), "abcdefgh");
  MiByte emptyIv;
  EXPECT_EQ(alg.setIV(emptyIv), -1010);
}

TEST(P11Key, SessionKeysAndDescriptor) {
  struct Case {
    const char* oid;
    int size, kind;
  } cases[] = {
      {"1.3.14.3.2.7", 8, KV_KEY_DES},         {"1.2.840.113549.3.7", 16, KV_KEY_DES3_2KEY},
      {"1.2.840.113549.3.7", 24, KV_KEY_DES3}, {"1.2.840.113549.3.2", 5, KV_KEY_RC2},
      {"1.2.840.113549.3.4", 16, KV_KEY_RC4},  {"1.3.14.3.2.26", 16, -1}};
  for (const Case& c : cases) {
    KV_P11_Key k;
    k.setKeyType(KV_KEY_RSA_PUBLIC);
    MiByte bytes = M(Random(24, 1)), back;
    AlgorithmIdentifier id = Identifier(c.oid), out;
    ASSERT_EQ(k.setSessionKey(bytes, c.size, id), 0);
    int kind = 0, size = 0;
    k.getKeyType(kind);
    EXPECT_EQ(kind, c.kind) << c.oid << " " << c.size;
    ASSERT_EQ(k.getSessionKey(back, size, out), 0);
    EXPECT_EQ(B(back), B(bytes));
    EXPECT_EQ(size, c.size);
    if (c.kind > 0) {
      EXPECT_STREQ(out.GetAlgorithm()->GetData().GetChars(), c.oid);
    }
  }
  KV_P11_Key empty;
  MiByte back;
  int size = 0;
  AlgorithmIdentifier out;
  EXPECT_EQ(empty.getSessionKey(back, size, out), -1003);
  EXPECT_EQ(empty.setTokenKeyLabel(nullptr), -1010);

  // The RC2 size value may not exceed the key length; a token key needs only
  // its label.
  unsigned char k5[5] = {1, 2, 3, 4, 5}, *info = nullptr;
  KV_P11_Key rc2;
  KV_PKCS11_SESSION_KEY sk{k5, 5, 5};
  rc2.setSessionKey(&sk);
  rc2.setKeyType(KV_KEY_RC2);
  ASSERT_EQ(rc2.GetICKKIObj(&info, 1), 0);
  KV_P11_Key::FreeICKKIObj(info);
  sk.size = 6;
  rc2.setSessionKey(&sk);
  EXPECT_EQ(rc2.GetICKKIObj(&info, 1), -1007);
  KV_P11_Key token;
  token.setKeyType(KV_KEY_RSA_PRIVATE);
  EXPECT_EQ(token.GetICKKIObj(&info, 3), -1003);
  token.setTokenKeyLabel(U("label"));
  ASSERT_EQ(token.GetICKKIObj(&info, 3), 0);
  KV_P11_Key::FreeICKKIObj(info);
}

// OpenSSL's PKCS#1 DER in, our conversion out: the components are unsigned
// and the DER written again is OpenSSL's, octet for octet.
TEST(P11Key, Pkcs1AgainstOpenssl) {
  if (!HaveOracles()) GTEST_SKIP() << "needs openssl and python3-cryptography";
  const RsaKey& k = OpensslKey(1024);
  ASSERT_EQ(
      Shell("openssl rsa -in key1024.pem -traditional -outform DER -out k.der 2>/dev/null && "
            "openssl rsa -in key1024.pem -RSAPublicKey_out -outform DER -out p.der 2>/dev/null"),
      0);
  const Bytes privDer = ReadScratch("k.der"), pubDer = ReadScratch("p.der");
  RSAPrivateKey priv, privOut;
  RSAPublicKey pub, pubOut;
  priv.DerDecode(M(privDer), 0);
  pub.DerDecode(M(pubDer), 0);
  KV_P11_Key a, b;
  ASSERT_EQ(a.setRSAPrivateKey(priv), 0);
  ASSERT_EQ(b.setRSAPublicKey(pub), 0);
  int kinds[2];
  a.getKeyType(kinds[0]);
  b.getKeyType(kinds[1]);
  EXPECT_EQ(kinds[0], KV_KEY_RSA_PRIVATE);
  EXPECT_EQ(kinds[1], KV_KEY_RSA_PUBLIC);
  const std::vector<Bytes> comps = Components(a);
  ASSERT_EQ(comps.size(), 8u);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(Hex(comps[i]), Hex(k.comp[i])) << i;
  ASSERT_EQ(a.getRSAPrivateKey(privOut), 0);
  ASSERT_EQ(b.getRSAPublicKey(pubOut), 0);
  EXPECT_EQ(Hex(Der(privOut)), Hex(privDer));
  EXPECT_EQ(Hex(Der(pubOut)), Hex(pubDer));
  RSAPublicKey blank;
  KV_P11_Key none;
  EXPECT_EQ(none.setRSAPublicKey(blank), -1003);
  EXPECT_EQ(none.getRSAPrivateKey(privOut), -1003);
}

// Copies are deep: they outlive the source and keep every buffer.
TEST(P11Key, DeepCopies) {
  const RsaKey& k = OpensslKey(1024);
  auto* key = new KV_P11_Key(PrivateKey(k));
  key->setTokenKeyLabel(U("lbl"));
  unsigned char s[3] = {9, 8, 7};
  KV_PKCS11_SESSION_KEY sk{s, 3, 3};
  key->setSessionKey(&sk);
  KV_P11_Key copy(*key), assigned = PublicKey(k);
  assigned = *key;
  key->Reset();
  EXPECT_TRUE(Components(*key).empty());
  delete key;
  for (KV_P11_Key* c : {&copy, &assigned}) {
    EXPECT_STREQ(c->getTokenKeyLabel(), "lbl");
    EXPECT_EQ(Components(*c)[3], k.comp[3]);
    KV_PKCS11_SESSION_KEY out{};
    ASSERT_EQ(c->getSessionKey(&out), 0);
    EXPECT_EQ(Bytes(out.key, out.key + out.keyLen), Bytes(s, s + 3));
    T_free(out.key);
  }
  auto* alg = new KV_P11_Alg;
  MiByte iv = M(Bytes(8, 3)), got;
  alg->setIV(iv);
  KV_P11_Alg algCopy(*alg), algAssigned;
  algAssigned = *alg;
  delete alg;
  for (KV_P11_Alg* a : {&algCopy, &algAssigned}) {
    ASSERT_EQ(a->getIV(got), 0);
    EXPECT_EQ(B(got), Bytes(8, 3));
  }
}

TEST(P11Messages, GbkOctetsMatchPythonCodec) {
  std::string out;
  ASSERT_EQ(Shell(kPython + " -c \"import sys\nfor l in open(sys.argv[1], encoding='utf-8'):\n"
                            "  if l[0] != '#': s, t = l.rstrip().split('\\t'); print(s, "
                            "t.encode('gbk').hex())\" " KV_TEST_DATA_DIR "/p11/messages.txt",
                  &out),
            0);
  std::istringstream lines(out);
  int status = 0, count = 0;
  std::string hex;
  while (lines >> status >> hex) {
    const char* text = KV_P11_ErrorText(status);
    ASSERT_NE(text, nullptr) << status;
    EXPECT_EQ(Hex(Bytes(text, text + std::strlen(text))), hex) << status;
    ++count;
  }
  EXPECT_EQ(count, 22);
  EXPECT_EQ(KV_P11_ErrorText(-22), nullptr);
  EXPECT_EQ(KV_P11_ErrorText(1), nullptr);
}

}  // namespace
}  // namespace p11test
