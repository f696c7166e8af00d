// Umbrella header of the ASN.1 runtime: value classes, exceptions, the object
// model, the DER codec, primitive types and the text dump.
#pragma once

#include "asn1/counters.h"
