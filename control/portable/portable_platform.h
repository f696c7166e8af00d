// The platform of the enrolment control on systems without CryptoAPI: software
// providers with per-user key containers in files, certificate stores as
// per-user folders, and the signing chooser supplied by the host.
//
// Layout under the data directory (all folders 0700, all files 0600, every
// file replaced atomically):
//   containers/<encoded name>.key   one DER record per key container
//   stores/MY|CA|ROOT/<SHA-1>.der   the certificates of a store
//   stores/MY|CA|ROOT/<SHA-1>.prop  their properties and place in the store
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "control/platform.h"

namespace kv::control {

namespace portable {
struct RsaKey;
struct ProviderContext;
class TokenSet;
}  // namespace portable

// One certificate the user may sign with.
struct SigningCandidate {
  Bytes certificate;       // DER
  std::string subject;     // the subject name as text ("CN=..., O=...")
  std::string thumbprint;  // SHA-1 of the DER, upper-case hexadecimal
};

// Asks the user which certificate signs a "DS" message. Supplied by the host
// (a desktop dialog, a script in tests); never by the page.
class SigningChooser {
 public:
  virtual ~SigningChooser() = default;
  // The index of the chosen candidate, or -1 when the user cancels.
  virtual int Choose(const std::vector<SigningCandidate>& candidates) = 0;
  // The PIN of a token whose configuration gives none; false when the user
  // cancels (the default).
  virtual bool AskPin(const std::string& tokenLabel, std::string* pin) {
    (void)tokenLabel;
    (void)pin;
    return false;
  }
};

// A chooser that answers from a rule fixed in advance: the first candidate
// whose thumbprint equals the given one (case-insensitive), or whose subject
// contains the given text, or always cancel.
class ScriptedChooser : public SigningChooser {
 public:
  static ScriptedChooser ByThumbprint(const std::string& hex);
  static ScriptedChooser BySubject(const std::string& text);
  static ScriptedChooser Cancel();

  int Choose(const std::vector<SigningCandidate>& candidates) override;
  // How often Choose was called, and the candidates of the last call.
  int Calls() const { return calls_; }
  const std::vector<SigningCandidate>& LastCandidates() const { return last_; }

 private:
  enum class Rule { kThumbprint, kSubject, kCancel };
  ScriptedChooser(Rule rule, std::string value) : rule_(rule), value_(std::move(value)) {}
  Rule rule_;
  std::string value_;
  int calls_ = 0;
  std::vector<SigningCandidate> last_;
};

// A PKCS#11 module whose tokens become providers.
struct TokenModule {
  std::string path;        // the module's shared library
  std::string tokenLabel;  // empty: every token of the module
  std::string pin;         // empty: the chooser asks for it
};

struct PortableConfig {
  // Where containers and stores live; empty: $XDG_DATA_HOME/korvanta, else
  // $HOME/.local/share/korvanta.
  std::string dataDirectory;
  // The user's home (where the container-name file goes); empty: $HOME.
  std::string homeDirectory;
  // The "ANSI code page" of narrow text, as an iconv name.
  std::string codePage = "CP936";
  // Not owned; null means every signing request is cancelled.
  SigningChooser* chooser = nullptr;
  // Token providers: these modules, then those of the per-user file, then
  // p11-kit's registered modules.
  std::vector<TokenModule> tokenModules;
  // The per-user token file; empty: $XDG_CONFIG_HOME/korvanta/tokens.conf,
  // else $HOME/.config/korvanta/tokens.conf.
  std::string tokenConfigFile;
  // Read p11-kit's module files (/usr/share/p11-kit/modules and
  // $HOME/.config/pkcs11/modules).
  bool p11KitModules = true;
};

// What `korvanta containers` shows of one container.
struct ContainerSummary {
  std::string name;
  struct Key {
    bool present = false;
    unsigned bits = 0;
    bool exportable = false;
    bool hasCertificate = false;
  } signature, exchange;
};

// What `korvanta stores` shows of one certificate.
struct CertificateSummary {
  std::string thumbprint;  // upper-case hex SHA-1
  std::string subject;
  std::string issuer;
  std::string notAfter;  // "YYYY-MM-DD hh:mm:ss UTC"
};

// Summary of a DER certificate; false when it does not decode.
bool DescribeCertificate(const Bytes& der, CertificateSummary* summary);

class PortablePlatform : public Platform {
 public:
  explicit PortablePlatform(PortableConfig config = PortableConfig());
  ~PortablePlatform() override;
  PortablePlatform(const PortablePlatform&) = delete;
  PortablePlatform& operator=(const PortablePlatform&) = delete;

  const std::string& DataDirectory() const { return dataDir_; }
  // Every container of the user, sorted by name; unreadable files are skipped.
  std::vector<ContainerSummary> ListContainers();

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

  struct State;  // handle tables (internal)

 private:
  // The key (none when key is null) into a new GUID-named container,
  // exportable when flags has CRYPT_EXPORTABLE; the certificates into a
  // memory store in the order given, the one of that key carrying key
  // provider information naming the container.
  bool ImportIntoMemoryStore(const portable::RsaKey* key, const std::vector<Bytes>& certs,
                             uint32_t flags, StoreHandle* store);

  bool AcquireTokenContext(ProvHandle* prov, int token, const char* container, uint32_t flags);
  std::shared_ptr<portable::ProviderContext> TokenContext(ProvHandle prov);
  bool TokenKey(const std::shared_ptr<portable::ProviderContext>& ctx, uint32_t keySpec,
                unsigned bits, uint32_t flags, const uint8_t* blob, uint32_t len, KeyHandle* key);

  std::string dataDir_;
  std::string homeDir_;
  std::string codePage_;
  SigningChooser* chooser_;
  std::unique_ptr<State> state_;
  std::unique_ptr<portable::TokenSet> tokens_;
};

}  // namespace kv::control
