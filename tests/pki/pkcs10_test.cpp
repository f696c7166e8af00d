// PKCS#10 requests. Ours are checked by `openssl req -verify` and Python
// cryptography (signature, subject attributes and their string types);
// OpenSSL's are taken apart and verified by ours. One signer callback is
// OpenSSL itself (`openssl dgst -sha1 -sign`), so the request's layout is
// tested apart from our signing.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "pki/pki.h"
#include "support/support.h"

namespace {

const std::string kData = std::string(KV_TEST_DATA_DIR) + "/pki/";

const unsigned char* U(const std::string& s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}
unsigned N(const std::string& s) {
  return static_cast<unsigned>(s.size());
}

std::string Hex(const unsigned char* p, unsigned n) {
  static const char d[] = "0123456789ABCDEF";
  std::string s;
  for (unsigned i = 0; i < n; ++i) {
    s += d[p[i] >> 4];
    s += d[p[i] & 15];
  }
  return s;
}

class Pkcs10Test : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.Path().empty());
    ASSERT_EQ(PKCS_Initialize(), 0);
    ASSERT_EQ(PKCS_CreateCtx(&ctx_), 0);
    PKCS_InitPriKey(ctx_, &key_);
    std::string der = kvtest::ReadFile(kData + "key1024.der");
    ASSERT_EQ(KV_PKCS1PriKeyDecode(ctx_, U(der), N(der), &key_), 0);
    keyPem_ = dir_ / "key.pem";
    Openssl("rsa -inform DER -in " + kData + "key1024.der -out " + keyPem_);
  }
  void TearDown() override {
    PKCS_FreePriKey(ctx_, &key_);
    PKCS_DestroyCtx(ctx_);
    PKCS_Finalize();
  }
  void Openssl(const std::string& args) {
    ASSERT_EQ(kvtest::RunShell("openssl " + args + " 2>/dev/null").status, 0) << args;
  }
  std::string Build(const char* subject, const KV_LIST* attributes = nullptr) {
    unsigned char* der = nullptr;
    unsigned len = 0;
    int rv = KVPKCS_GenPKCS10WithKey(ctx_, subject, &key_, attributes, &der, &len);
    EXPECT_EQ(rv, 0) << subject;
    std::string out(reinterpret_cast<char*>(der), len);
    T_free(der);
    return out;
  }
  // "verify OK" is the only trustworthy sign: the exit status is 0 either way.
  bool OpensslVerifies(const std::string& request) {
    std::string file = dir_.Write("req.der", request);
    auto r = kvtest::RunShell("openssl req -inform DER -in " + file + " -verify -noout 2>&1");
    return r.out.find("verify OK") != std::string::npos &&
           r.out.find("failure") == std::string::npos;
  }
  std::string Python(const std::string& request, const std::string& body,
                     const std::string& args = "") {
    std::string file = dir_.Write("py.der", request);
    std::string script = dir_.Write("t.py",
                                    "import sys\n"
                                    "from cryptography import x509\n"
                                    "r = x509.load_der_x509_csr(open(sys.argv[1], 'rb').read())\n" +
                                        body);
    return kvtest::RunShell("/usr/bin/python3 " + script + " " + file + " " + args + " 2>&1").out;
  }

  kvtest::TempDir dir_;
  PKCS_CTX ctx_ = nullptr;
  PKCS_PRIKEY key_;
  std::string keyPem_;
};

TEST_F(Pkcs10Test, OursVerifyInOpenSSLAndPythonWithTheirSubjects) {
  std::string req = Build("CN=张三,OU=O'Brien,O=Example,E=zs@example.com,C=CN");
  EXPECT_TRUE(OpensslVerifies(req));
  std::string result =
      Python(req,
             "print(r.is_signature_valid)\n"
             "print(r.signature_hash_algorithm.name)\n"
             "for a in r.subject: print(a.oid.dotted_string, a._type.name, a.value)\n"
             "print(len(list(r.attributes)))\n"
             "print(r.public_key().public_numbers().n == int(sys.argv[2], 16))\n",
             Hex(key_.modulus, key_.modulusLen));
  EXPECT_EQ(result,
            "True\n"
            "sha1\n"
            "2.5.4.6 PrintableString CN\n"
            "1.2.840.113549.1.9.1 IA5String zs@example.com\n"
            "2.5.4.10 PrintableString Example\n"
            "2.5.4.11 UTF8String O'Brien\n"
            "2.5.4.3 UTF8String 张三\n"
            "0\n"
            "True\n");
  // The empty subject is allowed and still verifies.
  EXPECT_TRUE(OpensslVerifies(Build("")));
  EXPECT_TRUE(OpensslVerifies(Build(nullptr)));
}

TEST_F(Pkcs10Test, AttributesTakenFromOpenSSLGoBackIntoOurs) {
  std::string conf = dir_.Write("req.cnf",
                                "[req]\nprompt=no\nstring_mask=nombstr\ndistinguished_name=dn\n"
                                "attributes=at\n"
                                "[dn]\nCN=attr test\n"
                                "[at]\nchallengePassword=secret123\nunstructuredName=kv unit\n");
  Openssl("req -new -sha1 -key " + keyPem_ + " -config " + conf + " -outform DER -out " +
          (dir_ / "o.der"));
  std::string theirs = kvtest::ReadFile(dir_ / "o.der");
  KV_LIST* parts = nullptr;
  ASSERT_EQ(KV_CreateList(&parts), 0);
  ASSERT_EQ(KV_ListAppend(parts, U(std::string("stale")), 5), 0);  // cleared first
  PKCS_PUBKEY pub;
  PKCS_InitPubKey(ctx_, &pub);
  ASSERT_EQ(KVPKCS_DecomposePKCS10(ctx_, U(theirs), N(theirs), parts, &pub), 0);
  unsigned count = 0;
  KV_ListCount(parts, &count);
  ASSERT_EQ(count, 3u);  // subject, two attributes
  std::string modulus =
      kvtest::RunShell("openssl req -inform DER -noout -modulus -in " + (dir_ / "o.der")).out;
  EXPECT_EQ(modulus, "Modulus=" + Hex(pub.modulus, pub.modulusLen) + "\n");
  EXPECT_EQ(Hex(pub.exponent, pub.exponentLen), "010001");

  KV_LIST* attributes = nullptr;
  ASSERT_EQ(KV_CreateList(&attributes), 0);
  for (unsigned i = 1; i < count; ++i) {
    const unsigned char* p;
    unsigned n;
    ASSERT_EQ(KV_ListGet(parts, i, &p, &n), 0);
    ASSERT_EQ(KV_ListAppend(attributes, p, n), 0);
  }
  std::string ours = Build("CN=attr test", attributes);
  EXPECT_TRUE(OpensslVerifies(ours));
  // Same key, subject and attributes, PKCS#1 v1.5 is deterministic: the very
  // same octets as OpenSSL's request.
  EXPECT_EQ(Hex(U(ours), N(ours)), Hex(U(theirs), N(theirs)));
  std::string text =
      kvtest::RunShell("openssl req -inform DER -noout -text -in " + dir_.Write("a.der", ours)).out;
  EXPECT_NE(text.find("challengePassword        :secret123"), std::string::npos) << text;
  EXPECT_NE(text.find("unstructuredName         :kv unit"), std::string::npos) << text;

  // An item that is not an Attribute is refused.
  ASSERT_EQ(KV_ListAppend(attributes, U(std::string("\x05\x00", 2)), 2), 0);
  unsigned char* der = nullptr;
  unsigned len = 0;
  EXPECT_EQ(KVPKCS_GenPKCS10WithKey(ctx_, "CN=x", &key_, attributes, &der, &len), KV_ERR_DECODE);
  EXPECT_EQ(der, nullptr);
  KV_DestroyList(attributes);
  KV_DestroyList(parts);
  PKCS_FreePubKey(ctx_, &pub);
}

struct OpensslSigner {
  std::string dir, keyPem;
  int calls = 0;
};

int SignWithOpenssl(void* arg, const unsigned char* info, unsigned infoLen, unsigned char* sig,
                    unsigned* sigLen) {
  auto* s = static_cast<OpensslSigner*>(arg);
  ++s->calls;
  std::string in = s->dir + "/info.der", out = s->dir + "/sig.bin";
  FILE* f = std::fopen(in.c_str(), "wb");
  std::fwrite(info, 1, infoLen, f);
  std::fclose(f);
  if (kvtest::RunShell("openssl dgst -sha1 -sign " + s->keyPem + " -out " + out + " " + in)
          .status != 0) {
    return -77;
  }
  std::string signature = kvtest::ReadFile(out);
  if (signature.size() > *sigLen) return -78;
  std::memcpy(sig, signature.data(), signature.size());
  *sigLen = static_cast<unsigned>(signature.size());
  return 0;
}

int RefusingSigner(void*, const unsigned char*, unsigned, unsigned char*, unsigned*) {
  return -4242;
}

TEST_F(Pkcs10Test, CallbackSignerAndKeyGiveTheSameRequest) {
  OpensslSigner signer{dir_.Path(), keyPem_};
  PKCS_PUBKEY pub{key_.modulus, key_.modulusLen, key_.publicExponent, key_.publicExponentLen};
  unsigned char* der = nullptr;
  unsigned len = 0;
  ASSERT_EQ(KVPKCS_GenPKCS10(ctx_, "CN=callback,C=CN", &pub, nullptr, SignWithOpenssl, &signer,
                             &der, &len),
            0);
  EXPECT_EQ(signer.calls, 1);
  std::string viaCallback(reinterpret_cast<char*>(der), len);
  T_free(der);
  EXPECT_TRUE(OpensslVerifies(viaCallback));
  EXPECT_EQ(viaCallback, Build("CN=callback,C=CN"));
  EXPECT_EQ(KVPKCS_VerifyPKCS10(ctx_, U(viaCallback), N(viaCallback)), 0);

  // The signer's failure comes back unchanged, and nothing is returned.
  der = nullptr;
  EXPECT_EQ(KVPKCS_GenPKCS10(ctx_, "CN=x", &pub, nullptr, RefusingSigner, nullptr, &der, &len),
            -4242);
  EXPECT_EQ(der, nullptr);
  EXPECT_EQ(KVPKCS_GenPKCS10(ctx_, "CN=", &pub, nullptr, SignWithOpenssl, &signer, &der, &len),
            KV_ERR_SYNTAX);
  EXPECT_EQ(KVPKCS_GenPKCS10(ctx_, "CN=x", &pub, nullptr, nullptr, nullptr, &der, &len),
            KV_ERR_ARGUMENT);
}

TEST_F(Pkcs10Test, VerifiesOpenSSLRequestsByDigest) {
  for (const char* md : {"sha1", "md5"}) {
    Openssl(std::string("req -new -key ") + keyPem_ + " -subj /CN=" + md + " -" + md +
            " -outform DER -out " + (dir_ / "r.der"));
    std::string req = kvtest::ReadFile(dir_ / "r.der");
    EXPECT_EQ(KVPKCS_VerifyPKCS10(ctx_, U(req), N(req)), 0) << md;
    std::string bad = req;
    bad[bad.size() / 3] ^= 0x01;  // inside the request info
    EXPECT_EQ(KVPKCS_VerifyPKCS10(ctx_, U(bad), N(bad)), KV_ERR_SIGNATURE) << md;
  }
  Openssl("req -new -key " + keyPem_ + " -subj /CN=s256 -sha256 -outform DER -out " +
          (dir_ / "s.der"));
  std::string s256 = kvtest::ReadFile(dir_ / "s.der");
  EXPECT_EQ(KVPKCS_VerifyPKCS10(ctx_, U(s256), N(s256)), KV_ERR_UNSUPPORTED);
}

TEST_F(Pkcs10Test, DecompositionRefusals) {
  Openssl("req -new -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout " +
          (dir_ / "ec.key") + " -subj /CN=ec -outform DER -out " + (dir_ / "ec.der"));
  std::string ec = kvtest::ReadFile(dir_ / "ec.der");
  PKCS_PUBKEY pub;
  PKCS_InitPubKey(ctx_, &pub);
  EXPECT_EQ(KVPKCS_DecomposePKCS10(ctx_, U(ec), N(ec), nullptr, &pub), KV_ERR_UNSUPPORTED);
  std::string good = Build("CN=x");
  EXPECT_EQ(KVPKCS_DecomposePKCS10(ctx_, U(good), N(good) - 1, nullptr, &pub), KV_ERR_DECODE);
  EXPECT_EQ(KVPKCS_DecomposePKCS10(ctx_, U(good), N(good), nullptr, nullptr), KV_ERR_ARGUMENT);
  EXPECT_EQ(KVPKCS_DecomposePKCS10(nullptr, U(good), N(good), nullptr, &pub), KV_ERR_BAD_CONTEXT);
  // The key record is released and refilled, so a second call does not leak.
  ASSERT_EQ(KVPKCS_DecomposePKCS10(ctx_, U(good), N(good), nullptr, &pub), 0);
  ASSERT_EQ(KVPKCS_DecomposePKCS10(ctx_, U(good), N(good), nullptr, &pub), 0);
  EXPECT_EQ(Hex(pub.modulus, pub.modulusLen), Hex(key_.modulus, key_.modulusLen));
  PKCS_FreePubKey(ctx_, &pub);
}

TEST(Pkcs10Flat, ContextRules) {
  unsigned char der[4] = {0x30, 0x02, 0x05, 0x00};
  PKCS_PUBKEY pub{};
  EXPECT_EQ(KVPKCS_DecomposePKCS10(nullptr, der, 4, nullptr, &pub), KV_ERR_NOT_INITIALIZED);
  EXPECT_EQ(KVPKCS_VerifyPKCS10(nullptr, der, 4), KV_ERR_NOT_INITIALIZED);
}

TEST(Pkcs10Object, SettersDropTheSignatureAndReadRequestsComeOutUnchanged) {
  KV_PKCS10 req;
  MiByte out;
  EXPECT_EQ(req.getRequest(out), KV_ERR_NOTHING_HELD);
  EXPECT_EQ(req.getCertificationRequestInfo(out), KV_ERR_MISSING_FIELD);  // no key yet
  RSAPublicKey key;
  key.SetPkModulus(AsnInteger(int64_t(0xC5)));
  key.SetPublicExponent(AsnInteger(int64_t(3)));
  ASSERT_EQ(req.setPublicKey(key), 0);
  ASSERT_EQ(req.sign([](const MiByte&, MiByte& sig) {
    sig = MiByte("\x01\x02", 2);
    return 0;
  }),
            0);
  ASSERT_EQ(req.getRequest(out), 0);
  KV_PKCS10 read;
  ASSERT_EQ(read.setRequest(out), 0);
  MiByte again;
  ASSERT_EQ(read.getRequest(again), 0);
  EXPECT_TRUE(again == out);
  ASSERT_EQ(req.setSubject("CN=changed"), 0);
  EXPECT_EQ(req.getRequest(out), KV_ERR_NOTHING_HELD);
  // A signer's positive status is a failure too.
  EXPECT_EQ(req.sign([](const MiByte&, MiByte&) { return 5; }), KV_ERR_SIGNATURE);
}

}  // namespace
