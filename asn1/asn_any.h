// AsnAny: the holder for ASN.1 ANY and open types (algorithm parameters,
// attribute values, ContentInfo content). Decoding looks at the identifier and
// builds a fitting object, so that encoding the holder again reproduces the
// DER octets it was read from without keeping a saved copy.
#pragma once

#include <memory>

#include "asn1/asn_constructed.h"
#include "asn1/asn_primitives.h"

class AsnAny : public AsnObject {
 public:
  // Any-type is set: a sequence decodes it whatever the identifier.
  AsnAny();
  // Holds a clone of value.
  explicit AsnAny(const AsnObject& value);
  AsnAny(const AsnAny& other);
  AsnAny& operator=(const AsnAny& other);
  ~AsnAny() override;

  // Reset from another AsnAny copies it; from any other object holds a clone
  // of that object (keeping this holder's name, state and flags).
  void Reset(const AsnObject* other) override;
  // Both empty, or both held values encode to the same octets.
  bool EqualsContent(const AsnObject* other) const override;
  // Empty holder: AsnEncodeExp.
  unsigned Encode(AsnEncode& e, MiByteBuffer& out, unsigned pos) const override;
  unsigned EncodeContent(AsnEncode& e, MiByteBuffer& out, unsigned pos) const override;
  // A universal primitive of a known type becomes that class when it decodes
  // cleanly and re-encodes to the same content; any other primitive an
  // AsnOctetString carrying the tag read; a constructed encoding an
  // AsnSequenceOf<AsnAny> carrying the tag read. Nesting deeper than 64
  // constructed levels raises AsnDecodeExp.
  unsigned Decode(AsnDecode& d, const MiByte& in, unsigned pos) override;
  // Decodes the content as an OCTET STRING under this holder's tag.
  unsigned DecodeContent(AsnDecode& d, const MiByte& in, unsigned pos, unsigned length) override;
  AsnObject* Clone() const override;
  void ToOstream(std::ostream& os, unsigned indent) const override;

  bool HasData() const { return m_data != nullptr; }
  AsnObject* GetData() const { return m_data.get(); }
  // Holds a clone of value and marks the holder present.
  void SetData(const AsnObject& value);
  // Takes ownership.
  void SetDataSpace(AsnObject* value);
  void ClearData() { m_data.reset(); }
  // Decodes the held value into target (a typed object): the held value is
  // DER-encoded and target DER-decoded from it. AsnEncodeExp when empty;
  // the decoder's exceptions otherwise, and AsnDecodeExp when target does
  // not take the whole encoding.
  void DecodeInto(AsnObject& target) const;
  // The held value's DER encoding (AsnEncodeExp when empty).
  MiByte GetEncoded() const;

 private:
  std::unique_ptr<AsnObject> m_data;
};
