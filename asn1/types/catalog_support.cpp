#include "asn1/types/internal/catalog_support.h"

#include <memory>

namespace kv_catalog {

AsnObject* Slot(AsnObject* element, const char* name, ASN_STATE state) {
  std::unique_ptr<AsnObject> e(element);
  e->SetAsnName(name);
  e->SetAsnState(state);
  return e.release();
}

AsnObject* ImplicitSlot(AsnObject* element, ASN_TAG_CLASS tagClass, uint32_t number,
                        const char* name, ASN_STATE state) {
  std::unique_ptr<AsnObject> e(element);
  e->SetAsnTag(tagClass, ASN_TAG_MODE_IMPLICIT, number);
  return Slot(e.release(), name, state);
}

AsnObject* ExplicitSlot(AsnObject* inner, ASN_TAG_CLASS tagClass, uint32_t number, const char* name,
                        ASN_STATE state) {
  std::unique_ptr<AsnObject> data(inner);
  auto c = std::make_unique<AsnContainer>();
  c->SetAsnTag(tagClass, ASN_TAG_MODE_EXPLICIT, number);
  c->SetDataSpace(data.release());
  return Slot(c.release(), name, state);
}

void Assign(AsnObject* slot, const AsnObject& value, TagRule rule) {
  if (slot == &value) {
    slot->SetAsnPresent(true);
    return;
  }
  const MiString name = slot->GetAsnName();
  const AsnTag tag = slot->GetAsnTag();
  const ASN_STATE state = slot->GetAsnState();
  const bool anyType = slot->IsAsnAnyType();
  slot->Reset(&value);
  slot->SetAsnName(name);
  slot->SetAsnState(state);
  slot->SetAsnAnyType(anyType);
  // The value's form stays: an implicit tag on a SET OF is still constructed.
  if (rule == KEEP_TAG) slot->SetAsnTag(tag.tagClass, tag.tagMode, tag.tagNumber);
  slot->SetAsnPresent(true);
}

void AssignInner(AsnObject* container, const AsnObject& value) {
  AsnContainer* c = static_cast<AsnContainer*>(container);
  if (!c->GetData()) throw AsnDataExp();
  Assign(c->GetData(), value, TAKE_TAG);
  c->SetAsnPresent(true);
}

}  // namespace kv_catalog
