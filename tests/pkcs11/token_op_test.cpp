// The token operation layer on a SoftHSM2 token: key pairs made on the token,
// signatures and decryption there, certificates stored and read back, label
// checks. Every result is checked by OpenSSL, pycryptodome, pkcs11-tool or the
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

int Open(KV_P11_OP& op, const char* token, const char* pin = kPin) {
  KV_PKCS11_S s{KV_P11_STORE_AUTO, U(token), static_cast<unsigned>(std::strlen(token)), U(pin),
                static_cast<unsigned>(std::strlen(pin))};
  return op.createChooser(&s);
}

// A chooser on the token, asserting it opened on the module.
class TokenTest : public ::testing::Test {
 protected:
  void OpenOn(const char* token) {
    ASSERT_EQ(LoadToken(token), 0);
    ASSERT_EQ(Open(op_, token), 0);
    ASSERT_TRUE(op_.onModule());
  }
  KV_P11_OP op_;
};

void PublicParts(KV_P11_Key& key, Bytes* n, Bytes* e) {
  KV_PKCS11_RSA_PUBLIC_KEY p{};
  ASSERT_EQ(key.getPublicKey(&p), 0);
  n->assign(p.modulus, p.modulus + p.modulusLen);
  e->assign(p.exponent, p.exponent + p.exponentLen);
  T_free(p.modulus);
  T_free(p.exponent);
}

std::string Trim(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
  return s;
}

std::string Oracle(const std::string& args) {
  return Trim(kvtest::RunShell(std::string(kPython) + " '" + OracleScript() + "' " + args).out);
}

// pycryptodome's verdict on a signature of the given kind.
std::string OracleVerify(int kind, const Bytes& n, const Bytes& e, const Bytes& data,
                         const Bytes& sig) {
  std::string d = Scratch().Write("v.data", std::string(data.begin(), data.end()));
  std::string s = Scratch().Write("v.sig", std::string(sig.begin(), sig.end()));
  return Oracle("verify " + std::to_string(kind) + " " + Hex(n) + " " + Hex(e) + " '" + d + "' '" +
                s + "'");
}

// pkcs11-tool's listing of the token's objects.
std::string ListObjects(const char* token) {
  return kvtest::RunShell(std::string("pkcs11-tool --module ") + kModule + " --token-label " +
                          token + " --login --pin " + kPin + " --list-objects 2>/dev/null")
      .out;
}

// The "ID:" line of the object listed with the label, or "" when absent.
std::string ListedId(const std::string& listing, const std::string& kind,
                     const std::string& label) {
  std::istringstream in(listing);
  std::string line;
  bool inObject = false, labelled = false;
  while (std::getline(in, line)) {
    if (line.find("Object;") != std::string::npos) {
      inObject = line.rfind(kind, 0) == 0;
      labelled = false;
    } else if (inObject && line.find("label:") != std::string::npos) {
      labelled =
          Trim(line.substr(line.find("label:") + 6)).find_first_not_of(' ') != std::string::npos &&
          Trim(line.substr(line.find("label:") + 6))
                  .substr(Trim(line.substr(line.find("label:") + 6)).find_first_not_of(' ')) ==
              label;
    } else if (inObject && labelled && line.find("ID:") != std::string::npos) {
      std::string id = Trim(line.substr(line.find("ID:") + 3));
      return id.substr(id.find_first_not_of(' '));
    }
  }
  return "";
}

TEST_F(TokenTest, KeyPairsMadeOnTheTokenHaveTheirSizeAndSignForOpenSsl) {
  OpenOn(kOpsToken);
  const struct { int asked, made; } sizes[] = {{512, 512}, {1024, 1024}, {2048, 2048}, {768, 1024}};
  const std::string message = "the quick brown fox signs on the token";
  std::string data = Scratch().Write("fox.txt", message);
  for (const auto& sz : sizes) {
    std::string pubLabel = "size-pub-" + std::to_string(sz.asked);
    std::string privLabel = "size-priv-" + std::to_string(sz.asked);
    KV_P11_Key pub, priv;
    MiByte pl = M(pubLabel), vl = M(privLabel);
    ASSERT_EQ(op_.GenRSAKeyPair(pub, pl, priv, vl, sz.asked, 1), 0) << sz.asked;
    int kind = 0;
    pub.getKeyType(kind);
    EXPECT_EQ(kind, KV_KEY_RSA_PUBLIC);
    ASSERT_TRUE(priv.isTokenKey());
    EXPECT_STREQ(priv.getTokenKeyLabel(), privLabel.c_str());
    Bytes n, e;
    PublicParts(pub, &n, &e);
    ASSERT_EQ(n.size(), static_cast<size_t>(sz.made / 8)) << sz.asked;
    EXPECT_GE(n[0], 0x80) << "full-size modulus";
    EXPECT_EQ(Hex(e), "010001");

    KV_P11_Alg sha1rsa;
    sha1rsa.setAlgType(KV_ALG_SHA1_RSA);
    MiByte in = M(message), sig;
    ASSERT_EQ(op_.Sign(sha1rsa, priv, in, sig), 0);
    ASSERT_EQ(sig.GetLength(), n.size());
    std::string pem = WritePublicPem("size.pem", n, e);
    ASSERT_FALSE(pem.empty());
    std::string sigPath =
        Scratch().Write("size.sig", std::string(sig.GetBytes(), sig.GetBytes() + sig.GetLength()));
    auto r = kvtest::RunShell("openssl dgst -sha1 -verify '" + pem + "' -signature '" + sigPath +
                              "' '" + data + "'");
    EXPECT_EQ(r.status, 0) << sz.asked;
    EXPECT_EQ(r.out, "Verified OK\n") << sz.asked;

    EXPECT_TRUE(
        op_.CheckLabelExistInToken(U(pubLabel.c_str()), pubLabel.size(), KV_OBJ_PUBLIC_KEY));
    EXPECT_TRUE(
        op_.CheckLabelExistInToken(U(privLabel.c_str()), privLabel.size(), KV_OBJ_PRIVATE_KEY));
    EXPECT_FALSE(
        op_.CheckLabelExistInToken(U(pubLabel.c_str()), pubLabel.size(), KV_OBJ_PRIVATE_KEY));
    EXPECT_FALSE(
        op_.CheckLabelExistInToken(U(privLabel.c_str()), privLabel.size(), KV_OBJ_CERTIFICATE));
  }
  // Both halves of a pair carry one ID, the SHA-1 of the modulus, as other
  // tools expect.
  KV_P11_Key pub;
  MiByte label = M("size-pub-1024");
  ASSERT_EQ(op_.GetHardPubKey(label, pub), 0);
  Bytes n, e;
  PublicParts(pub, &n, &e);
  auto sha = kvtest::RunShell(std::string(kPython) +
                              " -c 'import hashlib, sys; "
                              "print(hashlib.sha1(bytes.fromhex(sys.argv[1])).hexdigest())' " +
                              Hex(n));
  std::string listing = ListObjects(kOpsToken);
  std::string pubId = ListedId(listing, "Public Key Object", "size-pub-1024");
  EXPECT_EQ(pubId, Trim(sha.out)) << listing;
  EXPECT_EQ(pubId, ListedId(listing, "Private Key Object", "size-priv-1024")) << listing;
}

TEST_F(TokenTest, EverySignatureKindAndDecryptionOnTheTokenMatchPycryptodome) {
  OpenOn(kOpsToken);
  KV_P11_Key pub, priv;
  MiByte pl = M("kinds-pub"), vl = M("kinds-priv");
  ASSERT_EQ(op_.GenRSAKeyPair(pub, pl, priv, vl, 1024, 1), 0);
  Bytes n, e;
  PublicParts(pub, &n, &e);
  const Bytes data = B("data signed with every kind");
  for (int kind : {KV_ALG_SHA1_RSA, KV_ALG_MD5_RSA, KV_ALG_MD2_RSA, KV_ALG_RSA}) {
    KV_P11_Alg alg;
    alg.setAlgType(kind);
    MiByte in = M(std::string(data.begin(), data.end())), sig, rec;
    ASSERT_EQ(op_.Sign(alg, priv, in, sig), 0) << kind;
    EXPECT_EQ(OracleVerify(kind, n, e, data, B(sig)), "ok") << kind;
    // The soft token verifies with the public key read back.
    EXPECT_EQ(op_.Verify(alg, pub, in, sig), 0) << kind;
    // A token key reference verifies too (with the public half it reads).
    EXPECT_EQ(op_.Verify(alg, priv, in, sig), 0) << kind;
    ASSERT_EQ(op_.SignRecover(alg, priv, in, rec), 0) << kind;
    EXPECT_EQ(B(rec), B(sig)) << "v1.5 signatures are deterministic";
    Bytes bad = B(sig);
    bad[bad.size() / 2] ^= 1;
    EXPECT_EQ(OracleVerify(kind, n, e, data, bad), "bad") << "the oracle is not blind";
    MiByte badSig(reinterpret_cast<const char*>(bad.data()), static_cast<unsigned>(bad.size()));
    EXPECT_EQ(op_.Verify(alg, pub, in, badSig), -13) << kind;
  }
  // RSA with the private token key: Encrypt makes the type-1 block of Sign.
  KV_P11_Alg rsa;
  rsa.setAlgType(KV_ALG_RSA);
  MiByte in = M("block"), enc, sig;
  ASSERT_EQ(op_.Encrypt(rsa, priv, in, enc), 0);
  ASSERT_EQ(op_.Sign(rsa, priv, in, sig), 0);
  EXPECT_EQ(B(enc), B(sig));

  // Python encrypts to the public key; the token decrypts.
  std::string plainPath = Scratch().Write("plain.bin", "secret for the token");
  std::string cipherPath = Scratch() / "cipher.bin";
  ASSERT_EQ(
      Oracle("encrypt " + Hex(n) + " " + Hex(e) + " '" + plainPath + "' '" + cipherPath + "'"), "");
  MiByte cipher = M(kvtest::ReadFile(cipherPath)), plain;
  ASSERT_EQ(cipher.GetLength(), n.size());
  ASSERT_EQ(op_.Decrypt(rsa, priv, cipher, plain), 0);
  EXPECT_EQ(B(plain), B("secret for the token"));
  // Our public-key encryption (soft) comes back through the token too.
  MiByte ours;
  ASSERT_EQ(op_.Encrypt(rsa, pub, in, ours), 0);
  ASSERT_EQ(op_.Decrypt(rsa, priv, ours, plain), 0);
  EXPECT_EQ(B(plain), B("block"));
  // A block that is not type 2 is refused by the token.
  MiByte junk(static_cast<unsigned>(n.size()), 0x01);
  EXPECT_EQ(op_.Decrypt(rsa, priv, junk, plain), -12);
}

TEST_F(TokenTest, LongDataThroughRsaBigEncryptAndTokenDecryption) {
  OpenOn(kOpsToken);
  KV_P11_Key pub, priv;
  MiByte pl = M("big-pub"), vl = M("big-priv");
  ASSERT_EQ(op_.GenRSAKeyPair(pub, pl, priv, vl, 512, 1), 0);
  // 0, one byte, exactly one chunk (64 - 11), several chunks and a bit.
  for (size_t len : {size_t(0), size_t(1), size_t(53), size_t(54), size_t(200)}) {
    std::string text;
    for (size_t i = 0; i < len; ++i) text += static_cast<char>('a' + i % 26);
    MiByte in = M(text), enc, dec;
    ASSERT_EQ(op_.RSABigEncrypt(pub, in, enc), 0) << len;
    EXPECT_EQ(enc.GetLength(), ((len + 52) / 53) * 64) << len;
    ASSERT_EQ(op_.RSABigDecrypt(priv, enc, dec), 0) << len;
    EXPECT_EQ(B(dec), B(text)) << len;
    // Encrypting with the token key reference reads its public half.
    MiByte enc2, dec2;
    ASSERT_EQ(op_.RSABigEncrypt(priv, in, enc2), 0) << len;
    ASSERT_EQ(op_.RSABigDecrypt(priv, enc2, dec2), 0) << len;
    EXPECT_EQ(B(dec2), B(text)) << len;
  }
  MiByte partial(63u, 0x42), out;
  EXPECT_EQ(op_.RSABigDecrypt(priv, partial, out), -3);
}

TEST_F(TokenTest, ImportedKeySignsAsOpenSslAndTheSoftTokenDo) {
  OpenOn(kKnownToken);
  // The key pkcs11-tool imported, read back from the token.
  KV_P11_Key pub;
  MiByte label = M("known");
  ASSERT_EQ(op_.GetHardPubKey(label, pub), 0);
  Bytes n, e;
  PublicParts(pub, &n, &e);
  EXPECT_EQ(Hex(n), KnownModulusHex());

  // The same key in memory on the soft token.
  auto dump = kvtest::RunShell(std::string(kPython) + " '" + KV_TEST_DATA_DIR +
                               "/p11/rsakey.py' dump '" + KnownKeyPem() + "'");
  ASSERT_EQ(dump.status, 0);
  std::istringstream lines(dump.out);
  Bytes comp[8];
  for (Bytes& c : comp) {
    std::string h;
    ASSERT_TRUE(lines >> h);
    if (h.size() % 2) h = "0" + h;
    c = FromHex(h);
  }
  KV_PKCS11_RSA_PRIVATE_KEY s{
      comp[0].data(), unsigned(comp[0].size()), comp[1].data(), unsigned(comp[1].size()),
      comp[2].data(), unsigned(comp[2].size()), comp[3].data(), unsigned(comp[3].size()),
      comp[4].data(), unsigned(comp[4].size()), comp[5].data(), unsigned(comp[5].size()),
      comp[6].data(), unsigned(comp[6].size()), comp[7].data(), unsigned(comp[7].size())};
  KV_P11_Key memKey, tokenKey;
  ASSERT_EQ(memKey.setPrivateKey(&s), 0);
  memKey.setKeyType(KV_KEY_RSA_PRIVATE);
  ASSERT_EQ(tokenKey.setTokenKeyLabel(U("known")), 0);
  tokenKey.setKeyType(KV_KEY_RSA_PRIVATE);
  KV_P11_OP soft;
  KV_PKCS11_S softDesc{KV_P11_STORE_SOFT, nullptr, 0, nullptr, 0};
  ASSERT_EQ(soft.createChooser(&softDesc), 0);
  ASSERT_FALSE(soft.onModule());

  const std::string message = "deterministic PKCS#1 v1.5";
  std::string data = Scratch().Write("det.txt", message);
  for (const auto& k :
       {std::make_pair(KV_ALG_SHA1_RSA, "-sha1"), std::make_pair(KV_ALG_MD5_RSA, "-md5")}) {
    KV_P11_Alg alg;
    alg.setAlgType(k.first);
    MiByte in = M(message), onToken, inMemory;
    ASSERT_EQ(op_.Sign(alg, tokenKey, in, onToken), 0);
    ASSERT_EQ(soft.Sign(alg, memKey, in, inMemory), 0);
    auto r = kvtest::RunShell(std::string("openssl dgst ") + k.second + " -sign '" + KnownKeyPem() +
                              "' '" + data + "' | od -An -tx1 -v | tr -d ' \\n'");
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(Hex(B(onToken)), r.out) << k.second;
    EXPECT_EQ(Hex(B(inMemory)), r.out) << k.second;
  }
  // In-memory keys go to the soft token even on a module chooser.
  KV_P11_Alg sha1rsa;
  sha1rsa.setAlgType(KV_ALG_SHA1_RSA);
  MiByte in = M(message), a, b;
  ASSERT_EQ(op_.Sign(sha1rsa, memKey, in, a), 0);
  ASSERT_EQ(op_.Sign(sha1rsa, tokenKey, in, b), 0);
  EXPECT_EQ(B(a), B(b));
}

TEST_F(TokenTest, CheckRsaKeyPairComparesWithTheTokensPrivateKey) {
  OpenOn(kOpsToken);
  KV_P11_Key pub1, priv1, pub2, priv2;
  MiByte p1 = M("pair-pub-1"), v1 = M("pair-priv-1"), p2 = M("pair-pub-2"), v2 = M("pair-priv-2");
  ASSERT_EQ(op_.GenRSAKeyPair(pub1, p1, priv1, v1, 512, 1), 0);
  ASSERT_EQ(op_.GenRSAKeyPair(pub2, p2, priv2, v2, 512, 1), 0);
  RSAPublicKey r1, r2;
  ASSERT_EQ(pub1.getRSAPublicKey(r1), 0);
  ASSERT_EQ(pub2.getRSAPublicKey(r2), 0);
  EXPECT_TRUE(op_.CheckRSAKeyPair(r1, U("pair-priv-1"), 11));
  EXPECT_TRUE(op_.CheckRSAKeyPair(r2, U("pair-priv-2"), 11));
  EXPECT_FALSE(op_.CheckRSAKeyPair(r1, U("pair-priv-2"), 11));
  EXPECT_FALSE(op_.CheckRSAKeyPair(r2, U("pair-priv-1"), 11));
  EXPECT_FALSE(op_.CheckRSAKeyPair(r1, U("pair-pub-1"), 10)) << "a public key is no private key";
  EXPECT_FALSE(op_.CheckRSAKeyPair(r1, U("no-such-key"), 11));
  EXPECT_FALSE(op_.CheckRSAKeyPair(r1, U("pair-priv-1"), 0));
}

TEST_F(TokenTest, TakenLabelsAreRefusedAndNothingIsMade) {
  OpenOn(kOpsToken);
  KV_P11_Key pub, priv;
  MiByte p = M("taken-pub"), v = M("taken-priv"), freshPub = M("fresh-pub"),
         freshPriv = M("fresh-priv");
  ASSERT_EQ(op_.GenRSAKeyPair(pub, p, priv, v, 512, 1), 0);
  EXPECT_EQ(op_.GenRSAKeyPair(pub, p, priv, freshPriv, 512, 1), KV_P11_ERR_PUB_LABEL_TAKEN);
  EXPECT_EQ(op_.GenRSAKeyPair(pub, freshPub, priv, v, 512, 1), KV_P11_ERR_PRIV_LABEL_TAKEN);
  EXPECT_FALSE(op_.CheckLabelExistInToken(U("fresh-pub"), 9, KV_OBJ_PUBLIC_KEY));
  EXPECT_FALSE(op_.CheckLabelExistInToken(U("fresh-priv"), 10, KV_OBJ_PRIVATE_KEY));
  // Off the token the labels are only names: no check, nothing stored.
  KV_P11_Key memPub, memPriv;
  ASSERT_EQ(op_.GenRSAKeyPair(memPub, p, memPriv, v, 512, 0), 0);
  EXPECT_FALSE(memPriv.isTokenKey());
  std::string listing = ListObjects(kOpsToken);
  size_t count = 0;
  for (size_t at = listing.find("taken-pub"); at != std::string::npos;
       at = listing.find("taken-pub", at + 1))
    ++count;
  EXPECT_EQ(count, 1u) << listing;
}

TEST_F(TokenTest, CertificatesAreStoredBesideTheirKeyAndReadBack) {
  OpenOn(kOpsToken);
  KV_P11_Key pub, priv;
  MiByte p = M("cert-key-pub"), v = M("cert-key-priv");
  ASSERT_EQ(op_.GenRSAKeyPair(pub, p, priv, v, 1024, 1), 0);
  Bytes n, e;
  PublicParts(pub, &n, &e);
  // OpenSSL issues a certificate for the token's public key.
  std::string pem = WritePublicPem("cert-key.pem", n, e);
  std::string der = Scratch() / "cert.der";
  auto r = kvtest::RunShell(
      "cd '" + Scratch().Path() + "' && openssl req -new -key '" + KnownKeyPem() +
      "' -subj '/CN=Token Holder/O=Korvanta Test' -out cert.csr 2>&1 && openssl x509 -req "
      "-in cert.csr -signkey '" +
      KnownKeyPem() + "' -force_pubkey '" + pem + "' -days 30 -outform DER -out '" + der +
      "' 2>&1");
  ASSERT_EQ(r.status, 0) << r.out;
  std::string cert = kvtest::ReadFile(der);
  ASSERT_FALSE(cert.empty());

  const char* label = "holder-cert";
  const unsigned len = 11;
  unsigned certLen = static_cast<unsigned>(cert.size());
  ASSERT_EQ(op_.SetCertIntoToken(U(label), len, U(cert.c_str()), certLen), 0);
  EXPECT_EQ(op_.SetCertIntoToken(U(label), len, U(cert.c_str()), certLen),
            KV_P11_ERR_CERT_LABEL_TAKEN);
  EXPECT_EQ(op_.SetCertIntoToken(U(label), len, nullptr, certLen), KV_P11_ERR_ARGUMENT);
  EXPECT_TRUE(op_.CheckLabelExistInToken(U(label), len, KV_OBJ_CERTIFICATE));
  EXPECT_FALSE(op_.CheckLabelExistInToken(U(label), len, KV_OBJ_PUBLIC_KEY));

  unsigned outLen = 12345;
  ASSERT_EQ(op_.GetCertFromToken(U(label), len, nullptr, &outLen), 0);
  ASSERT_EQ(outLen, cert.size());
  std::vector<unsigned char> back(outLen);
  ASSERT_EQ(op_.GetCertFromToken(U(label), len, back.data(), &outLen), 0);
  EXPECT_EQ(back, B(cert));
  outLen = 12345;
  EXPECT_EQ(op_.GetCertFromToken(U("no-cert"), 7, nullptr, &outLen), 0);
  EXPECT_EQ(outLen, 0u);

  // pkcs11-tool reads the same bytes, sees the subject, and finds the
  // certificate under the ID of its key pair.
  auto read = kvtest::RunShell(std::string("pkcs11-tool --module ") + kModule + " --token-label " +
                               kOpsToken + " --read-object --type cert --label " + label + " -o '" +
                               (Scratch() / "read.der") + "' 2>&1");
  ASSERT_EQ(read.status, 0) << read.out;
  EXPECT_EQ(kvtest::ReadFile(Scratch() / "read.der"), cert);
  std::string listing = ListObjects(kOpsToken);
  EXPECT_NE(listing.find("CN=Token Holder"), std::string::npos) << listing;
  std::string certId = ListedId(listing, "Certificate Object", label);
  EXPECT_FALSE(certId.empty()) << listing;
  EXPECT_EQ(certId, ListedId(listing, "Private Key Object", "cert-key-priv")) << listing;
}

TEST_F(TokenTest, ChooserFailuresGiveTheirStatusAndText) {
  ASSERT_EQ(LoadToken(kPinToken), 0);
  KV_P11_OP op;
  {
    DiagCapture diag;
    EXPECT_EQ(Open(op, kPinToken, "7777"), -9);
    EXPECT_FALSE(op.onModule());
    EXPECT_EQ(diag.Texts(), (std::vector<std::string>{"error at login,errno=a0(h)\n"}));
  }
  {
    DiagCapture diag;
    EXPECT_EQ(Open(op, "unknown-token"), -15);
    EXPECT_EQ(diag.Texts(), (std::vector<std::string>{"can not find the demanded token\n"}));
  }
  // The right PIN still opens it: the failures left nothing behind.
  ASSERT_EQ(Open(op, kPinToken), 0);
  EXPECT_TRUE(op.onModule());
  // A copy opens a chooser of its own on the same token.
  KV_P11_OP copy(op);
  EXPECT_TRUE(copy.onModule());
  KV_P11_Alg sha1;
  sha1.setAlgType(KV_ALG_SHA1);
  MiByte in = M("abc"), out;
  ASSERT_EQ(copy.Digest(sha1, in, out), 0);
  EXPECT_EQ(Hex(B(out)), "a9993e364706816aba3e25717850c26c9cd0d89d");
}

}  // namespace
