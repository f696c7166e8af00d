#include "asn1/asn_ostream.h"

#include <sstream>
#include <string>

#include "asn1/asn_constructed.h"
#include "asn1/asn_instance_of.h"
#include "asn1/asn_primitives.h"

void AsnOstream::WriteIndent(std::ostream& os, unsigned indent) {
  for (unsigned i = 0; i < indent; ++i) os << "    ";
}

void AsnOstream::WriteHead(const AsnObject& obj, std::ostream& os, unsigned indent) {
  WriteIndent(os, indent);
  if (!obj.GetAsnName().Empty()) os << obj.GetAsnName().GetChars() << "  ";
  const AsnTag& tag = obj.GetAsnTag();
  if (tag.tagClass != ASN_TAG_CLASS_UNIVERSAL) {
    os << "[";
    if (tag.tagClass == ASN_TAG_CLASS_APPLICATION)
      os << "APPLICATION ";
    else if (tag.tagClass == ASN_TAG_CLASS_PRIVATE)
      os << "PRIVATE ";
    os << tag.tagNumber << "]  ";
    if (tag.tagMode == ASN_TAG_MODE_IMPLICIT)
      os << "IMPLICIT  ";
    else if (tag.tagMode == ASN_TAG_MODE_EXPLICIT)
      os << "EXPLICIT  ";
  }
}

namespace {

void Text(std::ostream& os, const MiString& s) {
  if (s.Empty())
    os << "( EMPTY )";
  else
    os.write(s.GetChars(), s.GetLength());
}

// Elements of a structure: present ones dump themselves, absent ones show
// their name and a marker.
void Elements(std::ostream& os, unsigned indent, const AsnElementList& l, bool isSet, int selected,
              bool isChoice) {
  if (l.Size() == 0) {
    os << "{}";
    return;
  }
  os << "{\n";
  for (unsigned i = 0; i < l.Size(); ++i) {
    if (i) os << "\n";
    const AsnObject* e = l.At(i);
    bool shown = isChoice ? static_cast<int>(i) == selected : e->IsAsnPresent();
    if (shown) {
      e->ToOstream(os, indent + 1);
    } else {
      AsnOstream::WriteIndent(os, indent + 1);
      os << e->GetAsnName().GetChars();
      if (isSet && e->GetAsnState() == ASN_STATE_DEFAULT)
        os << "  ( DEFAULT )";
      else
        os << "  ( NOT SELECTED )";
    }
  }
  os << " }";
}

}  // namespace

void AsnOstream::DoVisit(const AsnContainer& obj, std::ostream& os, unsigned indent) {
  WriteHead(obj, os, indent);
  if (!obj.GetData()) {
    os << "( EMPTY )";
    return;
  }
  // The data follows the container's head on the same line.
  std::ostringstream inner;
  obj.GetData()->ToOstream(inner, indent);
  std::string s = inner.str();
  os << s.substr(s.size() >= 4u * indent ? 4u * indent : 0);
}

void AsnOstream::DoVisit(const AsnChoice& obj, std::ostream& os, unsigned indent) {
  WriteHead(obj, os, indent);
  os << "CHOICE : ";
  Elements(os, indent, obj.Elements(), false, obj.GetSelectedIndex(), true);
}

void AsnOstream::DoVisit(const AsnSet& obj, std::ostream& os, unsigned indent) {
  WriteHead(obj, os, indent);
  os << "SET : ";
  Elements(os, indent, obj.Elements(), true, -1, false);
}

void AsnOstream::DoVisit(const AsnSequence& obj, std::ostream& os, unsigned indent) {
  WriteHead(obj, os, indent);
  os << "SEQUENCE : ";
  Elements(os, indent, obj.Elements(), false, -1, false);
}

void AsnOstream::DoVisit(const AsnInstanceOf& obj, std::ostream& os, unsigned indent) {
  WriteHead(obj, os, indent);
  os << "INSTANCE OF : ";
  if (!obj.GetType_id() && !obj.GetValue()) {
    os << "  ( EMPTY )";
    return;
  }
  Elements(os, indent, obj.Elements(), false, -1, false);
}

#define KV_NARROW_DUMP(T, Label)                                              \
  void AsnOstream::DoVisit(const T& obj, std::ostream& os, unsigned indent) { \
    WriteHead(obj, os, indent);                                               \
    os << Label;                                                              \
    Text(os, obj.GetData());                                                  \
  }
KV_NARROW_DUMP(AsnTeletexString, "TeletexString : ")
KV_NARROW_DUMP(AsnVisibleString, "VisibleString : ")
KV_NARROW_DUMP(AsnPrintableString, "PrintableString : ")
KV_NARROW_DUMP(AsnNumericString, "NumericString : ")
KV_NARROW_DUMP(AsnIA5String, "IA5String : ")
#undef KV_NARROW_DUMP

#define KV_WIDE_DUMP(T, Label)                                                \
  void AsnOstream::DoVisit(const T& obj, std::ostream& os, unsigned indent) { \
    WriteHead(obj, os, indent);                                               \
    os << Label;                                                              \
    Text(os, obj.GetUtf8());                                                  \
  }
KV_WIDE_DUMP(AsnUTF8String, "UTF8String : ")
KV_WIDE_DUMP(AsnUniversalString, "UniversalString : ")
KV_WIDE_DUMP(AsnBMPString, "BMPString : ")
#undef KV_WIDE_DUMP

void AsnOstream::DoVisit(const AsnNull& obj, std::ostream& os, unsigned indent) {
  WriteHead(obj, os, indent);
  os << "NULL";
}

void AsnOstream::DoVisit(const AsnUTCTime& obj, std::ostream& os, unsigned indent) {
  WriteHead(obj, os, indent);
  os << "UTCTime : ";
  if (obj.GetTime().IsEmpty())
    os << "( EMPTY )";
  else
    Text(os, obj.GetTimeString());
}

void AsnOstream::DoVisit(const AsnGeneralizedTime& obj, std::ostream& os, unsigned indent) {
  WriteHead(obj, os, indent);
  os << "GeneralizedTime : ";
  if (obj.GetTime().IsEmpty())
    os << "( EMPTY )";
  else
    Text(os, obj.GetTimeString());
}

void AsnOstream::DoVisit(const AsnOid& obj, std::ostream& os, unsigned indent) {
  WriteHead(obj, os, indent);
  // The label's spelling is part of the dump format.
  os << "OBJECT IDENTIFER : ";
  Text(os, obj.GetData());
}

void AsnOstream::DoVisit(const AsnEnumerated& obj, std::ostream& os, unsigned indent) {
  WriteHead(obj, os, indent);
  os << "ENUMERATED : " << obj.GetData();
}

void AsnOstream::DoVisit(const AsnBitString& obj, std::ostream& os, unsigned indent) {
  WriteHead(obj, os, indent);
  os << "BIT STRING : ";
  const MiBitSet& bits = obj.GetData();
  if (bits.Empty()) {
    os << "( EMPTY ) ";
    return;
  }
  os << "\n";
  const unsigned shown = bits.GetBitLength() > 128 ? 128 : bits.GetBitLength();
  if (shown == bits.GetBitLength()) {
    bits.ToOstream(os, indent + 1);
  } else {
    MiBitSet head(bits.GetByte(), shown);
    head.ToOstream(os, indent + 1);
    os << "\n";
    WriteIndent(os, indent + 1);
    os << "( more " << bits.GetBitLength() - shown << " bits are absent here )";
  }
}

void AsnOstream::DoVisit(const AsnInteger& obj, std::ostream& os, unsigned indent) {
  WriteHead(obj, os, indent);
  os << "INTEGER : ";
  const MiBigInteger& v = obj.GetData();
  bool ok;
  int64_t n = v.ToInt64(ok);
  if (ok) {
    os << n;
    return;
  }
  // Too wide for 64 bits: the two's-complement octets in hexadecimal.
  static const char hex[] = "0123456789ABCDEF";
  for (unsigned i = 0; i < v.Size(); ++i) {
    if (i) os << ' ';
    os << hex[v.Data()[i] >> 4] << hex[v.Data()[i] & 15];
  }
}

void AsnOstream::DoVisit(const AsnOctetString& obj, std::ostream& os, unsigned indent) {
  WriteHead(obj, os, indent);
  os << "OCTET STRING : ";
  const MiByte& b = obj.GetData();
  if (b.Empty()) {
    os << "( EMPTY )";
    return;
  }
  os << "\n";
  if (b.GetLength() <= 64) {
    b.ToOstream(os, indent + 1);
  } else {
    MiByte head(b.GetChars(), 64);
    head.ToOstream(os, indent + 1);
    os << "\n";
    WriteIndent(os, indent + 1);
    os << "( more " << b.GetLength() - 64 << " bytes are absent here )";
  }
}

void AsnOstream::DoVisit(const AsnBoolean& obj, std::ostream& os, unsigned indent) {
  WriteHead(obj, os, indent);
  os << "BOOLEAN : " << (obj.GetData() ? "true" : "false");
}
