#include "asn1/asn_any.h"

#include <cstring>

namespace {

// A fresh object of the universal primitive class for number, or null.
AsnObject* MakeUniversal(uint32_t number) {
  switch (number) {
    case ASN_TAG_BOOLEAN:
      return new AsnBoolean();
    case ASN_TAG_INTEGER:
      return new AsnInteger();
    case ASN_TAG_BIT_STRING:
      return new AsnBitString();
    case ASN_TAG_OCTET_STRING:
      return new AsnOctetString();
    case ASN_TAG_NULL:
      return new AsnNull();
    case ASN_TAG_OID:
      return new AsnOid();
    case ASN_TAG_ENUMERATED:
      return new AsnEnumerated();
    case ASN_TAG_UTF8_STRING:
      return new AsnUTF8String();
    case ASN_TAG_NUMERIC_STRING:
      return new AsnNumericString();
    case ASN_TAG_PRINTABLE_STRING:
      return new AsnPrintableString();
    case ASN_TAG_TELETEX_STRING:
      return new AsnTeletexString();
    case ASN_TAG_IA5_STRING:
      return new AsnIA5String();
    case ASN_TAG_UTC_TIME:
      return new AsnUTCTime();
    case ASN_TAG_GENERALIZED_TIME:
      return new AsnGeneralizedTime();
    case ASN_TAG_VISIBLE_STRING:
      return new AsnVisibleString();
    case ASN_TAG_UNIVERSAL_STRING:
      return new AsnUniversalString();
    case ASN_TAG_BMP_STRING:
      return new AsnBMPString();
    default:
      return nullptr;
  }
}

}  // namespace

AsnAny::AsnAny() {
  SetAsnAnyType(true);
}

AsnAny::AsnAny(const AsnObject& value) : m_data(value.Clone()) {
  SetAsnAnyType(true);
}

AsnAny::AsnAny(const AsnAny& o) : AsnObject(o), m_data(o.m_data ? o.m_data->Clone() : nullptr) {}

AsnAny& AsnAny::operator=(const AsnAny& o) {
  if (this != &o) {
    AsnObject::operator=(o);
    m_data.reset(o.m_data ? o.m_data->Clone() : nullptr);
  }
  return *this;
}

AsnAny::~AsnAny() = default;

void AsnAny::Reset(const AsnObject* other) {
  if (other == this) return;
  if (!other) {
    m_data.reset();
    return;
  }
  if (const AsnAny* o = dynamic_cast<const AsnAny*>(other)) {
    *this = *o;
    return;
  }
  m_data.reset(other->Clone());
}

bool AsnAny::EqualsContent(const AsnObject* other) const {
  const AsnAny* o = dynamic_cast<const AsnAny*>(other);
  if (!o) return false;
  if (o == this) return true;
  if (!m_data || !o->m_data) return !m_data && !o->m_data;
  MiByteBuffer a, b;
  m_data->DerEncode(a, 0);
  o->m_data->DerEncode(b, 0);
  return a == b;
}

unsigned AsnAny::Encode(AsnEncode& e, MiByteBuffer& out, unsigned pos) const {
  out.SetLength(pos);
  if (GetAsnByteType() == ASN_BYTE_WHOLE && GetSavedByte()) {
    out.Append(*GetSavedByte());
    return GetSavedByte()->GetLength();
  }
  if (!m_data) throw AsnEncodeExp();
  return m_data->Encode(e, out, pos);
}

unsigned AsnAny::EncodeContent(AsnEncode& e, MiByteBuffer& out, unsigned pos) const {
  out.SetLength(pos);
  unsigned written = 0;
  if (kv_asn::EncodeSavedContent(*this, out, pos, written)) return written;
  if (!m_data) throw AsnEncodeExp();
  return m_data->EncodeContent(e, out, pos);
}

unsigned AsnAny::Decode(AsnDecode& d, const MiByte& in, unsigned pos) {
  m_data.reset();
  if (in.GetLength() == 0) throw MiInvalidArgumentExp();
  if (pos >= in.GetLength()) throw MiOutOfRangeExp();
  AsnTag tag;
  const unsigned t = d.DecodeTag(tag, in, pos);
  unsigned length = 0;
  const unsigned l = d.DecodeLength(length, in, pos + t);
  kv_asn::CheckContent(in, pos + t + l, length);
  SetAsnTag(tag);
  if (GetAsnByteType() == ASN_BYTE_WHOLE) {
    SetAsnByte(in.GetChars(), pos, t + l + length);
    return t + l + length;
  }
  if (GetAsnByteType() == ASN_BYTE_CONTENT) {
    SetAsnContentByte(in.GetChars(), pos + t + l, length);
    return t + l + length;
  }
  std::unique_ptr<AsnObject> obj;
  if (tag.tagForm == ASN_TAG_FORM_CONSTRUCTED) {
    std::unique_ptr<AsnSequenceOf<AsnAny>> list(new AsnSequenceOf<AsnAny>());
    unsigned n = list->Decode(d, in, pos);
    if (n != t + l + length) throw AsnDecodeExp();
    obj = std::move(list);
  } else {
    if (tag.tagClass == ASN_TAG_CLASS_UNIVERSAL) {
      std::unique_ptr<AsnObject> typed(MakeUniversal(tag.tagNumber));
      if (typed) {
        try {
          typed->Decode(d, in, pos);
          // Clean only when the value gives back the very content octets.
          MiByteBuffer check;
          unsigned c = typed->DerEncodeContent(check, 0);
          if (c == length && (length == 0 || std::memcmp(check.GetChars(),
                                                         in.GetChars() + pos + t + l, length) == 0))
            obj = std::move(typed);
        } catch (const MiException&) {
          // Falls back to the octets below.
        }
      }
    }
    if (!obj) {
      std::unique_ptr<AsnOctetString> raw(new AsnOctetString());
      raw->SetAsnTag(tag);
      if (length) raw->SetData(in.GetChars(), pos + t + l, length);
      obj = std::move(raw);
    }
  }
  m_data = std::move(obj);
  return t + l + length;
}

unsigned AsnAny::DecodeContent(AsnDecode& d, const MiByte& in, unsigned pos, unsigned length) {
  kv_asn::CheckContent(in, pos, length);
  if (GetAsnByteType() == ASN_BYTE_CONTENT) {
    SetAsnContentByte(in.GetChars(), pos, length);
    return length;
  }
  std::unique_ptr<AsnOctetString> raw(new AsnOctetString());
  raw->SetAsnTag(GetAsnTag());
  raw->DecodeContent(d, in, pos, length);
  m_data = std::move(raw);
  return length;
}

AsnObject* AsnAny::Clone() const {
  return new AsnAny(*this);
}

void AsnAny::ToOstream(std::ostream& os, unsigned indent) const {
  if (!m_data) {
    for (unsigned i = 0; i < indent; ++i) os << "    ";
    if (!GetAsnName().Empty()) os << GetAsnName().GetChars() << "  ";
    os << "ANY : ( EMPTY )";
    return;
  }
  // The held value is shown under this holder's name.
  MiString saved = m_data->GetAsnName();
  m_data->SetAsnName(GetAsnName());
  m_data->ToOstream(os, indent);
  m_data->SetAsnName(saved);
}

void AsnAny::SetData(const AsnObject& value) {
  if (&value == m_data.get()) return;
  m_data.reset(value.Clone());
  SetAsnPresent(true);
}

void AsnAny::SetDataSpace(AsnObject* value) {
  m_data.reset(value);
  if (value) SetAsnPresent(true);
}

MiByte AsnAny::GetEncoded() const {
  if (!m_data) throw AsnEncodeExp();
  MiByteBuffer buf;
  m_data->DerEncode(buf, 0);
  return buf.GetByte();
}

void AsnAny::DecodeInto(AsnObject& target) const {
  MiByte enc = GetEncoded();
  unsigned n = target.DerDecode(enc, 0);
  if (n != enc.GetLength()) throw AsnDecodeExp();
}
