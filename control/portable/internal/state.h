// The handle tables behind PortablePlatform. Every handle value comes from one
// counter, so a handle of one kind is never taken for another.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "control/portable/internal/cert.h"
#include "control/portable/internal/records.h"
#include "control/portable/portable_platform.h"
#include "crypto/sha1.h"

namespace kv::control::portable {

struct ProviderInfo {
  const char* name;
  uint32_t type;
  unsigned signatureMin, signatureMax;
  unsigned exchangeMin, exchangeMax;
  unsigned defaultBits;
  bool rsa;  // false: listed only (no implementation behind it)
};

// An open context: one container of one provider.
struct ProviderContext {
  const ProviderInfo* provider;  // null on a token
  std::string container;         // as given (or the default name)
  int token = -1;                // the token provider's index, -1 for software
};

struct KeyObject {
  std::shared_ptr<ProviderContext> context;
  uint32_t keySpec;
  bool exportable;
  RsaKey key;     // on a token: the public half only
  Bytes tokenId;  // on a token: the key's CKA_ID
  ~KeyObject() { key.Wipe(); }
};

struct HashObject {
  std::shared_ptr<ProviderContext> context;
  Sha1 sha1;
  bool finished = false;
  uint8_t digest[Sha1::kDigestSize] = {};
};

struct StoreEntry;

// A view of a store: a system store's folder as loaded at opening plus this
// handle's own changes, or a memory store.
struct StoreObject {
  std::string name;    // "MY", "CA", "ROOT"; empty for a memory store
  std::string folder;  // empty for a memory store
  // In enumeration order; deleted entries stay (marked) so that enumeration
  // can go on from a context deleted meanwhile.
  std::vector<std::shared_ptr<StoreEntry>> entries;
};

struct StoreEntry {
  Bytes der;
  ParsedCertificate info;
  PropertyRecord properties;
  bool deleted = false;
  std::weak_ptr<StoreObject> store;  // expired/empty for a context of no store
  uintptr_t handle = 0;              // the live context handle, 0 when none
};

struct CertContext {
  std::shared_ptr<StoreEntry> entry;
  std::shared_ptr<StoreObject> store;  // keeps the store alive, as a context does
  unsigned references = 1;
};

}  // namespace kv::control::portable

namespace kv::control {

struct PortablePlatform::State {
  std::recursive_mutex mutex;
  uintptr_t next = 0x1000;
  std::map<uintptr_t, std::shared_ptr<portable::ProviderContext>> providers;
  std::map<uintptr_t, std::unique_ptr<portable::KeyObject>> keys;
  std::map<uintptr_t, std::unique_ptr<portable::HashObject>> hashes;
  std::map<uintptr_t, std::shared_ptr<portable::StoreObject>> stores;
  std::map<uintptr_t, portable::CertContext> certs;

  uintptr_t NewHandle() { return next++; }
};

}  // namespace kv::control
