// Primitive ASN.1 types: the leaf classes of the object model. Each sets its
// universal tag in its constructors and dispatches to the visitors.
#pragma once

#include <cstdint>
#include <vector>

#include "asn1/asn_der.h"
#include "asn1/asn_object.h"
#include "asn1/mi_biginteger.h"
#include "asn1/mi_bitset.h"
#include "asn1/mi_time.h"

// The virtual slots every concrete class implements.
#define KV_ASN_OBJECT_SLOTS                                                                       \
  void Reset(const AsnObject* other) override;                                                    \
  bool EqualsContent(const AsnObject* other) const override;                                      \
  unsigned Encode(AsnEncode& e, MiByteBuffer& out, unsigned pos) const override;                  \
  unsigned EncodeContent(AsnEncode& e, MiByteBuffer& out, unsigned pos) const override;           \
  unsigned Decode(AsnDecode& d, const MiByte& in, unsigned pos) override;                         \
  unsigned DecodeContent(AsnDecode& d, const MiByte& in, unsigned pos, unsigned length) override; \
  AsnObject* Clone() const override;                                                              \
  void ToOstream(std::ostream& os, unsigned indent) const override;

class AsnBoolean : public AsnObject {
 public:
  AsnBoolean();
  explicit AsnBoolean(bool value);
  AsnBoolean(const AsnBoolean& other);
  AsnBoolean& operator=(const AsnBoolean& other);
  KV_ASN_OBJECT_SLOTS
  bool GetData() const { return m_value; }
  void SetData(bool value) { m_value = value; }

 private:
  bool m_value = false;
};

class AsnInteger : public AsnObject {
 public:
  AsnInteger();
  explicit AsnInteger(int64_t value);
  explicit AsnInteger(const MiBigInteger& value);
  AsnInteger(const AsnInteger& other);
  AsnInteger& operator=(const AsnInteger& other);
  KV_ASN_OBJECT_SLOTS
  const MiBigInteger& GetData() const { return m_value; }
  void SetData(const MiBigInteger& value) { m_value = value; }
  void SetInt64(int64_t value) { m_value.SetInt64(value); }
  int64_t GetInt64(bool& ok) const { return m_value.ToInt64(ok); }
  // The value when it fits 32 bits, else 0.
  int32_t Int32Value() const { return m_value.Int32Value(); }

 private:
  MiBigInteger m_value;
};

class AsnEnumerated : public AsnObject {
 public:
  AsnEnumerated();
  explicit AsnEnumerated(int32_t value);
  AsnEnumerated(const AsnEnumerated& other);
  AsnEnumerated& operator=(const AsnEnumerated& other);
  KV_ASN_OBJECT_SLOTS
  int32_t GetData() const { return m_value; }
  void SetData(int32_t value) { m_value = value; }

 private:
  int32_t m_value = 0;
};

class AsnBitString : public AsnObject {
 public:
  AsnBitString();
  explicit AsnBitString(const MiBitSet& bits);
  AsnBitString(const AsnBitString& other);
  AsnBitString& operator=(const AsnBitString& other);
  KV_ASN_OBJECT_SLOTS
  const MiBitSet& GetData() const { return m_bits; }
  void SetData(const MiBitSet& bits) { m_bits = bits; }

 private:
  MiBitSet m_bits;
};

class AsnOctetString : public AsnObject {
 public:
  AsnOctetString();
  explicit AsnOctetString(const MiByte& bytes);
  AsnOctetString(const char* p, unsigned n);
  AsnOctetString(const AsnOctetString& other);
  AsnOctetString& operator=(const AsnOctetString& other);
  KV_ASN_OBJECT_SLOTS
  const MiByte& GetData() const { return m_bytes; }
  void SetData(const MiByte& bytes) { m_bytes = bytes; }
  void SetData(const char* p, unsigned n);
  void SetData(const char* p, unsigned offset, unsigned n);

 private:
  MiByte m_bytes;
};

class AsnNull : public AsnObject {
 public:
  AsnNull();
  AsnNull(const AsnNull& other);
  AsnNull& operator=(const AsnNull& other);
  KV_ASN_OBJECT_SLOTS
};

// OBJECT IDENTIFIER held as dotted decimal text; checked when encoded.
class AsnOid : public AsnObject {
 public:
  AsnOid();
  explicit AsnOid(const char* dotted);
  explicit AsnOid(const MiString& dotted);
  AsnOid(const AsnOid& other);
  AsnOid& operator=(const AsnOid& other);
  KV_ASN_OBJECT_SLOTS
  const MiString& GetData() const { return m_text; }
  void SetData(const char* dotted);
  void SetData(const MiString& dotted);
  // The content octets the text encodes to when they are known (short valid
  // identifiers, set from text or decoded in minimal form), else null: the
  // encoder then works them out from the text.
  const unsigned char* GetContentOctets(unsigned& n) const {
    n = m_octetCount;
    return m_octetCount ? m_octets : nullptr;
  }
  // The decoder's setter: the text and the content octets it was read from,
  // which must be exactly what the text encodes to (null when not known).
  void SetDecoded(const char* dotted, const unsigned char* octets, unsigned n);

 private:
  void CacheOctets();

  // Re-encoding from dotted text on every write is costly, so the octets of
  // short identifiers (those of names, extensions and the common algorithms)
  // are kept beside the text; every change of the text renews them. Placed
  // first, the octets fill the base object's tail padding, so the object
  // stays in the allocation size class it has without them.
  static constexpr unsigned kMaxCachedOctets = 13;
  unsigned char m_octets[kMaxCachedOctets];
  uint8_t m_octetCount = 0;  // 0: not known
  MiString m_text;
};

// The narrow character-string types share this holder; each class has its own
// character rule (TestData) applied by SetData and therefore by decoding.
class AsnNarrowString : public AsnObject {
 public:
  const MiString& GetData() const { return m_text; }
  // Null or empty text stores an empty value; a text that fails the class's
  // rule raises MiInvalidArgumentExp and leaves the value unchanged.
  void SetData(const char* text);
  void SetData(const char* p, unsigned offset, unsigned n);
  void SetData(const MiString& text);

 protected:
  typedef bool (*TestFn)(const char* p, unsigned offset, unsigned n);
  AsnNarrowString(uint32_t tagNumber, TestFn test);
  AsnNarrowString(const AsnNarrowString& other) = default;
  AsnNarrowString& operator=(const AsnNarrowString& other);
  void ResetText(const AsnObject* other);
  bool EqualsText(const AsnObject* other) const;

 private:
  MiString m_text;
  TestFn m_test;
};

#define KV_ASN_NARROW_STRING(Name)                                    \
  class Name : public AsnNarrowString {                               \
   public:                                                            \
    Name();                                                           \
    explicit Name(const char* text);                                  \
    explicit Name(const MiString& text);                              \
    Name(const Name& other);                                          \
    Name& operator=(const Name& other);                               \
    KV_ASN_OBJECT_SLOTS                                               \
    static bool TestData(const char* text);                           \
    static bool TestData(const char* p, unsigned offset, unsigned n); \
  };

KV_ASN_NARROW_STRING(AsnNumericString)
KV_ASN_NARROW_STRING(AsnPrintableString)
KV_ASN_NARROW_STRING(AsnTeletexString)
KV_ASN_NARROW_STRING(AsnIA5String)
KV_ASN_NARROW_STRING(AsnVisibleString)
#undef KV_ASN_NARROW_STRING

// One character code of a wide string, big-endian: group is the most
// significant octet.
struct AsnQuadruple {
  unsigned char group = 0, plane = 0, row = 0, cell = 0;
  AsnQuadruple() = default;
  explicit AsnQuadruple(uint32_t code)
      : group(static_cast<unsigned char>(code >> 24)),
        plane(static_cast<unsigned char>(code >> 16)),
        row(static_cast<unsigned char>(code >> 8)),
        cell(static_cast<unsigned char>(code)) {}
  uint32_t Code() const {
    return (uint32_t(group) << 24) | (uint32_t(plane) << 16) | (uint32_t(row) << 8) | cell;
  }
  bool operator==(const AsnQuadruple& o) const { return Code() == o.Code(); }
};

static_assert(sizeof(AsnQuadruple) == 4, "four octets per character");

// The wide character-string types (UTF8String, UniversalString, BMPString)
// hold 32-bit character codes; a MiByte given to or taken from them carries
// four octets per character, big-endian.
class AsnWideString : public AsnObject {
 public:
  unsigned GetCount() const { return static_cast<unsigned>(m_chars.size()); }
  const AsnQuadruple* GetQuadruples() const { return m_chars.empty() ? nullptr : &m_chars[0]; }
  uint32_t GetCode(unsigned i) const;  // MiOutOfRangeExp past the end
  // The four-octet layout.
  MiByte GetByte() const;
  // The characters with codes 32..126; the others are dropped.
  MiString GetVisibleString() const;
  // The text in UTF-8.
  MiString GetUtf8() const;

  // Each raises MiInvalidArgumentExp when the class's rule refuses the data
  // (value unchanged); null or zero length stores an empty value.
  void SetData(const AsnQuadruple* chars, unsigned count);
  void SetData(const MiByte& fourOctetLayout);
  void SetData(const char* p, unsigned offset, unsigned n);  // four-octet layout
  // Convenience: UTF-8 text (MiInvalidArgumentExp when malformed).
  void SetUtf8(const char* text);

 protected:
  typedef bool (*TestFn)(const char* p, unsigned offset, unsigned n);
  AsnWideString(uint32_t tagNumber, TestFn test);
  AsnWideString(const AsnWideString& other) = default;
  AsnWideString& operator=(const AsnWideString& other);
  void ResetChars(const AsnObject* other);
  bool EqualsChars(const AsnObject* other) const;
  void SetCodes(std::vector<AsnQuadruple>&& chars) { m_chars.swap(chars); }

 private:
  std::vector<AsnQuadruple> m_chars;
  TestFn m_test;
};

#define KV_ASN_WIDE_STRING(Name)                                      \
  class Name : public AsnWideString {                                 \
   public:                                                            \
    Name();                                                           \
    Name(const AsnQuadruple* chars, unsigned count);                  \
    explicit Name(const MiByte& fourOctetLayout);                     \
    Name(const Name& other);                                          \
    Name& operator=(const Name& other);                               \
    KV_ASN_OBJECT_SLOTS                                               \
    static bool TestData(const AsnQuadruple* chars, unsigned count);  \
    static bool TestData(const char* p, unsigned offset, unsigned n); \
    static bool TestData(const MiByte& fourOctetLayout);              \
  };

KV_ASN_WIDE_STRING(AsnUTF8String)
KV_ASN_WIDE_STRING(AsnUniversalString)
KV_ASN_WIDE_STRING(AsnBMPString)
#undef KV_ASN_WIDE_STRING

class AsnUTCTime : public AsnObject {
 public:
  AsnUTCTime();
  explicit AsnUTCTime(const MiTime& time);
  explicit AsnUTCTime(const char* text);
  AsnUTCTime(const AsnUTCTime& other);
  AsnUTCTime& operator=(const AsnUTCTime& other);
  KV_ASN_OBJECT_SLOTS
  const MiTime& GetTime() const { return m_time; }
  void SetTime(const MiTime& time) { m_time = time; }
  // "YYMMDDhhmm" or "YYMMDDhhmmss", then "Z" or "+hhmm"/"-hhmm" (applied to
  // reach UTC); years 50-99 are 19xx, 00-49 20xx. AsnDataExp when malformed
  // (the time is cleared first).
  void SetTime(const char* text);
  // "YYMMDDhhmmssZ".
  MiString GetTimeString() const;

 private:
  MiTime m_time;
};

class AsnGeneralizedTime : public AsnObject {
 public:
  AsnGeneralizedTime();
  explicit AsnGeneralizedTime(const MiTime& time);
  explicit AsnGeneralizedTime(const char* text);
  AsnGeneralizedTime(const AsnGeneralizedTime& other);
  AsnGeneralizedTime& operator=(const AsnGeneralizedTime& other);
  KV_ASN_OBJECT_SLOTS
  const MiTime& GetTime() const { return m_time; }
  void SetTime(const MiTime& time) { m_time = time; }
  // "YYYYMMDDhhmmss", an optional ".fraction" (kept), then "Z", an offset
  // "+hhmm"/"-hhmm" (applied to reach UTC) or nothing (taken as UTC).
  // AsnDataExp when malformed (time and fraction cleared first).
  void SetTime(const char* text);
  // "YYYYMMDDhhmmss", "." and the fraction when there is one, "Z".
  MiString GetTimeString() const;
  const MiString& GetFracSecond() const { return m_frac; }
  // Digits only (AsnDataExp otherwise); null or empty clears the fraction.
  void SetFracSecond(const char* digits);
  void SetFracSecond(const MiString& digits);
  void SetCurrentTime();

 private:
  MiTime m_time;
  MiString m_frac;
};
