#include "pki/name.h"

#include <cstring>

#include "pki/internal/context.h"
#include "pki/internal/der.h"
#include "pki/internal/dn.h"

namespace kv::pki {

const DnAttribute kDnAttributes[] = {
    {" CN =", "CN", "2.5.4.3"},  {" SN =", "SN", "2.5.4.4"}, {"  C =", "C", "2.5.4.6"},
    {"  L =", "L", "2.5.4.7"},   {"  S =", "ST", "2.5.4.8"}, {"  O =", "O", "2.5.4.10"},
    {" OU =", "OU", "2.5.4.11"}, {"  T =", "T", "2.5.4.12"}, {"  N =", "N", "2.5.4.41"},
    {"  G =", "G", "2.5.4.42"},  {"  I =", "I", "2.5.4.43"}, {" GQ =", "GQ", "2.5.4.44"},
    {" DQ =", "DQ", "2.5.4.46"}, {"  E =", "E", kEmailOid},
};
const unsigned kDnAttributeCount = sizeof(kDnAttributes) / sizeof(kDnAttributes[0]);

const DnAttribute* FindDnAttributeByOid(const char* oid) {
  for (const DnAttribute& a : kDnAttributes)
    if (std::strcmp(a.oid, oid) == 0) return &a;
  return nullptr;
}

AsnSequenceOf<AsnSetOf<AttributeTypeAndDistinguishedValue>>& Rdns(Name& name) {
  if (name.GetRdnSequence() == nullptr) {
    name.SetRdnSequence(AsnSequenceOf<AsnSetOf<AttributeTypeAndDistinguishedValue>>());
  }
  return *name.GetRdnSequence();
}

const AsnSequenceOf<AsnSetOf<AttributeTypeAndDistinguishedValue>>* Rdns(const Name& name) {
  return name.GetRdnSequence();
}

}  // namespace kv::pki

namespace {

using kv::pki::Guard;

bool SameLabel(const char* a, const char* b) {
  for (int i = 0; i < 5; ++i) {
    char x = a[i], y = b[i];
    if (x >= 'a' && x <= 'z') x = static_cast<char>(x - 'a' + 'A');
    if (y >= 'a' && y <= 'z') y = static_cast<char>(y - 'a' + 'A');
    if (x != y) return false;
  }
  return true;
}

}  // namespace

KV_Name::KV_Name() {
  Reset();
}

KV_Name::KV_Name(const Name& name) {
  Reset();
  setName(name);
}

KV_Name::KV_Name(const KV_Name& other) : name_(other.name_) {}

KV_Name& KV_Name::operator=(const KV_Name& other) {
  if (this != &other) name_ = other.name_;
  return *this;
}

KV_Name::~KV_Name() = default;

void KV_Name::Reset() {
  name_ = Name();
  kv::pki::Rdns(name_);
}

int KV_Name::setName(const Name& name) {
  return Guard([&]() -> int {
    if (kv::pki::Rdns(static_cast<const Name&>(name)) == nullptr) return KV_ERR_MISSING_FIELD;
    name_ = name;
    return 0;
  });
}

int KV_Name::setName(const MiByte& der) {
  return Guard([&]() -> int {
    Name decoded;
    if (!kv::pki::DecodeWhole(decoded, der) ||
        kv::pki::Rdns(static_cast<const Name&>(decoded)) == nullptr) {
      return KV_ERR_DECODE;
    }
    name_ = decoded;
    return 0;
  });
}

int KV_Name::getName(Name& name) const {
  return Guard([&]() -> int {
    name = name_;
    return 0;
  });
}

int KV_Name::getName(MiByte& der) const {
  return Guard([&]() -> int {
    der = kv::pki::Der(name_);
    return 0;
  });
}

int KV_Name::getNameNodeTotal(int& total) const {
  const auto* rdns = kv::pki::Rdns(name_);
  total = rdns ? static_cast<int>(rdns->Size()) : 0;
  return 0;
}

int KV_Name::getNameNodeByIndex(int index, MiByte& node) const {
  return Guard([&]() -> int {
    const auto* rdns = kv::pki::Rdns(name_);
    if (rdns == nullptr || index < 0 || static_cast<unsigned>(index) >= rdns->Size()) {
      return KV_ERR_INDEX;
    }
    const AsnSetOf<AttributeTypeAndDistinguishedValue>& rdn = (*rdns)[index];
    if (rdn.Empty()) return KV_ERR_MISSING_FIELD;
    const AttributeTypeAndDistinguishedValue& ava = rdn[0];
    const AsnAny* value = ava.GetValue();
    if (value == nullptr || !value->HasData()) return KV_ERR_MISSING_FIELD;
    const kv::pki::DnAttribute* attr =
        ava.GetType() ? kv::pki::FindDnAttributeByOid(ava.GetType()->GetData()) : nullptr;
    MiByte text(attr ? attr->field : kv::pki::kUnknownField, 5);
    MiByte content = kv::pki::ContentOctets(*value->GetData());
    text.Concat(content.GetChars(), content.GetLength());
    node = text;
    return 0;
  });
}

int KV_Name::addNameNode(const MiByte& node) {
  if (node.GetLength() <= 5) return KV_ERR_BUFFER;
  const char* text = node.GetChars();
  const kv::pki::DnAttribute* attr = nullptr;
  for (unsigned i = 0; i < kv::pki::kDnAttributeCount && !attr; ++i)
    if (SameLabel(text, kv::pki::kDnAttributes[i].field)) attr = &kv::pki::kDnAttributes[i];
  if (attr == nullptr) return KV_ERR_UNSUPPORTED;
  return Guard([&]() -> int {
    AttributeTypeAndDistinguishedValue ava;
    ava.SetType(AsnOid(attr->oid));
    const unsigned n = node.GetLength() - 5;
    if (std::strcmp(attr->oid, kv::pki::kEmailOid) == 0) {
      AsnIA5String value;
      value.SetData(text, 5, n);
      ava.SetValue(AsnAny(value));
    } else {
      if (!AsnPrintableString::TestData(text, 5, n)) return KV_ERR_ENCODE;
      AsnPrintableString value;
      value.SetData(text, 5, n);
      ava.SetValue(AsnAny(value));
    }
    AsnSetOf<AttributeTypeAndDistinguishedValue> rdn;
    rdn.Add(ava);
    kv::pki::Rdns(name_).Add(rdn);
    return 0;
  });
}

int KV_Name::setText(const char* utf8) {
  if (utf8 == nullptr) return KV_ERR_ARGUMENT;
  return Guard([&]() -> int {
    Name parsed;
    int rv = kv::pki::ParseDnText(utf8, std::strlen(utf8), parsed);
    if (rv == 0) name_ = parsed;
    return rv;
  });
}

int KV_Name::getText(MiString& utf8) const {
  return Guard([&]() -> int {
    std::string text = kv::pki::FormatDnText(name_);
    utf8 = MiString(text.c_str(), 0, static_cast<unsigned>(text.size()));
    return 0;
  });
}

bool KV_Name::operator==(const KV_Name& other) const {
  try {
    return kv::pki::Der(name_) == kv::pki::Der(other.name_);
  } catch (const MiException&) {
    return false;
  }
}
