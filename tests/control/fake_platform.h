// An in-memory platform for the control's tests. Providers, containers, keys
// (real RSA keys, so signatures and blobs can be checked by OpenSSL), the
// "MY", "CA" and "ROOT" stores, files and GUIDs all live in the object.
//
// Fault injection: Fail("AcquireContext", 2) makes the second call of that
// method from now on fail with the given error (NTE_FAIL by default), so a
// test reaches any failure branch of a method body by counting calls.
// Every handle handed out is tracked: LiveHandles() is 0 when the control
// released everything it opened.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "control/platform.h"

namespace kvtest {

using kv::control::Bytes;

// An RSA key pair as unsigned big-endian components.
struct RsaKey {
  Bytes n, e, d, p, q, dp, dq, qinv;
  unsigned bits() const { return static_cast<unsigned>(n.size() * 8); }
  // PKCS#1 RSAPrivateKey / RSAPublicKey DER.
  Bytes PrivateDer() const;
  Bytes PublicDer() const;
  // PKCS#1 v1.5 SHA-1 signature, big-endian.
  Bytes SignSha1(const Bytes& data) const;
  // A key of the given size from a pool shared by the test program (each
  // index is one fixed key).
  static std::shared_ptr<const RsaKey> Pool(unsigned bits, size_t index);
  // Parses PKCS#1 RSAPrivateKey DER; null when it does not parse.
  static std::shared_ptr<const RsaKey> FromPrivateDer(const Bytes& der);
};

// DER SubjectPublicKeyInfo (rsaEncryption) of a key.
Bytes SubjectPublicKeyInfo(const RsaKey& key);

class FakePlatform : public kv::control::Platform {
 public:
  struct Provider {
    std::string name;
    uint32_t type;
    unsigned maxSignatureBits;
    unsigned maxExchangeBits;
  };
  struct Key {
    std::shared_ptr<const RsaKey> rsa;
    bool exportable = false;
    uint32_t genFlags = 0;
    uint32_t importFlags = 0;
    Bytes certificate;  // KP_CERTIFICATE
  };
  struct Container {
    std::map<uint32_t, Key> keys;  // by key spec
  };
  struct StoredCert {
    uint64_t id = 0;
    Bytes der;
    bool hasInfo = false;
    kv::control::KeyProvInfo info;
  };

  FakePlatform();
  ~FakePlatform() override;

  // ---- Test controls ----
  void Fail(const std::string& method, int nth = 1, uint32_t error = kv::control::KV_NTE_FAIL);
  int Calls(const std::string& method) const;
  size_t LiveHandles() const { return handles_.size(); }

  std::vector<Provider> providers;
  // Containers by provider group (software providers share one) and name.
  std::map<std::string, Container> containers;
  std::map<std::string, std::vector<StoredCert>> stores;  // "MY", "CA", "ROOT"
  std::map<std::string, Bytes> files;
  // Signs for the "DS" requests; the default cancels.
  std::function<kv::control::SignedText(const std::string&)> chooser;
  // Called by PFXImportCertStore with the PFX and password: returns the key
  // (PKCS#1 DER) and the certificates, or false.
  std::function<bool(const Bytes& pfx, const std::string& password, Bytes* key,
                     std::vector<Bytes>* certs)>
      pfxReader;
  std::string codePage = "CP936";
  // When set, ExportKey's size query reports this length.
  uint32_t exportSizeOverride = 0;

  static std::string Group(const std::string& provider);
  Container* FindContainer(const std::string& provider, const std::string& name);
  size_t ContainerCount() const { return containers.size(); }
  const std::string kContainerFile = "/home/user/velmoraContianer.data";
  const std::string kKeyHistoryDir = "/system";

  // ---- Platform ----
  uint32_t GetLastError() override { return lastError_; }
  bool EnumProviders(uint32_t index, uint32_t* provType, char* name, uint32_t* nameLen) override;
  bool AcquireContext(kv::control::ProvHandle* prov, const char* container, const char* provider,
                      uint32_t provType, uint32_t flags) override;
  bool ReleaseContext(kv::control::ProvHandle prov) override;
  bool GetUserKey(kv::control::ProvHandle prov, uint32_t keySpec,
                  kv::control::KeyHandle* key) override;
  bool GenKey(kv::control::ProvHandle prov, uint32_t algid, uint32_t flags,
              kv::control::KeyHandle* key) override;
  bool ExportKey(kv::control::KeyHandle key, uint32_t blobType, uint32_t flags, uint8_t* data,
                 uint32_t* len) override;
  bool ImportKey(kv::control::ProvHandle prov, const uint8_t* data, uint32_t len, uint32_t flags,
                 kv::control::KeyHandle* key) override;
  bool SetKeyParam(kv::control::KeyHandle key, uint32_t param, const uint8_t* data, uint32_t len,
                   uint32_t flags) override;
  bool DestroyKey(kv::control::KeyHandle key) override;
  bool CreateHash(kv::control::ProvHandle prov, uint32_t algid,
                  kv::control::HashHandle* hash) override;
  bool HashData(kv::control::HashHandle hash, const uint8_t* data, uint32_t len) override;
  bool SignHash(kv::control::HashHandle hash, uint32_t keySpec, uint8_t* sig,
                uint32_t* len) override;
  bool DestroyHash(kv::control::HashHandle hash) override;
  bool ExportPublicKeyInfo(kv::control::ProvHandle prov, uint32_t keySpec, uint8_t* info,
                           uint32_t* len) override;
  bool ComparePublicKeyInfo(const uint8_t* a, uint32_t aLen, const uint8_t* b,
                            uint32_t bLen) override;
  bool OpenStore(kv::control::ProvHandle prov, const char* name,
                 kv::control::StoreHandle* store) override;
  bool OpenSystemStore(const char* name, kv::control::StoreHandle* store) override;
  bool CloseStore(kv::control::StoreHandle store) override;
  bool CreateCertificateContext(const uint8_t* der, uint32_t len,
                                kv::control::CertHandle* cert) override;
  bool FreeCertificateContext(kv::control::CertHandle cert) override;
  bool DuplicateCertificateContext(kv::control::CertHandle cert,
                                   kv::control::CertHandle* copy) override;
  bool GetEncoded(kv::control::CertHandle cert, Bytes* der) override;
  bool AddEncodedCertificateToStore(kv::control::StoreHandle store, const uint8_t* der,
                                    uint32_t len, uint32_t disposition,
                                    kv::control::CertHandle* added) override;
  bool AddCertificateContextToStore(kv::control::StoreHandle store, kv::control::CertHandle cert,
                                    uint32_t disposition, kv::control::CertHandle* added) override;
  bool SetKeyProvInfo(kv::control::CertHandle cert, const kv::control::KeyProvInfo* info) override;
  bool GetKeyProvInfo(kv::control::CertHandle cert, kv::control::KeyProvInfo* info) override;
  bool EnumCertificatesInStore(kv::control::StoreHandle store, kv::control::CertHandle prev,
                               kv::control::CertHandle* next) override;
  bool CompareCertificate(kv::control::CertHandle a, kv::control::CertHandle b) override;
  bool DeleteCertificateFromStore(kv::control::CertHandle cert) override;
  bool PFXImportCertStore(const uint8_t* pfx, uint32_t len, const char16_t* password,
                          uint32_t flags, kv::control::StoreHandle* store) override;
  bool CoCreateGuid(kv::control::Guid* guid) override;
  uint32_t ExpandEnvironmentStrings(const char* src, char* dst, uint32_t size) override;
  uint32_t GetSystemDirectory(char* dst, uint32_t size) override;
  std::string ContainerFilePath() override { return kContainerFile; }
  std::string KeyHistoryDirectory() override { return kKeyHistoryDir; }
  bool WriteFileAtomic(const std::string& path, const uint8_t* data, size_t len) override;
  bool ReadFile(const std::string& path, size_t maxLen, Bytes* data) override;
  bool FileExists(const std::string& path) override;
  bool DeleteFile(const std::string& path) override;
  bool ToNarrow(const std::u16string& wide, std::string* narrow) override;
  bool ToWide(const std::string& narrow, std::u16string* wide) override;
  kv::control::SignedText ChooseAndSign(const std::string& text) override;

 private:
  enum class Kind { kProv, kKey, kHash, kStore, kCert };
  struct HandleData {
    explicit HandleData(Kind k) : kind(k) {}
    Kind kind;
    std::string group, container;  // prov, key
    std::string provider;          // prov
    uint32_t keySpec = 0;          // key
    Bytes data;                    // hash: the hashed octets
    std::string store;             // store: its name; "" for a memory store
    size_t memory = 0;             // store: index of the memory store
    bool inStore = false;          // cert: lives in a store (else free-standing)
    bool inMemory = false;         // cert: ... a memory store
    uint64_t certId = 0;           // cert: the store entry
    Bytes der;                     // cert: free-standing contexts
  };

  bool Injected(const char* method);
  bool Fail(uint32_t error) {
    lastError_ = error;
    return false;
  }
  bool AddToStore(kv::control::StoreHandle store, kv::control::CertHandle cert,
                  uint32_t disposition, kv::control::CertHandle* added);
  uintptr_t NewHandle(HandleData data);
  HandleData* Get(uintptr_t h, Kind kind);
  Key* KeyOf(uintptr_t key);
  std::vector<StoredCert>* StoreOf(const HandleData& store);
  StoredCert* CertEntry(HandleData& cert);

  uint32_t lastError_ = 0;
  std::map<std::string, int> calls_;
  std::map<std::string, std::map<int, uint32_t>> faults_;
  std::map<uintptr_t, HandleData> handles_;
  uintptr_t nextHandle_ = 0x1000;
  std::map<unsigned, size_t> poolNext_;
  uint32_t guidCounter_ = 0;
  uint64_t nextCertId_ = 1;
  std::vector<std::vector<StoredCert>> memoryStores_;
};

}  // namespace kvtest
