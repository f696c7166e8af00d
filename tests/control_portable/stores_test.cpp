// Certificate stores, contexts, the import of a key with its certificates and
// the signing chooser. Certificates and keys come from OpenSSL.
#include <sys/stat.h>

#include <algorithm>

#include "control_portable/fixture.h"

namespace kvtest {
namespace {

using namespace kv::control;

const char kEnhanced[] = "Microsoft Enhanced Cryptographic Provider v1.0";

std::u16string U16(const std::string& ascii) {
  return std::u16string(ascii.begin(), ascii.end());
}

class StoresTest : public PortableTest {
 protected:
  StoreHandle OpenMy(const char* name = "MY") {
    StoreHandle s = 0;
    EXPECT_TRUE(p_->OpenSystemStore(name, &s)) << std::hex << p_->GetLastError();
    return s;
  }
  CertHandle Add(StoreHandle store, const Bytes& der, uint32_t disposition) {
    CertHandle c = 0;
    EXPECT_TRUE(
        p_->AddEncodedCertificateToStore(store, der.data(), uint32_t(der.size()), disposition, &c))
        << std::hex << p_->GetLastError();
    return c;
  }
  // The certificates of a store in enumeration order (contexts freed).
  std::vector<Bytes> List(StoreHandle store) {
    std::vector<Bytes> out;
    CertHandle c = 0;
    while (p_->EnumCertificatesInStore(store, c, &c)) {
      Bytes der;
      EXPECT_TRUE(p_->GetEncoded(c, &der));
      out.push_back(der);
    }
    EXPECT_EQ(p_->GetLastError(), uint32_t(KV_CRYPT_E_NOT_FOUND));
    return out;
  }
  KeyProvInfo Info(const std::string& container, uint32_t spec) {
    KeyProvInfo i;
    i.containerName = U16(container);
    i.providerName = U16(kEnhanced);
    i.provType = 1;
    i.keySpec = spec;
    return i;
  }
  std::string Thumbprint(const std::string& name) {
    std::string out =
        Must("openssl x509 -inform DER -in " + (tmp_ / name) + ".der -noout -fingerprint -sha1");
    std::string hex;
    for (char c : out.substr(out.find('=') + 1))
      if (isxdigit(static_cast<unsigned char>(c))) hex.push_back(c);
    return hex;
  }
};

TEST_F(StoresTest, DispositionsUseOrReplaceTheCertificateAlreadyThere) {
  Bytes a = MakeCertificate("a", "/CN=Alice");
  StoreHandle my = OpenMy();
  CertHandle first = Add(my, a, KV_CERT_STORE_ADD_REPLACE_EXISTING);
  KeyProvInfo info = Info("first", KV_AT_SIGNATURE);
  ASSERT_TRUE(p_->SetKeyProvInfo(first, &info));

  // Use existing: success, and the stored certificate keeps its properties.
  CertHandle loose = 0;
  ASSERT_TRUE(p_->CreateCertificateContext(a.data(), uint32_t(a.size()), &loose));
  KeyProvInfo other = Info("second", KV_AT_KEYEXCHANGE);
  ASSERT_TRUE(p_->SetKeyProvInfo(loose, &other));
  CertHandle used = 0;
  ASSERT_TRUE(p_->AddCertificateContextToStore(my, loose, KV_CERT_STORE_ADD_USE_EXISTING, &used));
  KeyProvInfo got;
  ASSERT_TRUE(p_->GetKeyProvInfo(used, &got));
  EXPECT_EQ(got.containerName, U16("first"));
  Reopen();
  my = OpenMy();
  CertHandle c = 0;
  ASSERT_TRUE(p_->EnumCertificatesInStore(my, 0, &c));
  ASSERT_TRUE(p_->GetKeyProvInfo(c, &got));
  EXPECT_EQ(got.containerName, U16("first"));
  EXPECT_TRUE(p_->FreeCertificateContext(c));

  // Replace existing: the new context's properties, still one certificate.
  ASSERT_TRUE(p_->CreateCertificateContext(a.data(), uint32_t(a.size()), &loose));
  ASSERT_TRUE(p_->SetKeyProvInfo(loose, &other));
  CertHandle replaced = 0;
  ASSERT_TRUE(
      p_->AddCertificateContextToStore(my, loose, KV_CERT_STORE_ADD_REPLACE_EXISTING, &replaced));
  ASSERT_TRUE(p_->GetKeyProvInfo(replaced, &got));
  EXPECT_EQ(got.containerName, U16("second"));
  EXPECT_EQ(got.keySpec, uint32_t(KV_AT_KEYEXCHANGE));
  // An encoded add replaces with no properties at all.
  CertHandle bare = Add(my, a, KV_CERT_STORE_ADD_REPLACE_EXISTING);
  EXPECT_FALSE(p_->GetKeyProvInfo(bare, &got));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_CRYPT_E_NOT_FOUND));
  EXPECT_EQ(List(my).size(), 1u);

  // Two handles on one store: the second sees the first's certificate when adding.
  StoreHandle again = OpenMy("my");
  Bytes b = MakeCertificate("b", "/CN=Bob");
  Add(my, b, KV_CERT_STORE_ADD_REPLACE_EXISTING);
  CertHandle fromOther = 0;
  EXPECT_FALSE(
      p_->AddEncodedCertificateToStore(again, b.data(), uint32_t(b.size()), 1, &fromOther));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_CRYPT_E_EXISTS));
  EXPECT_FALSE(
      p_->AddEncodedCertificateToStore(again, b.data(), uint32_t(b.size()), 9, &fromOther));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_ERROR_INVALID_PARAMETER));
  Bytes junk(b.begin(), b.begin() + 40);
  EXPECT_FALSE(
      p_->AddEncodedCertificateToStore(again, junk.data(), uint32_t(junk.size()), 3, &fromOther));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_CRYPT_E_ASN1_BADTAG));

  StoreHandle bad = 0;
  EXPECT_FALSE(p_->OpenSystemStore("../MY", &bad));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_ERROR_INVALID_PARAMETER));
}

TEST_F(StoresTest, EnumerationFollowsTheOrderOfAdditionAcrossInstances) {
  std::vector<Bytes> certs;
  for (const char* n : {"c", "a", "d", "b"})
    certs.push_back(MakeCertificate(n, "/CN=" + std::string(n)));
  StoreHandle ca = OpenMy("CA");
  for (const Bytes& der : certs) EXPECT_TRUE(p_->FreeCertificateContext(Add(ca, der, 2)));
  EXPECT_EQ(List(ca), certs);
  // A replaced certificate keeps its place; deleted ones leave the order intact.
  Add(ca, certs[1], KV_CERT_STORE_ADD_REPLACE_EXISTING);
  CertHandle c = 0;
  ASSERT_TRUE(p_->EnumCertificatesInStore(ca, 0, &c));
  ASSERT_TRUE(p_->EnumCertificatesInStore(ca, c, &c));
  ASSERT_TRUE(p_->EnumCertificatesInStore(ca, c, &c));
  ASSERT_TRUE(p_->DeleteCertificateFromStore(c));
  Reopen();
  ca = OpenMy("CA");
  EXPECT_EQ(List(ca), (std::vector<Bytes>{certs[0], certs[1], certs[3]}));
  Bytes e = MakeCertificate("e", "/CN=e");
  Add(ca, e, 2);
  EXPECT_EQ(List(ca), (std::vector<Bytes>{certs[0], certs[1], certs[3], e}));
  StoreHandle root = OpenMy("ROOT");
  EXPECT_TRUE(List(root).empty());

  // Files: thumbprint names as OpenSSL computes them, private modes.
  std::string folder = tmp_ / "data/stores/CA";
  struct stat st;
  ASSERT_EQ(::stat(folder.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0700u);
  std::string file = folder + "/" + Thumbprint("e") + ".der";
  ASSERT_EQ(::stat(file.c_str(), &st), 0) << file;
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(Vec(ReadFile(file)), e);
  EXPECT_EQ(Must("ls " + folder + " | grep -v -c -E '^[0-9A-F]{40}\\.(der|prop)$' || true"), "0\n");
}

TEST_F(StoresTest, DeletingWhileEnumeratingVisitsEveryOtherCertificate) {
  std::vector<Bytes> certs;
  for (int i = 0; i < 5; ++i)
    certs.push_back(MakeCertificate("c" + std::to_string(i), "/CN=n" + std::to_string(i)));
  StoreHandle my = OpenMy();
  for (const Bytes& der : certs) EXPECT_TRUE(p_->FreeCertificateContext(Add(my, der, 3)));

  // The usual loop: delete a duplicate of the current context, go on from it.
  std::vector<Bytes> seen;
  CertHandle c = 0;
  int i = 0;
  while (p_->EnumCertificatesInStore(my, c, &c)) {
    Bytes der;
    ASSERT_TRUE(p_->GetEncoded(c, &der));
    seen.push_back(der);
    if (i++ % 2 == 0) {
      CertHandle dup = 0;
      ASSERT_TRUE(p_->DuplicateCertificateContext(c, &dup));
      ASSERT_TRUE(p_->DeleteCertificateFromStore(dup));
    }
  }
  EXPECT_EQ(seen, certs);
  EXPECT_EQ(List(my), (std::vector<Bytes>{certs[1], certs[3]}));
  Reopen();
  my = OpenMy();
  EXPECT_EQ(List(my), (std::vector<Bytes>{certs[1], certs[3]}));
  EXPECT_EQ(Must("ls " + (tmp_ / "data/stores/MY") + " | wc -l"), "4\n");

  // Contexts are counted references: a freed context is gone, Enum frees prev.
  ASSERT_TRUE(p_->EnumCertificatesInStore(my, 0, &c));
  CertHandle dup = 0;
  ASSERT_TRUE(p_->DuplicateCertificateContext(c, &dup));
  EXPECT_EQ(dup, c);
  CertHandle next = 0;
  ASSERT_TRUE(p_->EnumCertificatesInStore(my, c, &next));
  Bytes der;
  EXPECT_TRUE(p_->GetEncoded(dup, &der));  // the duplicate's reference remains
  EXPECT_TRUE(p_->FreeCertificateContext(dup));
  EXPECT_FALSE(p_->GetEncoded(dup, &der));
  EXPECT_FALSE(p_->EnumCertificatesInStore(my, next, &next));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_CRYPT_E_NOT_FOUND));
  EXPECT_FALSE(p_->GetEncoded(next, &der));  // freed by the last call
  // A context of no store cannot be deleted from one, and is freed anyway.
  CertHandle loose = 0;
  ASSERT_TRUE(p_->CreateCertificateContext(certs[0].data(), uint32_t(certs[0].size()), &loose));
  EXPECT_FALSE(p_->DeleteCertificateFromStore(loose));
  EXPECT_FALSE(p_->GetEncoded(loose, &der));
}

TEST_F(StoresTest, KeyProviderInformationRoundTripsThroughTheFolder) {
  Bytes a = MakeCertificate("a", "/CN=props");
  StoreHandle my = OpenMy();
  CertHandle c = Add(my, a, 3);
  KeyProvInfo info;
  info.containerName = u"{0A1B2C3D-0000-4abc-8000-00112233AABB}\u4e2d\u6587";
  info.providerName = u"Some Smart Card Provider \u00e9";
  info.provType = 1;
  info.flags = 0x20;
  info.provParamCount = 0;
  info.keySpec = KV_AT_KEYEXCHANGE;
  ASSERT_TRUE(p_->SetKeyProvInfo(c, &info));
  Reopen();
  my = OpenMy();
  ASSERT_TRUE(p_->EnumCertificatesInStore(my, 0, &c));
  KeyProvInfo got;
  ASSERT_TRUE(p_->GetKeyProvInfo(c, &got));
  EXPECT_EQ(got.containerName, info.containerName);
  EXPECT_EQ(got.providerName, info.providerName);
  EXPECT_EQ(got.provType, 1u);
  EXPECT_EQ(got.flags, 0x20u);
  EXPECT_EQ(got.keySpec, uint32_t(KV_AT_KEYEXCHANGE));
  // Null removes the property, also on disk.
  ASSERT_TRUE(p_->SetKeyProvInfo(c, nullptr));
  Reopen();
  my = OpenMy();
  ASSERT_TRUE(p_->EnumCertificatesInStore(my, 0, &c));
  EXPECT_FALSE(p_->GetKeyProvInfo(c, &got));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_CRYPT_E_NOT_FOUND));
}

TEST_F(StoresTest, CertificatesCompareByIssuerAndSerialNumber) {
  Bytes one = MakeCertificate("one", "/CN=Same/O=Org", "-set_serial 0x7F01");
  Bytes two = MakeCertificate("two", "/CN=Same/O=Org", "-set_serial 0x7F01");  // other key
  Bytes three = MakeCertificate("three", "/CN=Same/O=Org", "-set_serial 0x7F02");
  Bytes four = MakeCertificate("four", "/CN=Other/O=Org", "-set_serial 0x7F01");
  CertHandle h[4];
  const Bytes* all[] = {&one, &two, &three, &four};
  for (int i = 0; i < 4; ++i)
    ASSERT_TRUE(p_->CreateCertificateContext(all[i]->data(), uint32_t(all[i]->size()), &h[i]));
  EXPECT_TRUE(p_->CompareCertificate(h[0], h[1]));
  EXPECT_FALSE(p_->CompareCertificate(h[0], h[2]));
  EXPECT_FALSE(p_->CompareCertificate(h[0], h[3]));
  EXPECT_TRUE(p_->CompareCertificate(h[3], h[3]));
}

TEST_F(StoresTest, PfxImportPutsTheKeyInANewContainerNamedByTheLeaf) {
  Bytes ca = MakeCertificate("ca", "/CN=Import CA");
  Bytes leaf = MakeCertificate("leaf", "/CN=Import Leaf");
  // A PFX as OpenSSL writes it, with the PKCS#12 schemes of the platform's era.
  auto pfx = [&](const std::string& out, const std::string& password) {
    Must("openssl x509 -inform DER -in " + (tmp_ / "leaf.der") + " -out " + (tmp_ / "leaf.pem"));
    Must("openssl x509 -inform DER -in " + (tmp_ / "ca.der") + " -out " + (tmp_ / "ca.pem"));
    Must("openssl pkcs12 -export -inkey " + (tmp_ / "leaf.key") + " -in " + (tmp_ / "leaf.pem") +
         " -certfile " + (tmp_ / "ca.pem") +
         " -keypbe PBE-SHA1-3DES -certpbe PBE-SHA1-3DES -macalg sha1 -passout pass:" +
         password + " -out " + (tmp_ / out));
    return Vec(ReadFile(tmp_ / out));
  };
  Bytes file = pfx("a.p12", "58203716");
  StoreHandle mem = 0;
  ASSERT_TRUE(p_->PFXImportCertStore(file.data(), uint32_t(file.size()), u"58203716",
                                     KV_CRYPT_EXPORTABLE | KV_CRYPT_USER_KEYSET, &mem))
      << std::hex << p_->GetLastError();
  // The leaf first, bound to the new container; the CA certificate unbound.
  EXPECT_EQ(List(mem), (std::vector<Bytes>{leaf, ca}));
  CertHandle c = 0;
  ASSERT_TRUE(p_->EnumCertificatesInStore(mem, 0, &c));
  KeyProvInfo info;
  ASSERT_TRUE(p_->GetKeyProvInfo(c, &info));
  EXPECT_EQ(info.providerName, U16(kEnhanced));
  EXPECT_EQ(info.provType, 1u);
  EXPECT_EQ(info.keySpec, uint32_t(KV_AT_KEYEXCHANGE));
  ASSERT_EQ(info.containerName.size(), 38u);
  std::string name(info.containerName.begin(), info.containerName.end());
  EXPECT_EQ(name.front(), '{');
  EXPECT_EQ(name.back(), '}');
  ASSERT_TRUE(p_->EnumCertificatesInStore(mem, c, &c));
  EXPECT_FALSE(p_->GetKeyProvInfo(c, &info));

  // The container holds that key, exportable as asked: OpenSSL reads it back.
  ProvHandle prov = 0;
  ASSERT_TRUE(p_->AcquireContext(&prov, name.c_str(), kEnhanced, 1, KV_CRYPT_SILENT));
  KeyHandle k = 0;
  ASSERT_TRUE(p_->GetUserKey(prov, KV_AT_KEYEXCHANGE, &k));
  uint32_t len = 0;
  ASSERT_TRUE(p_->ExportKey(k, KV_PRIVATEKEYBLOB, 0, nullptr, &len));
  Bytes blob(len);
  ASSERT_TRUE(p_->ExportKey(k, KV_PRIVATEKEYBLOB, 0, blob.data(), &len));
  tmp_.Write("k.blob", Str(blob));
  EXPECT_EQ(Must("openssl rsa -inform MSBLOB -in " + (tmp_ / "k.blob") + " -modulus -noout"),
            Must("openssl rsa -in " + (tmp_ / "leaf.key") + " -modulus -noout"));
  // A memory store writes nothing to the user's stores.
  struct stat st;
  EXPECT_NE(::stat((tmp_ / "data/stores").c_str(), &st), 0);

  // Without CRYPT_EXPORTABLE the key stays inside; each import makes a new container.
  StoreHandle locked = 0;
  ASSERT_TRUE(p_->PFXImportCertStore(file.data(), uint32_t(file.size()), u"58203716", 0, &locked));
  ASSERT_TRUE(p_->EnumCertificatesInStore(locked, 0, &c));
  ASSERT_TRUE(p_->GetKeyProvInfo(c, &info));
  std::string second(info.containerName.begin(), info.containerName.end());
  EXPECT_NE(second, name);
  ASSERT_TRUE(p_->AcquireContext(&prov, second.c_str(), kEnhanced, 1, 0));
  ASSERT_TRUE(p_->GetUserKey(prov, KV_AT_KEYEXCHANGE, &k));
  EXPECT_FALSE(p_->ExportKey(k, KV_PRIVATEKEYBLOB, 0, nullptr, &len));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_KEY_STATE));

  EXPECT_FALSE(p_->PFXImportCertStore(file.data(), uint32_t(file.size()), u"wrong", 0, &locked));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_ERROR_INVALID_PASSWORD));
  EXPECT_FALSE(p_->PFXImportCertStore(leaf.data(), uint32_t(leaf.size()), u"58203716", 0, &locked));
  EXPECT_EQ(p_->GetLastError(), uint32_t(KV_NTE_BAD_DATA));
  Bytes unicode = pfx("u.p12", "\xe5\xaf\x86\xe7\xa0\x81");
  EXPECT_TRUE(p_->PFXImportCertStore(unicode.data(), uint32_t(unicode.size()), u"\u5bc6\u7801",
                                     0, &locked))
      << std::hex << p_->GetLastError();
}

TEST_F(StoresTest, TheChooserSignsWithTheKeyOfTheChosenCertificate) {
  // Two certificates bound to containers holding their keys, one bound to a
  // container that does not exist, one with no binding.
  std::vector<std::string> names = {"alice", "bob", "ghost", "plain"};
  StoreHandle my = OpenMy();
  for (const std::string& n : names) {
    Bytes der = MakeCertificate(n, "/O=Example/CN=" + n);
    CertHandle c = Add(my, der, 3);
    if (n == "plain") continue;
    KeyProvInfo info = Info("box-" + n, n == "bob" ? KV_AT_KEYEXCHANGE : KV_AT_SIGNATURE);
    ASSERT_TRUE(p_->SetKeyProvInfo(c, &info));
    if (n == "ghost") continue;
    Must("openssl rsa -in " + (tmp_ / n) + ".key -outform MSBLOB -out " + (tmp_ / n) + ".blob");
    Bytes blob = Vec(ReadFile(tmp_ / n + ".blob"));
    if (n == "alice") blob[5] = 0x24;  // CALG_RSA_SIGN: the signature key
    ProvHandle prov = 0;
    ASSERT_TRUE(p_->AcquireContext(&prov, ("box-" + n).c_str(), kEnhanced, 1, KV_CRYPT_NEWKEYSET));
    KeyHandle k = 0;
    ASSERT_TRUE(p_->ImportKey(prov, blob.data(), uint32_t(blob.size()), 0, &k));
  }
  ScriptedChooser bySubject = ScriptedChooser::BySubject("CN=bob");
  Reopen(&bySubject);
  SignedText signedText = p_->ChooseAndSign("message \xd6\xd0");
  ASSERT_EQ(bySubject.Calls(), 1);
  ASSERT_EQ(bySubject.LastCandidates().size(), 2u);
  EXPECT_EQ(bySubject.LastCandidates()[0].subject, "O=Example, CN=alice");
  EXPECT_EQ(bySubject.LastCandidates()[1].thumbprint, Thumbprint("bob"));
  ASSERT_FALSE(signedText.signatureBase64.empty());
  EXPECT_EQ(
      Str(Vec(PemBlocks(
          "-----BEGIN X-----\n" + signedText.certificateBase64 + "\n-----END X-----\n", {"X"})[0])),
      ReadFile(tmp_ / "bob.der"));
  tmp_.Write("sig.b64", signedText.signatureBase64 + "\n");
  tmp_.Write("data.txt", "message \xd6\xd0");
  Must("openssl base64 -d -A -in " + (tmp_ / "sig.b64") + " -out " + (tmp_ / "sig.bin"));
  Must("openssl rsa -in " + (tmp_ / "bob.key") + " -pubout -out " + (tmp_ / "bob.pub"));
  EXPECT_NE(Must("openssl dgst -sha1 -verify " + (tmp_ / "bob.pub") + " -signature " +
                 (tmp_ / "sig.bin") + " " + (tmp_ / "data.txt"))
                .find("Verified OK"),
            std::string::npos);

  ScriptedChooser byThumb = ScriptedChooser::ByThumbprint(Thumbprint("alice"));
  Reopen(&byThumb);
  EXPECT_FALSE(p_->ChooseAndSign("x").signatureBase64.empty());
  ScriptedChooser cancel = ScriptedChooser::Cancel();
  Reopen(&cancel);
  SignedText none = p_->ChooseAndSign("x");
  EXPECT_EQ(cancel.Calls(), 1);
  EXPECT_TRUE(none.signatureBase64.empty());
  EXPECT_TRUE(none.certificateBase64.empty());
  Reopen(nullptr);
  EXPECT_TRUE(p_->ChooseAndSign("x").signatureBase64.empty());
}

}  // namespace
}  // namespace kvtest
