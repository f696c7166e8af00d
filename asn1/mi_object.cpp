#include "asn1/mi_object.h"

MiObject::~MiObject() = default;
