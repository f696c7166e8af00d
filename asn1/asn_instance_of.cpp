#include "asn1/asn_instance_of.h"

#include "asn1/asn_ostream.h"

AsnInstanceOf::AsnInstanceOf() {
  SetAsnTag(ASN_TAG_CLASS_UNIVERSAL, ASN_TAG_MODE_NONE, ASN_TAG_FORM_CONSTRUCTED,
            ASN_TAG_INSTANCE_OF);
  SetupElements();
}

AsnInstanceOf::AsnInstanceOf(const AsnInstanceOf& other) : AsnSequence(other) {
  SetupElements();
}

AsnInstanceOf& AsnInstanceOf::operator=(const AsnInstanceOf& other) {
  AsnSequence::operator=(other);
  return *this;
}

void AsnInstanceOf::SetupElements() {
  if (Elements().HasList()) return;
  AsnOid* typeId = new AsnOid();
  typeId->SetAsnName("type_id");
  AddElementSpace(typeId);
  AsnContainer* value = new AsnContainer();
  value->SetAsnName("value");
  value->SetAsnTag(ASN_TAG_CLASS_CONTEXT, ASN_TAG_MODE_EXPLICIT, ASN_TAG_FORM_CONSTRUCTED, 0);
  value->SetDataSpace(new AsnOctetString());
  AddElementSpace(value);
}

AsnObject* AsnInstanceOf::Clone() const {
  return new AsnInstanceOf(*this);
}

void AsnInstanceOf::ToOstream(std::ostream& os, unsigned indent) const {
  AsnOstream::DoVisit(*this, os, indent);
}

const AsnOid* AsnInstanceOf::GetType_id() const {
  const AsnObject* e = Element("type_id");
  return e->IsAsnPresent() ? dynamic_cast<const AsnOid*>(e) : nullptr;
}

void AsnInstanceOf::SetType_id(const AsnOid& oid) {
  Element("type_id")->SetAsnValue(&oid);
}

const AsnOctetString* AsnInstanceOf::GetValue() const {
  const AsnContainer* c = dynamic_cast<const AsnContainer*>(Element("value"));
  if (!c || !c->IsAsnPresent() || !c->GetData()) return nullptr;
  return dynamic_cast<const AsnOctetString*>(c->GetData());
}

void AsnInstanceOf::SetValue(const AsnOctetString& value) {
  AsnContainer* c = dynamic_cast<AsnContainer*>(Element("value"));
  if (!c->GetData()) c->SetDataSpace(new AsnOctetString());
  c->GetData()->SetAsnValue(&value);
  c->SetAsnPresent(true);
}
