// Token providers of the portable platform: every token of the configured
// PKCS#11 modules is one provider named after its label. A container on a
// token is the set of token objects labelled with the container's name: a
// marker data object, at most one RSA key pair and its certificate (same
// CKA_ID as the key).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "control/platform.h"
#include "control/portable/internal/rsa_key.h"

namespace kv::control {
class SigningChooser;
struct TokenModule;
}  // namespace kv::control

namespace kv::control::portable {

// The errors a token reports through GetLastError (smart-card codes, as a
// card provider would).
enum : uint32_t {
  kScardNoSmartcard = 0x8010000C,  // the token is gone
  kScardWrongPin = 0x8010006B,
  kScardCancelled = 0x8010006E,  // no PIN was given
};

// Reads the module lists: p11-kit's *.module files (their `module:` lines) in
// the given folders, relative names resolved in its module folder, and the
// per-user file of lines "module PATH", "token LABEL", "pin PIN",
// "pin-file PATH" ("module" starts a new entry).
std::vector<TokenModule> ReadP11KitModules(const std::vector<std::string>& dirs);
std::vector<TokenModule> ReadTokenConfig(const std::string& path);

class TokenSet {
 public:
  TokenSet(std::vector<TokenModule> modules, SigningChooser* chooser);
  ~TokenSet();
  TokenSet(const TokenSet&) = delete;
  TokenSet& operator=(const TokenSet&) = delete;

  // Provider names, one per token found the first time this is asked.
  const std::vector<std::string>& Names();
  // Index of the provider of that name (case-sensitive, as labels are), or -1.
  int Find(const std::string& name);

  // Each returns 0 or the platform error.
  uint32_t Exists(int token, const std::string& container, bool* exists);
  uint32_t Create(int token, const std::string& container);
  uint32_t Delete(int token, const std::string& container);
  // The container's public key (n, e only) and the key's CKA_ID; NTE_NO_KEY
  // when it holds none.
  uint32_t GetKey(int token, const std::string& container, RsaKey* pub, Bytes* id);
  // Replaces the container's key pair by a fresh one of `bits` made on the
  // token; the private key never leaves it.
  uint32_t Generate(int token, const std::string& container, unsigned bits, RsaKey* pub, Bytes* id);
  // Replaces the container's key pair by `key` as token objects (private key
  // sensitive and not extractable).
  uint32_t Import(int token, const std::string& container, const RsaKey& key, Bytes* id);
  // Replaces the container's certificate object.
  uint32_t PutCertificate(int token, const std::string& container, const Bytes& id,
                          const uint8_t* der, size_t len);
  // PKCS#1 v1.5 signature (big-endian) of a SHA-1 digest with the container's key.
  uint32_t SignSha1(int token, const std::string& container, const uint8_t digest[20], Bytes* sig);
  // Every certificate object on every token that has a private key beside
  // it: (token, container, DER).
  struct Certificate {
    int token;
    std::string container;
    Bytes der;
  };
  std::vector<Certificate> Certificates();

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace kv::control::portable
