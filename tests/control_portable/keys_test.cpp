// Providers, containers and keys of the portable platform, with OpenSSL as the
// independent reader of blobs, public key infos and signatures.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "control_portable/fixture.h"

namespace kvtest {
namespace {

using namespace kv::control;

const char kBase[] = "Microsoft Base Cryptographic Provider v1.0";
const char kEnhanced[] = "Microsoft Enhanced Cryptographic Provider v1.0";
const char kStrong[] = "Microsoft Strong Cryptographic Provider";

class KeysTest : public PortableTest {
 protected:
  ProvHandle Create(const char* container, const char* provider = kEnhanced) {
    ProvHandle h = 0;
    EXPECT_TRUE(p_->AcquireContext(&h, container, provider, KV_PROV_RSA_FULL, KV_CRYPT_NEWKEYSET))
        << std::hex << p_->GetLastError();
    return h;
  }
  ProvHandle Open(const char* container, const char* provider = kEnhanced) {
    ProvHandle h = 0;
    EXPECT_TRUE(p_->AcquireContext(&h, container, provider, KV_PROV_RSA_FULL, 0))
        << std::hex << p_->GetLastError();
    return h;
  }
  Bytes Export(KeyHandle key, uint32_t type) {
    uint32_t len = 0;
    EXPECT_TRUE(p_->ExportKey(key, type, 0, nullptr, &len));
    Bytes out(len);
    EXPECT_TRUE(p_->ExportKey(key, type, 0, out.data(), &len)) << std::hex << p_->GetLastError();
    out.resize(len);
    return out;
  }
  Bytes PublicKeyInfo(ProvHandle prov, uint32_t spec) {
    uint32_t len = 0;
    EXPECT_TRUE(p_->ExportPublicKeyInfo(prov, spec, nullptr, &len));
    Bytes out(len);
    EXPECT_TRUE(p_->ExportPublicKeyInfo(prov, spec, out.data(), &len));
    return out;
  }
  // SignHash over data, in CryptoAPI's order.
  Bytes Sign(ProvHandle prov, uint32_t spec, const std::string& data) {
    HashHandle hash = 0;
    EXPECT_TRUE(p_->CreateHash(prov, KV_CALG_SHA1, &hash));
    EXPECT_TRUE(
        p_->HashData(hash, reinterpret_cast<const uint8_t*>(data.data()), uint32_t(data.size())));
    uint32_t len = 0;
    EXPECT_TRUE(p_->SignHash(hash, spec, nullptr, &len));
    Bytes sig(len);
    EXPECT_TRUE(p_->SignHash(hash, spec, sig.data(), &len)) << std::hex << p_->GetLastError();
    EXPECT_TRUE(p_->DestroyHash(hash));
    return sig;
  }
  // The modulus line OpenSSL prints for a key file.
  std::string Modulus(const std::string& args) {
    return Must("openssl rsa " + args + " -modulus -noout");
  }
};

TEST_F(KeysTest, ProvidersEnumerateInStockOrderWithTheSizeProtocol) {
  const std::vector<std::pair<std::string, uint32_t>> expected = {
      {kBase, 1},
      {"Microsoft Base DSS Cryptographic Provider", 3},
      {kEnhanced, 1},
      {"Microsoft Enhanced RSA and AES Cryptographic Provider", 24},
      {kStrong, 1}};
  for (uint32_t i = 0; i < expected.size(); ++i) {
    uint32_t type = 0, len = 0;
    ASSERT_TRUE(p_->EnumProviders(i, &type, nullptr, &len));
    EXPECT_EQ(len, expected[i].first.size() + 1);
    std::vector<char> name(len);
    uint32_t shortLen = len - 1;
    EXPECT_FALSE(p_->EnumProviders(i, &type, name.data(), &shortLen));
    EXPECT_EQ(p_->GetLastError(), uint32_t(KV_ERROR_MORE_DATA));
    EXPECT_EQ(shortLen, len);
    ASSERT_TRUE(p_->EnumProviders(i, &type, name.data(), &len));
    EXPECT_EQ(std::string(name.data()), expected[i].first);
    EXPECT_EQ(type, expected[i].second);
  }
  uint32_t type = 0, len = 0;
  EXPECT_FALSE(p_->EnumProviders(5, &type, nullptr, &len));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_ERROR_NO_MORE_ITEMS));
}

TEST_F(KeysTest, AcquireContextReportsTheDocumentedCodes) {
  ProvHandle h = 7;
  EXPECT_FALSE(p_->AcquireContext(&h, "c", "No Such Provider", KV_PROV_RSA_FULL, 0));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_KEYSET_NOT_DEF));
  EXPECT_EQ(h, 0u);
  EXPECT_FALSE(p_->AcquireContext(&h, "c", kBase, 24, KV_CRYPT_NEWKEYSET));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_PROV_TYPE_NO_MATCH));
  EXPECT_FALSE(p_->AcquireContext(&h, "c", nullptr, 99, KV_CRYPT_NEWKEYSET));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_PROV_TYPE_NOT_DEF));
  EXPECT_FALSE(p_->AcquireContext(&h, "c", "Microsoft Base DSS Cryptographic Provider", KV_PROV_DSS,
                                  KV_CRYPT_NEWKEYSET));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_PROV_DLL_NOT_FOUND));
  EXPECT_FALSE(p_->AcquireContext(&h, "c", kBase, KV_PROV_RSA_FULL,
                                  KV_CRYPT_NEWKEYSET | KV_CRYPT_DELETEKEYSET));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_FLAGS));

  EXPECT_FALSE(p_->AcquireContext(&h, "c", kBase, KV_PROV_RSA_FULL, 0));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_KEYSET));
  ProvHandle created = Create("c", kBase);
  ASSERT_NE(created, 0u);
  EXPECT_FALSE(p_->AcquireContext(&h, "c", kBase, KV_PROV_RSA_FULL, KV_CRYPT_NEWKEYSET));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_EXISTS));
  // The RSA providers share the user's containers, and names match in any case.
  ProvHandle viaStrong = Open("C", kStrong);
  EXPECT_NE(viaStrong, 0u);
  // Provider names are matched without regard to case.
  ProvHandle lower = Open("c", "microsoft enhanced cryptographic provider v1.0");
  EXPECT_NE(lower, 0u);

  h = 7;
  EXPECT_TRUE(p_->AcquireContext(&h, "c", kBase, KV_PROV_RSA_FULL, KV_CRYPT_DELETEKEYSET));
  EXPECT_EQ(h, 0u);
  EXPECT_FALSE(p_->AcquireContext(&h, "c", kBase, KV_PROV_RSA_FULL, KV_CRYPT_DELETEKEYSET));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_KEYSET));
  // A context whose container went away finds no keyset.
  KeyHandle key = 0;
  EXPECT_FALSE(p_->GetUserKey(created, KV_AT_SIGNATURE, &key));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_KEYSET));
  EXPECT_TRUE(p_->ReleaseContext(created));
  EXPECT_FALSE(p_->ReleaseContext(created));
}

TEST_F(KeysTest, KeySizesFollowTheProviderLimitsAndTheEngineRange) {
  ProvHandle base = Create("limits", kBase);
  KeyHandle key = 0;
  EXPECT_FALSE(p_->GetUserKey(base, KV_AT_KEYEXCHANGE, &key));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_NO_KEY));
  // The Base provider's exchange keys stop at 1024 bits.
  EXPECT_FALSE(p_->GenKey(base, KV_AT_KEYEXCHANGE, 2048u << 16 | KV_CRYPT_EXPORTABLE, &key));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_FLAGS));
  EXPECT_FALSE(p_->GetUserKey(base, KV_AT_KEYEXCHANGE, &key));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_NO_KEY));
  // Sizes outside the engine's 512..8192, or not a whole number of octets.
  for (uint32_t bits : {384u, 16384u, 1001u}) {
    EXPECT_FALSE(p_->GenKey(base, KV_AT_SIGNATURE, bits << 16, &key)) << bits;
    EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_FLAGS)) << bits;
  }
  EXPECT_FALSE(p_->GenKey(base, 0x6610 /* CALG_AES_256 */, 0, &key));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_ALGID));

  // Bits 0: the provider's default, 512 on Base and 1024 on the others.
  ASSERT_TRUE(p_->GenKey(base, KV_CALG_RSA_KEYX, 0, &key));
  Bytes blob = Export(key, KV_PUBLICKEYBLOB);
  EXPECT_EQ(blob[12] | blob[13] << 8, 512);
  ProvHandle enh = Create("limits-enh");
  ASSERT_TRUE(p_->GenKey(enh, KV_AT_KEYEXCHANGE, 0, &key));
  blob = Export(key, KV_PUBLICKEYBLOB);
  EXPECT_EQ(blob[12] | blob[13] << 8, 1024);
  ASSERT_TRUE(p_->GenKey(enh, KV_AT_SIGNATURE, 4096u << 16, &key));
  blob = Export(key, KV_PUBLICKEYBLOB);
  EXPECT_EQ(blob[12] | blob[13] << 8, 4096);
  EXPECT_EQ(blob.size(), 20u + 512u);
}

TEST_F(KeysTest, ExportedBlobsAreReadByOpenSSLForSeveralSizes) {
  ProvHandle prov = Create("blobs");
  for (uint32_t bits : {512u, 1024u, 1536u, 2048u}) {
    for (uint32_t spec : {uint32_t(KV_AT_SIGNATURE), uint32_t(KV_AT_KEYEXCHANGE)}) {
      SCOPED_TRACE(std::to_string(bits) + " spec " + std::to_string(spec));
      KeyHandle key = 0;
      ASSERT_TRUE(p_->GenKey(prov, spec, bits << 16 | KV_CRYPT_EXPORTABLE, &key));
      Bytes pub = Export(key, KV_PUBLICKEYBLOB);
      Bytes priv = Export(key, KV_PRIVATEKEYBLOB);
      EXPECT_EQ(pub.size(), 20 + bits / 8);
      EXPECT_EQ(priv.size(), 20 + bits / 8 * 2 + bits / 16 * 5);
      // The key algorithm in the header says which kind of key it is.
      uint32_t algid = spec == KV_AT_SIGNATURE ? KV_CALG_RSA_SIGN : KV_CALG_RSA_KEYX;
      for (const Bytes* b : {&pub, &priv})
        EXPECT_EQ(uint32_t((*b)[4] | (*b)[5] << 8 | (*b)[6] << 16 | (*b)[7] << 24), algid);
      std::string pubFile = tmp_.Write("pub.blob", Str(pub));
      std::string privFile = tmp_.Write("priv.blob", Str(priv));
      std::string spki = tmp_.Write("spki.der", Str(PublicKeyInfo(prov, spec)));
      EXPECT_NE(
          Must("openssl rsa -inform MSBLOB -in " + privFile + " -check -noout").find("RSA key ok"),
          std::string::npos);
      std::string modulus = Modulus("-inform MSBLOB -in " + privFile);
      EXPECT_EQ(Modulus("-inform MSBLOB -pubin -in " + pubFile), modulus);
      EXPECT_EQ(Modulus("-inform DER -pubin -in " + spki), modulus);
      // rsaEncryption with NULL parameters, as OpenSSL writes it itself.
      EXPECT_EQ(Must("openssl pkey -pubin -inform DER -in " + spki + " -outform DER | od -An -tx1"),
                Must("od -An -tx1 " + spki));
      EXPECT_TRUE(p_->DestroyKey(key));
    }
  }
}

TEST_F(KeysTest, PrivateExportNeedsAnExportableKeyAndRoom) {
  ProvHandle prov = Create("locked");
  KeyHandle key = 0;
  ASSERT_TRUE(p_->GenKey(prov, KV_AT_SIGNATURE, 1024u << 16 | KV_CRYPT_USER_PROTECTED, &key));
  uint32_t len = 0;
  EXPECT_FALSE(p_->ExportKey(key, KV_PRIVATEKEYBLOB, 0, nullptr, &len));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_KEY_STATE));
  EXPECT_FALSE(p_->ExportKey(key, 0x8 /* SIMPLEBLOB */, 0, nullptr, &len));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_TYPE));
  ASSERT_TRUE(p_->ExportKey(key, KV_PUBLICKEYBLOB, 0, nullptr, &len));
  EXPECT_EQ(len, 148u);
  Bytes buf(len);
  uint32_t shortLen = len - 1;
  EXPECT_FALSE(p_->ExportKey(key, KV_PUBLICKEYBLOB, 0, buf.data(), &shortLen));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_ERROR_MORE_DATA));
  EXPECT_EQ(shortLen, 148u);
  // Still locked when fetched again, in a new instance.
  Reopen();
  prov = Open("locked");
  ASSERT_TRUE(p_->GetUserKey(prov, KV_AT_SIGNATURE, &key));
  EXPECT_FALSE(p_->ExportKey(key, KV_PRIVATEKEYBLOB, 0, nullptr, &len));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_KEY_STATE));
}

TEST_F(KeysTest, OpenSSLPrivateBlobsImportSignAndExportUnchanged) {
  Must("openssl genrsa -out " + (tmp_ / "k.pem") + " 1024");
  Must("openssl rsa -in " + (tmp_ / "k.pem") + " -outform MSBLOB -out " + (tmp_ / "k.blob"));
  Must("openssl rsa -in " + (tmp_ / "k.pem") + " -pubout -out " + (tmp_ / "pub.pem"));
  Bytes blob = Vec(ReadFile(tmp_ / "k.blob"));
  ASSERT_GT(blob.size(), 20u);
  ProvHandle prov = Create("imported");
  KeyHandle key = 0;
  ASSERT_TRUE(p_->ImportKey(prov, blob.data(), uint32_t(blob.size()), KV_CRYPT_EXPORTABLE, &key))
      << std::hex << p_->GetLastError();
  // OpenSSL marks its blobs as exchange keys; exported again they are the same octets.
  EXPECT_EQ(Export(key, KV_PRIVATEKEYBLOB), blob);
  ASSERT_TRUE(p_->GetUserKey(prov, KV_AT_KEYEXCHANGE, &key));
  EXPECT_FALSE(p_->GetUserKey(prov, KV_AT_SIGNATURE, &key));

  Bytes sig = Sign(prov, KV_AT_KEYEXCHANGE, "text to sign");
  std::reverse(sig.begin(), sig.end());
  tmp_.Write("sig.bin", Str(sig));
  tmp_.Write("data.txt", "text to sign");
  EXPECT_NE(Must("openssl dgst -sha1 -verify " + (tmp_ / "pub.pem") + " -signature " +
                 (tmp_ / "sig.bin") + " " + (tmp_ / "data.txt"))
                .find("Verified OK"),
            std::string::npos);

  // With CALG_RSA_SIGN in the header the key becomes the signature key;
  // without CRYPT_EXPORTABLE it stays inside.
  Bytes asSig = blob;
  asSig[5] = 0x24;
  ASSERT_TRUE(p_->ImportKey(prov, asSig.data(), uint32_t(asSig.size()), 0, &key));
  uint32_t len = 0;
  EXPECT_FALSE(p_->ExportKey(key, KV_PRIVATEKEYBLOB, 0, nullptr, &len));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_KEY_STATE));
  ASSERT_TRUE(p_->GetUserKey(prov, KV_AT_SIGNATURE, &key));

  Bytes cut(blob.begin(), blob.end() - 1);
  EXPECT_FALSE(p_->ImportKey(prov, cut.data(), uint32_t(cut.size()), 0, &key));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_LEN));
  Bytes broken = blob;
  broken[20 + 128 + 3] ^= 0x01;  // a prime octet: the components no longer agree
  EXPECT_FALSE(p_->ImportKey(prov, broken.data(), uint32_t(broken.size()), 0, &key));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_DATA));
  Must("openssl rsa -in " + (tmp_ / "k.pem") + " -pubout -outform MSBLOB -out " +
       (tmp_ / "p.blob"));
  Bytes publicBlob = Vec(ReadFile(tmp_ / "p.blob"));
  EXPECT_FALSE(p_->ImportKey(prov, publicBlob.data(), uint32_t(publicBlob.size()), 0, &key));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_TYPE));
}

TEST_F(KeysTest, SignaturesOfGeneratedKeysVerifyWithOpenSSL) {
  ProvHandle prov = Create("signer", kBase);
  KeyHandle key = 0;
  ASSERT_TRUE(p_->GenKey(prov, KV_AT_SIGNATURE, 2048u << 16, &key));
  tmp_.Write("spki.der", Str(PublicKeyInfo(prov, KV_AT_SIGNATURE)));
  Must("openssl pkey -pubin -inform DER -in " + (tmp_ / "spki.der") + " -out " +
       (tmp_ / "pub.pem"));
  for (const std::string& text : {std::string(), std::string("abc"), std::string(5000, 'x')}) {
    Bytes sig = Sign(prov, KV_AT_SIGNATURE, text);
    ASSERT_EQ(sig.size(), 256u);
    std::reverse(sig.begin(), sig.end());
    tmp_.Write("sig.bin", Str(sig));
    tmp_.Write("data.txt", text);
    EXPECT_NE(Must("openssl dgst -sha1 -verify " + (tmp_ / "pub.pem") + " -signature " +
                   (tmp_ / "sig.bin") + " " + (tmp_ / "data.txt"))
                  .find("Verified OK"),
              std::string::npos);
  }

  HashHandle hash = 0;
  ASSERT_TRUE(p_->CreateHash(prov, KV_CALG_SHA1, &hash));
  uint32_t len = 0;
  EXPECT_FALSE(p_->SignHash(hash, KV_AT_KEYEXCHANGE, nullptr, &len));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_NO_KEY));
  Bytes sig(256);
  len = 256;
  ASSERT_TRUE(p_->SignHash(hash, KV_AT_SIGNATURE, sig.data(), &len));
  // A signed hash takes no more data.
  EXPECT_FALSE(p_->HashData(hash, sig.data(), 1));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_HASH_STATE));
  HashHandle md5 = 0;
  EXPECT_FALSE(p_->CreateHash(prov, 0x8003 /* CALG_MD5 */, &md5));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_ALGID));
}

TEST_F(KeysTest, PublicKeyInfoComparesWithACertificateOfTheSameKey) {
  Bytes cert = MakeCertificate("c", "/CN=compare");
  Must("openssl rsa -in " + (tmp_ / "c.key") + " -outform MSBLOB -out " + (tmp_ / "k.blob"));
  Bytes blob = Vec(ReadFile(tmp_ / "k.blob"));
  ProvHandle prov = Create("cmp");
  KeyHandle key = 0;
  ASSERT_TRUE(p_->ImportKey(prov, blob.data(), uint32_t(blob.size()), 0, &key));
  Bytes ours = PublicKeyInfo(prov, KV_AT_KEYEXCHANGE);
  Must("openssl x509 -inform DER -in " + (tmp_ / "c.der") +
       " -pubkey -noout | openssl pkey -pubin -outform DER -out " + (tmp_ / "their.der"));
  Bytes theirs = Vec(ReadFile(tmp_ / "their.der"));
  EXPECT_EQ(ours, theirs);
  EXPECT_TRUE(p_->ComparePublicKeyInfo(ours.data(), uint32_t(ours.size()), theirs.data(),
                                       uint32_t(theirs.size())));
  ASSERT_TRUE(p_->GenKey(prov, KV_AT_SIGNATURE, 1024u << 16, &key));
  Bytes other = PublicKeyInfo(prov, KV_AT_SIGNATURE);
  EXPECT_FALSE(p_->ComparePublicKeyInfo(ours.data(), uint32_t(ours.size()), other.data(),
                                        uint32_t(other.size())));
  EXPECT_FALSE(p_->ComparePublicKeyInfo(ours.data(), uint32_t(ours.size()), cert.data(),
                                        uint32_t(cert.size())));
}

// The names of the files under a folder (recursively), relative to it.
std::vector<std::string> Tree(const std::string& dir) {
  std::string out = Must("cd " + dir + " && find . -mindepth 1 | sort");
  std::vector<std::string> names;
  size_t pos = 0, nl;
  while ((nl = out.find('\n', pos)) != std::string::npos) {
    names.push_back(out.substr(pos, nl - pos));
    pos = nl + 1;
  }
  return names;
}

mode_t Mode(const std::string& path) {
  struct stat st;
  return ::stat(path.c_str(), &st) == 0 ? st.st_mode & 0777 : 0;
}

TEST_F(KeysTest, ContainersPersistPrivatelyUnderAnyNameWithoutStrayFiles) {
  const std::string longA = std::string(300, 'a') + "1", longB = std::string(300, 'a') + "2";
  const std::vector<std::string> names = {"../escape",
                                          "a/b",
                                          "..",
                                          ".",
                                          "%41",
                                          "A%41",
                                          "name with spaces\\and\\backslashes",
                                          longA,
                                          longB,
                                          "\xd6\xd0\xce\xc4"};
  for (const std::string& n : names) {
    ProvHandle h = Create(n.c_str());
    KeyHandle key = 0;
    ASSERT_TRUE(p_->GenKey(h, KV_AT_KEYEXCHANGE, 512u << 16 | KV_CRYPT_EXPORTABLE, &key)) << n;
  }
  ProvHandle h = Open(names[0].c_str());
  KeyHandle key = 0;
  ASSERT_TRUE(p_->GenKey(h, KV_AT_SIGNATURE, 512u << 16, &key));
  Bytes cert = MakeCertificate("c", "/CN=attached");
  ASSERT_TRUE(p_->SetKeyParam(key, KV_KP_CERTIFICATE, cert.data(), uint32_t(cert.size()), 0));
  EXPECT_FALSE(p_->SetKeyParam(key, KV_KP_CERTIFICATE, cert.data(), 10, 0));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_DATA));
  EXPECT_FALSE(p_->SetKeyParam(key, 1 /* KP_IV */, cert.data(), uint32_t(cert.size()), 0));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_TYPE));

  // Everything lives in one private folder, one file per container, nothing else.
  std::string data = tmp_ / "data";
  EXPECT_EQ(Mode(data), 0700u);
  EXPECT_EQ(Mode(data + "/containers"), 0700u);
  std::vector<std::string> tree = Tree(data);
  ASSERT_EQ(tree.size(), names.size() + 1);
  EXPECT_EQ(tree[0], "./containers");
  for (size_t i = 1; i < tree.size(); ++i) {
    EXPECT_EQ(tree[i].rfind("./containers/", 0), 0u) << tree[i];
    EXPECT_EQ(tree[i].find('/', 13), std::string::npos) << tree[i];
    EXPECT_EQ(tree[i].substr(tree[i].size() - 4), ".key") << tree[i];
    EXPECT_EQ(Mode(data + "/" + tree[i]), 0600u) << tree[i];
  }
  EXPECT_EQ(Tree(tmp_.Path()).size(), tree.size() + 3);  // data/, c.key, c.der

  // A new instance finds every container with its keys.
  Reopen();
  std::vector<ContainerSummary> list = p_->ListContainers();
  ASSERT_EQ(list.size(), names.size());
  for (const std::string& n : names) {
    auto it = std::find_if(list.begin(), list.end(),
                           [&](const ContainerSummary& s) { return s.name == n; });
    ASSERT_NE(it, list.end()) << n;
    EXPECT_TRUE(it->exchange.present);
    EXPECT_EQ(it->exchange.bits, 512u);
    EXPECT_TRUE(it->exchange.exportable);
    EXPECT_EQ(it->signature.present, n == names[0]);
    EXPECT_EQ(it->signature.hasCertificate, n == names[0]);
    h = Open(n.c_str());
    EXPECT_TRUE(p_->GetUserKey(h, KV_AT_KEYEXCHANGE, &key)) << n;
  }
  ProvHandle gone = 0;
  EXPECT_TRUE(p_->AcquireContext(&gone, longA.c_str(), kBase, 1, KV_CRYPT_DELETEKEYSET));
  EXPECT_NE(Open(longB.c_str()), 0u);
  EXPECT_EQ(p_->ListContainers().size(), names.size() - 1);
}

}  // namespace
}  // namespace kvtest
