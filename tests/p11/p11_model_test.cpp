// The algorithm and key objects: the kind tables, AlgorithmIdentifier in and
// out (checked against OpenSSL's parser), the session-key kind derivation, the
// key descriptor rules, PKCS#1 key conversion and deep copies.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "asn1/asn_any.h"
#include "asn1/types/types.h"
#include "crypto/internal/p11_core.h"
#include "p11/p11_util.h"

namespace p11test {
namespace {

AlgorithmIdentifier Identifier(const char* oid) {
  AlgorithmIdentifier id;
  id.SetAlgorithm(AsnOid(oid));
  return id;
}

AlgorithmIdentifier Rc2Identifier(int64_t version, const Bytes& iv) {
  RC2_CBC_parameter p;
  p.SetRc2ParameterVersion(AsnInteger(version));
  MiByte m = M(iv);
  p.SetIv(AsnOctetString(m));
  AlgorithmIdentifier id = Identifier("1.2.840.113549.3.2");
  id.SetParameters(AsnAny(p));
  return id;
}

Bytes Der(const AsnObject& obj) {
  MiByteBuffer buf;
  obj.DerEncode(buf, 0);
  const MiByte b = buf.GetByte();
  return B(b);
}

TEST(P11Alg, KindsAndIdentifiers) {
  KV_P11_Alg alg;
  int kind = 0;
  alg.getAlgType(kind);
  EXPECT_EQ(kind, -1) << "fresh";
  for (int v : {0, 12, -7}) {
    alg.setAlgType(v);
    alg.getAlgType(kind);
    EXPECT_EQ(kind, -1) << v;
  }
  // Each kind's identifier goes out and comes back to the same kind, and
  // OpenSSL names the object identifier written.
  const char* names[] = {nullptr,
                         "sha1",
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
    KV_P11_Alg a;
    a.setAlgType(k);
    MiByte iv = M(Bytes(8, 0x11));
    a.setIV(iv);
    a.setEffectiveBits(64);
    AlgorithmIdentifier id;
    ASSERT_EQ(a.getAlgorithmIdentifier(id), 0) << k;
    KV_P11_Alg back;
    ASSERT_EQ(back.setAlgorithmIdentifier(id), 0) << k;
    back.getAlgType(kind);
    EXPECT_EQ(kind, k);
    if (!HaveOpenssl()) continue;
    std::string out;
    WriteScratch("alg.der", Der(id));
    Shell("openssl asn1parse -inform DER -in '" + Scratch() / "alg.der" + "'", &out);
    EXPECT_NE(out.find(std::string(":") + names[k]), std::string::npos) << k << out;
  }
}

TEST(P11Alg, ParametersFromIdentifiers) {
  KV_P11_Alg alg;
  int bits = 0, kind = 0;
  const Bytes iv = {1, 2, 3, 4, 5, 6, 7, 8};
  for (auto [version, expect] : {std::pair<int, int>{160, 40}, {120, 64}, {58, 128}}) {
    AlgorithmIdentifier id = Rc2Identifier(version, iv);
    ASSERT_EQ(alg.setAlgorithmIdentifier(id), 0) << version;
    alg.getEffectiveBits(bits);
    EXPECT_EQ(bits, expect);
    MiByte got;
    ASSERT_EQ(alg.getIV(got), 0);
    EXPECT_EQ(B(got), iv);
    AlgorithmIdentifier out;
    ASSERT_EQ(alg.getAlgorithmIdentifier(out), 0);
    EXPECT_EQ(Der(out), Der(id)) << "the RC2 parameters are written back as read";
  }
  for (int version : {100, 32, 256, -160}) {
    AlgorithmIdentifier id = Rc2Identifier(version, iv);
    EXPECT_EQ(alg.setAlgorithmIdentifier(id), -1006) << version;
    alg.getAlgType(kind);
    EXPECT_EQ(kind, -1) << "a failed call leaves the object cleared";
  }
  AlgorithmIdentifier bare = Identifier("1.2.840.113549.3.2");
  EXPECT_EQ(alg.setAlgorithmIdentifier(bare), -1016);
  bare.SetParameters(AsnAny(AsnNull()));
  EXPECT_EQ(alg.setAlgorithmIdentifier(bare), -1016) << "NULL parameters are none";
  AlgorithmIdentifier ivOnly = Identifier("1.2.840.113549.3.2");
  ivOnly.SetParameters(AsnAny(AsnOctetString(M(iv))));
  EXPECT_EQ(alg.setAlgorithmIdentifier(ivOnly), -1006);

  AlgorithmIdentifier des = Identifier("1.3.14.3.2.7");
  des.SetParameters(AsnAny(AsnOctetString(M(iv))));
  ASSERT_EQ(alg.setAlgorithmIdentifier(des), 0);
  alg.getEffectiveBits(bits);
  EXPECT_EQ(bits, 0) << "cleared before reading";
  MiByte got;
  ASSERT_EQ(alg.getIV(got), 0);
  EXPECT_EQ(B(got), iv);
  des.SetParameters(AsnAny(AsnInteger(int64_t{5})));
  EXPECT_EQ(alg.setAlgorithmIdentifier(des), -1006);
  EXPECT_EQ(alg.getIV(got), -1003);

  AlgorithmIdentifier unknown = Identifier("1.2.840.113549.1.1.11");
  EXPECT_EQ(alg.setAlgorithmIdentifier(unknown), -1006);
  AlgorithmIdentifier empty;
  EXPECT_EQ(alg.setAlgorithmIdentifier(empty), -1001);

  KV_P11_Alg noIv;
  noIv.setAlgType(KV_ALG_DES_CBC);
  AlgorithmIdentifier out;
  EXPECT_EQ(noIv.getAlgorithmIdentifier(out), -1003);
  noIv.setAlgType(0);
  EXPECT_EQ(noIv.getAlgorithmIdentifier(out), -1006);
  MiByte none;
  EXPECT_EQ(noIv.setIV(none), -1010);
}

TEST(P11Key, KindsAndSessionKeyDerivation) {
  KV_P11_Key key;
  int kind = 0;
  key.getKeyType(kind);
  EXPECT_EQ(kind, -1);
  EXPECT_EQ(key.getAK(), KV_AK_SECRET);
  for (auto [k, ak] : {std::pair<int, int>{1, 1}, {2, 1}, {3, 1}, {4, 1}, {5, 2}, {6, 3}, {7, 1}}) {
    key.setKeyType(k);
    key.getKeyType(kind);
    EXPECT_EQ(kind, k);
    EXPECT_EQ(key.getAK(), ak) << k;
  }
  key.setKeyType(8);
  key.getKeyType(kind);
  EXPECT_EQ(kind, -1);

  struct Case {
    const char* oid;
    int size;
    int kind;
  } cases[] = {{"1.3.14.3.2.7", 8, KV_KEY_DES},
               {"1.2.840.113549.3.7", 16, KV_KEY_DES3_2KEY},
               {"1.2.840.113549.3.7", 24, KV_KEY_DES3},
               {"1.2.840.113549.3.7", 0, KV_KEY_DES3},
               {"1.2.840.113549.3.2", 5, KV_KEY_RC2},
               {"1.2.840.113549.3.4", 16, KV_KEY_RC4},
               {"1.3.14.3.2.26", 16, -1}};
  for (const Case& c : cases) {
    KV_P11_Key k;
    k.setKeyType(KV_KEY_RSA_PUBLIC);
    MiByte bytes = M(Random(24, 1));
    AlgorithmIdentifier id = Identifier(c.oid);
    ASSERT_EQ(k.setSessionKey(bytes, c.size, id), 0) << c.oid;
    k.getKeyType(kind);
    EXPECT_EQ(kind, c.kind) << c.oid << " " << c.size;
    MiByte back;
    int size = 0;
    AlgorithmIdentifier out;
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
  KV_PKCS11_SESSION_KEY sk{};
  EXPECT_EQ(empty.getSessionKey(&sk), -1003);
  EXPECT_EQ(empty.setSessionKey(&sk), -1010);
  KV_PKCS11_RSA_PUBLIC_KEY pk{};
  EXPECT_EQ(empty.getPublicKey(&pk), -1003);
  KV_PKCS11_RSA_PRIVATE_KEY vk{};
  EXPECT_EQ(empty.getPrivateKey(&vk), -1003);
  EXPECT_EQ(empty.setTokenKeyLabel(nullptr), -1010);
  EXPECT_FALSE(empty.isTokenKey());
}

struct InfoFree {
  void operator()(unsigned char* p) const { KV_P11_Key::FreeICKKIObj(p); }
};

TEST(P11Key, DescriptorRules) {
  auto build = [](KV_P11_Key& k, std::unique_ptr<unsigned char, InfoFree>& out) {
    unsigned char* raw = nullptr;
    const int rc = k.GetICKKIObj(&raw, k.getAK());
    out.reset(raw);
    return rc;
  };
  std::unique_ptr<unsigned char, InfoFree> info;
  unsigned char k5[5] = {1, 2, 3, 4, 5};
  KV_P11_Key rc2;
  rc2.setKeyType(KV_KEY_RC2);
  EXPECT_EQ(build(rc2, info), -1003);
  KV_PKCS11_SESSION_KEY sk{k5, 5, 5};
  rc2.setSessionKey(&sk);
  EXPECT_EQ(build(rc2, info), 0) << "size equal to the length";
  sk.size = 6;
  rc2.setSessionKey(&sk);
  EXPECT_EQ(build(rc2, info), -1007);
  rc2.setKeyType(KV_KEY_RC4);
  EXPECT_EQ(build(rc2, info), 0) << "only RC2 looks at the size value";

  // A token key needs only its label, whatever material is missing.
  KV_P11_Key token;
  token.setKeyType(KV_KEY_RSA_PRIVATE);
  EXPECT_EQ(build(token, info), -1003);
  token.setTokenKeyLabel(reinterpret_cast<unsigned char*>(const_cast<char*>("my key")));
  ASSERT_EQ(build(token, info), 0);
  auto* ki = reinterpret_cast<kv::p11::KeyInfo*>(info.get());
  EXPECT_TRUE(ki->onToken);
  EXPECT_EQ(ki->label, "my key");
  EXPECT_EQ(ki->accessKind, KV_AK_PRIVATE);

  KV_P11_Key unknown;
  unknown.setKeyType(9);
  EXPECT_EQ(build(unknown, info), -1006);
  // A private key needs all eight components.
  const RsaKey& k = OpensslKey(1024);
  KV_P11_Key priv = PrivateKey(k);
  ASSERT_EQ(build(priv, info), 0);
  ki = reinterpret_cast<kv::p11::KeyInfo*>(info.get());
  EXPECT_EQ(ki->comp[7], k.comp[7]);
  KV_P11_Key pubOnly = PublicKey(k);
  pubOnly.setKeyType(KV_KEY_RSA_PRIVATE);
  EXPECT_EQ(build(pubOnly, info), -1003);
  unsigned char* none = nullptr;
  EXPECT_EQ(priv.GetICKKIObj(nullptr, 3), -1010);
  KV_P11_Alg alg;
  EXPECT_EQ(alg.GetICKAIObj(nullptr, 1), -1010);
  ASSERT_EQ(alg.GetICKAIObj(&none, 1), 0);
  KV_P11_Alg::FreeICKAIObj(none);
}

// PKCS#1 DER from OpenSSL in, our conversion out: OpenSSL reads our
// RSAPrivateKey (version 0, integers without spurious sign octets) back.
TEST(P11Key, Pkcs1ConversionAgainstOpenssl) {
  if (!HaveOpenssl() || !HavePython("cryptography")) GTEST_SKIP() << "no oracle";
  const RsaKey& k = OpensslKey(1024);
  std::string out;
  ASSERT_EQ(Shell("openssl rsa -in '" + k.privPem + "' -outform DER -traditional -out '" +
                  Scratch() / "k.der" + "' 2>/dev/null"),
            0);
  const Bytes der = ReadScratch("k.der");
  RSAPrivateKey parsed;
  parsed.DerDecode(M(der), 0);
  KV_P11_Key key;
  ASSERT_EQ(key.setRSAPrivateKey(parsed), 0);
  int kind = 0;
  key.getKeyType(kind);
  EXPECT_EQ(kind, KV_KEY_RSA_PRIVATE);
  const std::vector<Bytes> comps = Components(key);
  ASSERT_EQ(comps.size(), 8u);
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(Hex(comps[i]), Hex(k.comp[i])) << "component " << i << " is unsigned";
  }
  RSAPrivateKey written;
  ASSERT_EQ(key.getRSAPrivateKey(written), 0);
  EXPECT_EQ(Hex(Der(written)), Hex(der)) << "OpenSSL's DER again, octet for octet";

  ASSERT_EQ(Shell("openssl rsa -in '" + k.privPem + "' -RSAPublicKey_out -outform DER -out '" +
                  Scratch() / "p.der" + "' 2>/dev/null"),
            0);
  const Bytes pubDer = ReadScratch("p.der");
  RSAPublicKey pub;
  pub.DerDecode(M(pubDer), 0);
  KV_P11_Key pk;
  ASSERT_EQ(pk.setRSAPublicKey(pub), 0);
  pk.getKeyType(kind);
  EXPECT_EQ(kind, KV_KEY_RSA_PUBLIC);
  RSAPublicKey again;
  ASSERT_EQ(pk.getRSAPublicKey(again), 0);
  EXPECT_EQ(Hex(Der(again)), Hex(pubDer));

  RSAPublicKey blank;
  KV_P11_Key none;
  EXPECT_EQ(none.setRSAPublicKey(blank), -1003);
  EXPECT_EQ(none.getRSAPublicKey(blank), -1003);
  RSAPrivateKey blankPriv;
  EXPECT_EQ(none.getRSAPrivateKey(blankPriv), -1003);
}

// Copies are deep: they outlive the source and are unaffected by its reset.
TEST(P11Key, DeepCopies) {
  const RsaKey& k = OpensslKey(1024);
  auto* source = new KV_P11_Key(PrivateKey(k));
  source->setTokenKeyLabel(reinterpret_cast<unsigned char*>(const_cast<char*>("lbl")));
  unsigned char s[3] = {9, 8, 7};
  KV_PKCS11_SESSION_KEY sk{s, 3, 3};
  source->setSessionKey(&sk);
  KV_P11_Key copy(*source);
  KV_P11_Key assigned = PublicKey(k);
  assigned = *source;
  source->Reset();
  int kind = 0;
  source->getKeyType(kind);
  EXPECT_EQ(kind, -1);
  EXPECT_EQ(Components(*source).size(), 0u);
  delete source;
  for (KV_P11_Key* c : {&copy, &assigned}) {
    c->getKeyType(kind);
    EXPECT_EQ(kind, KV_KEY_RSA_PRIVATE);
    EXPECT_STREQ(c->getTokenKeyLabel(), "lbl");
    const std::vector<Bytes> comps = Components(*c);
    ASSERT_EQ(comps.size(), 8u);
    EXPECT_EQ(comps[3], k.comp[3]);
    KV_PKCS11_SESSION_KEY out{};
    ASSERT_EQ(c->getSessionKey(&out), 0);
    EXPECT_EQ(Bytes(out.key, out.key + out.keyLen), Bytes(s, s + 3));
    T_free(out.key);
  }

  KV_P11_Alg* alg = new KV_P11_Alg;
  alg->setAlgType(KV_ALG_RC2_CBC);
  MiByte iv = M(Bytes(8, 3));
  alg->setIV(iv);
  alg->setEffectiveBits(40);
  KV_P11_Alg algCopy(*alg), algAssigned;
  algAssigned = *alg;
  delete alg;
  for (KV_P11_Alg* a : {&algCopy, &algAssigned}) {
    MiByte got;
    int bits = 0;
    ASSERT_EQ(a->getIV(got), 0);
    EXPECT_EQ(B(got), Bytes(8, 3));
    a->getEffectiveBits(bits);
    EXPECT_EQ(bits, 40);
  }
}

// The GBK octets of the message table equal Python's encoding of the texts.
TEST(P11Messages, GbkTextsMatchPythonCodec) {
  std::string out;
  const std::string script =
      "import sys\n"
      "for line in open(sys.argv[1], encoding='utf-8'):\n"
      "    if line.startswith('#') or not line.strip(): continue\n"
      "    s, t = line.rstrip('\\n').split('\\t')\n"
      "    print(s, t.encode('gbk').hex())\n";
  const std::string py = WriteScratch("gbk.py", Bytes(script.begin(), script.end()));
  ASSERT_EQ(Shell(kPython + " '" + py + "' '" + KV_TEST_DATA_DIR + "/p11/messages.txt'", &out), 0);
  int lines = 0;
  size_t pos = 0;
  while (pos < out.size()) {
    const size_t end = out.find('\n', pos);
    const std::string line = out.substr(pos, end - pos);
    pos = end + 1;
    const size_t sp = line.find(' ');
    const int status = std::stoi(line.substr(0, sp));
    const char* text = KV_P11_ErrorText(status);
    ASSERT_NE(text, nullptr) << status;
    EXPECT_EQ(Hex(Bytes(text, text + std::strlen(text))), line.substr(sp + 1)) << status;
    ++lines;
  }
  EXPECT_EQ(lines, 22);
  EXPECT_EQ(KV_P11_ErrorText(-22), nullptr);
  EXPECT_EQ(KV_P11_ErrorText(1), nullptr);
  EXPECT_EQ(KV_P11_ErrorText(-101), nullptr);
}

// Without a module at that path: -17 and the library text, to the sink only.
TEST(P11Module, MissingLibraryIsReported) {
  static std::string seen;
  KV_P11_SetDiagnostics([](void*, const char* text) { seen += text; }, nullptr);
  EXPECT_EQ(KV_P11_LoadModule("/nonexistent/libnothing.so", "tok", "1234"), -17);
  KV_P11_SetDiagnostics(nullptr, nullptr);
  EXPECT_EQ(seen, "can not find the library\n");
  EXPECT_STREQ(KV_P11_LastDiagnostic(), "can not find the library\n");
}

}  // namespace
}  // namespace p11test
