// Checks with CryptoAPI alone what the control installed, for
// tests/wine/run.sh:
//
//   wine_stores leaf LEAF.der KEYSPEC PROVIDER yes|no|any
//       the certificate is in the current user's MY store, bound (key
//       provider information) to a container of PROVIDER that holds the
//       certificate's key under KEYSPEC, of type PROV_RSA_FULL; the key's
//       private half can (yes) or cannot (no) be exported.
//   wine_stores chain ROOT.der [CA.der ...]
//       the root is in ROOT, each intermediate in CA, none in MY.
//   wine_stores absent LEAF.der
//       the certificate is in none of MY, CA, ROOT.
//
// Prints "FAIL ..." lines and "<command> OK" when every check held; the exit
// code is 0 only then.
#include <windows.h>
// windows.h first.
#include <wincrypt.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

const DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
int g_failed = 0;

void Fail(const std::string& what) {
  ++g_failed;
  std::printf("FAIL %s\n", what.c_str());
}

std::vector<BYTE> ReadFile(const char* path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<BYTE>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

PCCERT_CONTEXT Find(const char* store, PCCERT_CONTEXT cert) {
  HCERTSTORE s = CertOpenSystemStoreA(0, store);
  if (!s) return nullptr;
  PCCERT_CONTEXT found =
      CertFindCertificateInStore(s, kEncoding, 0, CERT_FIND_EXISTING, cert, nullptr);
  CertCloseStore(s, 0);
  return found;
}

PCCERT_CONTEXT Load(const char* path) {
  std::vector<BYTE> der = ReadFile(path);
  PCCERT_CONTEXT c = der.empty() ? nullptr
                                 : CertCreateCertificateContext(kEncoding, der.data(),
                                                                static_cast<DWORD>(der.size()));
  if (!c) Fail(std::string("cannot read the certificate ") + path);
  return c;
}

std::string Narrow(const wchar_t* w) {
  if (!w) return std::string();
  int n = WideCharToMultiByte(CP_UTF8, 0, w, -1, nullptr, 0, nullptr, nullptr);
  std::string out(static_cast<size_t>(n > 0 ? n - 1 : 0), '\0');
  if (n > 1) WideCharToMultiByte(CP_UTF8, 0, w, -1, &out[0], n, nullptr, nullptr);
  return out;
}

int Leaf(const char* path, DWORD spec, const char* provider, const std::string& exportable) {
  PCCERT_CONTEXT leaf = Load(path);
  if (!leaf) return 1;
  PCCERT_CONTEXT mine = Find("MY", leaf);
  if (!mine) {
    Fail("the certificate is not in MY");
    CertFreeCertificateContext(leaf);
    return 1;
  }
  DWORD size = 0;
  std::vector<BYTE> buf;
  if (CertGetCertificateContextProperty(mine, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size)) {
    buf.resize(size);
    CertGetCertificateContextProperty(mine, CERT_KEY_PROV_INFO_PROP_ID, buf.data(), &size);
  }
  if (buf.empty()) {
    Fail("the certificate in MY has no key provider information");
  } else {
    const auto* info = reinterpret_cast<const CRYPT_KEY_PROV_INFO*>(buf.data());
    const std::string container = Narrow(info->pwszContainerName);
    std::printf("container=%s provider=%s type=%lu spec=%lu\n", container.c_str(),
                Narrow(info->pwszProvName).c_str(), info->dwProvType, info->dwKeySpec);
    if (Narrow(info->pwszProvName) != provider) Fail("bound to another provider");
    if (info->dwProvType != PROV_RSA_FULL) Fail("provider type is not PROV_RSA_FULL");
    if (info->dwKeySpec != spec) Fail("bound with another key specification");
    HCRYPTPROV prov = 0;
    if (!CryptAcquireContextW(&prov, info->pwszContainerName, info->pwszProvName, info->dwProvType,
                              0)) {
      Fail("the bound container cannot be opened");
    } else {
      DWORD len = 0;
      CryptExportPublicKeyInfo(prov, spec, X509_ASN_ENCODING, nullptr, &len);
      std::vector<BYTE> pk(len);
      auto* pki = reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(pk.data());
      if (len == 0 || !CryptExportPublicKeyInfo(prov, spec, X509_ASN_ENCODING, pki, &len)) {
        Fail("the bound container has no key of that kind");
      } else if (!CertComparePublicKeyInfo(X509_ASN_ENCODING, pki,
                                           &leaf->pCertInfo->SubjectPublicKeyInfo)) {
        Fail("the bound container's key is not the certificate's key");
      }
      HCRYPTKEY key = 0;
      if (CryptGetUserKey(prov, spec, &key)) {
        DWORD blobLen = 0;
        bool canExport = CryptExportKey(key, 0, PRIVATEKEYBLOB, 0, nullptr, &blobLen) != 0;
        if (exportable == "yes" && !canExport) Fail("the key cannot be exported");
        if (exportable == "no" && canExport) Fail("the key can be exported");
        CryptDestroyKey(key);
      }
      CryptReleaseContext(prov, 0);
    }
  }
  if (Find("CA", leaf) || Find("ROOT", leaf)) Fail("the leaf is also in CA or ROOT");
  CertFreeCertificateContext(mine);
  CertFreeCertificateContext(leaf);
  return 0;
}

int Chain(int count, char** paths) {
  for (int i = 0; i < count; ++i) {
    PCCERT_CONTEXT c = Load(paths[i]);
    if (!c) continue;
    const char* want = i == 0 ? "ROOT" : "CA";
    const char* other = i == 0 ? "CA" : "ROOT";
    if (PCCERT_CONTEXT f = Find(want, c)) {
      CertFreeCertificateContext(f);
    } else {
      Fail(std::string(paths[i]) + " is not in " + want);
    }
    if (PCCERT_CONTEXT f = Find(other, c)) {
      CertFreeCertificateContext(f);
      Fail(std::string(paths[i]) + " is also in " + other);
    }
    if (PCCERT_CONTEXT f = Find("MY", c)) {
      CertFreeCertificateContext(f);
      Fail(std::string(paths[i]) + " is in MY");
    }
    CertFreeCertificateContext(c);
  }
  return 0;
}

int Absent(const char* path) {
  PCCERT_CONTEXT c = Load(path);
  if (!c) return 1;
  for (const char* s : {"MY", "CA", "ROOT"}) {
    if (PCCERT_CONTEXT f = Find(s, c)) {
      CertFreeCertificateContext(f);
      Fail(std::string("the certificate is in ") + s);
    }
  }
  CertFreeCertificateContext(c);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string cmd = argc > 1 ? argv[1] : "";
  if (cmd == "leaf" && argc == 6) {
    Leaf(argv[2], static_cast<DWORD>(std::atoi(argv[3])), argv[4], argv[5]);
  } else if (cmd == "chain" && argc >= 3) {
    Chain(argc - 2, argv + 2);
  } else if (cmd == "absent" && argc == 3) {
    Absent(argv[2]);
  } else {
    std::printf("usage: wine_stores leaf|chain|absent ...\n");
    return 2;
  }
  if (g_failed == 0) std::printf("%s OK\n", cmd.c_str());
  return g_failed == 0 ? 0 : 1;
}
