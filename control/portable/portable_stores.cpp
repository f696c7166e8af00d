// Certificate stores, certificate contexts, PFX import and the signing chooser
// of the portable platform.
//
// A store handle holds a view: the folder as it was at opening plus what this
// handle added or deleted (each written through at once). Enumeration follows
// the order of addition, kept as a position number in each certificate's
// property file; a replaced certificate keeps its place.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>

#include "asn1/mi_byte.h"
#include "asn1/mi_exception.h"
#include "control/portable/internal/containers.h"
#include "control/portable/internal/files.h"
#include "control/portable/internal/state.h"
#include "control/portable/internal/tokens.h"
#include "crypto/sha1.h"
#include "pki/base64.h"
#include "pki/errors.h"
#include "pki/flat.h"
#include "pki/pkcs12.h"

namespace kv::control {

using namespace portable;

namespace {

const size_t kMaxCertificateFile = 1 << 20;

// "MY", "CA" or "ROOT" in any case, as the folder name; empty otherwise.
std::string StoreName(const char* name) {
  if (!name) return std::string();
  std::string upper;
  for (const char* p = name; *p; ++p)
    upper.push_back(*p >= 'a' && *p <= 'z' ? static_cast<char>(*p - 'a' + 'A') : *p);
  return upper == "MY" || upper == "CA" || upper == "ROOT" ? upper : std::string();
}

std::string DerPath(const StoreObject& s, const StoreEntry& e) {
  return s.folder + "/" + e.info.thumbprint + ".der";
}

std::string PropPath(const StoreObject& s, const StoreEntry& e) {
  return s.folder + "/" + e.info.thumbprint + ".prop";
}

// Reads a store folder: every certificate whose file name is its own
// thumbprint, in the order of the positions recorded beside them (files
// without properties after the others).
void LoadFolder(StoreObject& store, const std::shared_ptr<StoreObject>& self) {
  std::vector<std::shared_ptr<StoreEntry>> entries;
  for (const std::string& file : ListFolder(store.folder, ".der")) {
    auto e = std::make_shared<StoreEntry>();
    if (!ReadAll(store.folder + "/" + file, kMaxCertificateFile, &e->der)) continue;
    if (!ParseCertificate(e->der.data(), e->der.size(), &e->info)) continue;
    if (file != e->info.thumbprint + ".der") continue;
    Bytes prop;
    e->properties.position = INT64_MAX;
    if (ReadAll(PropPath(store, *e), 1 << 16, &prop)) DecodeProperties(prop, &e->properties);
    e->store = self;
    entries.push_back(std::move(e));
  }
  std::stable_sort(entries.begin(), entries.end(), [](const auto& a, const auto& b) {
    return a->properties.position < b->properties.position;
  });
  store.entries = std::move(entries);
}

bool WriteEntry(const StoreObject& store, const StoreEntry& e) {
  if (store.folder.empty()) return true;
  if (!MakePrivateDirs(store.folder)) return false;
  Bytes prop = EncodeProperties(e.properties);
  // Properties first: a certificate file is what makes an entry, so a crash
  // in between leaves only an unread properties file, never a certificate
  // without its properties.
  return WriteAtomic(PropPath(store, e), prop.data(), prop.size()) &&
         WriteAtomic(DerPath(store, e), e.der.data(), e.der.size());
}

bool WriteProperties(const StoreEntry& e) {
  std::shared_ptr<StoreObject> store = e.store.lock();
  if (!store || store->folder.empty() || e.deleted) return true;
  Bytes prop = EncodeProperties(e.properties);
  return WriteAtomic(PropPath(*store, e), prop.data(), prop.size());
}

Bytes Magnitude(const Bytes& twos) {
  size_t i = 0;
  while (i + 1 < twos.size() && twos[i] == 0) ++i;
  return Bytes(twos.begin() + static_cast<long>(i), twos.end());
}

std::string Base64(const Bytes& data) {
  MiByte in(reinterpret_cast<const char*>(data.data()), static_cast<unsigned>(data.size()));
  MiByte out;
  if (KV_Base64().Encode(in, out, false) != 0) return std::string();
  return std::string(out.GetChars() ? out.GetChars() : "", out.GetLength());
}

}  // namespace

bool DescribeCertificate(const Bytes& der, CertificateSummary* summary) {
  ParsedCertificate p;
  if (!summary || !ParseCertificate(der.data(), der.size(), &p)) return false;
  summary->thumbprint = p.thumbprint;
  summary->subject = p.subject;
  summary->issuer = p.issuer;
  summary->notAfter = p.notAfter;
  return true;
}

// ---- Store handles ----

namespace {

uintptr_t NewContext(PortablePlatform::State& st, const std::shared_ptr<StoreEntry>& entry) {
  if (entry->handle) {
    auto it = st.certs.find(entry->handle);
    if (it != st.certs.end()) {
      ++it->second.references;
      return entry->handle;
    }
  }
  uintptr_t h = st.NewHandle();
  CertContext c;
  c.entry = entry;
  c.store = entry->store.lock();
  st.certs[h] = std::move(c);
  entry->handle = h;
  return h;
}

void Release(PortablePlatform::State& st, uintptr_t h) {
  auto it = st.certs.find(h);
  if (it == st.certs.end()) return;
  if (--it->second.references == 0) {
    it->second.entry->handle = 0;
    st.certs.erase(it);
  }
}

std::shared_ptr<StoreObject> OpenView(PortablePlatform::State& st, const std::string& dataDir,
                                      const std::string& name, StoreHandle* handle) {
  auto store = std::make_shared<StoreObject>();
  store->name = name;
  if (!name.empty()) {
    store->folder = dataDir + "/stores/" + name;
    LoadFolder(*store, store);
  }
  uintptr_t h = st.NewHandle();
  st.stores[h] = store;
  *handle = h;
  return store;
}

// Adds a certificate with its properties under a disposition; the context
// of the stored certificate goes to *added when asked for.
bool AddToStore(PortablePlatform::State& st, StoreHandle storeHandle, const Bytes& der,
                const PropertyRecord* properties, uint32_t disposition, CertHandle* added) {
  if (added) *added = 0;
  auto sit = st.stores.find(storeHandle);
  if (sit == st.stores.end()) return Fail(KV_ERROR_INVALID_PARAMETER);
  std::shared_ptr<StoreObject> store = sit->second;
  if (disposition < 1 || disposition > KV_CERT_STORE_ADD_REPLACE_EXISTING)
    return Fail(KV_ERROR_INVALID_PARAMETER);
  auto entry = std::make_shared<StoreEntry>();
  entry->der = der;
  if (!ParseCertificate(der.data(), der.size(), &entry->info)) return Fail(KV_CRYPT_E_ASN1_BADTAG);
  entry->store = store;
  if (properties) entry->properties = *properties;

  // The folder may have been changed through another handle since opening:
  // the rule "already there" is judged against it as it is now.
  if (!store->folder.empty()) {
    Bytes onDisk;
    bool inView = false;
    for (const auto& e : store->entries)
      if (!e->deleted && e->info.sha1 == entry->info.sha1) inView = true;
    if (!inView && ReadAll(DerPath(*store, *entry), kMaxCertificateFile, &onDisk) &&
        onDisk == der) {
      auto e = std::make_shared<StoreEntry>();
      e->der = onDisk;
      e->info = entry->info;
      e->store = store;
      Bytes prop;
      if (ReadAll(PropPath(*store, *e), 1 << 16, &prop)) DecodeProperties(prop, &e->properties);
      store->entries.push_back(e);
    }
  }
  int64_t next = 0;
  std::shared_ptr<StoreEntry> existing;
  size_t existingIndex = 0;
  for (size_t i = 0; i < store->entries.size(); ++i) {
    const auto& e = store->entries[i];
    if (e->properties.position != INT64_MAX) next = std::max(next, e->properties.position + 1);
    if (!e->deleted && e->info.sha1 == entry->info.sha1) {
      existing = e;
      existingIndex = i;
    }
  }
  if (existing) {
    if (disposition == 1) return Fail(KV_CRYPT_E_EXISTS);
    if (disposition == KV_CERT_STORE_ADD_USE_EXISTING) {
      // Removed from the folder through another handle: put it back.
      if (!store->folder.empty() && !IsRegularFile(DerPath(*store, *existing)) &&
          !WriteEntry(*store, *existing)) {
        return Fail(KV_NTE_FAIL);
      }
      if (added) *added = NewContext(st, existing);
      return true;
    }
    entry->properties.position = existing->properties.position;
    if (!WriteEntry(*store, *entry)) return Fail(KV_NTE_FAIL);
    existing->deleted = true;
    store->entries[existingIndex] = entry;
  } else {
    entry->properties.position = next;
    if (!WriteEntry(*store, *entry)) return Fail(KV_NTE_FAIL);
    store->entries.push_back(entry);
  }
  if (added) *added = NewContext(st, entry);
  return true;
}

}  // namespace

bool PortablePlatform::OpenStore(ProvHandle prov, const char* name, StoreHandle* store) {
  return Guard([&] {
    if (!store) return Fail(KV_ERROR_INVALID_PARAMETER);
    *store = 0;
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    if (prov && !state_->providers.count(prov)) return Fail(KV_ERROR_INVALID_PARAMETER);
    std::string folder = StoreName(name);
    if (folder.empty()) return Fail(KV_ERROR_INVALID_PARAMETER);
    OpenView(*state_, dataDir_, folder, store);
    return true;
  });
}

bool PortablePlatform::OpenSystemStore(const char* name, StoreHandle* store) {
  return OpenStore(0, name, store);
}

bool PortablePlatform::CloseStore(StoreHandle store) {
  std::lock_guard<std::recursive_mutex> lock(state_->mutex);
  if (state_->stores.erase(store) == 0) return Fail(KV_ERROR_INVALID_PARAMETER);
  return true;
}

bool PortablePlatform::CreateCertificateContext(const uint8_t* der, uint32_t len,
                                                CertHandle* cert) {
  return Guard([&] {
    if (!cert || !der) return Fail(KV_ERROR_INVALID_PARAMETER);
    *cert = 0;
    auto entry = std::make_shared<StoreEntry>();
    entry->der.assign(der, der + len);
    if (!ParseCertificate(der, len, &entry->info)) return Fail(KV_CRYPT_E_ASN1_BADTAG);
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    *cert = NewContext(*state_, entry);
    return true;
  });
}

bool PortablePlatform::FreeCertificateContext(CertHandle cert) {
  std::lock_guard<std::recursive_mutex> lock(state_->mutex);
  if (!cert) return true;  // freeing no context is allowed
  if (!state_->certs.count(cert)) return Fail(KV_ERROR_INVALID_PARAMETER);
  Release(*state_, cert);
  return true;
}

bool PortablePlatform::DuplicateCertificateContext(CertHandle cert, CertHandle* copy) {
  std::lock_guard<std::recursive_mutex> lock(state_->mutex);
  if (!copy) return Fail(KV_ERROR_INVALID_PARAMETER);
  auto it = state_->certs.find(cert);
  if (it == state_->certs.end()) return Fail(KV_ERROR_INVALID_PARAMETER);
  ++it->second.references;
  *copy = cert;
  return true;
}

bool PortablePlatform::GetEncoded(CertHandle cert, Bytes* der) {
  return Guard([&] {
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    auto it = state_->certs.find(cert);
    if (!der || it == state_->certs.end()) return Fail(KV_ERROR_INVALID_PARAMETER);
    *der = it->second.entry->der;
    return true;
  });
}

bool PortablePlatform::AddEncodedCertificateToStore(StoreHandle store, const uint8_t* der,
                                                    uint32_t len, uint32_t disposition,
                                                    CertHandle* added) {
  return Guard([&] {
    if (!der) return Fail(KV_ERROR_INVALID_PARAMETER);
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    return AddToStore(*state_, store, Bytes(der, der + len), nullptr, disposition, added);
  });
}

bool PortablePlatform::AddCertificateContextToStore(StoreHandle store, CertHandle cert,
                                                    uint32_t disposition, CertHandle* added) {
  return Guard([&] {
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    auto it = state_->certs.find(cert);
    if (it == state_->certs.end()) return Fail(KV_ERROR_INVALID_PARAMETER);
    std::shared_ptr<StoreEntry> source = it->second.entry;
    PropertyRecord props = source->properties;
    return AddToStore(*state_, store, source->der, &props, disposition, added);
  });
}

bool PortablePlatform::SetKeyProvInfo(CertHandle cert, const KeyProvInfo* info) {
  return Guard([&] {
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    auto it = state_->certs.find(cert);
    if (it == state_->certs.end()) return Fail(KV_ERROR_INVALID_PARAMETER);
    StoreEntry& e = *it->second.entry;
    PropertyRecord before = e.properties;
    e.properties.hasKeyProvInfo = info != nullptr;  // null removes the property
    e.properties.keyProvInfo = info ? *info : KeyProvInfo();
    if (!WriteProperties(e)) {
      e.properties = before;
      return Fail(KV_NTE_FAIL);
    }
    return true;
  });
}

bool PortablePlatform::GetKeyProvInfo(CertHandle cert, KeyProvInfo* info) {
  return Guard([&] {
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    auto it = state_->certs.find(cert);
    if (!info || it == state_->certs.end()) return Fail(KV_ERROR_INVALID_PARAMETER);
    const StoreEntry& e = *it->second.entry;
    if (!e.properties.hasKeyProvInfo) return Fail(KV_CRYPT_E_NOT_FOUND);
    *info = e.properties.keyProvInfo;
    return true;
  });
}

bool PortablePlatform::EnumCertificatesInStore(StoreHandle store, CertHandle prev,
                                               CertHandle* next) {
  return Guard([&] {
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    if (next) *next = 0;
    auto sit = state_->stores.find(store);
    // The previous context is freed whatever happens, as on Windows.
    std::shared_ptr<StoreEntry> from;
    if (prev) {
      auto cit = state_->certs.find(prev);
      if (cit == state_->certs.end()) return Fail(KV_ERROR_INVALID_PARAMETER);
      from = cit->second.entry;
      Release(*state_, prev);
    }
    if (!next || sit == state_->stores.end()) return Fail(KV_ERROR_INVALID_PARAMETER);
    const auto& entries = sit->second->entries;
    size_t i = 0;
    if (from) {
      auto pos = std::find(entries.begin(), entries.end(), from);
      if (pos == entries.end()) return Fail(KV_ERROR_INVALID_PARAMETER);
      i = static_cast<size_t>(pos - entries.begin()) + 1;
    }
    for (; i < entries.size(); ++i) {
      if (entries[i]->deleted) continue;
      *next = NewContext(*state_, entries[i]);
      return true;
    }
    return Fail(KV_CRYPT_E_NOT_FOUND);
  });
}

bool PortablePlatform::CompareCertificate(CertHandle a, CertHandle b) {
  return Guard([&] {
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    auto ia = state_->certs.find(a), ib = state_->certs.find(b);
    if (ia == state_->certs.end() || ib == state_->certs.end())
      return Fail(KV_ERROR_INVALID_PARAMETER);
    const ParsedCertificate& x = ia->second.entry->info;
    const ParsedCertificate& y = ib->second.entry->info;
    return x.issuerDer == y.issuerDer && Magnitude(x.serial) == Magnitude(y.serial);
  });
}

bool PortablePlatform::DeleteCertificateFromStore(CertHandle cert) {
  return Guard([&] {
    std::lock_guard<std::recursive_mutex> lock(state_->mutex);
    auto it = state_->certs.find(cert);
    if (it == state_->certs.end()) return Fail(KV_ERROR_INVALID_PARAMETER);
    std::shared_ptr<StoreEntry> entry = it->second.entry;
    std::shared_ptr<StoreObject> store = entry->store.lock();
    Release(*state_, cert);
    if (!store) return Fail(KV_ERROR_INVALID_PARAMETER);  // a context of no store
    if (entry->deleted) return Fail(KV_CRYPT_E_NOT_FOUND);
    if (!store->folder.empty()) {
      RemoveFile(DerPath(*store, *entry));
      RemoveFile(PropPath(*store, *entry));
    }
    entry->deleted = true;
    return true;
  });
}

// ---- PFX import ----

bool PortablePlatform::ImportIntoMemoryStore(const RsaKey* key, const std::vector<Bytes>& certs,
                                             uint32_t flags, StoreHandle* store) {
  std::vector<ParsedCertificate> parsed(certs.size());
  for (size_t i = 0; i < certs.size(); ++i)
    if (!ParseCertificate(certs[i].data(), certs[i].size(), &parsed[i]))
      return Fail(KV_CRYPT_E_ASN1_BADTAG);

  std::lock_guard<std::recursive_mutex> lock(state_->mutex);
  ContainerRecord rec;
  if (key) {
    ContainerFolder folder(dataDir_);
    do {
      Guid g;
      if (!CoCreateGuid(&g)) return false;
      char name[64];
      std::snprintf(name, sizeof name, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                    g.data1, g.data2, g.data3, g.data4[0], g.data4[1], g.data4[2], g.data4[3],
                    g.data4[4], g.data4[5], g.data4[6], g.data4[7]);
      rec.name = name;
    } while (folder.Exists(rec.name));
    rec.exchange.present = true;
    rec.exchange.exportable = (flags & KV_CRYPT_EXPORTABLE) != 0;
    rec.exchange.key = *key;
    bool saved = folder.Save(rec);
    rec.Wipe();
    if (!saved) return Fail(KV_NTE_FAIL);
  }

  OpenView(*state_, dataDir_, std::string(), store);
  for (size_t i = 0; i < certs.size(); ++i) {
    PropertyRecord props;
    RsaKey certKey;
    if (key && DecodeRsaSpki(parsed[i].spki.data(), parsed[i].spki.size(), &certKey) &&
        certKey.n == key->n && certKey.e == key->e) {
      props.hasKeyProvInfo = true;
      props.keyProvInfo.containerName.assign(rec.name.begin(), rec.name.end());
      const char* provider = "Microsoft Enhanced Cryptographic Provider v1.0";
      props.keyProvInfo.providerName.assign(provider, provider + std::strlen(provider));
      props.keyProvInfo.provType = KV_PROV_RSA_FULL;
      props.keyProvInfo.keySpec = KV_AT_KEYEXCHANGE;
    }
    if (!AddToStore(*state_, *store, certs[i], &props, KV_CERT_STORE_ADD_REPLACE_EXISTING,
                    nullptr)) {
      CloseStore(*store);
      *store = 0;
      return false;
    }
  }
  return true;
}

namespace {

// The password as the PKCS#12 reader takes it: UTF-8.
bool PasswordUtf8(const char16_t* pw, std::string* out) {
  out->clear();
  for (const char16_t* p = pw; p && *p; ++p) {
    uint32_t c = *p;
    if (c >= 0xD800 && c <= 0xDBFF && p[1] >= 0xDC00 && p[1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (p[1] - 0xDC00);
      ++p;
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      return false;
    }
    if (c < 0x80) {
      out->push_back(static_cast<char>(c));
    } else if (c < 0x800) {
      out->push_back(static_cast<char>(0xC0 | c >> 6));
      out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
      out->push_back(static_cast<char>(0xE0 | c >> 12));
      out->push_back(static_cast<char>(0x80 | (c >> 6 & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
      out->push_back(static_cast<char>(0xF0 | c >> 18));
      out->push_back(static_cast<char>(0x80 | (c >> 12 & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (c >> 6 & 0x3F)));
      out->push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
  }
  return true;
}

Bytes Trimmed(const unsigned char* p, unsigned n) {
  while (n > 0 && *p == 0) {
    ++p;
    --n;
  }
  return Bytes(p, p + n);
}

// The library, a context and the file's contents, released in turn.
struct PfxSession {
  bool initialized = false;
  PKCS_CTX ctx = nullptr;
  KV_PFX_CONTENTS contents;
  PfxSession() { KV_InitPFXContents(&contents); }
  ~PfxSession() {
    KV_FreePFXContents(&contents);
    if (ctx) PKCS_DestroyCtx(ctx);
    if (initialized) PKCS_Finalize();
  }
};

}  // namespace

bool PortablePlatform::PFXImportCertStore(const uint8_t* pfx, uint32_t len,
                                          const char16_t* password, uint32_t flags,
                                          StoreHandle* store) {
  return Guard([&] {
    if (!store || !pfx || len == 0) return Fail(KV_ERROR_INVALID_PARAMETER);
    *store = 0;
    std::string pw;
    if (!PasswordUtf8(password, &pw)) return Fail(KV_ERROR_INVALID_PASSWORD);
    PfxSession s;
    if (PKCS_Initialize() != 0) return Fail(KV_NTE_FAIL);
    s.initialized = true;
    if (PKCS_CreateCtx(&s.ctx) != 0) return Fail(KV_NTE_FAIL);
    int rc = KV_ParsePFX(s.ctx, pfx, len, pw.c_str(), &s.contents);
    if (rc == KV_ERR_MAC) return Fail(KV_ERROR_INVALID_PASSWORD);
    if (rc == KV_ERR_MEMORY) return Fail(KV_NTE_NO_MEMORY);
    if (rc != 0) return Fail(KV_NTE_BAD_DATA);

    std::vector<Bytes> certs;
    if (s.contents.certLen)
      certs.emplace_back(s.contents.cert, s.contents.cert + s.contents.certLen);
    unsigned count = 0;
    if (s.contents.others) KV_ListCount(s.contents.others, &count);
    for (unsigned i = 0; i < count; ++i) {
      const unsigned char* data = nullptr;
      unsigned n = 0;
      if (KV_ListGet(s.contents.others, i, &data, &n) == 0) certs.emplace_back(data, data + n);
    }
    RsaKey key;
    struct WipeKey {
      RsaKey& k;
      ~WipeKey() { k.Wipe(); }
    } wipe{key};
    if (s.contents.hasKey) {
      const PKCS_PRIKEY& r = s.contents.key;
      key.n = Trimmed(r.modulus, r.modulusLen);
      key.e = Trimmed(r.publicExponent, r.publicExponentLen);
      key.d = Trimmed(r.privateExponent, r.privateExponentLen);
      key.p = Trimmed(r.prime1, r.prime1Len);
      key.q = Trimmed(r.prime2, r.prime2Len);
      key.dp = Trimmed(r.exponent1, r.exponent1Len);
      key.dq = Trimmed(r.exponent2, r.exponent2Len);
      key.qinv = Trimmed(r.coefficient, r.coefficientLen);
      if (!CheckPrivateKey(key)) return Fail(KV_NTE_BAD_DATA);
    }
    return ImportIntoMemoryStore(s.contents.hasKey ? &key : nullptr, certs, flags, store);
  });
}

// ---- Signing chooser ----

ScriptedChooser ScriptedChooser::ByThumbprint(const std::string& hex) {
  return ScriptedChooser(Rule::kThumbprint, hex);
}

ScriptedChooser ScriptedChooser::BySubject(const std::string& text) {
  return ScriptedChooser(Rule::kSubject, text);
}

ScriptedChooser ScriptedChooser::Cancel() {
  return ScriptedChooser(Rule::kCancel, std::string());
}

int ScriptedChooser::Choose(const std::vector<SigningCandidate>& candidates) {
  ++calls_;
  last_ = candidates;
  auto upper = [](std::string s) {
    for (char& c : s)
      if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return s;
  };
  for (size_t i = 0; i < candidates.size(); ++i) {
    if (rule_ == Rule::kThumbprint && upper(candidates[i].thumbprint) == upper(value_))
      return static_cast<int>(i);
    if (rule_ == Rule::kSubject && candidates[i].subject.find(value_) != std::string::npos)
      return static_cast<int>(i);
  }
  return -1;
}

SignedText PortablePlatform::ChooseAndSign(const std::string& text) {
  try {
    std::vector<SigningCandidate> candidates;
    std::vector<RsaKey> keys;
    struct WipeKeys {
      std::vector<RsaKey>& k;
      ~WipeKeys() {
        for (RsaKey& key : k) key.Wipe();
      }
    } wipe{keys};
    {
      std::lock_guard<std::recursive_mutex> lock(state_->mutex);
      StoreObject my;
      my.name = "MY";
      my.folder = dataDir_ + "/stores/MY";
      LoadFolder(my, nullptr);
      ContainerFolder folder(dataDir_);
      for (const auto& e : my.entries) {
        const PropertyRecord& p = e->properties;
        if (!p.hasKeyProvInfo) continue;
        std::string container, provider;
        if (!ToNarrow(p.keyProvInfo.containerName, &container) ||
            !ToNarrow(p.keyProvInfo.providerName, &provider) || !IsSoftwareProvider(provider)) {
          continue;
        }
        ContainerRecord rec;
        if (!folder.Load(container, &rec)) continue;
        uint32_t spec = p.keyProvInfo.keySpec;
        if (spec == KV_AT_SIGNATURE || spec == KV_AT_KEYEXCHANGE) {
          const ContainerRecord::Key& slot = rec.ForSpec(spec);
          if (slot.present) {
            candidates.push_back({e->der, e->info.subject, e->info.thumbprint});
            keys.push_back(slot.key);
          }
        }
        rec.Wipe();
      }
    }
    // Then the certificates that sit beside a key on a token.
    size_t software = candidates.size();
    std::vector<TokenSet::Certificate> onTokens = tokens_->Certificates();
    for (const TokenSet::Certificate& c : onTokens) {
      ParsedCertificate parsed;
      if (!ParseCertificate(c.der.data(), c.der.size(), &parsed)) continue;
      candidates.push_back({c.der, parsed.subject, parsed.thumbprint});
    }
    if (!chooser_ || candidates.empty()) return SignedText();
    int choice = chooser_->Choose(candidates);
    if (choice < 0 || static_cast<size_t>(choice) >= candidates.size()) return SignedText();
    uint8_t digest[Sha1::kDigestSize];
    Sha1::Digest(text.data(), text.size(), digest);
    Bytes signature;
    size_t index = static_cast<size_t>(choice);
    if (index >= software) {
      size_t t = 0;
      for (size_t i = 0; i < onTokens.size(); ++i) {
        ParsedCertificate parsed;
        if (!ParseCertificate(onTokens[i].der.data(), onTokens[i].der.size(), &parsed)) continue;
        if (software + t == index) {
          if (tokens_->SignSha1(onTokens[i].token, onTokens[i].container, digest, &signature))
            return SignedText();
          break;
        }
        ++t;
      }
      if (signature.empty()) return SignedText();
    } else if (!SignSha1(keys[index], digest, &signature)) {
      return SignedText();
    }
    SignedText out;
    out.signatureBase64 = Base64(signature);
    out.certificateBase64 = Base64(candidates[static_cast<size_t>(choice)].certificate);
    return out;
  } catch (...) {
    return SignedText();
  }
}

}  // namespace kv::control
