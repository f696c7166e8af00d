// Every operation of the soft token through KV_P11_OP against independent
// implementations: the OpenSSL command line, and pycryptodome for MD2.
#include <gtest/gtest.h>

#include <string>

#include "asn1/types/types.h"
#include "crypto/keyconv.h"
#include "p11/p11_util.h"

namespace p11test {
namespace {

class Oracle : public testing::Test {
 protected:
  void SetUp() override {
    if (!HaveOracles()) GTEST_SKIP() << "needs openssl and python3-cryptography";
    OpenSoft(op_);
  }
  KV_P11_Alg Alg(int kind) {
    KV_P11_Alg a;
    a.setAlgType(kind);
    return a;
  }
  // pycryptodome's answer for an expression of MD2 (module), data (the
  // message) and key (the private key of key1024.pem).
  std::string Pycryptodome(const std::string& expr, const Bytes& data) {
    WriteScratch("pyin", data);
    std::string out;
    Shell(kPython +
              " -c \"from Cryptodome.Hash import MD2; from Cryptodome.PublicKey import RSA; "
              "from Cryptodome.Signature import pkcs1_15; data=open('pyin','rb').read(); "
              "key=RSA.import_key(open('key1024.pem').read()); print(" +
              expr + ")\"",
          &out);
    return out.empty() ? out : out.substr(0, out.size() - 1);
  }

  KV_P11_OP op_;
  const std::vector<size_t> sizes_ = {0, 1, 7, 8, 9, 64, 1000};
};

TEST_F(Oracle, Digests) {
  for (size_t n : sizes_) {
    const Bytes msg = Random(n, unsigned(n));
    MiByte in = M(msg), out;
    KV_P11_Alg sha1 = Alg(KV_ALG_SHA1), md5 = Alg(KV_ALG_MD5), md2 = Alg(KV_ALG_MD2);
    ASSERT_EQ(op_.Digest(sha1, in, out), 0);
    EXPECT_EQ(Hex(B(out)), Hex(Openssl("dgst -binary -sha1", msg))) << n;
    ASSERT_EQ(op_.Digest(md5, in, out), 0);
    EXPECT_EQ(Hex(B(out)), Hex(Openssl("dgst -binary -md5", msg))) << n;
    ASSERT_EQ(op_.Digest(md2, in, out), 0);
    EXPECT_EQ(Hex(B(out)), Pycryptodome("MD2.new(data).hexdigest()", msg)) << n;
  }
}

// Ours equals OpenSSL's ciphertext (deterministic for a key and IV), OpenSSL
// decrypts ours and we decrypt OpenSSL's; spoilt padding and partial blocks
// are refused.
TEST_F(Oracle, Ciphers) {
  struct Case {
    const char* name;  // OpenSSL's
    int alg, key;
    size_t keyLen;
    int bits;
  } cases[] = {{"des-cbc", KV_ALG_DES_CBC, KV_KEY_DES, 8, 0},
               {"des-ede3-cbc", KV_ALG_DES_EDE3_CBC, KV_KEY_DES3, 24, 0},
               {"des-ede-cbc", KV_ALG_DES_EDE3_CBC, KV_KEY_DES3_2KEY, 16, 0},
               {"rc2-40-cbc", KV_ALG_RC2_CBC, KV_KEY_RC2, 5, 40},
               {"rc2-64-cbc", KV_ALG_RC2_CBC, KV_KEY_RC2, 8, 64},
               {"rc2-cbc", KV_ALG_RC2_CBC, KV_KEY_RC2, 16, 128},
               {"rc4", KV_ALG_RC4, KV_KEY_RC4, 16, 0}};
  for (const Case& c : cases) {
    Bytes keyBytes = Random(c.keyLen, c.alg);
    KV_P11_Key key;
    KV_PKCS11_SESSION_KEY sk{keyBytes.data(), unsigned(c.keyLen), int(c.keyLen)};
    ASSERT_EQ(key.setSessionKey(&sk), 0);
    key.setKeyType(c.key);
    KV_P11_Alg alg = Alg(c.alg);
    alg.setEffectiveBits(c.bits);
    std::string args =
        std::string("enc -provider legacy -provider default -") + c.name + " -K " + Hex(keyBytes);
    if (c.alg != KV_ALG_RC4) {
      MiByte iv = M(Random(8, 99));
      ASSERT_EQ(alg.setIV(iv), 0);
      args += " -iv " + Hex(B(iv));
    }
    for (size_t n : sizes_) {
      const Bytes plain = Random(n, unsigned(n) + 1000);
      MiByte in = M(plain), ours, back;
      ASSERT_EQ(op_.Encrypt(alg, key, in, ours), 0) << c.name << n;
      const Bytes theirs = Openssl(args, plain);
      EXPECT_EQ(Hex(B(ours)), Hex(theirs)) << c.name << n;
      EXPECT_EQ(Hex(Openssl(args + " -d", B(ours))), Hex(plain)) << c.name << n;
      MiByte ct = M(theirs);
      ASSERT_EQ(op_.Decrypt(alg, key, ct, back), 0) << c.name << n;
      EXPECT_EQ(Hex(B(back)), Hex(plain)) << c.name << n;
    }
    if (c.alg == KV_ALG_RC4) continue;
    Bytes ct = Openssl(args, Random(20, 5));  // 4 octets of padding, each 04
    ct[ct.size() - 9] ^= 0x01;                // the last one becomes 05
    MiByte spoilt = M(ct), out;
    EXPECT_EQ(op_.Decrypt(alg, key, spoilt, out), -2) << c.name;
    ct.pop_back();
    MiByte partial = M(ct);
    EXPECT_EQ(op_.Decrypt(alg, key, partial, out), -3) << c.name;
  }
}

// An RC2 identifier written by OpenSSL (version 160) sets the 40 bits that
// OpenSSL's rc2-40-cbc output needs.
TEST_F(Oracle, Rc2IdentifierFromOpenssl) {
  const std::string conf =
      "asn1=SEQUENCE:alg\n[alg]\noid=OID:rc2-cbc\np=SEQUENCE:params\n"
      "[params]\nv=INTEGER:160\niv=FORMAT:HEX,OCTETSTRING:0102030405060708\n";
  AlgorithmIdentifier id;
  id.DerDecode(M(Openssl("asn1parse -genconf /dev/stdin -noout -out /dev/stdout",
                         Bytes(conf.begin(), conf.end()))),
               0);
  KV_P11_Alg alg;
  ASSERT_EQ(alg.setAlgorithmIdentifier(id), 0);
  const Bytes plain = Random(50, 3);
  Bytes keyBytes = Unhex("a1a2a3a4a5");
  MiByte ct = M(Openssl("enc -provider legacy -provider default -rc2-40-cbc -K a1a2a3a4a5 -iv "
                        "0102030405060708",
                        plain)),
         out;
  KV_P11_Key key;
  KV_PKCS11_SESSION_KEY sk{keyBytes.data(), 5, 5};
  key.setSessionKey(&sk);
  key.setKeyType(KV_KEY_RC2);
  ASSERT_EQ(op_.Decrypt(alg, key, ct, out), 0);
  EXPECT_EQ(Hex(B(out)), Hex(plain));
}

// v1.5 signatures are deterministic: ours equal OpenSSL's (pycryptodome's for
// MD2), verify there, and theirs verify here; a change anywhere gives -13.
TEST_F(Oracle, Signatures) {
  for (int bits : {1024, 2048}) {
    const RsaKey& k = OpensslKey(bits);
    KV_P11_Key priv = PrivateKey(k), pub = PublicKey(k);
    for (auto [kind, md] : {std::pair<int, std::string>{KV_ALG_SHA1_RSA, "sha1"},
                            {KV_ALG_MD5_RSA, "md5"},
                            {KV_ALG_MD2_RSA, "md2"}}) {
      if (kind == KV_ALG_MD2_RSA && bits != 1024) continue;
      for (size_t n : {0, 1000}) {
        const Bytes msg = Random(n, unsigned(n) + bits);
        KV_P11_Alg alg = Alg(kind);
        MiByte in = M(msg), sig;
        ASSERT_EQ(op_.Sign(alg, priv, in, sig), 0);
        Bytes theirs;
        if (kind == KV_ALG_MD2_RSA) {
          theirs = Unhex(Pycryptodome("pkcs1_15.new(key).sign(MD2.new(data)).hex()", msg));
        } else {
          theirs = Openssl("dgst -" + md + " -sign " + k.privPem, msg);
          WriteScratch("sig", B(sig));
          int rc = 0;
          Openssl("dgst -" + md + " -verify " + k.pubPem + " -signature sig", msg, &rc);
          EXPECT_EQ(rc, 0) << md << n;
        }
        EXPECT_EQ(Hex(B(sig)), Hex(theirs)) << md << n;
        MiByte theirSig = M(theirs), other = M(Random(n + 1, 1));
        EXPECT_EQ(op_.Verify(alg, pub, in, theirSig), 0);
        EXPECT_EQ(op_.Verify(alg, priv, in, theirSig), 0) << "with the private key's public half";
        EXPECT_EQ(op_.Verify(alg, pub, other, theirSig), -13);
        theirs[theirs.size() / 2] ^= 0x40;
        MiByte bad = M(theirs), cut = M(Bytes(theirs.begin() + 1, theirs.end()));
        EXPECT_EQ(op_.Verify(alg, pub, in, bad), -13);
        EXPECT_EQ(op_.Verify(alg, pub, in, cut), -13);
      }
    }
  }
}

// Kind 8: with the public key block type 2 (OpenSSL decrypts ours, we decrypt
// theirs); with the private key block type 1 over the input itself, equal to
// OpenSSL's raw pkcs1 signature, opened again by the public key.
TEST_F(Oracle, RsaBlocks) {
  for (int bits : {1024, 2048}) {
    const RsaKey& k = OpensslKey(bits);
    const size_t kk = k.comp[0].size();
    KV_P11_Key priv = PrivateKey(k), pub = PublicKey(k);
    KV_P11_Alg rsa = Alg(KV_ALG_RSA);
    for (size_t n : {size_t(1), size_t(36), kk - 11}) {
      const Bytes plain = Random(n, unsigned(n));
      MiByte in = M(plain), ct, back, sig, viaEncrypt, recovered, opened;
      ASSERT_EQ(op_.Encrypt(rsa, pub, in, ct), 0);
      EXPECT_EQ(ct.GetLength(), kk);
      EXPECT_EQ(Hex(Openssl("pkeyutl -decrypt -inkey " + k.privPem, B(ct))), Hex(plain));
      MiByte theirCt = M(Openssl("pkeyutl -encrypt -pubin -inkey " + k.pubPem, plain));
      ASSERT_EQ(op_.Decrypt(rsa, priv, theirCt, back), 0);
      EXPECT_EQ(Hex(B(back)), Hex(plain));
      if (n > 64) continue;  // OpenSSL signs nothing longer than a digest
      const Bytes theirSig = Openssl("pkeyutl -sign -inkey " + k.privPem, plain);
      ASSERT_EQ(op_.Sign(rsa, priv, in, sig), 0);
      ASSERT_EQ(op_.Encrypt(rsa, priv, in, viaEncrypt), 0);
      ASSERT_EQ(op_.SignRecover(rsa, priv, in, recovered), 0);
      for (const MiByte* s : {&sig, &viaEncrypt, &recovered}) EXPECT_EQ(Hex(B(*s)), Hex(theirSig));
      MiByte ts = M(theirSig);
      ASSERT_EQ(op_.Decrypt(rsa, pub, ts, opened), 0);
      EXPECT_EQ(Hex(B(opened)), Hex(plain));
      EXPECT_EQ(op_.Verify(rsa, pub, in, ts), 0);
      MiByte other = M(Random(n, 77));
      EXPECT_EQ(op_.Verify(rsa, pub, other, ts), -13);
    }
    MiByte tooLong = M(Random(kk - 10, 2)), shortCt = M(Random(kk - 1, 2)), out;
    EXPECT_EQ(op_.Encrypt(rsa, pub, tooLong, out), -3);
    EXPECT_EQ(op_.Sign(rsa, priv, tooLong, out), -3);
    EXPECT_EQ(op_.Decrypt(rsa, priv, shortCt, out), -3);
  }
}

// Runs data through OpenSSL in pieces of `block` octets and joins the results.
Bytes PerBlock(const std::string& args, const Bytes& data, size_t block) {
  Bytes out;
  for (size_t pos = 0; pos < data.size(); pos += block) {
    const Bytes r =
        Openssl(args + " -pkeyopt rsa_padding_mode:pkcs1",
                Bytes(data.begin() + pos, data.begin() + std::min(data.size(), pos + block)));
    out.insert(out.end(), r.begin(), r.end());
  }
  return out;
}

// KV_RSABigEncrypt / KV_RSABigDecrypt (and so RSABigEncrypt/Decrypt of the
// operation object) against OpenSSL block by block.
TEST_F(Oracle, LongData) {
  RsaKey k = OpensslKey(1024);
  const size_t kk = k.comp[0].size(), chunk = kk - 11;
  auto c = [&](int i) { return k.comp[i].data(); };
  auto l = [&](int i) { return unsigned(k.comp[i].size()); };
  const PKCS_PUBKEY pub{c(0), l(0), c(1), l(1)};
  const PKCS_PRIKEY pri{c(0), l(0), c(1), l(1), c(2), l(2), c(3), l(3),
                        c(4), l(4), c(5), l(5), c(6), l(6), c(7), l(7)};
  for (size_t n : {size_t(0), size_t(1), chunk, chunk + 1, 3 * kk + 5}) {
    const Bytes plain = Random(n, unsigned(n) + 17);
    const unsigned blocks = unsigned((n + chunk - 1) / chunk);
    unsigned len = 0;
    ASSERT_EQ(KV_RSABigEncrypt(nullptr, &pub, plain.data(), unsigned(n), nullptr, &len), 0);
    EXPECT_EQ(len, blocks * kk) << n;
    Bytes ct(len);
    len -= 1;
    EXPECT_EQ(KV_RSABigEncrypt(nullptr, &pub, plain.data(), unsigned(n), ct.data(), &len),
              n ? -1019 : 0);
    len = unsigned(ct.size());
    ASSERT_EQ(KV_RSABigEncrypt(nullptr, &pub, plain.data(), unsigned(n), ct.data(), &len), 0);
    EXPECT_EQ(Hex(PerBlock("pkeyutl -decrypt -inkey " + k.privPem, ct, kk)), Hex(plain)) << n;

    const Bytes theirs = PerBlock("pkeyutl -encrypt -pubin -inkey " + k.pubPem, plain, chunk);
    ASSERT_EQ(
        KV_RSABigDecrypt(nullptr, &pri, theirs.data(), unsigned(theirs.size()), nullptr, &len), 0);
    EXPECT_EQ(len, blocks * chunk) << "the upper bound";
    Bytes back(len);
    ASSERT_EQ(
        KV_RSABigDecrypt(nullptr, &pri, theirs.data(), unsigned(theirs.size()), back.data(), &len),
        0);
    back.resize(len);
    EXPECT_EQ(Hex(back), Hex(plain)) << n;
    if (n == 0) continue;
    EXPECT_EQ(
        KV_RSABigDecrypt(nullptr, &pri, theirs.data(), unsigned(theirs.size() - 1), nullptr, &len),
        -3);
    EXPECT_EQ(KV_RSABigDecrypt(nullptr, &pri, theirs.data(), unsigned(theirs.size() - 1),
                               back.data(), &len),
              -3);
  }
}

}  // namespace
}  // namespace p11test
