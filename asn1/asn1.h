// Umbrella header of the ASN.1 runtime: value classes, exceptions, the object
// model, the DER codec, primitive types and the text dump.
#pragma once

#include "asn1/counters.h"
#include "asn1/mi_bitset.h"
#include "asn1/mi_byte.h"
#include "asn1/mi_byte_buffer.h"
#include "asn1/mi_exception.h"
#include "asn1/mi_object.h"
#include "asn1/mi_string.h"
#include "asn1/mi_string_buffer.h"
#include "asn1/mi_biginteger.h"
#include "asn1/mi_time.h"
#include "asn1/asn_object.h"
#include "asn1/asn_der.h"
#include "asn1/asn_constructed.h"
#include "asn1/asn_primitives.h"
#include "asn1/asn_instance_of.h"
#include "asn1/asn_any.h"
#include "asn1/asn_ostream.h"

// The generated PKI type catalogue.
#include "asn1/types/types.h"
