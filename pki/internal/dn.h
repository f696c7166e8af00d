// The attribute table shared by DN node text and DN text, and the DN text
// parser and formatter behind KV_Name::setText/getText and pki/dn.h.
#pragma once

#include <string>

#include "asn1/asn1.h"

namespace kv::pki {

struct DnAttribute {
  const char* field;    // DN node text label field, five characters
  const char* keyword;  // DN text keyword
  const char* oid;
};

// The table, in label order; kDnAttributeCount entries.
extern const DnAttribute kDnAttributes[];
extern const unsigned kDnAttributeCount;

// The entry for a dotted identifier, or null.
const DnAttribute* FindDnAttributeByOid(const char* oid);

inline constexpr char kUnknownField[] = " ?? =";
inline constexpr char kEmailOid[] = "1.2.840.113549.1.9.1";

// The RDN sequence of a name (selected, created empty when the name has none).
AsnSequenceOf<AsnSetOf<AttributeTypeAndDistinguishedValue>>& Rdns(Name& name);
// Null when the name has no RDN sequence selected.
const AsnSequenceOf<AsnSetOf<AttributeTypeAndDistinguishedValue>>* Rdns(const Name& name);

// DN text -> name: 0, -1020 syntax, -1006 unknown keyword.
int ParseDnText(const char* text, size_t n, Name& name);
// Name -> DN text.
std::string FormatDnText(const Name& name);

}  // namespace kv::pki
