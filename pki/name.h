// KV_Name: one distinguished name (an RDN sequence) with two text forms.
//
// DN node text, one RDN at a time: a five-character label field (the short
// label right-aligned in four characters, then "=") directly followed by the
// value's content octets, e.g. " CN =alice" or "  C =CN":
//
//   " CN =" 2.5.4.3    " SN =" 2.5.4.4    "  C =" 2.5.4.6    "  L =" 2.5.4.7
//   "  S =" 2.5.4.8    "  O =" 2.5.4.10   " OU =" 2.5.4.11   "  T =" 2.5.4.12
//   "  N =" 2.5.4.41   "  G =" 2.5.4.42   "  I =" 2.5.4.43   " GQ =" 2.5.4.44
//   " DQ =" 2.5.4.46   "  E =" 1.2.840.113549.1.9.1
//
// and " ?? =" for any other attribute when reading. addNameNode writes
// "  E =" values as IA5String and all others as PrintableString.
//
// DN text, the whole name on one line in the syntax of RFC 4514 (see
// pki/dn.h): setText / getText.
//
// Statuses: 0, or -1001 missing value, -1006 unknown label, -1015 value not
// encodable as PrintableString, -1017 index out of range, -1019 node text of
// five bytes or fewer, -1002 DER that is not a Name, -1020 DN text syntax.
#pragma once

#include "asn1/asn1.h"
#include "pki/errors.h"

class KV_Name {
 public:
  KV_Name();
  explicit KV_Name(const Name& name);
  KV_Name(const KV_Name& other);
  KV_Name& operator=(const KV_Name& other);
  ~KV_Name();

  // Back to the empty name (no RDNs).
  void Reset();

  int setName(const Name& name);
  int setName(const MiByte& der);
  int getName(Name& name) const;
  int getName(MiByte& der) const;
  // The held value itself.
  const Name& name() const { return name_; }

  // The number of RDNs.
  int getNameNodeTotal(int& total) const;
  // The DN node text of the first attribute of RDN index (0 = first RDN of
  // the sequence, as encoded).
  int getNameNodeByIndex(int index, MiByte& node) const;
  // Appends one RDN holding the one attribute that node describes.
  int addNameNode(const MiByte& node);

  // Replaces the name by the one the DN text describes (UTF-8).
  int setText(const char* utf8);
  // The name as DN text (UTF-8).
  int getText(MiString& utf8) const;

  // Same RDNs, attributes and values, compared on their encodings.
  bool operator==(const KV_Name& other) const;
  bool operator!=(const KV_Name& other) const { return !(*this == other); }

 private:
  Name name_;
};
