// The text dump: one static DoVisit per class writes an indented, fixed-layout
// description to an output text stream.
#pragma once

#include <ostream>

#include "asn1/asn_der.h"

class AsnInstanceOf;

class AsnOstream {
 public:
#define KV_DECL(T) static void DoVisit(const T& obj, std::ostream& os, unsigned indent);
  KV_ASN_VISIT_CLASSES(KV_DECL)
#undef KV_DECL
  static void DoVisit(const AsnInstanceOf& obj, std::ostream& os, unsigned indent);

  // indent x four spaces, the name and the tag of a non-universal class.
  static void WriteHead(const AsnObject& obj, std::ostream& os, unsigned indent);
  static void WriteIndent(std::ostream& os, unsigned indent);
};
