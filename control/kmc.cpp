// The KMC encryption-key import: writeKmcCert, restoreKmcCert,
// writeKmcCertwithKH and writeKmcCertToPFX. The KMC sends the user's key
// RC4-encrypted under a content key that is itself RSA-encrypted for the
// temporary key of genTempKeyPair.
#include <new>

#include "control/internal/install.h"
#include "control/internal/key_history.h"
#include "control/internal/method.h"
#include "control/internal/toolkit.h"
#include "control/korvanta_control.h"
#include "crypto/keyconv.h"

using namespace kv::control;

namespace {

const char kPfxPassword[] = "58203716";
const char16_t kPfxPasswordWide[] = u"58203716";

int32_t Kmc(int32_t detail) {
  return Status(kBlockWriteKmcCert, detail);
}

// Signals the failing automation result from inside the import.
struct RefusedKeySize {};

// Microsoft path: the key and certificate go in through a PFX import, and the
// certificate is added to "MY". 0 or the detail.
int ImportThroughPfx(Platform& p, const std::string& provider, const Bytes& leaf,
                     const PKCS_PRIKEY& key) {
  Bytes pfx;
  if (BuildPfx(leaf, key, kPfxPassword, &pfx) != 0) return kPfxPack;
  StoreOwner imported(p);
  if (!p.PFXImportCertStore(pfx.data(), static_cast<uint32_t>(pfx.size()), kPfxPasswordWide,
                            KV_CRYPT_EXPORTABLE | KV_CRYPT_USER_KEYSET, imported.out())) {
    return kPfxImport;
  }
  CertOwner first(p);
  if (!p.EnumCertificatesInStore(imported.get(), 0, first.out())) return kPfxImport;
  KeyProvInfo info;
  if (!p.GetKeyProvInfo(first.get(), &info)) return kPfxImport;
  const std::string keyContainer = Narrow(p, info.containerName);
  const std::string keyProvider = Narrow(p, info.providerName);
  // The import made a container for the key: it goes again if the binding
  // fails.
  PendingContainer importedKey(p, keyProvider, keyContainer);
  ProvOwner keyProv(p);
  if (!p.AcquireContext(keyProv.out(), keyContainer.c_str(), keyProvider.c_str(), info.provType,
                        KV_CRYPT_SILENT)) {
    return kPfxImport;
  }
  KeyOwner keyHandle(p);
  if (!p.GetUserKey(keyProv.get(), info.keySpec, keyHandle.out())) return kPfxImport;
  // A braced GUID container in the selected provider, through whose handle
  // "MY" is opened; it stays empty, the certificate keeps naming the
  // container of the import.
  const std::string braced = "{" + RandomContainerName(p) + "}";
  ProvOwner bracedProv(p);
  if (!p.AcquireContext(bracedProv.out(), braced.c_str(), provider.c_str(), KV_PROV_RSA_FULL,
                        KV_CRYPT_NEWKEYSET)) {
    return kPfxImport;
  }
  PendingContainer bracedPending(p, provider, braced);
  if (!p.SetKeyProvInfo(first.get(), &info)) return kPfxImport;
  StoreOwner my(p);
  if (!p.OpenStore(bracedProv.get(), "MY", my.out())) return kPfxImport;
  CertOwner added(p);
  if (!p.AddCertificateContextToStore(my.get(), first.get(), KV_CERT_STORE_ADD_REPLACE_EXISTING,
                                      added.out())) {
    return kPfxImport;
  }
  importedKey.Keep();
  bracedPending.Keep();
  return 0;
}

// Token path: the key goes into the container, not exportable, and the
// certificate with it. 0 or the detail.
int ImportIntoToken(Platform& p, const std::string& provider, const std::string& container,
                    bool create, const Bytes& blob, const Bytes& leaf) {
  ProvOwner prov(p);
  if (!p.AcquireContext(prov.out(), container.c_str(), provider.c_str(), KV_PROV_RSA_FULL,
                        create ? static_cast<uint32_t>(KV_CRYPT_NEWKEYSET) : 0u)) {
    return kCreateContainer;
  }
  PendingContainer pending(p, provider, container);
  if (!create) pending.Keep();
  KeyOwner key(p);
  if (!p.ImportKey(prov.get(), blob.data(), static_cast<uint32_t>(blob.size()), 0, key.out())) {
    return kImportKey;
  }
  if (!p.SetKeyParam(key.get(), KV_KP_CERTIFICATE, leaf.data(), static_cast<uint32_t>(leaf.size()),
                     0)) {
    return kSetKeyParam;
  }
  pending.Keep();
  return 0;
}

// The import steps; returns `ret`. Throws RefusedKeySize for a KMC key of
// neither 1024 nor 2048 bits. keyDer and leafOut receive the user's PKCS#1
// key and certificate for callers that export them.
int32_t ImportKmcKey(Platform& p, const std::string& provider, std::string* container,
                     const std::u16string& p7Certs, const std::u16string& encPrikey,
                     const std::u16string& tempUkek, bool restore, Bytes* keyDer, Bytes* leafOut) {
  // 1. The container of the generated key (a failed read is not reported).
  container->clear();
  ReadContainerName(p, container);
  if (!restore) DeleteContainerFile(p);
  // 2. A provider must be selected.
  if (provider.empty()) return Kmc(kNoProvider);
  // 3. The certificates and their leaf.
  const std::string certsText = Narrow(p, p7Certs);
  if (certsText.empty()) return Kmc(kEmptyCertificates);
  const Bytes p7 = Base64Decode(certsText);
  Bytes leaf;
  if (BundleLeaf(p7, &leaf) != 0) return Kmc(kLeafCertificate);
  // 4. The encrypted key and the wrapped content key.
  const Bytes encrypted = Base64Decode(Narrow(p, encPrikey));
  if (encrypted.empty()) return Kmc(kEmptyEncPrikey);
  const Bytes wrapped = Base64Decode(Narrow(p, tempUkek));
  if (wrapped.empty()) return Kmc(kEmptyTempUKEK);
  // 5. The temporary key.
  ProvOwner tempProv(p);
  if (!p.AcquireContext(tempProv.out(), kTempContainer, kBaseProvider, KV_PROV_RSA_FULL, 0)) {
    return Kmc(kOpenContainer);
  }
  KeyOwner tempKey(p);
  if (!p.GetUserKey(tempProv.get(), KV_AT_SIGNATURE, tempKey.out())) return Kmc(kGetUserKey);
  // 6. Its private-key blob.
  uint32_t len = 0;
  if (!p.ExportKey(tempKey.get(), KV_PRIVATEKEYBLOB, 0, nullptr, &len)) {
    return Kmc(kTempExportSize);
  }
  Bytes tempBlob(len, 0);
  if (!p.ExportKey(tempKey.get(), KV_PRIVATEKEYBLOB, 0, tempBlob.data(), &len)) {
    return Kmc(kExportPrivateKey);
  }
  tempBlob.resize(len);
  tempKey.Reset();
  tempProv.Reset();
  // 7-9. Unwrap the content key with the temporary key.
  Bytes contentKey;
  {
    Library library;
    if (int detail = library.Open()) return Kmc(detail);
    PrivateKey temp;
    if (int detail = temp.Init(library.ctx())) return Kmc(detail);
    if (KV_MSPriKeyToIPKEx(library.ctx(), tempBlob.data(), static_cast<unsigned>(tempBlob.size()),
                           temp.get()) != 0) {
      return Kmc(kTempKeyRecord);
    }
    unsigned plainLen = 0;
    if (KV_RSABigDecrypt(library.ctx(), temp.get(), wrapped.data(),
                         static_cast<unsigned>(wrapped.size()), nullptr, &plainLen) != 0) {
      return Kmc(kUnwrapContentKey);
    }
    contentKey.assign(plainLen, 0);
    if (KV_RSABigDecrypt(library.ctx(), temp.get(), wrapped.data(),
                         static_cast<unsigned>(wrapped.size()), contentKey.data(),
                         &plainLen) != 0) {
      return Kmc(kUnwrapContentKey);
    }
    contentKey.resize(plainLen);
  }
  // 10. Decrypt the user's key.
  Bytes p1;
  if (Rc4Decrypt(contentKey, encrypted, &p1) != 0) return Kmc(kDecryptKmcKey);
  // 11. Decode it.
  Library library;
  if (int detail = library.Open()) return Kmc(detail);
  PrivateKey key;
  if (int detail = key.Init(library.ctx())) return Kmc(detail);
  if (KV_PKCS1PriKeyDecode(library.ctx(), p1.data(), static_cast<unsigned>(p1.size()), key.get()) !=
      0) {
    return Kmc(kPrivateKeyDecode);
  }
  // 12. The platform blob: 2048- and 1024-bit keys only.
  const unsigned modulus = key.get()->modulusLen;
  auto convert = modulus == 256   ? KV_IPKToMSPriKey
                 : modulus == 128 ? KV_IPKToMSPriKey1024
                                  : nullptr;
  if (!convert) throw RefusedKeySize{};
  unsigned blobLen = 0;
  if (convert(library.ctx(), key.get(), nullptr, &blobLen) != 0) return Kmc(kKeyBlob);
  Bytes blob(blobLen, 0);
  if (convert(library.ctx(), key.get(), blob.data(), &blobLen) != 0) return Kmc(kKeyBlob);
  blob.resize(blobLen);
  // 13. Always an exchange key, whatever the converter wrote.
  if (blob.size() < 8) return Kmc(kKeyBlob);
  blob[4] = KV_CALG_RSA_KEYX & 0xFF;
  blob[5] = (KV_CALG_RSA_KEYX >> 8) & 0xFF;
  blob[6] = 0;
  blob[7] = 0;
  // 14. Into the provider.
  if (IsSoftwareProvider(provider)) {
    if (int detail = ImportThroughPfx(p, provider, leaf, *key.get())) return Kmc(detail);
  } else {
    if (int detail = ImportIntoToken(p, provider, *container, restore, blob, leaf)) {
      return Kmc(detail);
    }
  }
  // 15. The chain.
  key.Free();
  if (!InstallChain(p, p7)) return Kmc(kChainInstall);
  if (keyDer) *keyDer = std::move(p1);
  if (leafOut) *leafOut = std::move(leaf);
  // 16. Done.
  return 0;
}

int32_t RunImport(Platform& p, const std::string& provider, std::string* container,
                  const std::u16string& p7Certs, const std::u16string& encPrikey,
                  const std::u16string& tempUkek, bool restore, CBrendalKorvanta::Ret* ret) {
  return Guarded([&]() -> int32_t {
    *ret = ImportKmcKey(p, provider, container, p7Certs, encPrikey, tempUkek, restore, nullptr,
                        nullptr);
    return 0;
  });
}

}  // namespace

int32_t CBrendalKorvanta::writeKmcCert(const std::u16string& p7Certs,
                                       const std::u16string& EncPrikey,
                                       const std::u16string& TempUKEK, Ret* ret) {
  return RunImport(platform_, provider_, &container_, p7Certs, EncPrikey, TempUKEK, false, ret);
}

int32_t CBrendalKorvanta::restoreKmcCert(const std::u16string& p7Certs,
                                         const std::u16string& EncPrikey,
                                         const std::u16string& TempUKEK, Ret* ret) {
  return RunImport(platform_, provider_, &container_, p7Certs, EncPrikey, TempUKEK, true, ret);
}

int32_t CBrendalKorvanta::writeKmcCertwithKH(const std::u16string& p7Certs,
                                             const std::u16string& EncPrikey,
                                             const std::u16string& TempUKEK,
                                             const std::u16string& keyHistory, Ret* ret) {
  return Guarded([&]() -> int32_t {
    const int32_t failed = Status(kBlockWriteKmcCertWithKH, kKeyHistory);
    // The key history is read first, so that a bad one changes nothing.
    Bytes xml = Base64Decode(Narrow(platform_, keyHistory));
    std::vector<KeyHistoryEntry> entries;
    if (xml.empty() || !ParseKeyHistory(std::string(xml.begin(), xml.end()), &entries)) {
      *ret = failed;
      return 0;
    }
    int32_t installed = ImportKmcKey(platform_, provider_, &container_, p7Certs, EncPrikey,
                                     TempUKEK, false, nullptr, nullptr);
    if (installed != 0) {
      *ret = installed;
      return 0;
    }
    *ret = MergeKeyHistory(platform_, entries) ? 0 : failed;
    return 0;
  });
}

int32_t CBrendalKorvanta::writeKmcCertToPFX(const std::u16string& p7Certs,
                                            const std::u16string& EncPrikey,
                                            const std::u16string& TempUKEK,
                                            const std::u16string& passwd, Text* retPfx) {
  return Guarded([&]() -> int32_t {
    const int32_t block = kBlockKmcCertToPFX;
    // UTF-8, the PFX's own password text, whatever the code page.
    const std::string password = Utf16ToUtf8(passwd);
    if (password.empty()) return Status(block, kEmptyPassword);
    Bytes p1;
    Bytes leaf;
    int32_t installed = ImportKmcKey(platform_, provider_, &container_, p7Certs, EncPrikey,
                                     TempUKEK, false, &p1, &leaf);
    if (installed != 0) return Status(block, DetailOf(installed));
    Library library;
    if (int detail = library.Open()) return Status(block, detail);
    PrivateKey key;
    if (int detail = key.Init(library.ctx())) return Status(block, detail);
    if (KV_PKCS1PriKeyDecode(library.ctx(), p1.data(), static_cast<unsigned>(p1.size()),
                             key.get()) != 0) {
      return Status(block, kPrivateKeyDecode);
    }
    Bytes pfx;
    if (int detail = BuildPfx(leaf, *key.get(), password, &pfx)) return Status(block, detail);
    SetText(platform_, retPfx, Base64Encode(pfx));
    return 0;
  });
}
