// Helpers shared by the generated PKI type classes (asn1/types/types_*.cpp).
#pragma once

#include "asn1/asn1.h"

namespace kv_catalog {

// Whether an element slot keeps its own tag when a value is copied in: an
// implicitly tagged slot does; an untagged one takes the value's tag, which
// matters for open types, whose tag is part of the value.
enum TagRule { KEEP_TAG, TAKE_TAG };

// The element when it is present, else null.
inline AsnObject* Present(AsnObject* element) {
  return element && element->IsAsnPresent() ? element : nullptr;
}

// The value inside an explicit tag's container when the container is
// present, else null.
inline AsnObject* Inner(AsnObject* element) {
  AsnObject* present = Present(element);
  return present ? static_cast<AsnContainer*>(present)->GetData() : nullptr;
}

// The value inside the container of a selected CHOICE alternative (the
// selection, not the presence flag, says whether it is there).
inline AsnObject* Data(AsnObject* alternative) {
  return alternative ? static_cast<AsnContainer*>(alternative)->GetData() : nullptr;
}

// Element slots for SetupElements, each returned ready for AddElementSpace:
// an untagged one, an implicitly tagged one (the tag on the element itself)
// and an explicitly tagged one (a container bearing the tag, holding inner).
// Each takes ownership of the object it is given.
AsnObject* Slot(AsnObject* element, const char* name, ASN_STATE state);
AsnObject* ImplicitSlot(AsnObject* element, ASN_TAG_CLASS tagClass, uint32_t number,
                        const char* name, ASN_STATE state);
AsnObject* ExplicitSlot(AsnObject* inner, ASN_TAG_CLASS tagClass, uint32_t number, const char* name,
                        ASN_STATE state);

// Copies value into an element slot and marks it present. The slot keeps its
// name, state and any-type flag (and its tag under KEEP_TAG): those belong
// to the structure, not to the value.
void Assign(AsnObject* slot, const AsnObject& value, TagRule rule);

// The same for the value inside an explicit tag's container; the container
// is marked present too.
void AssignInner(AsnObject* container, const AsnObject& value);

}  // namespace kv_catalog
