// The platform the enrolment control runs on. Each call mirrors one CryptoAPI,
// certificate-store or system call that the method bodies make, with the same
// arguments, flags and outcome: a call returns true on success, or false with
// the platform's error code (NTE_EXISTS, NTE_NO_KEY, ...) readable through
// GetLastError(), exactly as the Win32 functions do. The Win32 backend is a
// thin wrapper over the real calls; the portable backend implements them over
// software containers, PKCS#11 tokens and per-user store folders; tests use a
// fault-injecting platform.
//
// Handles are opaque values of the backend; 0 is never a valid handle.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kv::control {

using Bytes = std::vector<uint8_t>;

// Constants with their CryptoAPI values (the names are prefixed so they never
// collide with the platform's own headers on Windows).
enum : uint32_t {
  KV_PROV_RSA_FULL = 1,
  KV_PROV_DSS = 3,
  KV_AT_KEYEXCHANGE = 1,
  KV_AT_SIGNATURE = 2,
  KV_CALG_RSA_SIGN = 0x2400,
  KV_CALG_RSA_KEYX = 0xA400,
  KV_CALG_SHA1 = 0x8004,
  KV_CRYPT_EXPORTABLE = 0x1,
  KV_CRYPT_USER_PROTECTED = 0x2,
  KV_CRYPT_NEWKEYSET = 0x8,
  KV_CRYPT_DELETEKEYSET = 0x10,
  KV_CRYPT_SILENT = 0x40,
  KV_CRYPT_USER_KEYSET = 0x1000,
  KV_CRYPT_FORCE_KEY_PROTECTION_HIGH = 0x8000,
  KV_PUBLICKEYBLOB = 0x6,
  KV_PRIVATEKEYBLOB = 0x7,
  KV_KP_CERTIFICATE = 26,
  KV_CERT_KEY_PROV_INFO_PROP_ID = 2,
  KV_CERT_STORE_ADD_USE_EXISTING = 2,
  KV_CERT_STORE_ADD_REPLACE_EXISTING = 3,
  KV_X509_ASN_ENCODING = 0x1,
  KV_PKCS_7_ASN_ENCODING = 0x10000,
};

// Error codes (GetLastError values) the method bodies test or the backends
// report.
enum : uint32_t {
  KV_NTE_BAD_KEY = 0x80090003,
  KV_NTE_BAD_DATA = 0x80090005,
  KV_NTE_BAD_ALGID = 0x80090008,
  KV_NTE_BAD_FLAGS = 0x80090009,
  KV_NTE_BAD_TYPE = 0x8009000A,
  KV_NTE_BAD_KEY_STATE = 0x8009000B,
  KV_NTE_BAD_HASH_STATE = 0x8009000C,
  KV_NTE_BAD_KEYSET = 0x80090016,
  KV_NTE_NO_KEY = 0x8009000D,
  KV_NTE_EXISTS = 0x8009000F,
  KV_NTE_KEYSET_NOT_DEF = 0x80090019,
  KV_NTE_PROV_TYPE_NOT_DEF = 0x80090017,
  KV_NTE_PROV_TYPE_NO_MATCH = 0x8009001B,
  KV_NTE_PROV_DLL_NOT_FOUND = 0x8009001E,
  KV_NTE_BAD_LEN = 0x80090004,
  KV_NTE_NO_MEMORY = 0x8009000E,
  KV_NTE_FAIL = 0x80090020,
  KV_NTE_NOT_FOUND = 0x80090011,
  KV_CRYPT_E_NOT_FOUND = 0x80092004,
  KV_CRYPT_E_EXISTS = 0x80092005,
  KV_CRYPT_E_ASN1_BADTAG = 0x8009310B,
  KV_ERROR_MORE_DATA = 234,
  KV_ERROR_NO_MORE_ITEMS = 259,
  KV_ERROR_INVALID_PASSWORD = 86,
  KV_ERROR_INVALID_PARAMETER = 87,
  KV_ERROR_CANCELLED = 1223,
};

using ProvHandle = uintptr_t;   // HCRYPTPROV
using KeyHandle = uintptr_t;    // HCRYPTKEY
using HashHandle = uintptr_t;   // HCRYPTHASH
using StoreHandle = uintptr_t;  // HCERTSTORE
using CertHandle = uintptr_t;   // PCCERT_CONTEXT

// CRYPT_KEY_PROV_INFO with its seven fields (no provider parameters here).
struct KeyProvInfo {
  std::u16string containerName;
  std::u16string providerName;
  uint32_t provType = 0;
  uint32_t flags = 0;
  uint32_t provParamCount = 0;
  uint32_t keySpec = 0;
};

struct Guid {
  uint32_t data1 = 0;
  uint16_t data2 = 0;
  uint16_t data3 = 0;
  uint8_t data4[8] = {};
};

// What the signing chooser hands back: the Base64 signature value and the
// Base64 DER of the chosen certificate. Empty strings when the user cancelled
// or signing failed.
struct SignedText {
  std::string signatureBase64;
  std::string certificateBase64;
};

class Platform {
 public:
  virtual ~Platform() = default;

  // GetLastError after a failed call of this platform on this thread.
  virtual uint32_t GetLastError() = 0;

  // ---- Providers, containers and keys (CryptoAPI) ----
  // CryptEnumProvidersA: name == nullptr asks for the size (with terminator).
  // False with ERROR_NO_MORE_ITEMS past the last provider.
  virtual bool EnumProviders(uint32_t index, uint32_t* provType, char* name, uint32_t* nameLen) = 0;
  // CryptAcquireContextA. With CRYPT_DELETEKEYSET the container is deleted and
  // *prov is left 0.
  virtual bool AcquireContext(ProvHandle* prov, const char* container, const char* provider,
                              uint32_t provType, uint32_t flags) = 0;
  virtual bool ReleaseContext(ProvHandle prov) = 0;
  virtual bool GetUserKey(ProvHandle prov, uint32_t keySpec, KeyHandle* key) = 0;
  // algid is AT_SIGNATURE/AT_KEYEXCHANGE or CALG_RSA_SIGN/CALG_RSA_KEYX;
  // flags = bits << 16 | CRYPT_EXPORTABLE | ...
  virtual bool GenKey(ProvHandle prov, uint32_t algid, uint32_t flags, KeyHandle* key) = 0;
  // CryptExportKey, no wrapping key: data == nullptr asks for the size.
  virtual bool ExportKey(KeyHandle key, uint32_t blobType, uint32_t flags, uint8_t* data,
                         uint32_t* len) = 0;
  virtual bool ImportKey(ProvHandle prov, const uint8_t* data, uint32_t len, uint32_t flags,
                         KeyHandle* key) = 0;
  virtual bool SetKeyParam(KeyHandle key, uint32_t param, const uint8_t* data, uint32_t len,
                           uint32_t flags) = 0;
  virtual bool DestroyKey(KeyHandle key) = 0;
  virtual bool CreateHash(ProvHandle prov, uint32_t algid, HashHandle* hash) = 0;
  virtual bool HashData(HashHandle hash, const uint8_t* data, uint32_t len) = 0;
  // CryptSignHashA: the signature in CryptoAPI's little-endian order;
  // sig == nullptr asks for the size.
  virtual bool SignHash(HashHandle hash, uint32_t keySpec, uint8_t* sig, uint32_t* len) = 0;
  virtual bool DestroyHash(HashHandle hash) = 0;
  // CryptExportPublicKeyInfo: DER SubjectPublicKeyInfo of the container's key;
  // info == nullptr asks for the size.
  virtual bool ExportPublicKeyInfo(ProvHandle prov, uint32_t keySpec, uint8_t* info,
                                   uint32_t* len) = 0;
  // CertComparePublicKeyInfo over two DER SubjectPublicKeyInfo values.
  virtual bool ComparePublicKeyInfo(const uint8_t* a, uint32_t aLen, const uint8_t* b,
                                    uint32_t bLen) = 0;

  // ---- Certificate stores ----
  // CertOpenStore(system store, current user, name) with a provider handle.
  virtual bool OpenStore(ProvHandle prov, const char* name, StoreHandle* store) = 0;
  // CertOpenSystemStoreA(0, name).
  virtual bool OpenSystemStore(const char* name, StoreHandle* store) = 0;
  virtual bool CloseStore(StoreHandle store) = 0;
  virtual bool CreateCertificateContext(const uint8_t* der, uint32_t len, CertHandle* cert) = 0;
  virtual bool FreeCertificateContext(CertHandle cert) = 0;
  virtual bool DuplicateCertificateContext(CertHandle cert, CertHandle* copy) = 0;
  // The context's encoded certificate (pbCertEncoded / cbCertEncoded).
  virtual bool GetEncoded(CertHandle cert, Bytes* der) = 0;
  virtual bool AddEncodedCertificateToStore(StoreHandle store, const uint8_t* der, uint32_t len,
                                            uint32_t disposition, CertHandle* added) = 0;
  virtual bool AddCertificateContextToStore(StoreHandle store, CertHandle cert,
                                            uint32_t disposition, CertHandle* added) = 0;
  virtual bool SetKeyProvInfo(CertHandle cert, const KeyProvInfo* info) = 0;
  virtual bool GetKeyProvInfo(CertHandle cert, KeyProvInfo* info) = 0;
  // CertEnumCertificatesInStore: prev 0 starts; the previous context is freed
  // by the call, as on Windows. False with CRYPT_E_NOT_FOUND at the end.
  virtual bool EnumCertificatesInStore(StoreHandle store, CertHandle prev, CertHandle* next) = 0;
  virtual bool CompareCertificate(CertHandle a, CertHandle b) = 0;
  // CertDeleteCertificateFromStore: frees the context, success or not.
  virtual bool DeleteCertificateFromStore(CertHandle cert) = 0;
  // PFXImportCertStore: key into a container of the platform's making.
  virtual bool PFXImportCertStore(const uint8_t* pfx, uint32_t len, const char16_t* password,
                                  uint32_t flags, StoreHandle* store) = 0;

  // ---- System ----
  virtual bool CoCreateGuid(Guid* guid) = 0;
  // ExpandEnvironmentStringsA: characters written with the terminator, or the
  // size needed; 0 on failure.
  virtual uint32_t ExpandEnvironmentStrings(const char* src, char* dst, uint32_t size) = 0;
  // GetSystemDirectoryA: length without terminator, 0 on failure.
  virtual uint32_t GetSystemDirectory(char* dst, uint32_t size) = 0;
  // The container-name file's path ("%HOMEDRIVE%%HOMEPATH%\velmoraContianer.data"
  // on Windows, "$HOME/velmoraContianer.data" elsewhere) and the key-history
  // file's folder.
  virtual std::string ContainerFilePath() = 0;
  virtual std::string KeyHistoryDirectory() = 0;

  // ---- Files (atomic replace: temporary file, flush, rename) ----
  virtual bool WriteFileAtomic(const std::string& path, const uint8_t* data, size_t len) = 0;
  // False when the file is missing or unreadable; at most maxLen bytes.
  virtual bool ReadFile(const std::string& path, size_t maxLen, Bytes* data) = 0;
  virtual bool FileExists(const std::string& path) = 0;
  virtual bool DeleteFile(const std::string& path) = 0;

  // ---- Text ----
  // Between automation text (UTF-16) and the thread's ANSI code page.
  virtual bool ToNarrow(const std::u16string& wide, std::string* narrow) = 0;
  virtual bool ToWide(const std::string& narrow, std::u16string* wide) = 0;

  // ---- The signing chooser of the "DS" messages ----
  // Lets the user pick a certificate with a private key (MY, and token
  // certificates), signs SHA-1 of `text` with it and returns the Base64 values
  // (signature in big-endian PKCS#1 order); empty on cancel or failure.
  virtual SignedText ChooseAndSign(const std::string& text) = 0;
};

}  // namespace kv::control
