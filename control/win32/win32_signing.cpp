// The signing step of the "DS" messages on Windows: the user picks one of
// their certificates with a private key in the platform's certificate
// selection dialog, or the chooser configured in the registry picks it for
// unattended runs; the text's SHA-1 is signed with the certificate's key
// through its provider.
#include <algorithm>
#include <cctype>
#include <memory>
#include <vector>

#include "control/internal/support.h"
#include "control/win32/internal/windows.h"
#include "control/win32/win32_platform.h"
// cryptuiapi.h needs wincrypt.h first.
#include <cryptuiapi.h>

namespace kv::control {

namespace {

const DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

struct StoreCloser {
  void operator()(void* s) const { CertCloseStore(s, 0); }
};
using StorePtr = std::unique_ptr<void, StoreCloser>;

struct CertFreer {
  void operator()(const CERT_CONTEXT* c) const { CertFreeCertificateContext(c); }
};
using CertPtr = std::unique_ptr<const CERT_CONTEXT, CertFreer>;

class Provider {
 public:
  ~Provider() {
    if (h_) CryptReleaseContext(h_, 0);
  }
  HCRYPTPROV* out() { return &h_; }
  HCRYPTPROV get() const { return h_; }

 private:
  HCRYPTPROV h_ = 0;
};

class Hash {
 public:
  ~Hash() {
    if (h_) CryptDestroyHash(h_);
  }
  HCRYPTHASH* out() { return &h_; }
  HCRYPTHASH get() const { return h_; }

 private:
  HCRYPTHASH h_ = 0;
};

// The thumbprint of the configured chooser, or empty when none is set.
std::vector<BYTE> ConfiguredThumbprint() {
  HKEY key = nullptr;
  if (RegOpenKeyExA(HKEY_CURRENT_USER, kSigningChooserKey, 0, KEY_READ, &key) != ERROR_SUCCESS) {
    return {};
  }
  char text[256] = {};
  DWORD size = sizeof text - 1;
  DWORD type = 0;
  LONG rc = RegQueryValueExA(key, kSigningChooserValue, nullptr, &type,
                             reinterpret_cast<BYTE*>(text), &size);
  RegCloseKey(key);
  if (rc != ERROR_SUCCESS) return {};
  // A value that is there but unusable selects nothing rather than falling
  // back to the dialog.
  if (type != REG_SZ) return std::vector<BYTE>(1, 0);
  // Hex digits; spaces and colons between them are allowed.
  std::vector<BYTE> out;
  int high = -1;
  for (const char* p = text; *p; ++p) {
    int c = static_cast<unsigned char>(*p);
    if (c == ' ' || c == ':') continue;
    if (!std::isxdigit(c)) return {};
    int v = std::isdigit(c) ? c - '0' : std::tolower(c) - 'a' + 10;
    if (high < 0) {
      high = v;
    } else {
      out.push_back(static_cast<BYTE>(high << 4 | v));
      high = -1;
    }
  }
  if (high >= 0 || out.size() != 20) return std::vector<BYTE>(1, 0);
  return out;
}

bool HasKey(PCCERT_CONTEXT cert) {
  DWORD size = 0;
  return CertGetCertificateContextProperty(cert, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size) != 0;
}

// The certificate to sign with, or null when the user cancelled or the
// configured one is not there.
CertPtr Choose(HCERTSTORE my) {
  std::vector<BYTE> thumb = ConfiguredThumbprint();
  if (!thumb.empty()) {
    CRYPT_HASH_BLOB blob{static_cast<DWORD>(thumb.size()), thumb.data()};
    PCCERT_CONTEXT found =
        CertFindCertificateInStore(my, kEncoding, 0, CERT_FIND_SHA1_HASH, &blob, nullptr);
    if (found && !HasKey(found)) {
      CertFreeCertificateContext(found);
      found = nullptr;
    }
    return CertPtr(found);
  }
  // Only certificates bound to a private key are offered.
  StorePtr offered(CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr));
  if (!offered) return nullptr;
  for (PCCERT_CONTEXT c = CertEnumCertificatesInStore(my, nullptr); c;
       c = CertEnumCertificatesInStore(my, c)) {
    if (HasKey(c)) CertAddCertificateLinkToStore(offered.get(), c, CERT_STORE_ADD_ALWAYS, nullptr);
  }
  return CertPtr(CryptUIDlgSelectCertificateFromStore(offered.get(), nullptr, nullptr, nullptr, 0,
                                                      0, nullptr));
}

// Signs SHA-1 of TEXT with the certificate's key; the signature in
// big-endian order, empty on failure.
std::vector<BYTE> Sign(PCCERT_CONTEXT cert, const std::string& text) {
  DWORD size = 0;
  if (!CertGetCertificateContextProperty(cert, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size)) {
    return {};
  }
  std::vector<BYTE> buf(size);
  if (!CertGetCertificateContextProperty(cert, CERT_KEY_PROV_INFO_PROP_ID, buf.data(), &size)) {
    return {};
  }
  const auto* info = reinterpret_cast<const CRYPT_KEY_PROV_INFO*>(buf.data());
  Provider prov;
  if (!CryptAcquireContextW(prov.out(), info->pwszContainerName, info->pwszProvName,
                            info->dwProvType, info->dwFlags & CRYPT_MACHINE_KEYSET)) {
    return {};
  }
  // A key specification other than the two of RSA providers: the key that
  // is there.
  DWORD spec = info->dwKeySpec;
  if (spec != AT_KEYEXCHANGE && spec != AT_SIGNATURE) {
    spec = 0;
    for (DWORD candidate : {static_cast<DWORD>(AT_KEYEXCHANGE), static_cast<DWORD>(AT_SIGNATURE)}) {
      HCRYPTKEY key = 0;
      if (CryptGetUserKey(prov.get(), candidate, &key)) {
        CryptDestroyKey(key);
        spec = candidate;
        break;
      }
    }
    if (spec == 0) return {};
  }
  Hash hash;
  if (!CryptCreateHash(prov.get(), CALG_SHA1, 0, 0, hash.out())) return {};
  if (!CryptHashData(hash.get(), reinterpret_cast<const BYTE*>(text.data()),
                     static_cast<DWORD>(text.size()), 0)) {
    return {};
  }
  DWORD sigLen = 0;
  if (!CryptSignHashA(hash.get(), spec, nullptr, 0, nullptr, &sigLen)) return {};
  std::vector<BYTE> sig(sigLen);
  if (!CryptSignHashA(hash.get(), spec, nullptr, 0, sig.data(), &sigLen)) return {};
  sig.resize(sigLen);
  // CryptoAPI writes the signature little-endian; PKCS#1 reads it big-endian.
  std::reverse(sig.begin(), sig.end());
  return sig;
}

}  // namespace

SignedText Win32Platform::ChooseAndSign(const std::string& text) {
  try {
    StorePtr my(CertOpenSystemStoreA(0, "MY"));
    if (!my) return SignedText();
    CertPtr chosen = Choose(my.get());
    if (!chosen) return SignedText();
    std::vector<BYTE> sig = Sign(chosen.get(), text);
    if (sig.empty()) return SignedText();
    SignedText out;
    out.signatureBase64 = Base64Encode(sig.data(), sig.size());
    out.certificateBase64 = Base64Encode(chosen->pbCertEncoded, chosen->cbCertEncoded);
    return out;
  } catch (...) {
    return SignedText();
  }
}

}  // namespace kv::control
