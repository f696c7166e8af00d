// The root of the ASN.1 object model: tags and the AsnObject base class that
// every ASN.1 value derives from. Encoding rules are not written into the
// types: each object dispatches to a visitor (AsnEncode/AsnDecode).
#pragma once

#include <cstdint>
#include <memory>
#include <ostream>

#include "asn1/mi_byte.h"
#include "asn1/mi_byte_buffer.h"
#include "asn1/mi_exception.h"
#include "asn1/mi_object.h"
#include "asn1/mi_string.h"

class AsnEncode;
class AsnDecode;

// Identifier-octet class bits.
typedef uint32_t ASN_TAG_CLASS;
const ASN_TAG_CLASS ASN_TAG_CLASS_UNIVERSAL = 0x00;
const ASN_TAG_CLASS ASN_TAG_CLASS_APPLICATION = 0x40;
const ASN_TAG_CLASS ASN_TAG_CLASS_CONTEXT = 0x80;
const ASN_TAG_CLASS ASN_TAG_CLASS_PRIVATE = 0xC0;

typedef uint32_t ASN_TAG_MODE;
const ASN_TAG_MODE ASN_TAG_MODE_NONE = 0;
const ASN_TAG_MODE ASN_TAG_MODE_IMPLICIT = 1;
const ASN_TAG_MODE ASN_TAG_MODE_EXPLICIT = 2;

// Identifier-octet form bit.
typedef uint32_t ASN_TAG_FORM;
const ASN_TAG_FORM ASN_TAG_FORM_PRIMITIVE = 0x00;
const ASN_TAG_FORM ASN_TAG_FORM_CONSTRUCTED = 0x20;

typedef uint32_t ASN_BYTE_TYPE;
const ASN_BYTE_TYPE ASN_BYTE_NONE = 0;     // saved encoding not used
const ASN_BYTE_TYPE ASN_BYTE_CONTENT = 1;  // saved encoding holds the content octets
const ASN_BYTE_TYPE ASN_BYTE_WHOLE = 2;    // saved encoding holds identifier, length, content

typedef uint32_t ASN_STATE;
const ASN_STATE ASN_STATE_MANDATORY = 0;
const ASN_STATE ASN_STATE_OPTIONAL = 1;
const ASN_STATE ASN_STATE_DEFAULT = 2;

// Universal tag numbers.
enum : uint32_t {
  ASN_TAG_BOOLEAN = 1,
  ASN_TAG_INTEGER = 2,
  ASN_TAG_BIT_STRING = 3,
  ASN_TAG_OCTET_STRING = 4,
  ASN_TAG_NULL = 5,
  ASN_TAG_OID = 6,
  ASN_TAG_INSTANCE_OF = 8,
  ASN_TAG_ENUMERATED = 10,
  ASN_TAG_UTF8_STRING = 12,
  ASN_TAG_SEQUENCE = 16,
  ASN_TAG_SET = 17,
  ASN_TAG_NUMERIC_STRING = 18,
  ASN_TAG_PRINTABLE_STRING = 19,
  ASN_TAG_TELETEX_STRING = 20,
  ASN_TAG_IA5_STRING = 22,
  ASN_TAG_UTC_TIME = 23,
  ASN_TAG_GENERALIZED_TIME = 24,
  ASN_TAG_VISIBLE_STRING = 26,
  ASN_TAG_UNIVERSAL_STRING = 28,
  ASN_TAG_BMP_STRING = 30
};

// A plain record of four fields; two tags are equal when all four are.
struct AsnTag {
  ASN_TAG_CLASS tagClass = 0;
  ASN_TAG_MODE tagMode = 0;
  ASN_TAG_FORM tagForm = 0;
  uint32_t tagNumber = 0;

  AsnTag() = default;
  AsnTag(ASN_TAG_CLASS c, ASN_TAG_MODE m, ASN_TAG_FORM f, uint32_t n)
      : tagClass(c), tagMode(m), tagForm(f), tagNumber(n) {}

  bool operator==(const AsnTag& o) const {
    return tagClass == o.tagClass && tagMode == o.tagMode && tagForm == o.tagForm &&
           tagNumber == o.tagNumber;
  }
  bool operator!=(const AsnTag& o) const { return !(*this == o); }
  // Class and number only: what decoding compares against an identifier.
  bool SameClassAndNumber(const AsnTag& o) const {
    return tagClass == o.tagClass && tagNumber == o.tagNumber;
  }
};

class AsnObject : public MiObject {
 public:
  AsnObject() = default;
  AsnObject(const AsnObject& other);
  AsnObject& operator=(const AsnObject& other);
  ~AsnObject() override;

  // Virtual slots, in this order.
  virtual void Reset(const AsnObject* other) = 0;
  virtual bool EqualsContent(const AsnObject* other) const = 0;
  virtual unsigned Encode(AsnEncode& encoder, MiByteBuffer& out, unsigned pos) const = 0;
  virtual unsigned EncodeContent(AsnEncode& encoder, MiByteBuffer& out, unsigned pos) const = 0;
  virtual unsigned Decode(AsnDecode& decoder, const MiByte& in, unsigned pos) = 0;
  virtual unsigned DecodeContent(AsnDecode& decoder, const MiByte& in, unsigned pos,
                                 unsigned length) = 0;
  virtual bool IsAsnChoice() const { return false; }
  virtual AsnObject* Clone() const = 0;
  virtual void ToOstream(std::ostream& os, unsigned indent) const = 0;

  // Name.
  const MiString& GetAsnName() const { return m_name; }
  void SetAsnName(const char* name) { m_name = name ? MiString(name) : MiString(); }
  void SetAsnName(const MiString& name) { m_name = name; }

  // Tag.
  const AsnTag& GetAsnTag() const { return m_tag; }
  void SetAsnTag(const AsnTag& tag) { m_tag = tag; }
  void SetAsnTag(ASN_TAG_CLASS c, ASN_TAG_MODE m, ASN_TAG_FORM f, uint32_t n) {
    m_tag = AsnTag(c, m, f, n);
  }
  // Leaves the form as it is, so a structure keeps its constructed form.
  void SetAsnTag(ASN_TAG_CLASS c, ASN_TAG_MODE m, uint32_t n) {
    m_tag.tagClass = c;
    m_tag.tagMode = m;
    m_tag.tagNumber = n;
  }
  ASN_TAG_CLASS GetAsnTagClass() const { return m_tag.tagClass; }
  ASN_TAG_MODE GetAsnTagMode() const { return m_tag.tagMode; }
  ASN_TAG_FORM GetAsnTagForm() const { return m_tag.tagForm; }
  uint32_t GetAsnTagNumber() const { return m_tag.tagNumber; }
  void SetAsnTagClass(ASN_TAG_CLASS c) { m_tag.tagClass = c; }
  void SetAsnTagMode(ASN_TAG_MODE m) { m_tag.tagMode = m; }
  void SetAsnTagForm(ASN_TAG_FORM f) { m_tag.tagForm = f; }
  void SetAsnTagNumber(uint32_t n) { m_tag.tagNumber = n; }

  // Status.
  ASN_STATE GetAsnState() const { return m_state; }
  void SetAsnState(ASN_STATE s) { m_state = s; }
  bool IsAsnPresent() const { return m_present; }
  void SetAsnPresent(bool p) { m_present = p; }
  bool IsAsnAnyType() const { return m_anyType; }
  void SetAsnAnyType(bool a) { m_anyType = a; }

  // Saved encoding.
  void OnByte() { m_byteType = ASN_BYTE_WHOLE; }
  void OnContentByte() { m_byteType = ASN_BYTE_CONTENT; }
  void OffByte() { m_byteType = ASN_BYTE_NONE; }
  void OffContentByte() { m_byteType = ASN_BYTE_NONE; }
  ASN_BYTE_TYPE GetAsnByteType() const { return m_byteType; }
  void SetAsnByte(const MiByte* bytes);
  void SetAsnByte(const char* p, unsigned offset, unsigned n);
  void SetAsnContentByte(const MiByte* bytes);
  void SetAsnContentByte(const char* p, unsigned offset, unsigned n);
  const MiByte* GetAsnByte() const {
    return m_byteType == ASN_BYTE_WHOLE ? m_saved.get() : nullptr;
  }
  const MiByte* GetAsnContentByte() const {
    return m_byteType == ASN_BYTE_CONTENT ? m_saved.get() : nullptr;
  }
  void ClearByte() { m_saved.reset(); }
  // The saved octets whatever the byte type (null when none).
  const MiByte* GetSavedByte() const { return m_saved.get(); }

  void SetAsnBaseData(const AsnObject* other);

  // Takes a copy of value's content (through Reset) but keeps this object's
  // name, tag, state and any-type, then marks it present: how a structure's
  // element receives a value. Null value raises MiInvalidArgumentExp.
  void SetAsnValue(const AsnObject* value);

  // Null other raises MiInvalidArgumentExp. Byte type, saved encoding and
  // any-type are not compared.
  bool Equals(const AsnObject* other) const;

  // Shortcuts through the DER visitors; results are octet counts.
  unsigned DerEncode(MiByteBuffer& out, unsigned pos) const;
  unsigned DerEncodeContent(MiByteBuffer& out, unsigned pos) const;
  unsigned DerDecode(const MiByte& in, unsigned pos);
  unsigned DerDecodeContent(const MiByte& in, unsigned pos, unsigned length);

 private:
  MiString m_name;
  AsnTag m_tag;
  std::unique_ptr<MiByte> m_saved;
  ASN_BYTE_TYPE m_byteType = ASN_BYTE_NONE;
  ASN_STATE m_state = ASN_STATE_MANDATORY;
  bool m_present = false;
  bool m_anyType = false;
};

// Dumps with indent 0.
std::ostream& operator<<(std::ostream& os, const AsnObject& obj);
