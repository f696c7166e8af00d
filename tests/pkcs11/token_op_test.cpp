// The token operation layer on a SoftHSM2 token: key pairs made there,
// signatures and decryption there, certificates stored and read back, label
// checks. Results are checked by OpenSSL, pycryptodome, pkcs11-tool or the
// soft token, never against values of our own making.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "asn1/mi_byte.h"
#include "asn1/types/types.h"
#include "crypto/p11.h"
#include "softhsm_env.h"

namespace {

using namespace p11test;
using Bytes = std::vector<unsigned char>;

unsigned char* U(const char* s) {
  return reinterpret_cast<unsigned char*>(const_cast<char*>(s));
}
MiByte M(const std::string& s) {
  return MiByte(s.data(), static_cast<unsigned>(s.size()));
}
Bytes B(const MiByte& m) {
  return Bytes(m.GetBytes(), m.GetBytes() + m.GetLength());
}
Bytes B(const std::string& s) {
  return Bytes(s.begin(), s.end());
}
std::string Trim(std::string s) {
  s.erase(0, s.find_first_not_of(' '));
  while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
  return s;
}

class TokenTest : public ::testing::Test {
 protected:
  // A chooser on the token, which must run on the module.
  void OpenOn(const char* token) {
    ASSERT_EQ(LoadToken(token), 0);
    KV_PKCS11_S s{KV_P11_STORE_AUTO, U(token), unsigned(std::strlen(token)), U(kPin), 4};
    ASSERT_EQ(op_.createChooser(&s), 0);
    ASSERT_TRUE(op_.onModule());
  }
  // A pair made on the token; n and e read back from it.
  void Generate(const std::string& name, int bits, KV_P11_Key* pub, KV_P11_Key* priv, Bytes* n,
                Bytes* e) {
    MiByte pl = M(name + "-pub"), vl = M(name + "-priv");
    ASSERT_EQ(op_.GenRSAKeyPair(*pub, pl, *priv, vl, bits, 1), 0) << name;
    KV_PKCS11_RSA_PUBLIC_KEY p{};
    ASSERT_EQ(pub->getPublicKey(&p), 0);
    n->assign(p.modulus, p.modulus + p.modulusLen);
    e->assign(p.exponent, p.exponent + p.exponentLen);
    T_free(p.modulus);
    T_free(p.exponent);
  }
  KV_P11_OP op_;
};

// pycryptodome's verdict ("ok" or "bad") on a signature of the given kind.
std::string OracleVerify(int kind, const Bytes& n, const Bytes& e, const Bytes& data,
                         const Bytes& sig) {
  std::string d = Scratch().Write("v.data", std::string(data.begin(), data.end()));
  std::string s = Scratch().Write("v.sig", std::string(sig.begin(), sig.end()));
  return Trim(Oracle("verify " + std::to_string(kind) + " " + Hex(n) + " " + Hex(e) + " '" + d +
                     "' '" + s + "'"));
}

// The ID pkcs11-tool lists for the object of that kind and label ("" if none).
std::string ListedId(const char* token, const std::string& kind, const std::string& label) {
  std::istringstream in(kvtest::RunShell(std::string("pkcs11-tool --module ") + kModule +
                                         " --token-label " + token + " --login --pin " + kPin +
                                         " --list-objects 2>/dev/null")
                            .out);
  std::string line, current;
  bool match = false;
  while (std::getline(in, line)) {
    if (line.find("Object;") != std::string::npos) current = line, match = false;
    if (line.find("label:") != std::string::npos)
      match = current.rfind(kind, 0) == 0 && Trim(line.substr(line.find(':') + 1)) == label;
    if (match && line.find("ID:") != std::string::npos)
      return Trim(line.substr(line.find(':') + 1));
  }
  return "";
}

TEST_F(TokenTest, PairsMadeOnTheTokenHaveTheirSizeAnIdAndSignForOpenSsl) {
  OpenOn(kOpsToken);
  const std::string message = "the quick brown fox signs on the token";
  std::string data = Scratch().Write("fox.txt", message);
  for (auto size : {std::make_pair(512, 512), {1024, 1024}, {2048, 2048}, {768, 1024}}) {
    std::string name = "size-" + std::to_string(size.first);
    KV_P11_Key pub, priv;
    Bytes n, e;
    Generate(name, size.first, &pub, &priv, &n, &e);
    ASSERT_EQ(n.size() * 8, size_t(size.second)) << name;
    EXPECT_GE(n[0], 0x80) << "full-size modulus";
    EXPECT_EQ(Hex(e), "010001");
    ASSERT_TRUE(priv.isTokenKey());
    EXPECT_EQ(priv.getTokenKeyLabel(), name + "-priv");

    KV_P11_Alg alg;
    alg.setAlgType(KV_ALG_SHA1_RSA);
    MiByte in = M(message), sig;
    ASSERT_EQ(op_.Sign(alg, priv, in, sig), 0);
    std::string sigPath = Scratch().Write(
        "s.sig", std::string(reinterpret_cast<const char*>(sig.GetBytes()), sig.GetLength()));
    auto r = kvtest::RunShell("openssl dgst -sha1 -verify '" + WritePublicPem("s.pem", n, e) +
                              "' -signature '" + sigPath + "' '" + data + "'");
    EXPECT_EQ(r.out, "Verified OK\n") << name;

    std::string pl = name + "-pub", vl = name + "-priv";
    EXPECT_TRUE(op_.CheckLabelExistInToken(U(pl.c_str()), pl.size(), KV_OBJ_PUBLIC_KEY));
    EXPECT_TRUE(op_.CheckLabelExistInToken(U(vl.c_str()), vl.size(), KV_OBJ_PRIVATE_KEY));
    EXPECT_FALSE(op_.CheckLabelExistInToken(U(pl.c_str()), pl.size(), KV_OBJ_PRIVATE_KEY));
    EXPECT_FALSE(op_.CheckLabelExistInToken(U(vl.c_str()), vl.size(), KV_OBJ_CERTIFICATE));
    if (size.first != 512) continue;
    // Both halves carry one ID, the SHA-1 of the modulus, as other tools do.
    auto sha = kvtest::RunShell(std::string(kPython) +
                                " -c 'import hashlib, sys; "
                                "print(hashlib.sha1(bytes.fromhex(sys.argv[1])).hexdigest())' " +
                                Hex(n));
    EXPECT_EQ(ListedId(kOpsToken, "Public Key", pl), Trim(sha.out));
    EXPECT_EQ(ListedId(kOpsToken, "Private Key", vl), Trim(sha.out));
  }
}

TEST_F(TokenTest, EverySignatureKindAndDecryptionOnTheTokenMatchPycryptodome) {
  OpenOn(kOpsToken);
  KV_P11_Key pub, priv;
  Bytes n, e;
  Generate("kinds", 1024, &pub, &priv, &n, &e);
  const std::string data = "data signed with every kind";
  for (int kind : {KV_ALG_SHA1_RSA, KV_ALG_MD5_RSA, KV_ALG_MD2_RSA, KV_ALG_RSA}) {
    KV_P11_Alg alg;
    alg.setAlgType(kind);
    MiByte in = M(data), sig, rec;
    ASSERT_EQ(op_.Sign(alg, priv, in, sig), 0) << kind;
    EXPECT_EQ(OracleVerify(kind, n, e, B(data), B(sig)), "ok") << kind;
    EXPECT_EQ(op_.Verify(alg, pub, in, sig), 0) << kind;   // the public key read back
    EXPECT_EQ(op_.Verify(alg, priv, in, sig), 0) << kind;  // the token key's public half
    ASSERT_EQ(op_.SignRecover(alg, priv, in, rec), 0) << kind;
    EXPECT_EQ(B(rec), B(sig)) << kind;
    Bytes bad = B(sig);
    bad[bad.size() / 2] ^= 1;
    EXPECT_EQ(OracleVerify(kind, n, e, B(data), bad), "bad") << "the oracle is not blind";
    MiByte badSig(reinterpret_cast<const char*>(bad.data()), unsigned(bad.size()));
    EXPECT_EQ(op_.Verify(alg, pub, in, badSig), -13) << kind;
  }
  KV_P11_Alg rsa;
  rsa.setAlgType(KV_ALG_RSA);
  MiByte block = M("block"), enc, sig, plain;
  ASSERT_EQ(op_.Encrypt(rsa, priv, block, enc), 0);  // private key: the type-1 block of Sign
  ASSERT_EQ(op_.Sign(rsa, priv, block, sig), 0);
  EXPECT_EQ(B(enc), B(sig));
  // Python encrypts to the public key; the token decrypts.
  std::string plainPath = Scratch().Write("plain.bin", "secret for the token");
  std::string cipherPath = Scratch() / "cipher.bin";
  Oracle("encrypt " + Hex(n) + " " + Hex(e) + " '" + plainPath + "' '" + cipherPath + "'");
  MiByte cipher = M(kvtest::ReadFile(cipherPath));
  ASSERT_EQ(cipher.GetLength(), n.size());
  ASSERT_EQ(op_.Decrypt(rsa, priv, cipher, plain), 0);
  EXPECT_EQ(B(plain), B("secret for the token"));
  MiByte junk(unsigned(n.size()), 0x01);  // not a type-2 block
  EXPECT_EQ(op_.Decrypt(rsa, priv, junk, plain), -12);
}

TEST_F(TokenTest, LongDataThroughRsaBigEncryptAndTokenDecryption) {
  OpenOn(kOpsToken);
  KV_P11_Key pub, priv;
  Bytes n, e;
  Generate("big", 512, &pub, &priv, &n, &e);
  // Nothing, one octet, one chunk (64 - 11), one more, several.
  for (size_t len : {0, 1, 53, 54, 200}) {
    std::string text(len, 'x');
    for (size_t i = 0; i < len; ++i) text[i] = char('a' + i % 26);
    MiByte in = M(text);
    for (KV_P11_Key* key : {&pub, &priv}) {  // the token key encrypts with its public half
      MiByte enc, dec;
      ASSERT_EQ(op_.RSABigEncrypt(*key, in, enc), 0) << len;
      EXPECT_EQ(enc.GetLength(), (len + 52) / 53 * 64) << len;
      ASSERT_EQ(op_.RSABigDecrypt(priv, enc, dec), 0) << len;
      EXPECT_EQ(B(dec), B(text)) << len;
    }
  }
  MiByte partial(63u, 0x42), out;
  EXPECT_EQ(op_.RSABigDecrypt(priv, partial, out), -3);
}

TEST_F(TokenTest, ImportedKeySignsAsOpenSslAndTheSoftTokenDo) {
  OpenOn(kKnownToken);
  KV_P11_Key pub;
  MiByte label = M("known");
  ASSERT_EQ(op_.GetHardPubKey(label, pub), 0);
  KV_PKCS11_RSA_PUBLIC_KEY p{};
  ASSERT_EQ(pub.getPublicKey(&p), 0);
  EXPECT_EQ(Hex(Bytes(p.modulus, p.modulus + p.modulusLen)), KnownModulusHex());
  T_free(p.modulus);
  T_free(p.exponent);

  // The same key in memory, on the soft token and on the module's chooser.
  std::istringstream dump(kvtest::RunShell(std::string(kPython) + " '" + KV_TEST_DATA_DIR +
                                           "/p11/rsakey.py' dump '" + KnownKeyPem() + "'")
                              .out);
  Bytes c[8];
  for (Bytes& v : c) {
    std::string h;
    ASSERT_TRUE(dump >> h);
    v = FromHex(h.size() % 2 ? "0" + h : h);
  }
  KV_PKCS11_RSA_PRIVATE_KEY s{
      c[0].data(), unsigned(c[0].size()), c[1].data(), unsigned(c[1].size()),
      c[2].data(), unsigned(c[2].size()), c[3].data(), unsigned(c[3].size()),
      c[4].data(), unsigned(c[4].size()), c[5].data(), unsigned(c[5].size()),
      c[6].data(), unsigned(c[6].size()), c[7].data(), unsigned(c[7].size())};
  KV_P11_Key memKey, tokenKey;
  ASSERT_EQ(memKey.setPrivateKey(&s), 0);
  memKey.setKeyType(KV_KEY_RSA_PRIVATE);
  ASSERT_EQ(tokenKey.setTokenKeyLabel(U("known")), 0);
  KV_P11_OP soft;
  KV_PKCS11_S softDesc{KV_P11_STORE_SOFT, nullptr, 0, nullptr, 0};
  ASSERT_EQ(soft.createChooser(&softDesc), 0);

  const std::string message = "deterministic PKCS#1 v1.5";
  std::string data = Scratch().Write("det.txt", message);
  for (auto k : {std::make_pair(KV_ALG_SHA1_RSA, "-sha1"), {KV_ALG_MD5_RSA, "-md5"}}) {
    KV_P11_Alg alg;
    alg.setAlgType(k.first);
    MiByte in = M(message), onToken, onSoft, inMemoryOnModule;
    ASSERT_EQ(op_.Sign(alg, tokenKey, in, onToken), 0);  // no key kind: private for RSA work
    ASSERT_EQ(soft.Sign(alg, memKey, in, onSoft), 0);
    ASSERT_EQ(op_.Sign(alg, memKey, in, inMemoryOnModule), 0);
    auto r = kvtest::RunShell(std::string("openssl dgst ") + k.second + " -sign '" + KnownKeyPem() +
                              "' '" + data + "' | od -An -tx1 -v | tr -d ' \\n'");
    ASSERT_EQ(r.out.size(), 256u);
    EXPECT_EQ(Hex(B(onToken)), r.out) << k.second;
    EXPECT_EQ(Hex(B(onSoft)), r.out) << k.second;
    EXPECT_EQ(Hex(B(inMemoryOnModule)), r.out) << k.second;
  }
}

TEST_F(TokenTest, KeyPairChecksAndTakenLabels) {
  OpenOn(kOpsToken);
  KV_P11_Key pub1, priv1, pub2, priv2;
  Bytes n, e;
  Generate("pair1", 512, &pub1, &priv1, &n, &e);
  Generate("pair2", 512, &pub2, &priv2, &n, &e);
  RSAPublicKey r1, r2;
  ASSERT_EQ(pub1.getRSAPublicKey(r1), 0);
  ASSERT_EQ(pub2.getRSAPublicKey(r2), 0);
  EXPECT_TRUE(op_.CheckRSAKeyPair(r1, U("pair1-priv"), 10));
  EXPECT_TRUE(op_.CheckRSAKeyPair(r2, U("pair2-priv"), 10));
  EXPECT_FALSE(op_.CheckRSAKeyPair(r1, U("pair2-priv"), 10));
  EXPECT_FALSE(op_.CheckRSAKeyPair(r1, U("pair1-pub"), 9)) << "a public key is no private key";
  EXPECT_FALSE(op_.CheckRSAKeyPair(r1, U("no-such-key"), 11));

  MiByte p = M("pair1-pub"), v = M("pair1-priv"), freshPub = M("fresh-pub"),
         freshPriv = M("fresh-priv");
  EXPECT_EQ(op_.GenRSAKeyPair(pub1, p, priv1, freshPriv, 512, 1), KV_P11_ERR_PUB_LABEL_TAKEN);
  EXPECT_EQ(op_.GenRSAKeyPair(pub1, freshPub, priv1, v, 512, 1), KV_P11_ERR_PRIV_LABEL_TAKEN);
  EXPECT_FALSE(op_.CheckLabelExistInToken(U("fresh-pub"), 9, KV_OBJ_PUBLIC_KEY));
  EXPECT_FALSE(op_.CheckLabelExistInToken(U("fresh-priv"), 10, KV_OBJ_PRIVATE_KEY));
  // Off the token the labels are only names: no check, nothing stored.
  ASSERT_EQ(op_.GenRSAKeyPair(pub1, freshPub, priv1, freshPriv, 512, 0), 0);
  EXPECT_FALSE(priv1.isTokenKey());
  EXPECT_FALSE(op_.CheckLabelExistInToken(U("fresh-pub"), 9, KV_OBJ_PUBLIC_KEY));
}

TEST_F(TokenTest, CertificatesAreStoredBesideTheirKeyAndReadBack) {
  OpenOn(kOpsToken);
  KV_P11_Key pub, priv;
  Bytes n, e;
  Generate("holder", 1024, &pub, &priv, &n, &e);
  // OpenSSL issues a certificate for the token's public key.
  std::string der = Scratch() / "cert.der";
  auto r = kvtest::RunShell(
      "cd '" + Scratch().Path() + "' && openssl req -new -key '" + KnownKeyPem() +
      "' -subj '/CN=Token Holder/O=Korvanta Test' -out c.csr 2>&1 && openssl x509 -req -in c.csr "
      "-signkey '" +
      KnownKeyPem() + "' -force_pubkey '" + WritePublicPem("h.pem", n, e) +
      "' -days 30 -outform DER -out '" + der + "' 2>&1");
  ASSERT_EQ(r.status, 0) << r.out;
  std::string cert = kvtest::ReadFile(der);
  unsigned char* label = U("holder-cert");
  unsigned certLen = unsigned(cert.size()), outLen = 12345;
  ASSERT_EQ(op_.SetCertIntoToken(label, 11, U(cert.c_str()), certLen), 0);
  EXPECT_EQ(op_.SetCertIntoToken(label, 11, U(cert.c_str()), certLen), KV_P11_ERR_CERT_LABEL_TAKEN);
  EXPECT_TRUE(op_.CheckLabelExistInToken(label, 11, KV_OBJ_CERTIFICATE));
  EXPECT_FALSE(op_.CheckLabelExistInToken(label, 11, KV_OBJ_PUBLIC_KEY));
  ASSERT_EQ(op_.GetCertFromToken(label, 11, nullptr, &outLen), 0);
  ASSERT_EQ(outLen, cert.size());
  Bytes back(outLen);
  ASSERT_EQ(op_.GetCertFromToken(label, 11, back.data(), &outLen), 0);
  EXPECT_EQ(back, B(cert));
  EXPECT_EQ(op_.GetCertFromToken(U("no-cert"), 7, nullptr, &outLen), 0);
  EXPECT_EQ(outLen, 0u);

  // pkcs11-tool reads the same bytes, and finds the certificate under its
  // subject and the ID of its key pair.
  r = kvtest::RunShell(std::string("pkcs11-tool --module ") + kModule + " --token-label " +
                       kOpsToken + " --read-object --type cert --label holder-cert -o '" +
                       (Scratch() / "read.der") + "' 2>&1");
  ASSERT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(kvtest::ReadFile(Scratch() / "read.der"), cert);
  r = kvtest::RunShell(std::string("pkcs11-tool --module ") + kModule + " --token-label " +
                       kOpsToken + " --list-objects --type cert");
  EXPECT_NE(r.out.find("CN=Token Holder"), std::string::npos) << r.out;
  std::string id = ListedId(kOpsToken, "Certificate", "holder-cert");
  EXPECT_FALSE(id.empty());
  EXPECT_EQ(id, ListedId(kOpsToken, "Private Key", "holder-priv"));
}

}  // namespace
