// The platform calls on Windows: thin wrappers over CryptoAPI, the
// certificate stores, COM's GUIDs, the environment and files.
#include "control/win32/win32_platform.h"

#include <cstring>
#include <memory>
#include <vector>

#include "control/win32/internal/windows.h"

namespace kv::control {

const char kSigningChooserKey[] = "Software\\Korvanta";
const char kSigningChooserValue[] = "SigningCertificate";

namespace {

const DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;

HCERTSTORE Store(StoreHandle h) {
  return reinterpret_cast<HCERTSTORE>(h);
}
PCCERT_CONTEXT Cert(CertHandle h) {
  return reinterpret_cast<PCCERT_CONTEXT>(h);
}
CertHandle ToHandle(PCCERT_CONTEXT c) {
  return reinterpret_cast<CertHandle>(c);
}

// Memory that CryptoAPI allocated with LocalAlloc.
struct LocalFreer {
  void operator()(void* p) const { LocalFree(p); }
};
template <typename T>
using LocalPtr = std::unique_ptr<T, LocalFreer>;

// Decodes DER SubjectPublicKeyInfo into the structure CryptoAPI compares.
LocalPtr<CERT_PUBLIC_KEY_INFO> DecodePublicKeyInfo(const uint8_t* der, uint32_t len) {
  void* out = nullptr;
  DWORD size = 0;
  if (!CryptDecodeObjectEx(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, der, len,
                           CRYPT_DECODE_ALLOC_FLAG, nullptr, &out, &size)) {
    return nullptr;
  }
  return LocalPtr<CERT_PUBLIC_KEY_INFO>(static_cast<CERT_PUBLIC_KEY_INFO*>(out));
}

const wchar_t* AsWide(const char16_t* s) {
  return reinterpret_cast<const wchar_t*>(s);
}

}  // namespace

bool Win32Platform::Failed() {
  lastError_ = ::GetLastError();
  return false;
}

bool Win32Platform::Fail(uint32_t error) {
  lastError_ = error;
  ::SetLastError(error);
  return false;
}

uint32_t Win32Platform::GetLastError() {
  return lastError_;
}

// ---- Providers, containers and keys ----

bool Win32Platform::EnumProviders(uint32_t index, uint32_t* provType, char* name,
                                  uint32_t* nameLen) {
  DWORD type = 0;
  DWORD len = *nameLen;
  if (!CryptEnumProvidersA(index, nullptr, 0, &type, name, &len)) return Failed();
  *provType = type;
  *nameLen = len;
  return true;
}

bool Win32Platform::AcquireContext(ProvHandle* prov, const char* container, const char* provider,
                                   uint32_t provType, uint32_t flags) {
  HCRYPTPROV h = 0;
  if (!CryptAcquireContextA(&h, container, provider, provType, flags)) {
    *prov = 0;
    return Failed();
  }
  // Deleting a key set gives no handle.
  *prov = (flags & CRYPT_DELETEKEYSET) ? 0 : static_cast<ProvHandle>(h);
  return true;
}

bool Win32Platform::ReleaseContext(ProvHandle prov) {
  return CryptReleaseContext(static_cast<HCRYPTPROV>(prov), 0) ? true : Failed();
}

bool Win32Platform::GetUserKey(ProvHandle prov, uint32_t keySpec, KeyHandle* key) {
  HCRYPTKEY h = 0;
  if (!CryptGetUserKey(static_cast<HCRYPTPROV>(prov), keySpec, &h)) return Failed();
  *key = static_cast<KeyHandle>(h);
  return true;
}

bool Win32Platform::GenKey(ProvHandle prov, uint32_t algid, uint32_t flags, KeyHandle* key) {
  HCRYPTKEY h = 0;
  if (!CryptGenKey(static_cast<HCRYPTPROV>(prov), algid, flags, &h)) return Failed();
  *key = static_cast<KeyHandle>(h);
  return true;
}

bool Win32Platform::ExportKey(KeyHandle key, uint32_t blobType, uint32_t flags, uint8_t* data,
                              uint32_t* len) {
  DWORD n = *len;
  if (!CryptExportKey(static_cast<HCRYPTKEY>(key), 0, blobType, flags, data, &n)) return Failed();
  *len = n;
  return true;
}

bool Win32Platform::ImportKey(ProvHandle prov, const uint8_t* data, uint32_t len, uint32_t flags,
                              KeyHandle* key) {
  HCRYPTKEY h = 0;
  if (!CryptImportKey(static_cast<HCRYPTPROV>(prov), data, len, 0, flags, &h)) return Failed();
  *key = static_cast<KeyHandle>(h);
  return true;
}

bool Win32Platform::SetKeyParam(KeyHandle key, uint32_t param, const uint8_t* data, uint32_t,
                                uint32_t flags) {
  return CryptSetKeyParam(static_cast<HCRYPTKEY>(key), param, data, flags) ? true : Failed();
}

bool Win32Platform::DestroyKey(KeyHandle key) {
  return CryptDestroyKey(static_cast<HCRYPTKEY>(key)) ? true : Failed();
}

bool Win32Platform::CreateHash(ProvHandle prov, uint32_t algid, HashHandle* hash) {
  HCRYPTHASH h = 0;
  if (!CryptCreateHash(static_cast<HCRYPTPROV>(prov), algid, 0, 0, &h)) return Failed();
  *hash = static_cast<HashHandle>(h);
  return true;
}

bool Win32Platform::HashData(HashHandle hash, const uint8_t* data, uint32_t len) {
  return CryptHashData(static_cast<HCRYPTHASH>(hash), data, len, 0) ? true : Failed();
}

bool Win32Platform::SignHash(HashHandle hash, uint32_t keySpec, uint8_t* sig, uint32_t* len) {
  DWORD n = *len;
  if (!CryptSignHashA(static_cast<HCRYPTHASH>(hash), keySpec, nullptr, 0, sig, &n)) {
    return Failed();
  }
  *len = n;
  return true;
}

bool Win32Platform::DestroyHash(HashHandle hash) {
  return CryptDestroyHash(static_cast<HCRYPTHASH>(hash)) ? true : Failed();
}

bool Win32Platform::ExportPublicKeyInfo(ProvHandle prov, uint32_t keySpec, uint8_t* info,
                                        uint32_t* len) {
  // CryptoAPI hands out the decoded structure; the interface speaks DER.
  DWORD size = 0;
  auto h = static_cast<HCRYPTPROV>(prov);
  if (!CryptExportPublicKeyInfo(h, keySpec, X509_ASN_ENCODING, nullptr, &size)) return Failed();
  std::vector<BYTE> buf(size);
  auto* decoded = reinterpret_cast<CERT_PUBLIC_KEY_INFO*>(buf.data());
  if (!CryptExportPublicKeyInfo(h, keySpec, X509_ASN_ENCODING, decoded, &size)) return Failed();
  DWORD derLen = 0;
  if (!CryptEncodeObjectEx(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, decoded, 0, nullptr, nullptr,
                           &derLen)) {
    return Failed();
  }
  if (info == nullptr) {
    *len = derLen;
    return true;
  }
  if (*len < derLen) {
    *len = derLen;
    return Fail(ERROR_MORE_DATA);
  }
  if (!CryptEncodeObjectEx(X509_ASN_ENCODING, X509_PUBLIC_KEY_INFO, decoded, 0, nullptr, info,
                           &derLen)) {
    return Failed();
  }
  *len = derLen;
  return true;
}

bool Win32Platform::ComparePublicKeyInfo(const uint8_t* a, uint32_t aLen, const uint8_t* b,
                                         uint32_t bLen) {
  auto first = DecodePublicKeyInfo(a, aLen);
  if (!first) return Failed();
  auto second = DecodePublicKeyInfo(b, bLen);
  if (!second) return Failed();
  if (!CertComparePublicKeyInfo(X509_ASN_ENCODING, first.get(), second.get())) {
    return Fail(static_cast<uint32_t>(NTE_BAD_PUBLIC_KEY));
  }
  return true;
}

// ---- Certificate stores ----

bool Win32Platform::OpenStore(ProvHandle prov, const char* name, StoreHandle* store) {
  HCERTSTORE h = CertOpenStore(CERT_STORE_PROV_SYSTEM_A, 0, static_cast<HCRYPTPROV_LEGACY>(prov),
                               CERT_SYSTEM_STORE_CURRENT_USER, name);
  if (!h) return Failed();
  *store = reinterpret_cast<StoreHandle>(h);
  return true;
}

bool Win32Platform::OpenSystemStore(const char* name, StoreHandle* store) {
  HCERTSTORE h = CertOpenSystemStoreA(0, name);
  if (!h) return Failed();
  *store = reinterpret_cast<StoreHandle>(h);
  return true;
}

bool Win32Platform::CloseStore(StoreHandle store) {
  // Windows writes a system store's changes through at once; Wine keeps
  // deletions until a commit (adds it writes at once). The commit is a no-op
  // where nothing is pending and refused by stores that have nothing to
  // commit to (memory stores), which is fine either way.
  CertControlStore(Store(store), 0, CERT_STORE_CTRL_COMMIT, nullptr);
  return CertCloseStore(Store(store), 0) ? true : Failed();
}

bool Win32Platform::CreateCertificateContext(const uint8_t* der, uint32_t len, CertHandle* cert) {
  PCCERT_CONTEXT c = CertCreateCertificateContext(kEncoding, der, len);
  if (!c) return Failed();
  *cert = ToHandle(c);
  return true;
}

bool Win32Platform::FreeCertificateContext(CertHandle cert) {
  return CertFreeCertificateContext(Cert(cert)) ? true : Failed();
}

bool Win32Platform::DuplicateCertificateContext(CertHandle cert, CertHandle* copy) {
  PCCERT_CONTEXT c = CertDuplicateCertificateContext(Cert(cert));
  if (!c) return Failed();
  *copy = ToHandle(c);
  return true;
}

bool Win32Platform::GetEncoded(CertHandle cert, Bytes* der) {
  if (!cert) return Fail(ERROR_INVALID_PARAMETER);
  PCCERT_CONTEXT c = Cert(cert);
  der->assign(c->pbCertEncoded, c->pbCertEncoded + c->cbCertEncoded);
  return true;
}

bool Win32Platform::AddEncodedCertificateToStore(StoreHandle store, const uint8_t* der,
                                                 uint32_t len, uint32_t disposition,
                                                 CertHandle* added) {
  PCCERT_CONTEXT c = nullptr;
  if (!CertAddEncodedCertificateToStore(Store(store), kEncoding, der, len, disposition,
                                        added ? &c : nullptr)) {
    return Failed();
  }
  if (added) *added = ToHandle(c);
  return true;
}

bool Win32Platform::AddCertificateContextToStore(StoreHandle store, CertHandle cert,
                                                 uint32_t disposition, CertHandle* added) {
  PCCERT_CONTEXT c = nullptr;
  if (!CertAddCertificateContextToStore(Store(store), Cert(cert), disposition,
                                        added ? &c : nullptr)) {
    return Failed();
  }
  if (added) *added = ToHandle(c);
  return true;
}

bool Win32Platform::SetKeyProvInfo(CertHandle cert, const KeyProvInfo* info) {
  if (info == nullptr) {
    // No information: the property goes.
    return CertSetCertificateContextProperty(Cert(cert), CERT_KEY_PROV_INFO_PROP_ID, 0, nullptr)
               ? true
               : Failed();
  }
  std::u16string container = info->containerName;
  std::u16string provider = info->providerName;
  CRYPT_KEY_PROV_INFO p{};
  p.pwszContainerName = const_cast<wchar_t*>(AsWide(container.c_str()));
  p.pwszProvName = const_cast<wchar_t*>(AsWide(provider.c_str()));
  p.dwProvType = info->provType;
  p.dwFlags = info->flags;
  p.cProvParam = 0;
  p.rgProvParam = nullptr;
  p.dwKeySpec = info->keySpec;
  return CertSetCertificateContextProperty(Cert(cert), CERT_KEY_PROV_INFO_PROP_ID, 0, &p)
             ? true
             : Failed();
}

bool Win32Platform::GetKeyProvInfo(CertHandle cert, KeyProvInfo* info) {
  DWORD size = 0;
  if (!CertGetCertificateContextProperty(Cert(cert), CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size)) {
    return Failed();
  }
  std::vector<BYTE> buf(size);
  if (!CertGetCertificateContextProperty(Cert(cert), CERT_KEY_PROV_INFO_PROP_ID, buf.data(),
                                         &size)) {
    return Failed();
  }
  const auto* p = reinterpret_cast<const CRYPT_KEY_PROV_INFO*>(buf.data());
  auto text = [](const wchar_t* s) {
    return s ? std::u16string(reinterpret_cast<const char16_t*>(s)) : std::u16string();
  };
  info->containerName = text(p->pwszContainerName);
  info->providerName = text(p->pwszProvName);
  info->provType = p->dwProvType;
  info->flags = p->dwFlags;
  info->provParamCount = p->cProvParam;
  info->keySpec = p->dwKeySpec;
  return true;
}

bool Win32Platform::EnumCertificatesInStore(StoreHandle store, CertHandle prev, CertHandle* next) {
  PCCERT_CONTEXT c = CertEnumCertificatesInStore(Store(store), Cert(prev));
  if (!c) {
    *next = 0;
    return Failed();
  }
  *next = ToHandle(c);
  return true;
}

bool Win32Platform::CompareCertificate(CertHandle a, CertHandle b) {
  return CertCompareCertificate(X509_ASN_ENCODING, Cert(a)->pCertInfo, Cert(b)->pCertInfo) != 0;
}

bool Win32Platform::DeleteCertificateFromStore(CertHandle cert) {
  return CertDeleteCertificateFromStore(Cert(cert)) ? true : Failed();
}

namespace {

// Wine's PFX import records key specification 3 on the certificates, a value
// no RSA provider answers; Windows records the key's real one. The imported
// key is looked up in its container, exchange key first, and the
// certificate's key provider information names that key. Nothing
// changes where the recorded value is already 1 or 2.
void SettleImportedKeySpecs(HCERTSTORE store) {
  for (PCCERT_CONTEXT c = CertEnumCertificatesInStore(store, nullptr); c;
       c = CertEnumCertificatesInStore(store, c)) {
    DWORD size = 0;
    if (!CertGetCertificateContextProperty(c, CERT_KEY_PROV_INFO_PROP_ID, nullptr, &size)) {
      continue;
    }
    std::vector<BYTE> buf(size);
    if (!CertGetCertificateContextProperty(c, CERT_KEY_PROV_INFO_PROP_ID, buf.data(), &size)) {
      continue;
    }
    auto* info = reinterpret_cast<CRYPT_KEY_PROV_INFO*>(buf.data());
    if (info->dwKeySpec == AT_KEYEXCHANGE || info->dwKeySpec == AT_SIGNATURE) continue;
    HCRYPTPROV prov = 0;
    if (!CryptAcquireContextW(&prov, info->pwszContainerName, info->pwszProvName, info->dwProvType,
                              CRYPT_SILENT | (info->dwFlags & CRYPT_MACHINE_KEYSET))) {
      continue;
    }
    for (DWORD spec : {static_cast<DWORD>(AT_KEYEXCHANGE), static_cast<DWORD>(AT_SIGNATURE)}) {
      HCRYPTKEY key = 0;
      if (CryptGetUserKey(prov, spec, &key)) {
        CryptDestroyKey(key);
        info->dwKeySpec = spec;
        CertSetCertificateContextProperty(c, CERT_KEY_PROV_INFO_PROP_ID, 0, info);
        break;
      }
    }
    CryptReleaseContext(prov, 0);
  }
}

}  // namespace

bool Win32Platform::PFXImportCertStore(const uint8_t* pfx, uint32_t len, const char16_t* password,
                                       uint32_t flags, StoreHandle* store) {
  CRYPT_DATA_BLOB blob{len, const_cast<BYTE*>(pfx)};
  HCERTSTORE h = ::PFXImportCertStore(&blob, AsWide(password), flags);
  if (!h) return Failed();
  SettleImportedKeySpecs(h);
  *store = reinterpret_cast<StoreHandle>(h);
  return true;
}

// ---- System ----

bool Win32Platform::CoCreateGuid(Guid* guid) {
  GUID g{};
  HRESULT hr = ::CoCreateGuid(&g);
  if (FAILED(hr)) return Fail(static_cast<uint32_t>(hr));
  guid->data1 = g.Data1;
  guid->data2 = g.Data2;
  guid->data3 = g.Data3;
  std::memcpy(guid->data4, g.Data4, sizeof g.Data4);
  return true;
}

uint32_t Win32Platform::ExpandEnvironmentStrings(const char* src, char* dst, uint32_t size) {
  DWORD n = ExpandEnvironmentStringsA(src, dst, size);
  if (n == 0) Failed();
  return n;
}

uint32_t Win32Platform::GetSystemDirectory(char* dst, uint32_t size) {
  UINT n = GetSystemDirectoryA(dst, size);
  if (n == 0) Failed();
  return n;
}

std::string Win32Platform::ContainerFilePath() {
  // Each variable expands into a buffer of 1024 characters; one that does not
  // expand leaves its part empty. The path has room for 255 characters.
  auto expand = [this](const char* var) {
    char buf[1024] = {};
    uint32_t n = ExpandEnvironmentStrings(var, buf, sizeof buf);
    return (n == 0 || n > sizeof buf) ? std::string() : std::string(buf);
  };
  std::string path = expand("%HOMEDRIVE%") + expand("%HOMEPATH%") + "\\velmoraContianer.data";
  if (path.size() > 255) path.resize(255);
  return path;
}

std::string Win32Platform::KeyHistoryDirectory() {
  char buf[MAX_PATH + 1] = {};
  uint32_t n = GetSystemDirectory(buf, sizeof buf);
  return (n == 0 || n >= sizeof buf) ? std::string() : std::string(buf, n);
}

// ---- Files ----

namespace {

struct FileCloser {
  void operator()(HANDLE h) const {
    if (h != INVALID_HANDLE_VALUE) CloseHandle(h);
  }
};
using FileHandle = std::unique_ptr<void, FileCloser>;

}  // namespace

bool Win32Platform::WriteFileAtomic(const std::string& path, const uint8_t* data, size_t len) {
  // The new content goes to a file beside the old one and replaces it in one
  // step, so a reader never sees half a file.
  const std::string temp = path + ".new";
  {
    FileHandle f(CreateFileA(temp.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                             FILE_ATTRIBUTE_NORMAL, nullptr));
    if (f.get() == INVALID_HANDLE_VALUE) return Failed();
    size_t done = 0;
    while (done < len) {
      DWORD chunk = static_cast<DWORD>(len - done > 0x10000000 ? 0x10000000 : len - done);
      DWORD written = 0;
      if (!::WriteFile(f.get(), data + done, chunk, &written, nullptr) || written == 0) {
        Failed();
        f.reset();
        DeleteFileA(temp.c_str());
        return false;
      }
      done += written;
    }
    if (!FlushFileBuffers(f.get())) {
      Failed();
      f.reset();
      DeleteFileA(temp.c_str());
      return false;
    }
  }
  if (!MoveFileExA(temp.c_str(), path.c_str(),
                   MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
    Failed();
    DeleteFileA(temp.c_str());
    return false;
  }
  return true;
}

bool Win32Platform::ReadFile(const std::string& path, size_t maxLen, Bytes* data) {
  FileHandle f(CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (f.get() == INVALID_HANDLE_VALUE) return Failed();
  // Room for what the file holds, at most maxLen.
  LARGE_INTEGER size{};
  if (GetFileSizeEx(f.get(), &size) && static_cast<unsigned long long>(size.QuadPart) < maxLen) {
    maxLen = static_cast<size_t>(size.QuadPart);
  }
  data->assign(maxLen, 0);
  size_t done = 0;
  while (done < maxLen) {
    DWORD chunk = static_cast<DWORD>(maxLen - done > 0x10000000 ? 0x10000000 : maxLen - done);
    DWORD got = 0;
    if (!::ReadFile(f.get(), data->data() + done, chunk, &got, nullptr)) return Failed();
    if (got == 0) break;
    done += got;
  }
  data->resize(done);
  return true;
}

bool Win32Platform::FileExists(const std::string& path) {
  // A directory search, as the file's owner looks for it.
  WIN32_FIND_DATAA found{};
  HANDLE h = FindFirstFileA(path.c_str(), &found);
  if (h == INVALID_HANDLE_VALUE) return Failed();
  FindClose(h);
  return (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0;
}

bool Win32Platform::DeleteFile(const std::string& path) {
  return DeleteFileA(path.c_str()) ? true : Failed();
}

// ---- Text in the thread's ANSI code page ----

bool Win32Platform::ToNarrow(const std::u16string& wide, std::string* narrow) {
  narrow->clear();
  if (wide.empty()) return true;
  const auto* src = AsWide(wide.data());
  int n = WideCharToMultiByte(CP_THREAD_ACP, 0, src, static_cast<int>(wide.size()), nullptr, 0,
                              nullptr, nullptr);
  if (n <= 0) return Failed();
  narrow->resize(static_cast<size_t>(n));
  if (WideCharToMultiByte(CP_THREAD_ACP, 0, src, static_cast<int>(wide.size()), &(*narrow)[0], n,
                          nullptr, nullptr) != n) {
    narrow->clear();
    return Failed();
  }
  return true;
}

bool Win32Platform::ToWide(const std::string& narrow, std::u16string* wide) {
  wide->clear();
  if (narrow.empty()) return true;
  int n = MultiByteToWideChar(CP_THREAD_ACP, 0, narrow.data(), static_cast<int>(narrow.size()),
                              nullptr, 0);
  if (n <= 0) return Failed();
  std::vector<wchar_t> buf(static_cast<size_t>(n));
  if (MultiByteToWideChar(CP_THREAD_ACP, 0, narrow.data(), static_cast<int>(narrow.size()),
                          buf.data(), n) != n) {
    return Failed();
  }
  wide->assign(reinterpret_cast<const char16_t*>(buf.data()), buf.size());
  return true;
}

}  // namespace kv::control
