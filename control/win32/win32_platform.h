// The control's platform on Windows: each call is a thin wrapper over the
// CryptoAPI, certificate-store and system call of the same name. Handles are
// the platform's own (HCRYPTPROV, HCERTSTORE, PCCERT_CONTEXT, ...) cast to
// uintptr_t. The header does not pull in <windows.h>.
#pragma once

#include <cstdint>
#include <string>

#include "control/platform.h"

namespace kv::control {

// Where the "DS" signing dialog is answered without a user: the registry
// value HKEY_CURRENT_USER\<kSigningChooserKey>\<kSigningChooserValue>, a
// string holding the SHA-1 thumbprint (hex) of the certificate in "MY" to
// sign with. Set by the machine's administrator or a test harness, never by a
// page. When it is absent the platform's certificate selection dialog asks
// the user.
extern const char kSigningChooserKey[];    // "Software\\Korvanta"
extern const char kSigningChooserValue[];  // "SigningCertificate"

class Win32Platform : public Platform {
 public:
  Win32Platform() = default;

  uint32_t GetLastError() override;

  bool EnumProviders(uint32_t index, uint32_t* provType, char* name, uint32_t* nameLen) override;
  bool AcquireContext(ProvHandle* prov, const char* container, const char* provider,
                      uint32_t provType, uint32_t flags) override;
  bool ReleaseContext(ProvHandle prov) override;
  bool GetUserKey(ProvHandle prov, uint32_t keySpec, KeyHandle* key) override;
  bool GenKey(ProvHandle prov, uint32_t algid, uint32_t flags, KeyHandle* key) override;
  bool ExportKey(KeyHandle key, uint32_t blobType, uint32_t flags, uint8_t* data,
                 uint32_t* len) override;
  bool ImportKey(ProvHandle prov, const uint8_t* data, uint32_t len, uint32_t flags,
                 KeyHandle* key) override;
  bool SetKeyParam(KeyHandle key, uint32_t param, const uint8_t* data, uint32_t len,
                   uint32_t flags) override;
  bool DestroyKey(KeyHandle key) override;
  bool CreateHash(ProvHandle prov, uint32_t algid, HashHandle* hash) override;
  bool HashData(HashHandle hash, const uint8_t* data, uint32_t len) override;
  bool SignHash(HashHandle hash, uint32_t keySpec, uint8_t* sig, uint32_t* len) override;
  bool DestroyHash(HashHandle hash) override;
  bool ExportPublicKeyInfo(ProvHandle prov, uint32_t keySpec, uint8_t* info,
                           uint32_t* len) override;
  bool ComparePublicKeyInfo(const uint8_t* a, uint32_t aLen, const uint8_t* b,
                            uint32_t bLen) override;

  bool OpenStore(ProvHandle prov, const char* name, StoreHandle* store) override;
  bool OpenSystemStore(const char* name, StoreHandle* store) override;
  bool CloseStore(StoreHandle store) override;
  bool CreateCertificateContext(const uint8_t* der, uint32_t len, CertHandle* cert) override;
  bool FreeCertificateContext(CertHandle cert) override;
  bool DuplicateCertificateContext(CertHandle cert, CertHandle* copy) override;
  bool GetEncoded(CertHandle cert, Bytes* der) override;
  bool AddEncodedCertificateToStore(StoreHandle store, const uint8_t* der, uint32_t len,
                                    uint32_t disposition, CertHandle* added) override;
  bool AddCertificateContextToStore(StoreHandle store, CertHandle cert, uint32_t disposition,
                                    CertHandle* added) override;
  bool SetKeyProvInfo(CertHandle cert, const KeyProvInfo* info) override;
  bool GetKeyProvInfo(CertHandle cert, KeyProvInfo* info) override;
  bool EnumCertificatesInStore(StoreHandle store, CertHandle prev, CertHandle* next) override;
  bool CompareCertificate(CertHandle a, CertHandle b) override;
  bool DeleteCertificateFromStore(CertHandle cert) override;
  bool PFXImportCertStore(const uint8_t* pfx, uint32_t len, const char16_t* password,
                          uint32_t flags, StoreHandle* store) override;

  bool CoCreateGuid(Guid* guid) override;
  uint32_t ExpandEnvironmentStrings(const char* src, char* dst, uint32_t size) override;
  uint32_t GetSystemDirectory(char* dst, uint32_t size) override;
  std::string ContainerFilePath() override;
  std::string KeyHistoryDirectory() override;

  bool WriteFileAtomic(const std::string& path, const uint8_t* data, size_t len) override;
  bool ReadFile(const std::string& path, size_t maxLen, Bytes* data) override;
  bool FileExists(const std::string& path) override;
  bool DeleteFile(const std::string& path) override;

  bool ToNarrow(const std::u16string& wide, std::string* narrow) override;
  bool ToWide(const std::string& narrow, std::u16string* wide) override;

  SignedText ChooseAndSign(const std::string& text) override;

 private:
  // Records the thread's last error after a failed call; always false.
  bool Failed();
  bool Fail(uint32_t error);

  uint32_t lastError_ = 0;
};

}  // namespace kv::control
