// INSTANCE OF: a sequence of "type_id" (OBJECT IDENTIFIER) and "value", an
// explicit [0] container holding an OCTET STRING.
#pragma once

#include "asn1/asn_constructed.h"
#include "asn1/asn_primitives.h"

class AsnInstanceOf : public AsnSequence {
 public:
  AsnInstanceOf();
  AsnInstanceOf(const AsnInstanceOf& other);
  AsnInstanceOf& operator=(const AsnInstanceOf& other);
  AsnObject* Clone() const override;
  void ToOstream(std::ostream& os, unsigned indent) const override;

  // Null when absent.
  const AsnOid* GetType_id() const;
  void SetType_id(const AsnOid& oid);
  const AsnOctetString* GetValue() const;
  void SetValue(const AsnOctetString& value);

 protected:
  void SetupElements() override;
};
