// Every operation of the soft token through KV_P11_OP against independent
// implementations: the OpenSSL command line (digests, ciphers, RSA v1.5
// signatures and encryption, block by block) and pycryptodome for MD2.
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
    if (!HaveOpenssl()) GTEST_SKIP() << "no openssl";
    if (!HavePython("cryptography")) GTEST_SKIP() << "no python3-cryptography";
    OpenSoft(op_);
  }

  KV_P11_OP op_;
  const std::vector<size_t> sizes_ = {0, 1, 7, 8, 9, 63, 64, 65, 1000};
};

TEST_F(Oracle, DigestsMatchOpensslAndPycryptodome) {
  const bool md2 = HavePython("Cryptodome.Hash.MD2");
  for (size_t n : sizes_) {
    const Bytes msg = Random(n, 7 + unsigned(n));
    for (auto [kind, name] :
         {std::pair<int, const char*>{KV_ALG_SHA1, "sha1"}, {KV_ALG_MD5, "md5"}}) {
      KV_P11_Alg alg;
      alg.setAlgType(kind);
      MiByte in = M(msg), out;
      ASSERT_EQ(op_.Digest(alg, in, out), 0);
      EXPECT_EQ(Hex(B(out)), Hex(Openssl(std::string("dgst -binary -") + name, msg))) << name << n;
    }
    if (md2) {
      KV_P11_Alg alg;
      alg.setAlgType(KV_ALG_MD2);
      MiByte in = M(msg), out;
      ASSERT_EQ(op_.Digest(alg, in, out), 0);
      WriteScratch("md2in", msg);
      std::string expect;
      Shell(kPython +
                " -c \"from Cryptodome.Hash import MD2; import sys; "
                "print(MD2.new(open(sys.argv[1],'rb').read()).hexdigest())\" '" +
                Scratch() / "md2in" + "'",
            &expect);
      EXPECT_EQ(Hex(B(out)) + "\n", expect) << "md2 " << n;
    }
  }
}

struct CipherCase {
  const char* name;  // openssl's cipher name
  int algKind;
  int keyKind;
  size_t keyLen;
  int effectiveBits;  // RC2 only
};

// Our encryption equals OpenSSL's (both are deterministic for a given key and
// IV) and decrypts OpenSSL's ciphertext; tampered padding is refused.
TEST_F(Oracle, CiphersBothWays) {
  const CipherCase cases[] = {
      {"des-cbc", KV_ALG_DES_CBC, KV_KEY_DES, 8, 0},
      {"des-ede3-cbc", KV_ALG_DES_EDE3_CBC, KV_KEY_DES3, 24, 0},
      {"des-ede-cbc", KV_ALG_DES_EDE3_CBC, KV_KEY_DES3_2KEY, 16, 0},
      {"rc2-40-cbc", KV_ALG_RC2_CBC, KV_KEY_RC2, 5, 40},
      {"rc2-64-cbc", KV_ALG_RC2_CBC, KV_KEY_RC2, 8, 64},
      {"rc2-cbc", KV_ALG_RC2_CBC, KV_KEY_RC2, 16, 128},
      {"rc4", KV_ALG_RC4, KV_KEY_RC4, 16, 0},
  };
  for (const CipherCase& c : cases) {
    const Bytes keyBytes = Random(c.keyLen, unsigned(c.keyLen) * 31 + c.algKind);
    const Bytes iv = c.algKind == KV_ALG_RC4 ? Bytes() : Random(8, 99);
    KV_P11_Key key;
    KV_PKCS11_SESSION_KEY sk{const_cast<unsigned char*>(keyBytes.data()), unsigned(keyBytes.size()),
                             int(keyBytes.size())};
    ASSERT_EQ(key.setSessionKey(&sk), 0);
    key.setKeyType(c.keyKind);
    KV_P11_Alg alg;
    alg.setAlgType(c.algKind);
    if (!iv.empty()) {
      MiByte m = M(iv);
      ASSERT_EQ(alg.setIV(m), 0);
    }
    alg.setEffectiveBits(c.effectiveBits);
    std::string args =
        std::string("enc -provider legacy -provider default -") + c.name + " -K " + Hex(keyBytes);
    if (!iv.empty()) args += " -iv " + Hex(iv);

    for (size_t n : sizes_) {
      const Bytes plain = Random(n, unsigned(n) + 1000);
      MiByte in = M(plain), ours;
      ASSERT_EQ(op_.Encrypt(alg, key, in, ours), 0) << c.name << " " << n;
      const Bytes theirs = Openssl(args, plain);
      EXPECT_EQ(Hex(B(ours)), Hex(theirs)) << c.name << " " << n;
      EXPECT_EQ(Hex(Openssl(args + " -d", B(ours))), Hex(plain)) << c.name << " " << n;

      MiByte ct = M(theirs), back;
      ASSERT_EQ(op_.Decrypt(alg, key, ct, back), 0) << c.name << " " << n;
      EXPECT_EQ(Hex(B(back)), Hex(plain)) << c.name << " " << n;
    }
    if (c.algKind != KV_ALG_RC4) {
      // The last block's padding no longer checks out: -2; a partial block: -3.
      Bytes ct = Openssl(args, Random(20, 5));
      Bytes spoilt = ct;
      spoilt[spoilt.size() - 9] ^= 0x01;  // flips a plaintext bit of the last block's padding
      MiByte bad = M(spoilt), out;
      EXPECT_EQ(op_.Decrypt(alg, key, bad, out), -2) << c.name;
      ct.pop_back();
      MiByte partial = M(ct);
      EXPECT_EQ(op_.Decrypt(alg, key, partial, out), -3) << c.name;
    }
  }
}

// An RC2 identifier written by OpenSSL (version 160: 40 bits) configures the
// cipher so that OpenSSL's own rc2-40-cbc output decrypts.
TEST_F(Oracle, Rc2IdentifierFromOpensslDecrypts) {
  // SEQUENCE { OID rc2-cbc, SEQUENCE { INTEGER 160, OCTET STRING iv } }
  const Bytes iv = Unhex("0102030405060708");
  const Bytes der = Openssl("asn1parse -genconf /dev/stdin -noout -out /dev/stdout", [] {
    std::string conf =
        "asn1=SEQUENCE:alg\n[alg]\noid=OID:1.2.840.113549.3.2\np=SEQUENCE:params\n"
        "[params]\nv=INTEGER:160\niv=FORMAT:HEX,OCTETSTRING:0102030405060708\n";
    return Bytes(conf.begin(), conf.end());
  }());
  AlgorithmIdentifier id;
  id.DerDecode(M(der), 0);
  KV_P11_Alg alg;
  ASSERT_EQ(alg.setAlgorithmIdentifier(id), 0);
  int bits = 0;
  alg.getEffectiveBits(bits);
  EXPECT_EQ(bits, 40);

  const Bytes keyBytes = Unhex("a1a2a3a4a5");
  const Bytes plain = Random(50, 3);
  const Bytes ct = Openssl(
      "enc -provider legacy -provider default -rc2-40-cbc -K a1a2a3a4a5 -iv " + Hex(iv), plain);
  KV_P11_Key key;
  KV_PKCS11_SESSION_KEY sk{const_cast<unsigned char*>(keyBytes.data()), 5, 5};
  key.setSessionKey(&sk);
  key.setKeyType(KV_KEY_RC2);
  MiByte in = M(ct), out;
  ASSERT_EQ(op_.Decrypt(alg, key, in, out), 0);
  EXPECT_EQ(Hex(B(out)), Hex(plain));
}

// v1.5 signatures are deterministic: ours equal OpenSSL's, verify there, and
// OpenSSL's verify here; a changed message or signature gives -13.
TEST_F(Oracle, SignaturesBothWays) {
  for (int bits : {1024, 2048}) {
    const RsaKey& k = OpensslKey(bits);
    KV_P11_Key priv = PrivateKey(k), pub = PublicKey(k);
    for (auto [kind, md] :
         {std::pair<int, const char*>{KV_ALG_SHA1_RSA, "sha1"}, {KV_ALG_MD5_RSA, "md5"}}) {
      for (size_t n : {size_t(0), size_t(3), size_t(1000)}) {
        const Bytes msg = Random(n, unsigned(n) + bits);
        KV_P11_Alg alg;
        alg.setAlgType(kind);
        MiByte in = M(msg), sig;
        ASSERT_EQ(op_.Sign(alg, priv, in, sig), 0);
        const Bytes theirs =
            Openssl(std::string("dgst -") + md + " -sign '" + k.privPem + "'", msg);
        EXPECT_EQ(Hex(B(sig)), Hex(theirs)) << md << " " << n;
        WriteScratch("sig", B(sig));
        int rc = 0;
        Openssl(std::string("dgst -") + md + " -verify '" + k.pubPem + "' -signature sig", msg,
                &rc);
        EXPECT_EQ(rc, 0) << md << " " << n;

        MiByte theirSig = M(theirs);
        EXPECT_EQ(op_.Verify(alg, pub, in, theirSig), 0);
        EXPECT_EQ(op_.Verify(alg, priv, in, theirSig), 0) << "a private key verifies too";
        Bytes other = msg;
        other.push_back(1);
        MiByte changed = M(other);
        EXPECT_EQ(op_.Verify(alg, pub, changed, theirSig), -13);
        Bytes bad = theirs;
        bad[bad.size() / 2] ^= 0x40;
        MiByte badSig = M(bad);
        EXPECT_EQ(op_.Verify(alg, pub, in, badSig), -13);
        MiByte shortSig = M(Bytes(theirs.begin() + 1, theirs.end()));
        EXPECT_EQ(op_.Verify(alg, pub, in, shortSig), -13);
      }
    }
  }
}

// MD2 with RSA: OpenSSL has no MD2, pycryptodome signs it.
TEST_F(Oracle, Md2SignatureMatchesPycryptodome) {
  if (!HavePython("Cryptodome.Signature.pkcs1_15")) GTEST_SKIP() << "no pycryptodome";
  const RsaKey& k = OpensslKey(1024);
  const Bytes msg = Random(77, 4);
  WriteScratch("md2msg", msg);
  std::string out;
  ASSERT_EQ(
      Shell(kPython +
                " -c \"import sys; from Cryptodome.Hash import MD2; "
                "from Cryptodome.PublicKey import RSA; from Cryptodome.Signature import "
                "pkcs1_15; k=RSA.import_key(open(sys.argv[1]).read()); "
                "print(pkcs1_15.new(k).sign(MD2.new(open(sys.argv[2],'rb').read())).hex())\" '" +
                k.privPem + "' '" + Scratch() / "md2msg" + "'",
            &out),
      0);
  KV_P11_Alg alg;
  alg.setAlgType(KV_ALG_MD2_RSA);
  KV_P11_Key priv = PrivateKey(k), pub = PublicKey(k);
  MiByte in = M(msg), sig;
  ASSERT_EQ(op_.Sign(alg, priv, in, sig), 0);
  EXPECT_EQ(Hex(B(sig)) + "\n", out);
  EXPECT_EQ(op_.Verify(alg, pub, in, sig), 0);
}

// Kind 8: a type-1 block over the input itself (OpenSSL's raw pkcs1 sign),
// which the public key opens with Decrypt and Verify.
TEST_F(Oracle, RawRsaSignatureAndTypeOneBlocks) {
  const RsaKey& k = OpensslKey(1024);
  KV_P11_Key priv = PrivateKey(k), pub = PublicKey(k);
  KV_P11_Alg rsa;
  rsa.setAlgType(KV_ALG_RSA);
  const Bytes data = Random(36, 8);
  const Bytes theirs =
      Openssl("pkeyutl -sign -inkey '" + k.privPem + "' -pkeyopt rsa_padding_mode:pkcs1", data);
  MiByte in = M(data), sig, viaEncrypt, recovered, opened;
  ASSERT_EQ(op_.Sign(rsa, priv, in, sig), 0);
  EXPECT_EQ(Hex(B(sig)), Hex(theirs));
  ASSERT_EQ(op_.Encrypt(rsa, priv, in, viaEncrypt), 0);
  EXPECT_EQ(Hex(B(viaEncrypt)), Hex(theirs));
  ASSERT_EQ(op_.SignRecover(rsa, priv, in, recovered), 0);
  EXPECT_EQ(Hex(B(recovered)), Hex(theirs));
  MiByte theirSig = M(theirs);
  ASSERT_EQ(op_.Decrypt(rsa, pub, theirSig, opened), 0);
  EXPECT_EQ(Hex(B(opened)), Hex(data));
  EXPECT_EQ(op_.Verify(rsa, pub, in, theirSig), 0);
  MiByte other = M(Random(36, 9));
  EXPECT_EQ(op_.Verify(rsa, pub, other, theirSig), -13);
  // k - 11 octets is the most a block carries.
  MiByte tooLong = M(Random(k.ModulusBytes() - 10, 1));
  EXPECT_EQ(op_.Sign(rsa, priv, tooLong, sig), -3);
}

TEST_F(Oracle, RsaEncryptionBothWays) {
  for (int bits : {1024, 2048}) {
    const RsaKey& k = OpensslKey(bits);
    KV_P11_Key priv = PrivateKey(k), pub = PublicKey(k);
    KV_P11_Alg rsa;
    rsa.setAlgType(KV_ALG_RSA);
    for (size_t n : {size_t(1), size_t(20), size_t(k.ModulusBytes() - 11)}) {
      const Bytes plain = Random(n, unsigned(n));
      MiByte in = M(plain), ct, back;
      ASSERT_EQ(op_.Encrypt(rsa, pub, in, ct), 0);
      EXPECT_EQ(ct.GetLength(), k.ModulusBytes());
      EXPECT_EQ(Hex(Openssl("pkeyutl -decrypt -inkey '" + k.privPem + "'", B(ct))), Hex(plain));
      const Bytes theirs = Openssl("pkeyutl -encrypt -pubin -inkey '" + k.pubPem + "'", plain);
      MiByte theirCt = M(theirs);
      ASSERT_EQ(op_.Decrypt(rsa, priv, theirCt, back), 0);
      EXPECT_EQ(Hex(B(back)), Hex(plain));
    }
    MiByte tooLong = M(Random(k.ModulusBytes() - 10, 2)), out;
    EXPECT_EQ(op_.Encrypt(rsa, pub, tooLong, out), -3);
    MiByte shortCt = M(Random(k.ModulusBytes() - 1, 2));
    EXPECT_EQ(op_.Decrypt(rsa, priv, shortCt, out), -3);
  }
}

// Splits data into k-octet blocks and runs each through OpenSSL.
Bytes PerBlock(const std::string& args, const Bytes& data, size_t block) {
  Bytes out;
  for (size_t pos = 0; pos < data.size(); pos += block) {
    const Bytes piece(data.begin() + pos, data.begin() + std::min(data.size(), pos + block));
    const Bytes r = Openssl(args + " -pkeyopt rsa_padding_mode:pkcs1", piece);
    out.insert(out.end(), r.begin(), r.end());
  }
  return out;
}

PKCS_PUBKEY PubRecord(const RsaKey& k) {
  return PKCS_PUBKEY{const_cast<unsigned char*>(k.comp[0].data()), unsigned(k.comp[0].size()),
                     const_cast<unsigned char*>(k.comp[1].data()), unsigned(k.comp[1].size())};
}

PKCS_PRIKEY PriRecord(const RsaKey& k) {
  auto p = [&](int i) { return const_cast<unsigned char*>(k.comp[i].data()); };
  auto n = [&](int i) { return unsigned(k.comp[i].size()); };
  return PKCS_PRIKEY{p(0), n(0), p(1), n(1), p(2), n(2), p(3), n(3),
                     p(4), n(4), p(5), n(5), p(6), n(6), p(7), n(7)};
}

// KV_RSABigEncrypt / KV_RSABigDecrypt against OpenSSL block by block, for
// data from nothing up to several modulus lengths.
TEST_F(Oracle, BigEncryptionBlockByBlock) {
  const RsaKey& k = OpensslKey(1024);
  const size_t kk = k.ModulusBytes(), chunk = kk - 11;
  const PKCS_PUBKEY pub = PubRecord(k);
  const PKCS_PRIKEY pri = PriRecord(k);
  for (size_t n : {size_t(0), size_t(1), chunk, chunk + 1, 2 * chunk, 3 * kk + 5}) {
    const Bytes plain = Random(n, unsigned(n) + 17);
    unsigned len = 0;
    ASSERT_EQ(KV_RSABigEncrypt(nullptr, &pub, plain.data(), unsigned(n), nullptr, &len), 0);
    const size_t blocks = (n + chunk - 1) / chunk;
    EXPECT_EQ(len, blocks * kk) << n;
    Bytes ct(len);
    ASSERT_EQ(KV_RSABigEncrypt(nullptr, &pub, plain.data(), unsigned(n), ct.data(), &len), 0);
    ASSERT_EQ(len, blocks * kk);
    EXPECT_EQ(Hex(PerBlock("pkeyutl -decrypt -inkey '" + k.privPem + "'", ct, kk)), Hex(plain))
        << n;

    const Bytes theirs =
        PerBlock("pkeyutl -encrypt -pubin -inkey '" + k.pubPem + "'", plain, chunk);
    ASSERT_EQ(theirs.size(), blocks * kk);
    unsigned bound = 0;
    ASSERT_EQ(
        KV_RSABigDecrypt(nullptr, &pri, theirs.data(), unsigned(theirs.size()), nullptr, &bound),
        0);
    EXPECT_EQ(bound, blocks * chunk);
    Bytes back(bound + 1);
    unsigned got = unsigned(back.size());
    ASSERT_EQ(
        KV_RSABigDecrypt(nullptr, &pri, theirs.data(), unsigned(theirs.size()), back.data(), &got),
        0);
    back.resize(got);
    EXPECT_EQ(Hex(back), Hex(plain)) << n;
  }
}

}  // namespace
}  // namespace p11test
