#include "asn1/asn_primitives.h"

#include <cstring>
#include <string>
#include <typeinfo>

#include "asn1/asn_ostream.h"
#include "asn1/internal/asn_dispatch.h"
#include "asn1/internal/asn_text.h"

namespace {

void UniversalTag(AsnObject& o, uint32_t number) {
  o.SetAsnTag(ASN_TAG_CLASS_UNIVERSAL, ASN_TAG_MODE_NONE, ASN_TAG_FORM_PRIMITIVE, number);
}

template <class T>
const T* As(const AsnObject* other) {
  const T* o = dynamic_cast<const T*>(other);
  if (!o) throw MiInvalidArgumentExp();
  return o;
}

}  // namespace

// ---- BOOLEAN ---------------------------------------------------------------

AsnBoolean::AsnBoolean() {
  UniversalTag(*this, ASN_TAG_BOOLEAN);
}
AsnBoolean::AsnBoolean(bool value) : m_value(value) {
  UniversalTag(*this, ASN_TAG_BOOLEAN);
}
AsnBoolean::AsnBoolean(const AsnBoolean& o) : AsnObject(o), m_value(o.m_value) {}
AsnBoolean& AsnBoolean::operator=(const AsnBoolean& o) {
  AsnObject::operator=(o);
  m_value = o.m_value;
  return *this;
}
void AsnBoolean::Reset(const AsnObject* other) {
  if (other == this) return;
  if (!other) {
    m_value = false;
    return;
  }
  *this = *As<AsnBoolean>(other);
}
bool AsnBoolean::EqualsContent(const AsnObject* other) const {
  const AsnBoolean* o = dynamic_cast<const AsnBoolean*>(other);
  return o && o->m_value == m_value;
}
KV_DISPATCH_SLOTS(AsnBoolean)

// ---- INTEGER ---------------------------------------------------------------

AsnInteger::AsnInteger() {
  UniversalTag(*this, ASN_TAG_INTEGER);
}
AsnInteger::AsnInteger(int64_t value) : m_value(value) {
  UniversalTag(*this, ASN_TAG_INTEGER);
}
AsnInteger::AsnInteger(const MiBigInteger& value) : m_value(value) {
  UniversalTag(*this, ASN_TAG_INTEGER);
}
AsnInteger::AsnInteger(const AsnInteger& o) : AsnObject(o), m_value(o.m_value) {}
AsnInteger& AsnInteger::operator=(const AsnInteger& o) {
  AsnObject::operator=(o);
  m_value = o.m_value;
  return *this;
}
void AsnInteger::Reset(const AsnObject* other) {
  if (other == this) return;
  if (!other) {
    m_value = MiBigInteger();
    return;
  }
  *this = *As<AsnInteger>(other);
}
bool AsnInteger::EqualsContent(const AsnObject* other) const {
  const AsnInteger* o = dynamic_cast<const AsnInteger*>(other);
  return o && o->m_value == m_value;
}
KV_DISPATCH_SLOTS(AsnInteger)

// ---- ENUMERATED ------------------------------------------------------------

AsnEnumerated::AsnEnumerated() {
  UniversalTag(*this, ASN_TAG_ENUMERATED);
}
AsnEnumerated::AsnEnumerated(int32_t value) : m_value(value) {
  UniversalTag(*this, ASN_TAG_ENUMERATED);
}
AsnEnumerated::AsnEnumerated(const AsnEnumerated& o) : AsnObject(o), m_value(o.m_value) {}
AsnEnumerated& AsnEnumerated::operator=(const AsnEnumerated& o) {
  AsnObject::operator=(o);
  m_value = o.m_value;
  return *this;
}
void AsnEnumerated::Reset(const AsnObject* other) {
  if (other == this) return;
  if (!other) {
    m_value = 0;
    return;
  }
  *this = *As<AsnEnumerated>(other);
}
bool AsnEnumerated::EqualsContent(const AsnObject* other) const {
  const AsnEnumerated* o = dynamic_cast<const AsnEnumerated*>(other);
  return o && o->m_value == m_value;
}
KV_DISPATCH_SLOTS(AsnEnumerated)

// ---- BIT STRING ------------------------------------------------------------

AsnBitString::AsnBitString() {
  UniversalTag(*this, ASN_TAG_BIT_STRING);
}
AsnBitString::AsnBitString(const MiBitSet& bits) : m_bits(bits) {
  UniversalTag(*this, ASN_TAG_BIT_STRING);
}
AsnBitString::AsnBitString(const AsnBitString& o) : AsnObject(o), m_bits(o.m_bits) {}
AsnBitString& AsnBitString::operator=(const AsnBitString& o) {
  AsnObject::operator=(o);
  m_bits = o.m_bits;
  return *this;
}
void AsnBitString::Reset(const AsnObject* other) {
  if (other == this) return;
  if (!other) {
    m_bits = MiBitSet();
    return;
  }
  *this = *As<AsnBitString>(other);
}
bool AsnBitString::EqualsContent(const AsnObject* other) const {
  const AsnBitString* o = dynamic_cast<const AsnBitString*>(other);
  return o && o->m_bits == m_bits;
}
KV_DISPATCH_SLOTS(AsnBitString)

// ---- OCTET STRING ----------------------------------------------------------

AsnOctetString::AsnOctetString() {
  UniversalTag(*this, ASN_TAG_OCTET_STRING);
}
AsnOctetString::AsnOctetString(const MiByte& bytes) : m_bytes(bytes) {
  UniversalTag(*this, ASN_TAG_OCTET_STRING);
}
AsnOctetString::AsnOctetString(const char* p, unsigned n) {
  UniversalTag(*this, ASN_TAG_OCTET_STRING);
  SetData(p, n);
}
AsnOctetString::AsnOctetString(const AsnOctetString& o) : AsnObject(o), m_bytes(o.m_bytes) {}
AsnOctetString& AsnOctetString::operator=(const AsnOctetString& o) {
  AsnObject::operator=(o);
  m_bytes = o.m_bytes;
  return *this;
}
void AsnOctetString::SetData(const char* p, unsigned n) {
  if (!p || n == 0)
    m_bytes = MiByte();
  else
    m_bytes = MiByte(p, n);
}
void AsnOctetString::SetData(const char* p, unsigned offset, unsigned n) {
  if (!p || n == 0)
    m_bytes = MiByte();
  else
    m_bytes = MiByte(p, offset, n);
}
void AsnOctetString::Reset(const AsnObject* other) {
  if (other == this) return;
  if (!other) {
    m_bytes = MiByte();
    return;
  }
  *this = *As<AsnOctetString>(other);
}
bool AsnOctetString::EqualsContent(const AsnObject* other) const {
  const AsnOctetString* o = dynamic_cast<const AsnOctetString*>(other);
  return o && o->m_bytes.GetLength() == m_bytes.GetLength() &&
         (m_bytes.GetLength() == 0 ||
          std::memcmp(o->m_bytes.GetChars(), m_bytes.GetChars(), m_bytes.GetLength()) == 0);
}
KV_DISPATCH_SLOTS(AsnOctetString)

// ---- NULL ------------------------------------------------------------------

AsnNull::AsnNull() {
  UniversalTag(*this, ASN_TAG_NULL);
}
AsnNull::AsnNull(const AsnNull& o) : AsnObject(o) {}
AsnNull& AsnNull::operator=(const AsnNull& o) {
  AsnObject::operator=(o);
  return *this;
}
void AsnNull::Reset(const AsnObject* other) {
  if (other && other != this) *this = *As<AsnNull>(other);
}
bool AsnNull::EqualsContent(const AsnObject* other) const {
  return dynamic_cast<const AsnNull*>(other) != nullptr;
}
KV_DISPATCH_SLOTS(AsnNull)

// ---- OBJECT IDENTIFIER -----------------------------------------------------

AsnOid::AsnOid() {
  UniversalTag(*this, ASN_TAG_OID);
}
AsnOid::AsnOid(const char* dotted) {
  UniversalTag(*this, ASN_TAG_OID);
  SetData(dotted);
}
AsnOid::AsnOid(const MiString& dotted) : m_text(dotted) {
  UniversalTag(*this, ASN_TAG_OID);
  CacheOctets();
}
AsnOid::AsnOid(const AsnOid& o) : AsnObject(o), m_text(o.m_text) {
  std::memcpy(m_octets, o.m_octets, o.m_octetCount);  // only the octets in use
  m_octetCount = o.m_octetCount;
}
AsnOid& AsnOid::operator=(const AsnOid& o) {
  if (this == &o) return *this;
  AsnObject::operator=(o);
  m_text = o.m_text;
  std::memcpy(m_octets, o.m_octets, o.m_octetCount);
  m_octetCount = o.m_octetCount;
  return *this;
}
void AsnOid::Reset(const AsnObject* other) {
  if (other == this) return;
  if (!other) {
    m_text = MiString();
    m_octetCount = 0;
    return;
  }
  *this = *As<AsnOid>(other);
}
void AsnOid::SetData(const char* dotted) {
  m_text = dotted ? MiString(dotted) : MiString();
  CacheOctets();
}
void AsnOid::SetData(const MiString& dotted) {
  m_text = dotted;
  CacheOctets();
}
void AsnOid::SetDecoded(const char* dotted, const unsigned char* octets, unsigned n) {
  m_text = dotted ? MiString(dotted) : MiString();
  m_octetCount = 0;
  if (octets && n != 0 && n <= kMaxCachedOctets) {
    std::memcpy(m_octets, octets, n);
    m_octetCount = static_cast<uint8_t>(n);
  }
}
// A text that does not encode, or encodes to more octets than are kept,
// leaves them unknown; the encoder then encodes from the text (and raises
// its usual error for a bad one).
void AsnOid::CacheOctets() {
  m_octetCount = 0;
  unsigned char oct[kv_asn::kOidQuickOctets];
  unsigned n = 0;
  if (kv_asn::OidTextToOctetsQuick(m_text.GetChars(), m_text.GetLength(), oct, n) &&
      n <= kMaxCachedOctets) {
    std::memcpy(m_octets, oct, n);
    m_octetCount = static_cast<uint8_t>(n);
  }
}
bool AsnOid::EqualsContent(const AsnObject* other) const {
  const AsnOid* o = dynamic_cast<const AsnOid*>(other);
  return o && o->m_text.Equals(m_text);
}
KV_DISPATCH_SLOTS(AsnOid)

// ---- Narrow strings --------------------------------------------------------

AsnNarrowString::AsnNarrowString(uint32_t tagNumber, TestFn test) : m_test(test) {
  UniversalTag(*this, tagNumber);
}

AsnNarrowString& AsnNarrowString::operator=(const AsnNarrowString& o) {
  AsnObject::operator=(o);
  m_text = o.m_text;
  return *this;
}

void AsnNarrowString::SetData(const char* text) {
  SetData(text, 0, text ? static_cast<unsigned>(std::strlen(text)) : 0);
}

void AsnNarrowString::SetData(const MiString& text) {
  SetData(text.GetChars(), 0, text.GetLength());
}

void AsnNarrowString::SetData(const char* p, unsigned offset, unsigned n) {
  if (!p || n == 0) {
    m_text = MiString();
    return;
  }
  if (!m_test(p, offset, n)) throw MiInvalidArgumentExp();
  m_text = MiString(p, offset, n);
}

void AsnNarrowString::ResetText(const AsnObject* other) {
  const AsnNarrowString* o = dynamic_cast<const AsnNarrowString*>(other);
  if (!o || typeid(*o) != typeid(*this)) throw MiInvalidArgumentExp();
  *this = *o;
}

bool AsnNarrowString::EqualsText(const AsnObject* other) const {
  const AsnNarrowString* o = dynamic_cast<const AsnNarrowString*>(other);
  return o && typeid(*o) == typeid(*this) && o->m_text.GetLength() == m_text.GetLength() &&
         (m_text.GetLength() == 0 ||
          std::memcmp(o->m_text.GetChars(), m_text.GetChars(), m_text.GetLength()) == 0);
}

namespace {

bool TestNumeric(const char* p, unsigned offset, unsigned n) {
  if (!p || n == 0) return false;
  for (unsigned i = offset; i < offset + n; ++i)
    if (!((p[i] >= '0' && p[i] <= '9') || p[i] == ' ')) return false;
  return true;
}

bool TestPrintable(const char* p, unsigned offset, unsigned n) {
  if (!p || n == 0) return false;
  // The grave accent stands where the apostrophe would be, and '@' is
  // accepted: this is the toolkit's character set.
  static const char extra[] = " `()+,-./:=?@";
  for (unsigned i = offset; i < offset + n; ++i) {
    char c = p[i];
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) continue;
    if (c == 0 || !std::strchr(extra, c)) return false;
  }
  return true;
}

bool TestAny(const char* p, unsigned, unsigned n) {
  return p && n != 0;
}

bool TestVisible(const char* p, unsigned offset, unsigned n) {
  if (!p || n == 0) return false;
  for (unsigned i = offset; i < offset + n; ++i) {
    signed char c = static_cast<signed char>(p[i]);
    if (c < 0x20 || c == 0x7F) return false;
  }
  return true;
}

}  // namespace

#define KV_NARROW_IMPL(Name, Tag, Test)                                     \
  Name::Name() : AsnNarrowString(Tag, Test) {}                              \
  Name::Name(const char* text) : AsnNarrowString(Tag, Test) {               \
    SetData(text);                                                          \
  }                                                                         \
  Name::Name(const MiString& text) : AsnNarrowString(Tag, Test) {           \
    SetData(text);                                                          \
  }                                                                         \
  Name::Name(const Name& o) : AsnNarrowString(o) {}                         \
  Name& Name::operator=(const Name& o) {                                    \
    AsnNarrowString::operator=(o);                                          \
    return *this;                                                           \
  }                                                                         \
  void Name::Reset(const AsnObject* other) {                                \
    if (other == this) return;                                              \
    if (!other) {                                                           \
      AsnNarrowString::SetData(static_cast<const char*>(nullptr));          \
      return;                                                               \
    }                                                                       \
    ResetText(other);                                                       \
  }                                                                         \
  bool Name::EqualsContent(const AsnObject* other) const {                  \
    return EqualsText(other);                                               \
  }                                                                         \
  bool Name::TestData(const char* text) {                                   \
    return text && Test(text, 0, static_cast<unsigned>(std::strlen(text))); \
  }                                                                         \
  bool Name::TestData(const char* p, unsigned offset, unsigned n) {         \
    return Test(p, offset, n);                                              \
  }                                                                         \
  KV_DISPATCH_SLOTS(Name)

KV_NARROW_IMPL(AsnNumericString, ASN_TAG_NUMERIC_STRING, TestNumeric)
KV_NARROW_IMPL(AsnPrintableString, ASN_TAG_PRINTABLE_STRING, TestPrintable)
KV_NARROW_IMPL(AsnTeletexString, ASN_TAG_TELETEX_STRING, TestAny)
KV_NARROW_IMPL(AsnIA5String, ASN_TAG_IA5_STRING, TestAny)
KV_NARROW_IMPL(AsnVisibleString, ASN_TAG_VISIBLE_STRING, TestVisible)
#undef KV_NARROW_IMPL

// ---- Wide strings ----------------------------------------------------------

AsnWideString::AsnWideString(uint32_t tagNumber, TestFn test) : m_test(test) {
  UniversalTag(*this, tagNumber);
}

AsnWideString& AsnWideString::operator=(const AsnWideString& o) {
  AsnObject::operator=(o);
  m_chars = o.m_chars;
  return *this;
}

uint32_t AsnWideString::GetCode(unsigned i) const {
  if (i >= m_chars.size()) throw MiOutOfRangeExp();
  return m_chars[i].Code();
}

MiByte AsnWideString::GetByte() const {
  if (m_chars.empty()) return MiByte();
  return MiByte(reinterpret_cast<const char*>(m_chars.data()),
                static_cast<unsigned>(4 * m_chars.size()));
}

MiString AsnWideString::GetVisibleString() const {
  std::string s;
  for (const AsnQuadruple& q : m_chars) {
    uint32_t c = q.Code();
    if (c >= 32 && c <= 126) s.push_back(static_cast<char>(c));
  }
  return MiString(s.c_str());
}

MiString AsnWideString::GetUtf8() const {
  std::string s;
  for (const AsnQuadruple& q : m_chars) kv_asn::AppendUtf8(s, q.Code());
  if (s.empty()) return MiString();
  return MiString(s.data(), 0, static_cast<unsigned>(s.size()));
}

void AsnWideString::SetData(const AsnQuadruple* chars, unsigned count) {
  if (!chars || count == 0) {
    m_chars.clear();
    return;
  }
  SetData(reinterpret_cast<const char*>(chars), 0, 4 * count);
}

void AsnWideString::SetData(const MiByte& bytes) {
  SetData(bytes.GetChars(), 0, bytes.GetLength());
}

void AsnWideString::SetData(const char* p, unsigned offset, unsigned n) {
  if (!p || n == 0) {
    m_chars.clear();
    return;
  }
  if (!m_test(p, offset, n)) throw MiInvalidArgumentExp();
  std::vector<AsnQuadruple> chars(n / 4);
  std::memcpy(chars.data(), p + offset, n);
  m_chars.swap(chars);
}

void AsnWideString::SetUtf8(const char* text) {
  std::vector<uint32_t> codes;
  unsigned n = text ? static_cast<unsigned>(std::strlen(text)) : 0;
  if (!kv_asn::Utf8ToCodes(reinterpret_cast<const unsigned char*>(text), n, codes))
    throw MiInvalidArgumentExp();
  std::vector<AsnQuadruple> q(codes.size());
  for (size_t i = 0; i < codes.size(); ++i) q[i] = AsnQuadruple(codes[i]);
  SetData(q.empty() ? nullptr : q.data(), static_cast<unsigned>(q.size()));
}

void AsnWideString::ResetChars(const AsnObject* other) {
  const AsnWideString* o = dynamic_cast<const AsnWideString*>(other);
  if (!o || typeid(*o) != typeid(*this)) throw MiInvalidArgumentExp();
  *this = *o;
}

bool AsnWideString::EqualsChars(const AsnObject* other) const {
  const AsnWideString* o = dynamic_cast<const AsnWideString*>(other);
  return o && typeid(*o) == typeid(*this) && o->m_chars == m_chars;
}

namespace {

// Four-octet groups with the first octet below 0x80.
bool TestUniversal(const char* p, unsigned offset, unsigned n) {
  if (!p || n == 0 || n % 4) return false;
  for (unsigned i = offset; i < offset + n; i += 4)
    if (static_cast<unsigned char>(p[i]) >= 0x80) return false;
  return true;
}

// Four-octet groups with the first two octets zero.
bool TestBmp(const char* p, unsigned offset, unsigned n) {
  if (!p || n == 0 || n % 4) return false;
  for (unsigned i = offset; i < offset + n; i += 4)
    if (p[i] != 0 || p[i + 1] != 0) return false;
  return true;
}

}  // namespace

#define KV_WIDE_IMPL(Name, Tag, Test)                                                \
  Name::Name() : AsnWideString(Tag, Test) {}                                         \
  Name::Name(const AsnQuadruple* chars, unsigned count) : AsnWideString(Tag, Test) { \
    SetData(chars, count);                                                           \
  }                                                                                  \
  Name::Name(const MiByte& bytes) : AsnWideString(Tag, Test) {                       \
    SetData(bytes);                                                                  \
  }                                                                                  \
  Name::Name(const Name& o) : AsnWideString(o) {}                                    \
  Name& Name::operator=(const Name& o) {                                             \
    AsnWideString::operator=(o);                                                     \
    return *this;                                                                    \
  }                                                                                  \
  void Name::Reset(const AsnObject* other) {                                         \
    if (other == this) return;                                                       \
    if (!other) {                                                                    \
      AsnWideString::SetData(static_cast<const AsnQuadruple*>(nullptr), 0);          \
      return;                                                                        \
    }                                                                                \
    ResetChars(other);                                                               \
  }                                                                                  \
  bool Name::EqualsContent(const AsnObject* other) const {                           \
    return EqualsChars(other);                                                       \
  }                                                                                  \
  bool Name::TestData(const AsnQuadruple* chars, unsigned count) {                   \
    return chars && Test(reinterpret_cast<const char*>(chars), 0, 4 * count);        \
  }                                                                                  \
  bool Name::TestData(const char* p, unsigned offset, unsigned n) {                  \
    return Test(p, offset, n);                                                       \
  }                                                                                  \
  bool Name::TestData(const MiByte& b) {                                             \
    return Test(b.GetChars(), 0, b.GetLength());                                     \
  }                                                                                  \
  KV_DISPATCH_SLOTS(Name)

KV_WIDE_IMPL(AsnUTF8String, ASN_TAG_UTF8_STRING, TestUniversal)
KV_WIDE_IMPL(AsnUniversalString, ASN_TAG_UNIVERSAL_STRING, TestUniversal)
KV_WIDE_IMPL(AsnBMPString, ASN_TAG_BMP_STRING, TestBmp)
#undef KV_WIDE_IMPL

// ---- Times -----------------------------------------------------------------

namespace {

int Num(const char* p, unsigned n) {
  int v = 0;
  for (unsigned i = 0; i < n; ++i) v = v * 10 + (p[i] - '0');
  return v;
}

bool AllDigits(const char* p, unsigned n) {
  for (unsigned i = 0; i < n; ++i)
    if (p[i] < '0' || p[i] > '9') return false;
  return true;
}

// "+hhmm" / "-hhmm" at p: offset in seconds east of UTC.
bool ParseOffset(const char* p, int64_t& seconds) {
  if (p[0] != '+' && p[0] != '-') return false;
  if (!MiTime::TestHourString(p + 1, 2) || !MiTime::TestMinuteOrSecondString(p + 3, 2))
    return false;
  seconds = (Num(p + 1, 2) * 3600 + Num(p + 3, 2) * 60) * (p[0] == '-' ? -1 : 1);
  return true;
}

// Date and time fields starting with a year of yearDigits digits; seconds
// optional. Fills t; false when a field is impossible.
bool ParseFields(const char* p, unsigned yearDigits, bool withSeconds, MiTime& t) {
  unsigned n = yearDigits + 8 + (withSeconds ? 2 : 0);
  if (!AllDigits(p, n)) return false;
  if (!MiTime::TestYearString(p, yearDigits)) return false;
  int year = Num(p, yearDigits);
  if (yearDigits == 2) year += year >= 50 ? 1900 : 2000;
  const char* q = p + yearDigits;
  if (!MiTime::TestMonthString(q, 2)) return false;
  int month = Num(q, 2);
  if (!MiTime::TestDayString(q + 2, 2, year, month)) return false;
  if (!MiTime::TestHourString(q + 4, 2) || !MiTime::TestMinuteOrSecondString(q + 6, 2))
    return false;
  int second = 0;
  if (withSeconds) {
    if (!MiTime::TestMinuteOrSecondString(q + 8, 2)) return false;
    second = Num(q + 8, 2);
  }
  t.SetTime(year, month, Num(q + 2, 2), Num(q + 4, 2), Num(q + 6, 2), second);
  return true;
}

void ApplyOffset(MiTime& t, int64_t offsetSeconds) {
  try {
    t.AddSeconds(-offsetSeconds);
  } catch (const MiException&) {
    throw AsnDataExp();
  }
}

}  // namespace

AsnUTCTime::AsnUTCTime() {
  UniversalTag(*this, ASN_TAG_UTC_TIME);
}
AsnUTCTime::AsnUTCTime(const MiTime& time) : m_time(time) {
  UniversalTag(*this, ASN_TAG_UTC_TIME);
}
AsnUTCTime::AsnUTCTime(const char* text) {
  UniversalTag(*this, ASN_TAG_UTC_TIME);
  SetTime(text);
}
AsnUTCTime::AsnUTCTime(const AsnUTCTime& o) : AsnObject(o), m_time(o.m_time) {}
AsnUTCTime& AsnUTCTime::operator=(const AsnUTCTime& o) {
  AsnObject::operator=(o);
  m_time = o.m_time;
  return *this;
}

void AsnUTCTime::SetTime(const char* text) {
  m_time.Clear();
  const unsigned n = text ? static_cast<unsigned>(std::strlen(text)) : 0;
  if (n < 10) throw AsnDataExp();
  bool seconds;
  int64_t offset = 0;
  switch (n) {
    case 11:
    case 13:
      seconds = n == 13;
      if (text[n - 1] != 'Z') throw AsnDataExp();
      break;
    case 15:
    case 17:
      seconds = n == 17;
      if (!ParseOffset(text + n - 5, offset)) throw AsnDataExp();
      break;
    default:
      throw AsnDataExp();
  }
  MiTime t;
  if (!ParseFields(text, 2, seconds, t)) throw AsnDataExp();
  ApplyOffset(t, offset);
  m_time = t;
}

MiString AsnUTCTime::GetTimeString() const {
  return m_time.GetTimeString("YYMMDDhhmmssZ");
}

void AsnUTCTime::Reset(const AsnObject* other) {
  if (other == this) return;
  if (!other) {
    m_time.Clear();
    return;
  }
  *this = *As<AsnUTCTime>(other);
}
bool AsnUTCTime::EqualsContent(const AsnObject* other) const {
  const AsnUTCTime* o = dynamic_cast<const AsnUTCTime*>(other);
  return o && o->m_time == m_time;
}
KV_DISPATCH_SLOTS(AsnUTCTime)

AsnGeneralizedTime::AsnGeneralizedTime() {
  UniversalTag(*this, ASN_TAG_GENERALIZED_TIME);
}
AsnGeneralizedTime::AsnGeneralizedTime(const MiTime& time) : m_time(time) {
  UniversalTag(*this, ASN_TAG_GENERALIZED_TIME);
}
AsnGeneralizedTime::AsnGeneralizedTime(const char* text) {
  UniversalTag(*this, ASN_TAG_GENERALIZED_TIME);
  SetTime(text);
}
AsnGeneralizedTime::AsnGeneralizedTime(const AsnGeneralizedTime& o)
    : AsnObject(o), m_time(o.m_time), m_frac(o.m_frac) {}
AsnGeneralizedTime& AsnGeneralizedTime::operator=(const AsnGeneralizedTime& o) {
  AsnObject::operator=(o);
  m_time = o.m_time;
  m_frac = o.m_frac;
  return *this;
}

void AsnGeneralizedTime::SetTime(const char* text) {
  m_time.Clear();
  m_frac = MiString();
  const unsigned n = text ? static_cast<unsigned>(std::strlen(text)) : 0;
  if (n < 14) throw AsnDataExp();
  MiTime t;
  if (!ParseFields(text, 4, true, t)) throw AsnDataExp();
  unsigned i = 14;
  std::string frac;
  if (i < n && text[i] == '.') {
    ++i;
    while (i < n && text[i] >= '0' && text[i] <= '9') frac.push_back(text[i++]);
    if (frac.empty()) throw AsnDataExp();
  }
  int64_t offset = 0;
  if (i < n) {
    if (text[i] == 'Z' && i + 1 == n) {
      // UTC
    } else if (i + 5 == n && ParseOffset(text + i, offset)) {
      // offset applied below
    } else {
      throw AsnDataExp();
    }
  }
  ApplyOffset(t, offset);
  m_time = t;
  if (!frac.empty()) m_frac = MiString(frac.c_str());
}

MiString AsnGeneralizedTime::GetTimeString() const {
  MiString s = m_time.GetTimeString("YYYYMMDDhhmmss");
  if (!m_frac.Empty()) {
    s.Concat(".");
    s.Concat(m_frac);
  }
  s.Concat("Z");
  return s;
}

void AsnGeneralizedTime::SetFracSecond(const char* digits) {
  const unsigned n = digits ? static_cast<unsigned>(std::strlen(digits)) : 0;
  if (n == 0) {
    m_frac = MiString();
    return;
  }
  if (!AllDigits(digits, n)) throw AsnDataExp();
  m_frac = MiString(digits);
}

void AsnGeneralizedTime::SetFracSecond(const MiString& digits) {
  SetFracSecond(digits.Empty() ? nullptr : digits.GetChars());
}

void AsnGeneralizedTime::SetCurrentTime() {
  m_time = MiTime::Now();
  m_frac = MiString();
}

void AsnGeneralizedTime::Reset(const AsnObject* other) {
  if (other == this) return;
  if (!other) {
    m_time.Clear();
    m_frac = MiString();
    return;
  }
  *this = *As<AsnGeneralizedTime>(other);
}
bool AsnGeneralizedTime::EqualsContent(const AsnObject* other) const {
  const AsnGeneralizedTime* o = dynamic_cast<const AsnGeneralizedTime*>(other);
  return o && o->m_time == m_time && o->m_frac.Equals(m_frac);
}
KV_DISPATCH_SLOTS(AsnGeneralizedTime)
