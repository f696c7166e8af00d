#include "control/fake_platform.h"

#include <iconv.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "crypto/rsa.h"
#include "crypto/sha1.h"

using namespace kv::control;

namespace kvtest {

namespace {

// ---- Minimal DER for keys ----

void PutLength(Bytes& out, size_t n) {
  if (n < 0x80) {
    out.push_back(static_cast<uint8_t>(n));
    return;
  }
  Bytes len;
  for (; n; n >>= 8) len.insert(len.begin(), static_cast<uint8_t>(n));
  out.push_back(static_cast<uint8_t>(0x80 | len.size()));
  out.insert(out.end(), len.begin(), len.end());
}

Bytes Tlv(uint8_t tag, const Bytes& content) {
  Bytes out{tag};
  PutLength(out, content.size());
  out.insert(out.end(), content.begin(), content.end());
  return out;
}

Bytes Integer(Bytes v) {
  while (v.size() > 1 && v[0] == 0) v.erase(v.begin());
  if (v.empty()) v.push_back(0);
  if (v[0] & 0x80) v.insert(v.begin(), 0);
  return Tlv(0x02, v);
}

Bytes Concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// Reads one TLV at pos; false when malformed.
bool ReadTlv(const Bytes& in, size_t* pos, uint8_t* tag, Bytes* content) {
  if (*pos + 2 > in.size()) return false;
  *tag = in[(*pos)++];
  size_t len = in[(*pos)++];
  if (len & 0x80) {
    size_t n = len & 0x7F;
    if (n == 0 || n > 4 || *pos + n > in.size()) return false;
    len = 0;
    for (size_t i = 0; i < n; ++i) len = (len << 8) | in[(*pos)++];
  }
  if (*pos + len > in.size()) return false;
  content->assign(in.begin() + static_cast<long>(*pos), in.begin() + static_cast<long>(*pos + len));
  *pos += len;
  return true;
}

Bytes Unsigned(Bytes v) {
  while (v.size() > 1 && v[0] == 0) v.erase(v.begin());
  return v;
}

// Big-endian value, padded or cut to n octets, as little-endian.
Bytes LittleEndian(const Bytes& be, size_t n) {
  Bytes v = Unsigned(be);
  Bytes out(n, 0);
  for (size_t i = 0; i < v.size() && i < n; ++i) out[i] = v[v.size() - 1 - i];
  return out;
}

Bytes BigEndian(const uint8_t* le, size_t n) {
  Bytes out(le, le + n);
  std::reverse(out.begin(), out.end());
  return Unsigned(out);
}

void Put32(Bytes& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

uint32_t Get32(const uint8_t* p) {
  return p[0] | (p[1] << 8) | (p[2] << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

Bytes PublicBlob(const RsaKey& k, uint32_t alg) {
  Bytes out{0x06, 0x02, 0x00, 0x00};
  Put32(out, alg);
  Put32(out, 0x31415352);  // "RSA1"
  Put32(out, k.bits());
  Bytes e = LittleEndian(k.e, 4);
  out.insert(out.end(), e.begin(), e.end());
  Bytes n = LittleEndian(k.n, k.bits() / 8);
  out.insert(out.end(), n.begin(), n.end());
  return out;
}

Bytes PrivateBlob(const RsaKey& k, uint32_t alg) {
  Bytes out{0x07, 0x02, 0x00, 0x00};
  Put32(out, alg);
  Put32(out, 0x32415352);  // "RSA2"
  const size_t full = k.bits() / 8, half = full / 2;
  Put32(out, k.bits());
  for (const auto& [v, n] : {std::pair<const Bytes&, size_t>{k.e, 4},
                             {k.n, full},
                             {k.p, half},
                             {k.q, half},
                             {k.dp, half},
                             {k.dq, half},
                             {k.qinv, half},
                             {k.d, full}}) {
    Bytes le = LittleEndian(v, n);
    out.insert(out.end(), le.begin(), le.end());
  }
  return out;
}

std::shared_ptr<RsaKey> FromBlob(const uint8_t* b, size_t len, uint32_t* alg) {
  if (len < 20 || b[0] != 0x07 || Get32(b + 8) != 0x32415352) return nullptr;
  *alg = Get32(b + 4);
  const size_t bits = Get32(b + 12), full = bits / 8, half = full / 2;
  if (len < 20 + full * 2 + half * 5) return nullptr;
  auto k = std::make_shared<RsaKey>();
  const uint8_t* p = b + 20;
  k->e = BigEndian(b + 16, 4);
  k->n = BigEndian(p, full), p += full;
  k->p = BigEndian(p, half), p += half;
  k->q = BigEndian(p, half), p += half;
  k->dp = BigEndian(p, half), p += half;
  k->dq = BigEndian(p, half), p += half;
  k->qinv = BigEndian(p, half), p += half;
  k->d = BigEndian(p, full);
  return k;
}

std::string Iconv(const char* to, const char* from, const std::string& in, bool* ok) {
  *ok = false;
  iconv_t cd = iconv_open(to, from);
  if (cd == reinterpret_cast<iconv_t>(-1)) return std::string();
  std::string out(in.size() * 4 + 16, '\0');
  char* src = const_cast<char*>(in.data());
  size_t srcLeft = in.size();
  char* dst = &out[0];
  size_t dstLeft = out.size();
  size_t rc = iconv(cd, &src, &srcLeft, &dst, &dstLeft);
  iconv_close(cd);
  if (rc == static_cast<size_t>(-1)) return std::string();
  out.resize(out.size() - dstLeft);
  *ok = true;
  return out;
}

}  // namespace

// ---- RsaKey ----

Bytes RsaKey::PrivateDer() const {
  return Tlv(0x30, Concat({Integer({0}), Integer(n), Integer(e), Integer(d), Integer(p), Integer(q),
                           Integer(dp), Integer(dq), Integer(qinv)}));
}

Bytes RsaKey::PublicDer() const {
  return Tlv(0x30, Concat({Integer(n), Integer(e)}));
}

Bytes RsaKey::SignSha1(const Bytes& data) const {
  KV_RSA_COMPONENT c[8];
  const Bytes* parts[8] = {&n, &e, &d, &p, &q, &dp, &dq, &qinv};
  for (int i = 0; i < 8; ++i) {
    c[i].data = const_cast<unsigned char*>(parts[i]->data());
    c[i].len = static_cast<unsigned>(parts[i]->size());
  }
  KV_RSA_CTX* ctx = nullptr;
  if (KV_RSA_LoadKey(c, KV_RSA_PRIVATE_BLOCK_SIZE, &ctx) != 0) return Bytes();
  uint8_t digest[20];
  kv::Sha1::Digest(data.data(), data.size(), digest);
  Bytes sig(n.size(), 0);
  unsigned len = static_cast<unsigned>(sig.size());
  int rc = KV_RSA_SignDigest(ctx, KV_RSA_SHA1, digest, 20, sig.data(), &len);
  KV_RSA_FreeCtx(ctx);
  if (rc != 0) return Bytes();
  sig.resize(len);
  return sig;
}

std::shared_ptr<const RsaKey> RsaKey::Pool(unsigned bits, size_t index) {
  static std::map<unsigned, std::vector<std::shared_ptr<const RsaKey>>> pool;
  auto& keys = pool[bits];
  while (keys.size() <= index) {
    KV_RSA_COMPONENT* c = nullptr;
    if (KV_RSA_GenerateKeyPairEx(static_cast<int>(bits), &c, nullptr, KV_RSA_OsRandom, nullptr) !=
        0) {
      throw std::runtime_error("key generation failed");
    }
    auto k = std::make_shared<RsaKey>();
    Bytes* parts[8] = {&k->n, &k->e, &k->d, &k->p, &k->q, &k->dp, &k->dq, &k->qinv};
    for (int i = 0; i < 8; ++i) parts[i]->assign(c[i].data, c[i].data + c[i].len);
    KV_RSA_FreeKeyPair(c);
    keys.push_back(k);
  }
  return keys[index];
}

std::shared_ptr<const RsaKey> RsaKey::FromPrivateDer(const Bytes& der) {
  size_t pos = 0;
  uint8_t tag = 0;
  Bytes seq;
  if (!ReadTlv(der, &pos, &tag, &seq) || tag != 0x30) return nullptr;
  auto k = std::make_shared<RsaKey>();
  Bytes* parts[9] = {nullptr, &k->n, &k->e, &k->d, &k->p, &k->q, &k->dp, &k->dq, &k->qinv};
  pos = 0;
  for (Bytes* part : parts) {
    Bytes v;
    if (!ReadTlv(seq, &pos, &tag, &v) || tag != 0x02) return nullptr;
    if (part) *part = Unsigned(v);
  }
  return k;
}

Bytes SubjectPublicKeyInfo(const RsaKey& key) {
  const Bytes alg = Tlv(
      0x30,
      Concat({Tlv(0x06, {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01}), Tlv(0x05, {})}));
  Bytes bits{0x00};
  Bytes pub = key.PublicDer();
  bits.insert(bits.end(), pub.begin(), pub.end());
  return Tlv(0x30, Concat({alg, Tlv(0x03, bits)}));
}

// ---- FakePlatform ----

FakePlatform::FakePlatform() {
  providers = {
      {"Microsoft Base Cryptographic Provider v1.0", KV_PROV_RSA_FULL, 16384, 1024},
      {"Microsoft Base DSS Cryptographic Provider", KV_PROV_DSS, 1024, 1024},
      {"Microsoft Enhanced Cryptographic Provider v1.0", KV_PROV_RSA_FULL, 16384, 16384},
      {"Microsoft Strong Cryptographic Provider", KV_PROV_RSA_FULL, 16384, 16384},
      {"Token CSP", KV_PROV_RSA_FULL, 2048, 2048},
  };
  chooser = [](const std::string&) { return SignedText{}; };
}

FakePlatform::~FakePlatform() = default;

void FakePlatform::Fail(const std::string& method, int nth, uint32_t error) {
  faults_[method][calls_[method] + nth] = error;
}

int FakePlatform::Calls(const std::string& method) const {
  auto it = calls_.find(method);
  return it == calls_.end() ? 0 : it->second;
}

bool FakePlatform::Injected(const char* method) {
  int n = ++calls_[method];
  auto it = faults_.find(method);
  if (it == faults_.end()) return false;
  auto f = it->second.find(n);
  if (f == it->second.end()) return false;
  lastError_ = f->second;
  return true;
}

std::string FakePlatform::Group(const std::string& provider) {
  return provider.compare(0, 9, "Microsoft") == 0 ? std::string("soft") : provider;
}

FakePlatform::Container* FakePlatform::FindContainer(const std::string& provider,
                                                     const std::string& name) {
  auto it = containers.find(Group(provider) + "\n" + name);
  return it == containers.end() ? nullptr : &it->second;
}

uintptr_t FakePlatform::NewHandle(HandleData data) {
  uintptr_t h = nextHandle_++;
  handles_.emplace(h, std::move(data));
  return h;
}

FakePlatform::HandleData* FakePlatform::Get(uintptr_t h, Kind kind) {
  auto it = handles_.find(h);
  return it == handles_.end() || it->second.kind != kind ? nullptr : &it->second;
}

FakePlatform::Key* FakePlatform::KeyOf(uintptr_t key) {
  HandleData* h = Get(key, Kind::kKey);
  if (!h) return nullptr;
  auto c = containers.find(h->group + "\n" + h->container);
  if (c == containers.end()) return nullptr;
  auto k = c->second.keys.find(h->keySpec);
  return k == c->second.keys.end() ? nullptr : &k->second;
}

bool FakePlatform::EnumProviders(uint32_t index, uint32_t* provType, char* name,
                                 uint32_t* nameLen) {
  if (Injected("EnumProviders")) return false;
  if (index >= providers.size()) return Fail(KV_ERROR_NO_MORE_ITEMS);
  const Provider& p = providers[index];
  *provType = p.type;
  const uint32_t need = static_cast<uint32_t>(p.name.size() + 1);
  if (name && *nameLen < need) {
    *nameLen = need;
    return Fail(KV_ERROR_MORE_DATA);
  }
  if (name) std::memcpy(name, p.name.c_str(), need);
  *nameLen = need;
  return true;
}

bool FakePlatform::AcquireContext(ProvHandle* prov, const char* container, const char* provider,
                                  uint32_t provType, uint32_t flags) {
  *prov = 0;
  if (Injected("AcquireContext")) return false;
  const std::string pname = provider ? provider : "";
  auto p = std::find_if(providers.begin(), providers.end(),
                        [&](const Provider& x) { return x.name == pname; });
  if (p == providers.end()) return Fail(KV_NTE_KEYSET_NOT_DEF);
  if (p->type != provType) return Fail(KV_NTE_PROV_TYPE_NO_MATCH);
  const std::string name = container ? container : "";
  if (name.empty()) return Fail(KV_NTE_BAD_KEYSET);
  const std::string key = Group(pname) + "\n" + name;
  if (flags & KV_CRYPT_DELETEKEYSET) {
    if (!containers.erase(key)) return Fail(KV_NTE_BAD_KEYSET);
    return true;
  }
  if (flags & KV_CRYPT_NEWKEYSET) {
    if (containers.count(key)) return Fail(KV_NTE_EXISTS);
    containers[key];
  } else if (!containers.count(key)) {
    return Fail(KV_NTE_BAD_KEYSET);
  }
  HandleData h{Kind::kProv};
  h.group = Group(pname);
  h.container = name;
  h.provider = pname;
  *prov = NewHandle(h);
  return true;
}

bool FakePlatform::ReleaseContext(ProvHandle prov) {
  Injected("ReleaseContext");
  if (!Get(prov, Kind::kProv)) return Fail(KV_NTE_BAD_KEYSET);
  handles_.erase(prov);
  return true;
}

bool FakePlatform::GetUserKey(ProvHandle prov, uint32_t keySpec, KeyHandle* key) {
  *key = 0;
  if (Injected("GetUserKey")) return false;
  HandleData* h = Get(prov, Kind::kProv);
  if (!h) return Fail(KV_NTE_BAD_KEYSET);
  auto c = containers.find(h->group + "\n" + h->container);
  if (c == containers.end()) return Fail(KV_NTE_BAD_KEYSET);
  if (!c->second.keys.count(keySpec)) return Fail(KV_NTE_NO_KEY);
  HandleData k{Kind::kKey};
  k.group = h->group;
  k.container = h->container;
  k.keySpec = keySpec;
  *key = NewHandle(k);
  return true;
}

bool FakePlatform::GenKey(ProvHandle prov, uint32_t algid, uint32_t flags, KeyHandle* key) {
  *key = 0;
  if (Injected("GenKey")) return false;
  HandleData* h = Get(prov, Kind::kProv);
  if (!h) return Fail(KV_NTE_BAD_KEYSET);
  const uint32_t spec = (algid == KV_AT_KEYEXCHANGE || algid == KV_CALG_RSA_KEYX)
                            ? KV_AT_KEYEXCHANGE
                            : KV_AT_SIGNATURE;
  unsigned bits = flags >> 16;
  if (bits == 0) bits = 1024;
  auto p = std::find_if(providers.begin(), providers.end(),
                        [&](const Provider& x) { return x.name == h->provider; });
  if (bits > (spec == KV_AT_SIGNATURE ? p->maxSignatureBits : p->maxExchangeBits)) {
    return Fail(KV_NTE_BAD_FLAGS);
  }
  Key k;
  k.rsa = RsaKey::Pool(bits, poolNext_[bits]++);
  k.exportable = flags & KV_CRYPT_EXPORTABLE;
  k.genFlags = flags;
  containers[h->group + "\n" + h->container].keys[spec] = k;
  HandleData kh{Kind::kKey};
  kh.group = h->group;
  kh.container = h->container;
  kh.keySpec = spec;
  *key = NewHandle(kh);
  return true;
}

bool FakePlatform::ExportKey(KeyHandle key, uint32_t blobType, uint32_t, uint8_t* data,
                             uint32_t* len) {
  if (Injected("ExportKey")) return false;
  Key* k = KeyOf(key);
  if (!k) return Fail(KV_NTE_BAD_KEY);
  const uint32_t alg =
      Get(key, Kind::kKey)->keySpec == KV_AT_KEYEXCHANGE ? KV_CALG_RSA_KEYX : KV_CALG_RSA_SIGN;
  Bytes blob;
  if (blobType == KV_PUBLICKEYBLOB) {
    blob = PublicBlob(*k->rsa, alg);
  } else if (blobType == KV_PRIVATEKEYBLOB) {
    if (!k->exportable) return Fail(KV_NTE_BAD_KEY_STATE);
    blob = PrivateBlob(*k->rsa, alg);
  } else {
    return Fail(KV_NTE_BAD_TYPE);
  }
  if (!data && exportSizeOverride) {
    *len = exportSizeOverride;
    return true;
  }
  if (data && *len < blob.size()) {
    *len = static_cast<uint32_t>(blob.size());
    return Fail(KV_ERROR_MORE_DATA);
  }
  if (data) std::memcpy(data, blob.data(), blob.size());
  *len = static_cast<uint32_t>(blob.size());
  return true;
}

bool FakePlatform::ImportKey(ProvHandle prov, const uint8_t* data, uint32_t len, uint32_t flags,
                             KeyHandle* key) {
  *key = 0;
  if (Injected("ImportKey")) return false;
  HandleData* h = Get(prov, Kind::kProv);
  if (!h) return Fail(KV_NTE_BAD_KEYSET);
  uint32_t alg = 0;
  auto rsa = FromBlob(data, len, &alg);
  if (!rsa) return Fail(KV_NTE_BAD_DATA);
  const uint32_t spec = alg == KV_CALG_RSA_KEYX ? KV_AT_KEYEXCHANGE : KV_AT_SIGNATURE;
  Key k;
  k.rsa = rsa;
  k.exportable = flags & KV_CRYPT_EXPORTABLE;
  k.importFlags = flags;
  containers[h->group + "\n" + h->container].keys[spec] = k;
  HandleData kh{Kind::kKey};
  kh.group = h->group;
  kh.container = h->container;
  kh.keySpec = spec;
  *key = NewHandle(kh);
  return true;
}

bool FakePlatform::SetKeyParam(KeyHandle key, uint32_t param, const uint8_t* data, uint32_t len,
                               uint32_t) {
  if (Injected("SetKeyParam")) return false;
  Key* k = KeyOf(key);
  if (!k) return Fail(KV_NTE_BAD_KEY);
  if (param != KV_KP_CERTIFICATE) return Fail(KV_NTE_BAD_TYPE);
  k->certificate.assign(data, data + len);
  return true;
}

bool FakePlatform::DestroyKey(KeyHandle key) {
  Injected("DestroyKey");
  if (!Get(key, Kind::kKey)) return Fail(KV_NTE_BAD_KEY);
  handles_.erase(key);
  return true;
}

bool FakePlatform::CreateHash(ProvHandle prov, uint32_t algid, HashHandle* hash) {
  *hash = 0;
  if (Injected("CreateHash")) return false;
  HandleData* h = Get(prov, Kind::kProv);
  if (!h || algid != KV_CALG_SHA1) return Fail(KV_NTE_BAD_ALGID);
  HandleData hh{Kind::kHash};
  hh.group = h->group;
  hh.container = h->container;
  *hash = NewHandle(hh);
  return true;
}

bool FakePlatform::HashData(HashHandle hash, const uint8_t* data, uint32_t len) {
  if (Injected("HashData")) return false;
  HandleData* h = Get(hash, Kind::kHash);
  if (!h) return Fail(KV_NTE_BAD_HASH_STATE);
  h->data.insert(h->data.end(), data, data + len);
  return true;
}

bool FakePlatform::SignHash(HashHandle hash, uint32_t keySpec, uint8_t* sig, uint32_t* len) {
  if (Injected("SignHash")) return false;
  HandleData* h = Get(hash, Kind::kHash);
  if (!h) return Fail(KV_NTE_BAD_HASH_STATE);
  auto c = containers.find(h->group + "\n" + h->container);
  if (c == containers.end() || !c->second.keys.count(keySpec)) return Fail(KV_NTE_NO_KEY);
  Bytes s = c->second.keys[keySpec].rsa->SignSha1(h->data);
  std::reverse(s.begin(), s.end());
  if (sig && *len < s.size()) return Fail(KV_ERROR_MORE_DATA);
  if (sig) std::memcpy(sig, s.data(), s.size());
  *len = static_cast<uint32_t>(s.size());
  return true;
}

bool FakePlatform::DestroyHash(HashHandle hash) {
  Injected("DestroyHash");
  if (!Get(hash, Kind::kHash)) return Fail(KV_NTE_BAD_HASH_STATE);
  handles_.erase(hash);
  return true;
}

bool FakePlatform::ExportPublicKeyInfo(ProvHandle prov, uint32_t keySpec, uint8_t* info,
                                       uint32_t* len) {
  if (Injected("ExportPublicKeyInfo")) return false;
  HandleData* h = Get(prov, Kind::kProv);
  if (!h) return Fail(KV_NTE_BAD_KEYSET);
  auto c = containers.find(h->group + "\n" + h->container);
  if (c == containers.end() || !c->second.keys.count(keySpec)) return Fail(KV_NTE_NO_KEY);
  Bytes spki = SubjectPublicKeyInfo(*c->second.keys[keySpec].rsa);
  if (info && *len < spki.size()) return Fail(KV_ERROR_MORE_DATA);
  if (info) std::memcpy(info, spki.data(), spki.size());
  *len = static_cast<uint32_t>(spki.size());
  return true;
}

bool FakePlatform::ComparePublicKeyInfo(const uint8_t* a, uint32_t aLen, const uint8_t* b,
                                        uint32_t bLen) {
  Injected("ComparePublicKeyInfo");
  return aLen == bLen && std::memcmp(a, b, aLen) == 0;
}

std::vector<FakePlatform::StoredCert>* FakePlatform::StoreOf(const HandleData& store) {
  if (store.inMemory) return &memoryStores_[store.memory];
  return &stores[store.store];
}

FakePlatform::StoredCert* FakePlatform::CertEntry(HandleData& cert) {
  if (!cert.inStore) return nullptr;
  auto* list = StoreOf(cert);
  for (StoredCert& c : *list) {
    if (c.id == cert.certId) return &c;
  }
  return nullptr;
}

bool FakePlatform::OpenStore(ProvHandle prov, const char* name, StoreHandle* store) {
  *store = 0;
  if (Injected("OpenStore")) return false;
  if (!Get(prov, Kind::kProv)) return Fail(KV_ERROR_INVALID_PARAMETER);
  HandleData h{Kind::kStore};
  h.store = name;
  *store = NewHandle(h);
  return true;
}

bool FakePlatform::OpenSystemStore(const char* name, StoreHandle* store) {
  *store = 0;
  if (Injected("OpenSystemStore")) return false;
  HandleData h{Kind::kStore};
  h.store = name;
  *store = NewHandle(h);
  return true;
}

bool FakePlatform::CloseStore(StoreHandle store) {
  Injected("CloseStore");
  if (!Get(store, Kind::kStore)) return Fail(KV_ERROR_INVALID_PARAMETER);
  handles_.erase(store);
  return true;
}

bool FakePlatform::CreateCertificateContext(const uint8_t* der, uint32_t len, CertHandle* cert) {
  *cert = 0;
  if (Injected("CreateCertificateContext")) return false;
  if (len < 2 || der[0] != 0x30) return Fail(KV_CRYPT_E_ASN1_BADTAG);
  HandleData h{Kind::kCert};
  h.der.assign(der, der + len);
  *cert = NewHandle(h);
  return true;
}

bool FakePlatform::FreeCertificateContext(CertHandle cert) {
  Injected("FreeCertificateContext");
  if (!Get(cert, Kind::kCert)) return Fail(KV_ERROR_INVALID_PARAMETER);
  handles_.erase(cert);
  return true;
}

bool FakePlatform::DuplicateCertificateContext(CertHandle cert, CertHandle* copy) {
  *copy = 0;
  if (Injected("DuplicateCertificateContext")) return false;
  HandleData* h = Get(cert, Kind::kCert);
  if (!h) return Fail(KV_ERROR_INVALID_PARAMETER);
  *copy = NewHandle(*h);
  return true;
}

bool FakePlatform::GetEncoded(CertHandle cert, Bytes* der) {
  if (Injected("GetEncoded")) return false;
  HandleData* h = Get(cert, Kind::kCert);
  if (!h) return Fail(KV_ERROR_INVALID_PARAMETER);
  StoredCert* c = CertEntry(*h);
  *der = c ? c->der : h->der;
  return true;
}

bool FakePlatform::AddEncodedCertificateToStore(StoreHandle store, const uint8_t* der, uint32_t len,
                                                uint32_t disposition, CertHandle* added) {
  if (added) *added = 0;
  if (Injected("AddEncodedCertificateToStore")) return false;
  HandleData* s = Get(store, Kind::kStore);
  if (!s || len < 2 || der[0] != 0x30) return Fail(KV_CRYPT_E_ASN1_BADTAG);
  HandleData tmp{Kind::kCert};
  tmp.der.assign(der, der + len);
  CertHandle h = NewHandle(tmp);
  bool ok = AddToStore(store, h, disposition, added);
  handles_.erase(h);
  return ok;
}

bool FakePlatform::AddCertificateContextToStore(StoreHandle store, CertHandle cert,
                                                uint32_t disposition, CertHandle* added) {
  if (added) *added = 0;
  if (Injected("AddCertificateContextToStore")) return false;
  return AddToStore(store, cert, disposition, added);
}

bool FakePlatform::AddToStore(StoreHandle store, CertHandle cert, uint32_t disposition,
                              CertHandle* added) {
  HandleData* s = Get(store, Kind::kStore);
  HandleData* c = Get(cert, Kind::kCert);
  if (!s || !c) return Fail(KV_ERROR_INVALID_PARAMETER);
  StoredCert* source = CertEntry(*c);
  StoredCert entry;
  entry.der = source ? source->der : c->der;
  if (source) {
    entry.hasInfo = source->hasInfo;
    entry.info = source->info;
  }
  auto* list = StoreOf(*s);
  auto same = std::find_if(list->begin(), list->end(),
                           [&](const StoredCert& x) { return x.der == entry.der; });
  uint64_t id = 0;
  if (same != list->end() && disposition == KV_CERT_STORE_ADD_USE_EXISTING) {
    id = same->id;
  } else if (same != list->end() && disposition == KV_CERT_STORE_ADD_REPLACE_EXISTING) {
    entry.id = same->id;
    *same = entry;
    id = entry.id;
  } else if (same != list->end()) {
    return Fail(KV_CRYPT_E_EXISTS);
  } else {
    entry.id = nextCertId_++;
    list->push_back(entry);
    id = entry.id;
  }
  if (added) {
    HandleData h{Kind::kCert};
    h.inStore = true;
    h.inMemory = s->inMemory;
    h.memory = s->memory;
    h.store = s->store;
    h.certId = id;
    *added = NewHandle(h);
  }
  return true;
}

bool FakePlatform::SetKeyProvInfo(CertHandle cert, const KeyProvInfo* info) {
  if (Injected("SetKeyProvInfo")) return false;
  HandleData* h = Get(cert, Kind::kCert);
  StoredCert* c = h ? CertEntry(*h) : nullptr;
  if (!c) return Fail(KV_ERROR_INVALID_PARAMETER);
  c->hasInfo = true;
  c->info = *info;
  return true;
}

bool FakePlatform::GetKeyProvInfo(CertHandle cert, KeyProvInfo* info) {
  if (Injected("GetKeyProvInfo")) return false;
  HandleData* h = Get(cert, Kind::kCert);
  StoredCert* c = h ? CertEntry(*h) : nullptr;
  if (!c || !c->hasInfo) return Fail(KV_CRYPT_E_NOT_FOUND);
  *info = c->info;
  return true;
}

bool FakePlatform::EnumCertificatesInStore(StoreHandle store, CertHandle prev, CertHandle* next) {
  *next = 0;
  if (Injected("EnumCertificatesInStore")) return false;
  HandleData* s = Get(store, Kind::kStore);
  if (!s) return Fail(KV_ERROR_INVALID_PARAMETER);
  uint64_t after = 0;
  if (prev) {
    HandleData* p = Get(prev, Kind::kCert);
    if (!p) return Fail(KV_ERROR_INVALID_PARAMETER);
    after = p->certId;
    handles_.erase(prev);
  }
  for (const StoredCert& c : *StoreOf(*s)) {
    if (c.id > after) {
      HandleData h{Kind::kCert};
      h.inStore = true;
      h.inMemory = s->inMemory;
      h.memory = s->memory;
      h.store = s->store;
      h.certId = c.id;
      *next = NewHandle(h);
      return true;
    }
  }
  return Fail(KV_CRYPT_E_NOT_FOUND);
}

bool FakePlatform::CompareCertificate(CertHandle a, CertHandle b) {
  Bytes x, y;
  return GetEncoded(a, &x) && GetEncoded(b, &y) && x == y;
}

bool FakePlatform::DeleteCertificateFromStore(CertHandle cert) {
  HandleData* h = Get(cert, Kind::kCert);
  bool injected = Injected("DeleteCertificateFromStore");
  if (!h) return Fail(KV_ERROR_INVALID_PARAMETER);
  HandleData copy = *h;
  handles_.erase(cert);
  if (injected) return false;
  if (!copy.inStore) return Fail(KV_ERROR_INVALID_PARAMETER);
  auto* list = StoreOf(copy);
  list->erase(std::remove_if(list->begin(), list->end(),
                             [&](const StoredCert& c) { return c.id == copy.certId; }),
              list->end());
  return true;
}

bool FakePlatform::PFXImportCertStore(const uint8_t* pfx, uint32_t len, const char16_t* password,
                                      uint32_t flags, StoreHandle* store) {
  *store = 0;
  if (Injected("PFXImportCertStore")) return false;
  std::string pass;
  for (const char16_t* c = password; c && *c; ++c) pass += static_cast<char>(*c);
  Bytes keyDer;
  std::vector<Bytes> certs;
  if (!pfxReader || !pfxReader(Bytes(pfx, pfx + len), pass, &keyDer, &certs) || certs.empty()) {
    return Fail(KV_CRYPT_E_ASN1_BADTAG);
  }
  auto rsa = RsaKey::FromPrivateDer(keyDer);
  if (!rsa) return Fail(KV_NTE_BAD_DATA);
  // The key goes into a container of the platform's own naming.
  const std::string provider = "Microsoft Enhanced Cryptographic Provider v1.0";
  const std::string name = "pfx-import-" + std::to_string(++guidCounter_);
  Key k;
  k.rsa = rsa;
  k.exportable = flags & KV_CRYPT_EXPORTABLE;
  k.importFlags = flags;
  containers[Group(provider) + "\n" + name].keys[KV_AT_KEYEXCHANGE] = k;
  memoryStores_.emplace_back();
  for (const Bytes& der : certs) {
    StoredCert c;
    c.id = nextCertId_++;
    c.der = der;
    memoryStores_.back().push_back(c);
  }
  // The leaf (the first certificate the reader gave) names the container.
  StoredCert& leaf = memoryStores_.back().front();
  leaf.hasInfo = true;
  leaf.info.containerName = std::u16string(name.begin(), name.end());
  leaf.info.providerName = std::u16string(provider.begin(), provider.end());
  leaf.info.provType = KV_PROV_RSA_FULL;
  leaf.info.keySpec = KV_AT_KEYEXCHANGE;
  HandleData h{Kind::kStore};
  h.inMemory = true;
  h.memory = memoryStores_.size() - 1;
  *store = NewHandle(h);
  return true;
}

bool FakePlatform::CoCreateGuid(Guid* guid) {
  if (Injected("CoCreateGuid")) return false;
  ++guidCounter_;
  guid->data1 = 0xA0B0C000u + guidCounter_;
  guid->data2 = 0xBEEF;
  guid->data3 = 0xCAFE;
  for (int i = 0; i < 8; ++i) guid->data4[i] = static_cast<uint8_t>(0xD0 + i + guidCounter_);
  return true;
}

uint32_t FakePlatform::ExpandEnvironmentStrings(const char* src, char* dst, uint32_t size) {
  if (Injected("ExpandEnvironmentStrings")) return 0;
  const std::string s = src;
  if (dst && size > s.size()) std::memcpy(dst, s.c_str(), s.size() + 1);
  return static_cast<uint32_t>(s.size() + 1);
}

uint32_t FakePlatform::GetSystemDirectory(char* dst, uint32_t size) {
  if (Injected("GetSystemDirectory")) return 0;
  if (dst && size > kKeyHistoryDir.size()) {
    std::memcpy(dst, kKeyHistoryDir.c_str(), kKeyHistoryDir.size() + 1);
  }
  return static_cast<uint32_t>(kKeyHistoryDir.size());
}

bool FakePlatform::WriteFileAtomic(const std::string& path, const uint8_t* data, size_t len) {
  if (Injected("WriteFileAtomic")) return false;
  files[path] = Bytes(data, data + len);
  return true;
}

bool FakePlatform::ReadFile(const std::string& path, size_t maxLen, Bytes* data) {
  if (Injected("ReadFile")) return false;
  auto it = files.find(path);
  if (it == files.end()) return false;
  *data = Bytes(it->second.begin(),
                it->second.begin() + static_cast<long>(std::min(maxLen, it->second.size())));
  return true;
}

bool FakePlatform::FileExists(const std::string& path) {
  Injected("FileExists");
  return files.count(path) != 0;
}

bool FakePlatform::DeleteFile(const std::string& path) {
  if (Injected("DeleteFile")) return false;
  return files.erase(path) != 0;
}

bool FakePlatform::ToNarrow(const std::u16string& wide, std::string* narrow) {
  if (Injected("ToNarrow")) return false;
  bool ok = false;
  std::string bytes(reinterpret_cast<const char*>(wide.data()), wide.size() * 2);
  *narrow = Iconv(codePage.c_str(), "UTF-16LE", bytes, &ok);
  return ok;
}

bool FakePlatform::ToWide(const std::string& narrow, std::u16string* wide) {
  if (Injected("ToWide")) return false;
  bool ok = false;
  std::string bytes = Iconv("UTF-16LE", codePage.c_str(), narrow, &ok);
  wide->assign(reinterpret_cast<const char16_t*>(bytes.data()), bytes.size() / 2);
  return ok;
}

SignedText FakePlatform::ChooseAndSign(const std::string& text) {
  Injected("ChooseAndSign");
  return chooser(text);
}

}  // namespace kvtest
