// Providers, key containers, keys and hashes of the portable platform.
#include "control/portable/portable_platform.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>

#include "asn1/mi_exception.h"
#include "control/portable/internal/containers.h"
#include "control/portable/internal/files.h"
#include "control/portable/internal/state.h"
#include "control/portable/internal/tokens.h"

namespace kv::control {

using namespace portable;

namespace {

// The RSA providers of a stock installation, in its enumeration order, with
// its key-size limits. The DSS provider is listed so that enumeration looks
// the same; there is nothing behind it.
const ProviderInfo kProviders[] = {
    {"Microsoft Base Cryptographic Provider v1.0", KV_PROV_RSA_FULL, 384, 16384, 384, 1024, 512,
     true},
    {"Microsoft Base DSS Cryptographic Provider", KV_PROV_DSS, 0, 0, 0, 0, 0, false},
    {"Microsoft Enhanced Cryptographic Provider v1.0", KV_PROV_RSA_FULL, 384, 16384, 384, 16384,
     1024, true},
    {"Microsoft Enhanced RSA and AES Cryptographic Provider", 24, 384, 16384, 384, 16384, 1024,
     true},
    {"Microsoft Strong Cryptographic Provider", KV_PROV_RSA_FULL, 384, 16384, 384, 16384, 1024,
     true},
};
const uint32_t kProviderCount = sizeof kProviders / sizeof kProviders[0];

// The type's default provider when a context names none.
const ProviderInfo* DefaultProvider(uint32_t type) {
  const char* name = nullptr;
  if (type == KV_PROV_RSA_FULL) name = "Microsoft Strong Cryptographic Provider";
  if (type == 24) name = "Microsoft Enhanced RSA and AES Cryptographic Provider";
  if (type == KV_PROV_DSS) name = "Microsoft Base DSS Cryptographic Provider";
  for (const ProviderInfo& p : kProviders)
    if (name && std::strcmp(p.name, name) == 0) return &p;
  return nullptr;
}

bool EqualsIgnoreCase(const char* a, const char* b) {
  for (; *a && *b; ++a, ++b) {
    char x = *a, y = *b;
    if (x >= 'A' && x <= 'Z') x = static_cast<char>(x - 'A' + 'a');
    if (y >= 'A' && y <= 'Z') y = static_cast<char>(y - 'A' + 'a');
    if (x != y) return false;
  }
  return *a == *b;
}

// The size protocol of the export calls: a null buffer asks for the size, a
// short one gets ERROR_MORE_DATA and the size.
bool CopyOut(const Bytes& value, uint8_t* out, uint32_t* len) {
  if (!len) return Fail(KV_ERROR_INVALID_PARAMETER);
  uint32_t need = static_cast<uint32_t>(value.size());
  if (!out) {
    *len = need;
    return true;
  }
  if (*len < need) {
    *len = need;
    return Fail(KV_ERROR_MORE_DATA);
  }
  std::memcpy(out, value.data(), need);
  *len = need;
  return true;
}

std::string DefaultDataDirectory() {
  const char* xdg = std::getenv("XDG_DATA_HOME");
  if (xdg && *xdg == '/') return std::string(xdg) + "/korvanta";
  const char* home = std::getenv("HOME");
  return std::string(home ? home : "") + "/.local/share/korvanta";
}

}  // namespace

namespace portable {

bool IsSoftwareProvider(const std::string& name) {
  for (const ProviderInfo& p : kProviders)
    if (p.rsa && EqualsIgnoreCase(p.name, name.c_str())) return true;
  return false;
}

}  // namespace portable

PortablePlatform::PortablePlatform(PortableConfig config)
    : dataDir_(config.dataDirectory.empty() ? DefaultDataDirectory() : config.dataDirectory),
      homeDir_(config.homeDirectory),
      codePage_(config.codePage.empty() ? "CP936" : config.codePage),
      chooser_(config.chooser),
      state_(new State) {
  if (homeDir_.empty()) {
    const char* home = std::getenv("HOME");
    homeDir_ = home ? home : "";
  }
  std::vector<TokenModule> modules = config.tokenModules;
  std::string tokenFile = config.tokenConfigFile;
  if (tokenFile.empty()) {
    const char* xdg = std::getenv("XDG_CONFIG_HOME");
    const char* home = std::getenv("HOME");
    if (xdg && *xdg == '/')
      tokenFile = std::string(xdg) + "/korvanta/tokens.conf";
    else if (home && *home)
      tokenFile = std::string(home) + "/.config/korvanta/tokens.conf";
  }
  for (TokenModule& m : ReadTokenConfig(tokenFile)) modules.push_back(std::move(m));
  if (config.p11KitModules) {
    std::vector<std::string> dirs{"/usr/share/p11-kit/modules"};
    if (const char* home = std::getenv("HOME"))
      dirs.push_back(std::string(home) + "/.config/pkcs11/modules");
    for (TokenModule& m : ReadP11KitModules(dirs)) modules.push_back(std::move(m));
  }
  tokens_ = std::make_unique<TokenSet>(std::move(modules), chooser_);
}

PortablePlatform::~PortablePlatform() = default;

uint32_t PortablePlatform::GetLastError() {
  return LastError();
}

std::vector<ContainerSummary> PortablePlatform::ListContainers() {
  std::vector<ContainerSummary> out;
  ContainerFolder folder(dataDir_);
  for (const std::string& file : ListFolder(folder.Path(), ".key")) {
    Bytes der;
    ContainerRecord rec;
    if (!ReadAll(folder.Path() + "/" + file, 1 << 20, &der) || !DecodeContainer(der, &rec))
      continue;
    ContainerSummary s;
    s.name = rec.name;
    auto fill = [](const ContainerRecord::Key& k, ContainerSummary::Key* o) {
      o->present = k.present;
      o->bits = k.present ? k.key.Bits() : 0;
      o->exportable = k.exportable;
      o->hasCertificate = !k.certificate.empty();
    };
    fill(rec.signature, &s.signature);
    fill(rec.exchange, &s.exchange);
    rec.Wipe();
    out.push_back(std::move(s));
  }
  std::sort(out.begin(), out.end(),
            [](const ContainerSummary& a, const ContainerSummary& b) { return a.name < b.name; });
  return out;
}

bool PortablePlatform::EnumProviders(uint32_t index, uint32_t* provType, char* name,
                                     uint32_t* nameLen) {
  return Guard([&] {
    if (!nameLen) return Fail(KV_ERROR_INVALID_PARAMETER);
    if (index >= kProviderCount) {
      // The token providers follow the software ones.
      const std::vector<std::string>& names = tokens_->Names();
      if (index - kProviderCount >= names.size()) return Fail(KV_ERROR_NO_MORE_ITEMS);
      if (provType) *provType = KV_PROV_RSA_FULL;
      const std::string& n = names[index - kProviderCount];
      Bytes text(n.begin(), n.end());
      text.push_back(0);
      return CopyOut(text, reinterpret_cast<uint8_t*>(name), nameLen);
    }
    const ProviderInfo& p = kProviders[index];
    if (provType) *provType = p.type;
    Bytes text(p.name, p.name + std::strlen(p.name) + 1);
    return CopyOut(text, reinterpret_cast<uint8_t*>(name), nameLen);
  });
}

bool PortablePlatform::AcquireContext(ProvHandle* prov, const char* container, const char* provider,
                                      uint32_t provType, uint32_t flags) {
  return Guard([&] {
    if (!prov) return Fail(KV_ERROR_INVALID_PARAMETER);
    *prov = 0;
    const ProviderInfo* info = nullptr;
    if (!provider || !*provider) {
      info = DefaultProvider(provType);
      if (!info) return Fail(KV_NTE_PROV_TYPE_NOT_DEF);
    } else {
      for (const ProviderInfo& p : kProviders)
        if (EqualsIgnoreCase(p.name, provider)) info = &p;
      if (!info) {
        int token = tokens_->Find(provider);
        if (token < 0) return Fail(KV_NTE_KEYSET_NOT_DEF);
        if (provType != KV_PROV_RSA_FULL) return Fail(KV_NTE_PROV_TYPE_NO_MATCH);
        return AcquireTokenContext(prov, token, container, flags);
      }
      if (info->type != provType) return Fail(KV_NTE_PROV_TYPE_NO_MATCH);
    }
    if (!info->rsa) return Fail(KV_NTE_PROV_DLL_NOT_FOUND);
    const uint32_t known = KV_CRYPT_NEWKEYSET | KV_CRYPT_DELETEKEYSET | KV_CRYPT_SILENT;
    if ((flags & ~known) != 0 || (flags & (KV_CRYPT_NEWKEYSET | KV_CRYPT_DELETEKEYSET)) ==
                                     (KV_CRYPT_NEWKEYSET | KV_CRYPT_DELETEKEYSET)) {
      return Fail(KV_NTE_BAD_FLAGS);
    }
    std::string name = container && *container ? container : DefaultContainerName();
    ContainerFolder folder(dataDir_);
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    bool exists = folder.Exists(name);
    if (flags & KV_CRYPT_DELETEKEYSET) {
      if (!exists) return Fail(KV_NTE_BAD_KEYSET);
      if (!folder.Remove(name)) return Fail(KV_NTE_FAIL);
      return true;
    }
    if (flags & KV_CRYPT_NEWKEYSET) {
      if (exists) return Fail(KV_NTE_EXISTS);
      ContainerRecord rec;
      rec.name = name;
      if (!folder.Save(rec)) return Fail(KV_NTE_FAIL);
    } else if (!exists) {
      return Fail(KV_NTE_BAD_KEYSET);
    }
    auto ctx = std::make_shared<ProviderContext>();
    ctx->provider = info;
    ctx->container = name;
    uintptr_t h = state_->NewHandle();
    state_->providers[h] = ctx;
    *prov = h;
    return true;
  });
}

bool PortablePlatform::ReleaseContext(ProvHandle prov) {
  std::lock_guard<std::recursive_mutex> lock(state_->mutex);
  if (state_->providers.erase(prov) == 0) return Fail(KV_ERROR_INVALID_PARAMETER);
  return true;
}

namespace {

uint32_t SpecOf(uint32_t algid) {
  if (algid == KV_AT_SIGNATURE || algid == KV_CALG_RSA_SIGN) return KV_AT_SIGNATURE;
  if (algid == KV_AT_KEYEXCHANGE || algid == KV_CALG_RSA_KEYX) return KV_AT_KEYEXCHANGE;
  return 0;
}

uint32_t AlgidOf(uint32_t keySpec) {
  return keySpec == KV_AT_SIGNATURE ? KV_CALG_RSA_SIGN : KV_CALG_RSA_KEYX;
}

}  // namespace

namespace {

// A context with its container read afresh, so that every context on a
// container sees what the others wrote.
struct Loaded {
  std::shared_ptr<ProviderContext> ctx;
  ContainerRecord rec;
  ~Loaded() { rec.Wipe(); }
};

bool LoadContext(PortablePlatform::State& state, const ContainerFolder& folder, ProvHandle prov,
                 Loaded* out) {
  auto it = state.providers.find(prov);
  if (it == state.providers.end()) return Fail(KV_ERROR_INVALID_PARAMETER);
  out->ctx = it->second;
  if (!folder.Load(out->ctx->container, &out->rec)) return Fail(KV_NTE_BAD_KEYSET);
  return true;
}

}  // namespace

bool PortablePlatform::GetUserKey(ProvHandle prov, uint32_t keySpec, KeyHandle* key) {
  return Guard([&] {
    if (!key) return Fail(KV_ERROR_INVALID_PARAMETER);
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    if (auto tctx = TokenContext(prov)) return TokenKey(tctx, keySpec, 0, 0, nullptr, 0, key);
    ContainerFolder folder(dataDir_);
    Loaded loaded;
    if (!LoadContext(*state_, folder, prov, &loaded)) return false;
    const std::shared_ptr<ProviderContext>& ctx = loaded.ctx;
    ContainerRecord& rec = loaded.rec;
    if (keySpec != KV_AT_SIGNATURE && keySpec != KV_AT_KEYEXCHANGE) return Fail(KV_NTE_NO_KEY);
    const ContainerRecord::Key& slot = rec.ForSpec(keySpec);
    if (!slot.present) return Fail(KV_NTE_NO_KEY);
    auto obj = std::make_unique<KeyObject>();
    obj->context = ctx;
    obj->keySpec = keySpec;
    obj->exportable = slot.exportable;
    obj->key = slot.key;
    uintptr_t h = state_->NewHandle();
    state_->keys[h] = std::move(obj);
    *key = h;
    return true;
  });
}

bool PortablePlatform::GenKey(ProvHandle prov, uint32_t algid, uint32_t flags, KeyHandle* key) {
  return Guard([&] {
    if (!key) return Fail(KV_ERROR_INVALID_PARAMETER);
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    if (auto tctx = TokenContext(prov)) {
      uint32_t spec = SpecOf(algid);
      if (!spec) return Fail(KV_NTE_BAD_ALGID);
      // The size as asked, whatever the software providers' rules.
      unsigned bits = flags >> 16;
      if (bits == 0) bits = 2048;
      return TokenKey(tctx, spec, bits, 0, nullptr, 0, key);
    }
    ContainerFolder folder(dataDir_);
    Loaded loaded;
    if (!LoadContext(*state_, folder, prov, &loaded)) return false;
    const std::shared_ptr<ProviderContext>& ctx = loaded.ctx;
    ContainerRecord& rec = loaded.rec;
    uint32_t spec = SpecOf(algid);
    if (!spec) return Fail(KV_NTE_BAD_ALGID);
    const ProviderInfo& p = *ctx->provider;
    unsigned bits = flags >> 16;
    if (bits == 0) bits = p.defaultBits;
    unsigned lo = spec == KV_AT_SIGNATURE ? p.signatureMin : p.exchangeMin;
    unsigned hi = spec == KV_AT_SIGNATURE ? p.signatureMax : p.exchangeMax;
    // The provider's limits, then what the RSA engine can make.
    if (bits < lo || bits > hi || bits % 8 != 0 || bits < 512 || bits > 8192)
      return Fail(KV_NTE_BAD_FLAGS);
    RsaKey fresh;
    if (!GenerateRsaKey(bits, &fresh)) return Fail(KV_NTE_FAIL);
    ContainerRecord::Key& slot = rec.ForSpec(spec);
    slot.present = true;
    slot.exportable = (flags & KV_CRYPT_EXPORTABLE) != 0;
    slot.key = fresh;
    slot.certificate.clear();
    if (!folder.Save(rec)) {
      fresh.Wipe();
      return Fail(KV_NTE_FAIL);
    }
    auto obj = std::make_unique<KeyObject>();
    obj->context = ctx;
    obj->keySpec = spec;
    obj->exportable = slot.exportable;
    obj->key = std::move(fresh);
    uintptr_t h = state_->NewHandle();
    state_->keys[h] = std::move(obj);
    *key = h;
    return true;
  });
}

bool PortablePlatform::ExportKey(KeyHandle key, uint32_t blobType, uint32_t flags, uint8_t* data,
                                 uint32_t* len) {
  return Guard([&] {
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    auto it = state_->keys.find(key);
    if (it == state_->keys.end()) return Fail(KV_NTE_BAD_KEY);
    const KeyObject& k = *it->second;
    if (flags != 0) return Fail(KV_NTE_BAD_FLAGS);
    if (blobType == KV_PUBLICKEYBLOB)
      return CopyOut(PublicKeyBlob(k.key, AlgidOf(k.keySpec)), data, len);
    if (blobType != KV_PRIVATEKEYBLOB) return Fail(KV_NTE_BAD_TYPE);
    if (!k.exportable) return Fail(KV_NTE_BAD_KEY_STATE);
    Bytes blob;
    if (!PrivateKeyBlob(k.key, AlgidOf(k.keySpec), &blob)) return Fail(KV_NTE_FAIL);
    bool ok = CopyOut(blob, data, len);
    std::fill(blob.begin(), blob.end(), 0);
    return ok;
  });
}

bool PortablePlatform::ImportKey(ProvHandle prov, const uint8_t* data, uint32_t len, uint32_t flags,
                                 KeyHandle* key) {
  return Guard([&] {
    if (!key) return Fail(KV_ERROR_INVALID_PARAMETER);
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    if (auto tctx = TokenContext(prov)) return TokenKey(tctx, 0, 0, flags, data, len, key);
    ContainerFolder folder(dataDir_);
    Loaded loaded;
    if (!LoadContext(*state_, folder, prov, &loaded)) return false;
    const std::shared_ptr<ProviderContext>& ctx = loaded.ctx;
    ContainerRecord& rec = loaded.rec;
    RsaKey imported;
    uint32_t algid = 0;
    if (uint32_t err = ReadPrivateKeyBlob(data, len, &imported, &algid)) return Fail(err);
    uint32_t spec = SpecOf(algid);
    if (!spec || algid == KV_AT_SIGNATURE || algid == KV_AT_KEYEXCHANGE) {
      imported.Wipe();
      return Fail(KV_NTE_BAD_ALGID);
    }
    ContainerRecord::Key& slot = rec.ForSpec(spec);
    slot.present = true;
    slot.exportable = (flags & KV_CRYPT_EXPORTABLE) != 0;
    slot.key = imported;
    slot.certificate.clear();
    if (!folder.Save(rec)) {
      imported.Wipe();
      return Fail(KV_NTE_FAIL);
    }
    auto obj = std::make_unique<KeyObject>();
    obj->context = ctx;
    obj->keySpec = spec;
    obj->exportable = slot.exportable;
    obj->key = std::move(imported);
    uintptr_t h = state_->NewHandle();
    state_->keys[h] = std::move(obj);
    *key = h;
    return true;
  });
}

bool PortablePlatform::SetKeyParam(KeyHandle key, uint32_t param, const uint8_t* data, uint32_t len,
                                   uint32_t flags) {
  return Guard([&] {
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    auto it = state_->keys.find(key);
    if (it == state_->keys.end()) return Fail(KV_NTE_BAD_KEY);
    if (param != KV_KP_CERTIFICATE) return Fail(KV_NTE_BAD_TYPE);
    if (flags != 0) return Fail(KV_NTE_BAD_FLAGS);
    ParsedCertificate parsed;
    if (!data || !ParseCertificate(data, len, &parsed)) return Fail(KV_NTE_BAD_DATA);
    const KeyObject& k = *it->second;
    if (k.context->token >= 0) {
      uint32_t err =
          tokens_->PutCertificate(k.context->token, k.context->container, k.tokenId, data, len);
      return err ? Fail(err) : true;
    }
    ContainerFolder folder(dataDir_);
    ContainerRecord rec;
    if (!folder.Load(k.context->container, &rec)) return Fail(KV_NTE_BAD_KEYSET);
    ContainerRecord::Key& slot = rec.ForSpec(k.keySpec);
    // The certificate belongs to this key; a key generated since has none.
    bool same = slot.present && slot.key.n == k.key.n;
    if (same) {
      slot.certificate.assign(data, data + len);
      same = folder.Save(rec);
    }
    rec.Wipe();
    return same ? true : Fail(slot.present ? KV_NTE_BAD_KEY : KV_NTE_NO_KEY);
  });
}

bool PortablePlatform::DestroyKey(KeyHandle key) {
  std::lock_guard<std::recursive_mutex> lock(state_->mutex);
  if (state_->keys.erase(key) == 0) return Fail(KV_NTE_BAD_KEY);
  return true;
}

bool PortablePlatform::CreateHash(ProvHandle prov, uint32_t algid, HashHandle* hash) {
  return Guard([&] {
    if (!hash) return Fail(KV_ERROR_INVALID_PARAMETER);
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    auto it = state_->providers.find(prov);
    if (it == state_->providers.end()) return Fail(KV_ERROR_INVALID_PARAMETER);
    if (algid != KV_CALG_SHA1) return Fail(KV_NTE_BAD_ALGID);
    auto obj = std::make_unique<HashObject>();
    obj->context = it->second;
    uintptr_t h = state_->NewHandle();
    state_->hashes[h] = std::move(obj);
    *hash = h;
    return true;
  });
}

bool PortablePlatform::HashData(HashHandle hash, const uint8_t* data, uint32_t len) {
  return Guard([&] {
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    auto it = state_->hashes.find(hash);
    if (it == state_->hashes.end()) return Fail(KV_ERROR_INVALID_PARAMETER);
    if (!data && len) return Fail(KV_ERROR_INVALID_PARAMETER);
    HashObject& h = *it->second;
    if (h.finished) return Fail(KV_NTE_BAD_HASH_STATE);
    h.sha1.Update(data, len);
    return true;
  });
}

bool PortablePlatform::SignHash(HashHandle hash, uint32_t keySpec, uint8_t* sig, uint32_t* len) {
  return Guard([&] {
    if (!len) return Fail(KV_ERROR_INVALID_PARAMETER);
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    auto it = state_->hashes.find(hash);
    if (it == state_->hashes.end()) return Fail(KV_ERROR_INVALID_PARAMETER);
    HashObject& h = *it->second;
    if (h.context->token >= 0) {
      if (keySpec != KV_AT_SIGNATURE && keySpec != KV_AT_KEYEXCHANGE) return Fail(KV_NTE_BAD_KEY);
      RsaKey pub;
      Bytes id;
      if (uint32_t err = tokens_->GetKey(h.context->token, h.context->container, &pub, &id))
        return Fail(err);
      uint32_t need = static_cast<uint32_t>(pub.n.size());
      if (!sig) {
        *len = need;
        return true;
      }
      if (*len < need) {
        *len = need;
        return Fail(KV_ERROR_MORE_DATA);
      }
      if (!h.finished) {
        h.sha1.Final(h.digest);
        h.finished = true;
      }
      Bytes value;
      if (uint32_t err =
              tokens_->SignSha1(h.context->token, h.context->container, h.digest, &value))
        return Fail(err);
      if (value.size() > *len) return Fail(KV_NTE_FAIL);
      for (size_t i = 0; i < value.size(); ++i) sig[i] = value[value.size() - 1 - i];
      *len = static_cast<uint32_t>(value.size());
      return true;
    }
    ContainerFolder folder(dataDir_);
    ContainerRecord rec;
    if (!folder.Load(h.context->container, &rec)) return Fail(KV_NTE_BAD_KEYSET);
    struct WipeOnExit {
      ContainerRecord& r;
      ~WipeOnExit() { r.Wipe(); }
    } wipe{rec};
    if (keySpec != KV_AT_SIGNATURE && keySpec != KV_AT_KEYEXCHANGE) return Fail(KV_NTE_BAD_KEY);
    const ContainerRecord::Key& slot = rec.ForSpec(keySpec);
    if (!slot.present) return Fail(KV_NTE_NO_KEY);
    uint32_t need = static_cast<uint32_t>(slot.key.n.size());
    if (!sig) {
      *len = need;
      return true;
    }
    if (*len < need) {
      *len = need;
      return Fail(KV_ERROR_MORE_DATA);
    }
    if (!h.finished) {
      h.sha1.Final(h.digest);
      h.finished = true;
    }
    Bytes value;
    if (!SignSha1(slot.key, h.digest, &value)) return Fail(KV_NTE_FAIL);
    // CryptoAPI hands signatures out least significant octet first.
    for (size_t i = 0; i < value.size(); ++i) sig[i] = value[value.size() - 1 - i];
    *len = static_cast<uint32_t>(value.size());
    return true;
  });
}

bool PortablePlatform::DestroyHash(HashHandle hash) {
  std::lock_guard<std::recursive_mutex> lock(state_->mutex);
  if (state_->hashes.erase(hash) == 0) return Fail(KV_ERROR_INVALID_PARAMETER);
  return true;
}

bool PortablePlatform::ExportPublicKeyInfo(ProvHandle prov, uint32_t keySpec, uint8_t* info,
                                           uint32_t* len) {
  return Guard([&] {
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    if (auto tctx = TokenContext(prov)) {
      if (keySpec != KV_AT_SIGNATURE && keySpec != KV_AT_KEYEXCHANGE) return Fail(KV_NTE_NO_KEY);
      RsaKey pub;
      Bytes id;
      if (uint32_t err = tokens_->GetKey(tctx->token, tctx->container, &pub, &id)) return Fail(err);
      return CopyOut(EncodeRsaSpki(pub), info, len);
    }
    ContainerFolder folder(dataDir_);
    Loaded loaded;
    if (!LoadContext(*state_, folder, prov, &loaded)) return false;
    if (keySpec != KV_AT_SIGNATURE && keySpec != KV_AT_KEYEXCHANGE) return Fail(KV_NTE_NO_KEY);
    const ContainerRecord::Key& slot = loaded.rec.ForSpec(keySpec);
    if (!slot.present) return Fail(KV_NTE_NO_KEY);
    return CopyOut(EncodeRsaSpki(slot.key), info, len);
  });
}

bool PortablePlatform::ComparePublicKeyInfo(const uint8_t* a, uint32_t aLen, const uint8_t* b,
                                            uint32_t bLen) {
  return Guard([&] {
    // RSA keys compare by value (a modulus with or without a leading zero is
    // the same key); anything else by its encoding.
    RsaKey ka, kb;
    if (DecodeRsaSpki(a, aLen, &ka) && DecodeRsaSpki(b, bLen, &kb))
      return ka.n == kb.n && ka.e == kb.e;
    return a && b && aLen == bLen && std::memcmp(a, b, aLen) == 0;
  });
}

// ---- Token providers ----

bool PortablePlatform::AcquireTokenContext(ProvHandle* prov, int token, const char* container,
                                           uint32_t flags) {
  const uint32_t known = KV_CRYPT_NEWKEYSET | KV_CRYPT_DELETEKEYSET | KV_CRYPT_SILENT;
  if ((flags & ~known) != 0 || (flags & (KV_CRYPT_NEWKEYSET | KV_CRYPT_DELETEKEYSET)) ==
                                   (KV_CRYPT_NEWKEYSET | KV_CRYPT_DELETEKEYSET)) {
    return Fail(KV_NTE_BAD_FLAGS);
  }
  std::string name = container && *container ? container : DefaultContainerName();
  std::lock_guard<std::recursive_mutex> lock(state_->mutex);
  if (flags & KV_CRYPT_DELETEKEYSET) {
    uint32_t err = tokens_->Delete(token, name);
    return err ? Fail(err) : true;
  }
  if (flags & KV_CRYPT_NEWKEYSET) {
    if (uint32_t err = tokens_->Create(token, name)) return Fail(err);
  } else {
    bool exists = false;
    if (uint32_t err = tokens_->Exists(token, name, &exists)) return Fail(err);
    if (!exists) return Fail(KV_NTE_BAD_KEYSET);
  }
  auto ctx = std::make_shared<ProviderContext>();
  ctx->provider = nullptr;
  ctx->container = name;
  ctx->token = token;
  uintptr_t h = state_->NewHandle();
  state_->providers[h] = ctx;
  *prov = h;
  return true;
}

std::shared_ptr<ProviderContext> PortablePlatform::TokenContext(ProvHandle prov) {
  auto it = state_->providers.find(prov);
  if (it == state_->providers.end() || it->second->token < 0) return nullptr;
  return it->second;
}

// Fetches (bits 0, no blob), generates (bits > 0) or imports (a blob) the
// container's key pair; a token container holds one pair for both key
// kinds.
bool PortablePlatform::TokenKey(const std::shared_ptr<ProviderContext>& ctx, uint32_t keySpec,
                                unsigned bits, uint32_t flags, const uint8_t* blob, uint32_t len,
                                KeyHandle* key) {
  RsaKey pub;
  Bytes id;
  uint32_t spec = keySpec;
  if (blob) {
    // Keys go onto a token to stay there: an exportable import is refused.
    if (flags & KV_CRYPT_EXPORTABLE) return Fail(KV_NTE_BAD_FLAGS);
    RsaKey imported;
    uint32_t algid = 0;
    if (uint32_t err = ReadPrivateKeyBlob(blob, len, &imported, &algid)) return Fail(err);
    spec = SpecOf(algid);
    if (!spec || algid == KV_AT_SIGNATURE || algid == KV_AT_KEYEXCHANGE) {
      imported.Wipe();
      return Fail(KV_NTE_BAD_ALGID);
    }
    uint32_t err = tokens_->Import(ctx->token, ctx->container, imported, &id);
    pub.n = imported.n;
    pub.e = imported.e;
    imported.Wipe();
    if (err) return Fail(err);
  } else if (bits) {
    if (uint32_t err = tokens_->Generate(ctx->token, ctx->container, bits, &pub, &id))
      return Fail(err);
  } else {
    if (keySpec != KV_AT_SIGNATURE && keySpec != KV_AT_KEYEXCHANGE) return Fail(KV_NTE_NO_KEY);
    if (uint32_t err = tokens_->GetKey(ctx->token, ctx->container, &pub, &id)) return Fail(err);
  }
  auto obj = std::make_unique<KeyObject>();
  obj->context = ctx;
  obj->keySpec = spec;
  obj->exportable = false;
  obj->key = std::move(pub);
  obj->tokenId = std::move(id);
  uintptr_t h = state_->NewHandle();
  state_->keys[h] = std::move(obj);
  *key = h;
  return true;
}

}  // namespace kv::control
