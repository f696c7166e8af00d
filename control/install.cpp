// Certificate installation: the writeClientCert family binds the issued
// certificate to the key generated earlier and installs its chain;
// leavingMostRecentCert tidies the personal store; writeClientCertToPFX also
// hands back the key and certificate as a PFX.
#include <new>

#include "control/internal/install.h"
#include "control/internal/method.h"
#include "control/internal/toolkit.h"
#include "control/korvanta_control.h"
#include "crypto/keyconv.h"

using namespace kv::control;

namespace {

// The largest leaf certificate the install accepts.
constexpr size_t kCertificateBuffer = 10240;
// Attempts at a fresh container name for the key copy.
constexpr int kNameAttempts = 100;

enum class Variant { kPlain, kKex, kNoProtect, kExp, kX509 };

uint32_t KeySpecOf(Variant v) {
  return v == Variant::kKex ? KV_AT_KEYEXCHANGE : KV_AT_SIGNATURE;
}

// Import flags of the key copy.
uint32_t ImportFlagsOf(Variant v, bool exportable) {
  switch (v) {
    case Variant::kNoProtect:
      return 0;
    case Variant::kExp:
      return exportable ? KV_CRYPT_EXPORTABLE | KV_CRYPT_USER_PROTECTED
                        : static_cast<uint32_t>(KV_CRYPT_USER_PROTECTED);
    default:
      return KV_CRYPT_EXPORTABLE | KV_CRYPT_USER_PROTECTED;
  }
}

int32_t Install6(int32_t detail) {
  return Status(kBlockWriteClientCert, detail);
}

// Adds the leaf to "MY" through the container's provider handle and binds it
// to the named container. 0 or the inner code.
int AddToMy(Platform& p, ProvHandle prov, const Bytes& leaf, const std::string& container,
            const std::string& provider, uint32_t keySpec) {
  StoreOwner my(p);
  if (!p.OpenStore(prov, "MY", my.out())) return kOpenStore;
  CertOwner added(p);
  if (!p.AddEncodedCertificateToStore(my.get(), leaf.data(), static_cast<uint32_t>(leaf.size()),
                                      KV_CERT_STORE_ADD_REPLACE_EXISTING, added.out())) {
    return kAddToStore;
  }
  KeyProvInfo info;
  info.containerName = Utf8ToUtf16(container);
  info.providerName = Wide(p, provider);
  info.provType = KV_PROV_RSA_FULL;
  info.flags = 0;
  info.keySpec = keySpec;
  if (!p.SetKeyProvInfo(added.get(), &info)) {
    // An unbound certificate does not stay in MY.
    p.DeleteCertificateFromStore(added.release());
    return kAddToStore;
  }
  return 0;
}

// Software path: copies the key into a fresh container and binds the
// certificate there. 0 or the inner code. The private-key blob is handed
// back for callers that export it.
int CopyKeyAndBind(Platform& p, const std::string& container, const std::string& provider,
                   Variant v, bool exportable, const Bytes& leaf, Bytes* keyBlob) {
  const uint32_t keySpec = KeySpecOf(v);
  if (leaf.empty()) return kNoCertificate;
  // 1-2. The key of the generated container.
  ProvOwner prov(p);
  if (!p.AcquireContext(prov.out(), container.c_str(), provider.c_str(), KV_PROV_RSA_FULL, 0)) {
    return kOpenContainer;
  }
  KeyOwner key(p);
  if (!p.GetUserKey(prov.get(), keySpec, key.out())) return kGetUserKey;
  // 3. Its private-key blob (the key was generated exportable).
  uint32_t len = 0;
  if (!p.ExportKey(key.get(), KV_PRIVATEKEYBLOB, 0, nullptr, &len)) return kExportSize;
  Bytes blob(len, 0);
  if (!p.ExportKey(key.get(), KV_PRIVATEKEYBLOB, 0, blob.data(), &len)) return kExportPrivateKey;
  blob.resize(len);
  key.Reset();
  // 4. A fresh container under the same provider.
  ProvOwner copy(p);
  std::string copyName;
  bool created = false;
  for (int attempt = 0; attempt < kNameAttempts && !created; ++attempt) {
    copyName = RandomContainerName(p);
    created = p.AcquireContext(copy.out(), copyName.c_str(), provider.c_str(), KV_PROV_RSA_FULL,
                               KV_CRYPT_NEWKEYSET);
  }
  if (!created) return kCreateContainer;
  PendingContainer pending(p, provider, copyName);
  // 5. The key goes in with the variant's protection.
  KeyOwner imported(p);
  if (!p.ImportKey(copy.get(), blob.data(), static_cast<uint32_t>(blob.size()),
                   ImportFlagsOf(v, exportable), imported.out())) {
    return kImportKey;
  }
  imported.Reset();
  copy.Reset();
  // 6-7. The certificate into "MY", bound to the copy.
  if (int inner = AddToMy(p, prov.get(), leaf, copyName, provider, keySpec)) return inner;
  pending.Keep();
  if (keyBlob) *keyBlob = std::move(blob);
  return 0;
}

// The install steps of writeClientCert and its variants; returns `ret`.
int32_t InstallClientCert(Platform& p, const std::string& provider, std::string* container,
                          const std::u16string& p7Certs, Variant v, Bytes* keyBlob,
                          Bytes* leafOut) {
  const uint32_t keySpec = KeySpecOf(v);
  // 1. A clean start.
  container->clear();
  // 2. The container of the generated key; the file is used up either way.
  bool exportable = true;
  bool read = (v == Variant::kExp || v == Variant::kX509)
                  ? ReadContainerNameAndFlag(p, container, &exportable)
                  : ReadContainerName(p, container);
  DeleteContainerFile(p);
  if (!read) return Status(kBlockGenKeyPair, kContainerFileRead);
  // 3. A provider must be selected.
  if (provider.empty()) return Install6(kNoProvider);
  // 4. The certificates.
  const std::string text = Narrow(p, p7Certs);
  if (text.empty()) return Install6(kEmptyCertificates);
  const Bytes der = Base64Decode(text);
  // 5. The leaf.
  Bytes leaf;
  if (v == Variant::kX509) {
    leaf = der;
  } else if (BundleLeaf(der, &leaf) != 0 || leaf.size() > kCertificateBuffer) {
    return Install6(kLeafCertificate);
  }
  // 6. The generated key's container.
  ProvOwner prov(p);
  const bool opened =
      p.AcquireContext(prov.out(), container->c_str(), provider.c_str(), KV_PROV_RSA_FULL, 0);
  // 7. The certificate must carry the container's key; when the container's
  // key cannot be read the check is skipped.
  uint32_t infoLen = 0;
  if (opened && p.ExportPublicKeyInfo(prov.get(), keySpec, nullptr, &infoLen) && infoLen > 0) {
    Bytes info(infoLen, 0);
    if (p.ExportPublicKeyInfo(prov.get(), keySpec, info.data(), &infoLen)) {
      info.resize(infoLen);
      Bytes certInfo;
      if (!CertificatePublicKeyInfo(leaf, &certInfo) ||
          !p.ComparePublicKeyInfo(info.data(), static_cast<uint32_t>(info.size()), certInfo.data(),
                                  static_cast<uint32_t>(certInfo.size()))) {
        return kKeyMismatch;
      }
    }
  }
  // 8-10. Bind the certificate to the key.
  if (IsSoftwareProvider(provider)) {
    int inner = 0;
    if (v == Variant::kX509) {
      // The existing container, no copy.
      if (leaf.empty()) return Install6(kNoCertificate);
      ProvOwner existing(p);
      if (!p.AcquireContext(existing.out(), container->c_str(), provider.c_str(), KV_PROV_RSA_FULL,
                            0)) {
        return Install6(kOpenContainer);
      }
      inner = AddToMy(p, existing.get(), leaf, *container, provider, keySpec);
    } else {
      inner = CopyKeyAndBind(p, *container, provider, v, exportable, leaf, keyBlob);
    }
    if (inner != 0) return Install6(inner);
  } else {
    // A token keeps the certificate with its key.
    if (!opened) return Install6(kOpenContainer);
    KeyOwner key(p);
    if (!p.GetUserKey(prov.get(), keySpec, key.out())) return Install6(kGetUserKey);
    if (!p.SetKeyParam(key.get(), KV_KP_CERTIFICATE, leaf.data(),
                       static_cast<uint32_t>(leaf.size()), 0)) {
      return Install6(kSetKeyParam);
    }
  }
  prov.Reset();
  // 11. The chain.
  if (v != Variant::kX509 && !InstallChain(p, der)) return Install6(kChainInstall);
  if (leafOut) *leafOut = std::move(leaf);
  // 12. Done.
  return 0;
}

int32_t RunInstall(Platform& p, const std::string& provider, std::string* container,
                   const std::u16string& p7Certs, Variant v, CBrendalKorvanta::Ret* ret) {
  return Guarded([&]() -> int32_t {
    *ret = InstallClientCert(p, provider, container, p7Certs, v, nullptr, nullptr);
    return 0;
  });
}

}  // namespace

namespace kv::control {

std::vector<Bytes> ChainOrder(const std::vector<Bytes>& certs) {
  const size_t n = certs.size();
  std::vector<Bytes> slots(n);
  if (n == 0) return slots;
  std::vector<std::u16string> subjects(n), issuers(n);
  for (size_t i = 0; i < n; ++i) CertificateNames(certs[i], &subjects[i], &issuers[i]);
  size_t middle = 1;
  for (size_t i = 0; i < n; ++i) {
    if (subjects[i] == issuers[i]) {
      slots[0] = certs[i];
      continue;
    }
    bool issuedOne = false;
    for (size_t j = 0; j < n && !issuedOne; ++j) {
      issuedOne = j != i && subjects[i] == issuers[j];
    }
    if (issuedOne) {
      if (middle < n) slots[middle++] = certs[i];
    } else {
      slots[n - 1] = certs[i];
    }
  }
  return slots;
}

bool InstallChain(Platform& p, const Bytes& p7) {
  std::vector<Bytes> certs;
  if (BundleCertificates(p7, &certs) != 0 || certs.size() < 2) return false;
  std::vector<Bytes> chain = ChainOrder(certs);
  for (size_t i = 0; i + 1 < chain.size(); ++i) {
    StoreOwner store(p);
    if (!p.OpenSystemStore(i == 0 ? "ROOT" : "CA", store.out())) return false;
    CertOwner cert(p);
    if (chain[i].empty() ||
        !p.CreateCertificateContext(chain[i].data(), static_cast<uint32_t>(chain[i].size()),
                                    cert.out())) {
      return false;
    }
    CertOwner added(p);
    if (!p.AddCertificateContextToStore(store.get(), cert.get(), KV_CERT_STORE_ADD_USE_EXISTING,
                                        added.out())) {
      return false;
    }
  }
  return true;
}

}  // namespace kv::control

int32_t CBrendalKorvanta::writeClientCert(const std::u16string& p7Certs, Ret* ret) {
  return RunInstall(platform_, provider_, &container_, p7Certs, Variant::kPlain, ret);
}

int32_t CBrendalKorvanta::writeClientCert_kex(const std::u16string& p7Certs, Ret* ret) {
  return RunInstall(platform_, provider_, &container_, p7Certs, Variant::kKex, ret);
}

int32_t CBrendalKorvanta::writeClientCert_exp(const std::u16string& p7Certs, Ret* ret) {
  return RunInstall(platform_, provider_, &container_, p7Certs, Variant::kExp, ret);
}

int32_t CBrendalKorvanta::writeClientCert_noprotect(const std::u16string& p7Certs, Ret* ret) {
  return RunInstall(platform_, provider_, &container_, p7Certs, Variant::kNoProtect, ret);
}

int32_t CBrendalKorvanta::writeClientCert_exp_X509(const std::u16string& p7Certs, Ret* ret) {
  return RunInstall(platform_, provider_, &container_, p7Certs, Variant::kX509, ret);
}

int32_t CBrendalKorvanta::writeClientCertToPFX(const std::u16string& p7Certs,
                                               const std::u16string& passwd, Text* retPfx) {
  return Guarded([&]() -> int32_t {
    const int32_t block = kBlockClientCertToPFX;
    // The password first, so that a refused call uses nothing up.
    // UTF-8, the PFX's own password text, whatever the code page.
    const std::string password = Utf16ToUtf8(passwd);
    if (password.empty()) return Status(block, kEmptyPassword);
    // A token does not give its key out.
    if (!provider_.empty() && !IsSoftwareProvider(provider_)) {
      return Status(block, kExportPrivateKey);
    }
    // Install as writeClientCert does, keeping the key blob and the leaf.
    Bytes blob;
    Bytes leaf;
    int32_t ret = InstallClientCert(platform_, provider_, &container_, p7Certs, Variant::kPlain,
                                    &blob, &leaf);
    if (ret != 0) return Status(block, DetailOf(ret));
    // The key as a record, then the PFX.
    Library library;
    if (int detail = library.Open()) return Status(block, detail);
    PrivateKey key;
    if (int detail = key.Init(library.ctx())) return Status(block, detail);
    if (KV_MSPriKeyToIPKEx(library.ctx(), blob.data(), static_cast<unsigned>(blob.size()),
                           key.get()) != 0) {
      return Status(block, kTempKeyRecord);
    }
    Bytes pfx;
    if (int detail = BuildPfx(leaf, *key.get(), password, &pfx)) return Status(block, detail);
    SetText(platform_, retPfx, Base64Encode(pfx));
    return 0;
  });
}

int32_t CBrendalKorvanta::leavingMostRecentCert(const std::u16string& UserDN,
                                                const std::u16string& IssuerDN, Ret* ret) {
  return Guarded([&]() -> int32_t {
    // 1. The personal store.
    StoreOwner my(platform_);
    if (!platform_.OpenSystemStore("MY", my.out())) {
      *ret = Status(kBlockLeavingMostRecentCert, kOpenStore);
      return 0;
    }
    // 2. Every certificate of that subject and issuer.
    struct Match {
      CertHandle cert;
      int64_t notAfter;
    };
    std::vector<Match> matches;
    struct ReleaseAll {
      Platform& p;
      std::vector<Match>& m;
      ~ReleaseAll() {
        for (Match& x : m) {
          if (x.cert) p.FreeCertificateContext(x.cert);
        }
      }
    } releaseAll{platform_, matches};
    CertHandle cert = 0;
    while (platform_.EnumCertificatesInStore(my.get(), cert, &cert)) {
      Bytes der;
      std::u16string subject, issuer;
      int64_t notAfter = 0;
      if (!platform_.GetEncoded(cert, &der) || !CertificateNames(der, &subject, &issuer) ||
          subject != UserDN || issuer != IssuerDN || !CertificateNotAfter(der, &notAfter)) {
        continue;
      }
      CertHandle copy = 0;
      if (platform_.DuplicateCertificateContext(cert, &copy)) matches.push_back({copy, notAfter});
    }
    // 3. None.
    if (matches.empty()) {
      *ret = kNoSuchCertificate;
      return 0;
    }
    // 4. The one that expires last survives; on equal expiry the later one
    // met (the newer in the store) does.
    size_t survivor = 0;
    for (size_t i = 1; i < matches.size(); ++i) {
      size_t loser = survivor;
      if (matches[i].notAfter < matches[survivor].notAfter) {
        loser = i;
      } else {
        survivor = i;
      }
      platform_.DeleteCertificateFromStore(matches[loser].cert);
      matches[loser].cert = 0;
    }
    // 5. Done.
    *ret = 0;
    return 0;
  });
}
