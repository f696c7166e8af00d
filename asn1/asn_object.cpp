#include "asn1/asn_object.h"

#include "asn1/asn_der.h"

AsnObject::AsnObject(const AsnObject& other) : MiObject() {
  SetAsnBaseData(&other);
}

AsnObject& AsnObject::operator=(const AsnObject& other) {
  if (this != &other) SetAsnBaseData(&other);
  return *this;
}

AsnObject::~AsnObject() = default;

void AsnObject::SetAsnByte(const MiByte* bytes) {
  m_saved.reset();
  if (!bytes) return;
  m_saved.reset(new MiByte(*bytes));
  m_byteType = ASN_BYTE_WHOLE;
}

void AsnObject::SetAsnByte(const char* p, unsigned offset, unsigned n) {
  m_saved.reset();
  if (!p) return;
  m_saved.reset(new MiByte(p, offset, n));
  m_byteType = ASN_BYTE_WHOLE;
}

void AsnObject::SetAsnContentByte(const MiByte* bytes) {
  m_saved.reset();
  if (!bytes) return;
  m_saved.reset(new MiByte(*bytes));
  m_byteType = ASN_BYTE_CONTENT;
}

void AsnObject::SetAsnContentByte(const char* p, unsigned offset, unsigned n) {
  m_saved.reset();
  if (!p) return;
  m_saved.reset(new MiByte(p, offset, n));
  m_byteType = ASN_BYTE_CONTENT;
}

void AsnObject::SetAsnBaseData(const AsnObject* other) {
  if (!other || other == this) return;
  m_name = other->m_name;
  m_tag = other->m_tag;
  m_present = other->m_present;
  m_anyType = other->m_anyType;
  m_state = other->m_state;
  m_byteType = other->m_byteType;
  m_saved.reset(other->m_saved ? new MiByte(*other->m_saved) : nullptr);
}

void AsnObject::SetAsnValue(const AsnObject* value) {
  if (!value) throw MiInvalidArgumentExp();
  if (value != this) {
    MiString name = m_name;
    AsnTag tag = m_tag;
    ASN_STATE state = m_state;
    bool anyType = m_anyType;
    Reset(value);
    m_name = name;
    m_tag = tag;
    m_state = state;
    m_anyType = anyType;
  }
  m_present = true;
}

bool AsnObject::Equals(const AsnObject* other) const {
  if (!other) throw MiInvalidArgumentExp();
  return EqualsContent(other) && m_name.Equals(other->m_name) && m_tag == other->m_tag &&
         m_state == other->m_state && m_present == other->m_present;
}

unsigned AsnObject::DerEncode(MiByteBuffer& out, unsigned pos) const {
  AsnDerEncode enc;
  return Encode(enc, out, pos);
}

unsigned AsnObject::DerEncodeContent(MiByteBuffer& out, unsigned pos) const {
  AsnDerEncode enc;
  return EncodeContent(enc, out, pos);
}

unsigned AsnObject::DerDecode(const MiByte& in, unsigned pos) {
  AsnDerDecode dec;
  return Decode(dec, in, pos);
}

unsigned AsnObject::DerDecodeContent(const MiByte& in, unsigned pos, unsigned length) {
  AsnDerDecode dec;
  return DecodeContent(dec, in, pos, length);
}

std::ostream& operator<<(std::ostream& os, const AsnObject& obj) {
  obj.ToOstream(os, 0);
  return os;
}
