#include "control/portable/internal/records.h"

#include "asn1/asn1.h"

namespace kv::control::portable {

namespace {

const int64_t kVersion = 1;

// Structures written the way the generated PKI types are: an AsnSequence
// subclass that lists its elements in SetupElements.
template <class Derived>
class Record : public AsnSequence {
 public:
  AsnObject* Clone() const override { return new Derived(static_cast<const Derived&>(*this)); }

 protected:
  void Add(AsnObject* element, const char* name, bool optional = false) {
    element->SetAsnName(name);
    if (optional) element->SetAsnState(ASN_STATE_OPTIONAL);
    AddElementSpace(element);
  }
  static AsnObject* Tagged(AsnObject* element, uint32_t number) {
    element->SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_IMPLICIT, number);
    return element;
  }
};

class ContainerKeyAsn : public Record<ContainerKeyAsn> {
 public:
  ContainerKeyAsn() { SetupElements(); }

 protected:
  void SetupElements() override {
    if (Elements().HasList()) return;
    Add(new AsnBoolean(), "exportable");
    Add(new RSAPrivateKey(), "key");
    Add(new AsnOctetString(), "certificate", true);
  }
};

class KeyContainerAsn : public Record<KeyContainerAsn> {
 public:
  KeyContainerAsn() { SetupElements(); }

 protected:
  void SetupElements() override {
    if (Elements().HasList()) return;
    Add(new AsnInteger(), "version");
    Add(new AsnOctetString(), "name");
    Add(Tagged(new ContainerKeyAsn(), 0), "signatureKey", true);
    Add(Tagged(new ContainerKeyAsn(), 1), "exchangeKey", true);
  }
};

class KeyProvInfoAsn : public Record<KeyProvInfoAsn> {
 public:
  KeyProvInfoAsn() { SetupElements(); }

 protected:
  void SetupElements() override {
    if (Elements().HasList()) return;
    Add(new AsnOctetString(), "containerName");
    Add(new AsnOctetString(), "providerName");
    Add(new AsnInteger(), "provType");
    Add(new AsnInteger(), "flags");
    Add(new AsnInteger(), "keySpec");
  }
};

class PropertiesAsn : public Record<PropertiesAsn> {
 public:
  PropertiesAsn() { SetupElements(); }

 protected:
  void SetupElements() override {
    if (Elements().HasList()) return;
    Add(new AsnInteger(), "version");
    Add(new AsnInteger(), "position");
    Add(Tagged(new KeyProvInfoAsn(), 0), "keyProvInfo", true);
  }
};

Bytes Encoded(const AsnObject& obj) {
  MiByteBuffer out;
  unsigned n = obj.DerEncode(out, 0);
  return Bytes(out.GetBytes(), out.GetBytes() + n);
}

bool DecodeWhole(AsnObject& obj, const Bytes& der) {
  if (der.empty()) return false;
  try {
    MiByte in(reinterpret_cast<const char*>(der.data()), static_cast<unsigned>(der.size()));
    return obj.DerDecode(in, 0) == der.size();
  } catch (const MiException&) {
    return false;
  }
}

AsnOctetString Octets(const void* p, size_t n) {
  return AsnOctetString(static_cast<const char*>(p), static_cast<unsigned>(n));
}

Bytes OctetsOf(const AsnObject* o) {
  auto* s = dynamic_cast<const AsnOctetString*>(o);
  if (!s) return Bytes();
  const MiByte& b = s->GetData();
  return Bytes(b.GetBytes(), b.GetBytes() + b.GetLength());
}

bool IntOf(const AsnObject* o, int64_t* v) {
  auto* i = dynamic_cast<const AsnInteger*>(o);
  bool ok = false;
  if (i) *v = i->GetInt64(ok);
  return ok;
}

AsnOctetString Utf16(const std::u16string& s) {
  Bytes b;
  for (char16_t c : s) {
    b.push_back(static_cast<uint8_t>(c));
    b.push_back(static_cast<uint8_t>(c >> 8));
  }
  return Octets(b.data(), b.size());
}

bool Utf16Of(const AsnObject* o, std::u16string* s) {
  Bytes b = OctetsOf(o);
  if (b.size() % 2) return false;
  s->clear();
  for (size_t i = 0; i < b.size(); i += 2) s->push_back(char16_t(b[i] | b[i + 1] << 8));
  return true;
}

void PutKey(KeyContainerAsn& rec, const char* slot, const ContainerRecord::Key& key) {
  if (!key.present) return;
  ContainerKeyAsn k;
  AsnBoolean exportable(key.exportable);
  k.Set("exportable", &exportable);
  RSAPrivateKey priv;
  DecodeWhole(priv, EncodeRsaPrivateKey(key.key));
  k.Set("key", &priv);
  if (!key.certificate.empty()) {
    AsnOctetString cert = Octets(key.certificate.data(), key.certificate.size());
    k.Set("certificate", &cert);
  }
  rec.Set(slot, &k);
}

bool GetKey(const KeyContainerAsn& rec, const char* slot, ContainerRecord::Key* key) {
  auto* k = dynamic_cast<const ContainerKeyAsn*>(rec.GetIfPresent(slot));
  if (!k) return true;
  auto* exportable = dynamic_cast<const AsnBoolean*>(k->GetIfPresent("exportable"));
  const AsnObject* priv = k->GetIfPresent("key");
  if (!exportable || !priv) return false;
  Bytes der = Encoded(*priv);
  if (!DecodeRsaPrivateKey(der.data(), der.size(), &key->key)) return false;
  key->present = true;
  key->exportable = exportable->GetData();
  key->certificate = OctetsOf(k->GetIfPresent("certificate"));
  return true;
}

}  // namespace

void ContainerRecord::Wipe() {
  signature.key.Wipe();
  exchange.key.Wipe();
}

Bytes EncodeContainer(const ContainerRecord& record) {
  KeyContainerAsn rec;
  AsnInteger version(kVersion);
  rec.Set("version", &version);
  AsnOctetString name = Octets(record.name.data(), record.name.size());
  rec.Set("name", &name);
  PutKey(rec, "signatureKey", record.signature);
  PutKey(rec, "exchangeKey", record.exchange);
  return Encoded(rec);
}

namespace {

bool ReadContainer(const Bytes& der, ContainerRecord* record) {
  KeyContainerAsn rec;
  if (!DecodeWhole(rec, der)) return false;
  int64_t version = 0;
  if (!IntOf(rec.GetIfPresent("version"), &version) || version != kVersion) return false;
  if (!rec.GetIfPresent("name")) return false;
  ContainerRecord out;
  Bytes name = OctetsOf(rec.GetIfPresent("name"));
  out.name.assign(name.begin(), name.end());
  if (!GetKey(rec, "signatureKey", &out.signature) || !GetKey(rec, "exchangeKey", &out.exchange)) {
    out.Wipe();
    return false;
  }
  *record = std::move(out);
  return true;
}

}  // namespace

// The decoder is lenient about missing elements, and a value it accepted may
// still refuse to encode: every exception means "not a record".
bool DecodeContainer(const Bytes& der, ContainerRecord* record) {
  try {
    return ReadContainer(der, record);
  } catch (const MiException&) {
    return false;
  }
}

Bytes EncodeProperties(const PropertyRecord& record) {
  PropertiesAsn rec;
  AsnInteger version(kVersion), position(record.position);
  rec.Set("version", &version);
  rec.Set("position", &position);
  if (record.hasKeyProvInfo) {
    const KeyProvInfo& in = record.keyProvInfo;
    KeyProvInfoAsn info;
    AsnOctetString container = Utf16(in.containerName), provider = Utf16(in.providerName);
    AsnInteger type(int64_t{in.provType}), flags(int64_t{in.flags}), spec(int64_t{in.keySpec});
    info.Set("containerName", &container);
    info.Set("providerName", &provider);
    info.Set("provType", &type);
    info.Set("flags", &flags);
    info.Set("keySpec", &spec);
    rec.Set("keyProvInfo", &info);
  }
  return Encoded(rec);
}

namespace {

bool ReadProperties(const Bytes& der, PropertyRecord* record) {
  PropertiesAsn rec;
  if (!DecodeWhole(rec, der)) return false;
  int64_t version = 0;
  PropertyRecord out;
  if (!IntOf(rec.GetIfPresent("version"), &version) || version != kVersion) return false;
  if (!IntOf(rec.GetIfPresent("position"), &out.position)) return false;
  if (auto* info = dynamic_cast<const KeyProvInfoAsn*>(rec.GetIfPresent("keyProvInfo"))) {
    int64_t type = 0, flags = 0, spec = 0;
    if (!Utf16Of(info->GetIfPresent("containerName"), &out.keyProvInfo.containerName) ||
        !Utf16Of(info->GetIfPresent("providerName"), &out.keyProvInfo.providerName) ||
        !IntOf(info->GetIfPresent("provType"), &type) ||
        !IntOf(info->GetIfPresent("flags"), &flags) ||
        !IntOf(info->GetIfPresent("keySpec"), &spec)) {
      return false;
    }
    out.hasKeyProvInfo = true;
    out.keyProvInfo.provType = static_cast<uint32_t>(type);
    out.keyProvInfo.flags = static_cast<uint32_t>(flags);
    out.keyProvInfo.keySpec = static_cast<uint32_t>(spec);
  }
  *record = std::move(out);
  return true;
}

}  // namespace

bool DecodeProperties(const Bytes& der, PropertyRecord* record) {
  try {
    return ReadProperties(der, record);
  } catch (const MiException&) {
    return false;
  }
}

}  // namespace kv::control::portable
