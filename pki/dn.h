// Distinguished names as one line of text, e.g. "CN=alice,O=Example,C=CN".
//
// The syntax is that of RFC 4514, read strictly:
// - Order: as RFC 4514 writes names, the first RDN of the text is the LAST
//   RDN of the encoded sequence: "CN=alice,O=Example,C=CN" encodes C, then O,
//   then CN, the order X.509 certificates use. The text form below is written
//   the same way, so OpenSSL's "-nameopt RFC2253" and RFC 4514 printers show
//   the same line.
// - RDNs are separated by ","; the attributes of a multi-valued RDN by "+".
//   Each attribute is KEYWORD=VALUE. Spaces (U+0020 only) before a keyword,
//   around "=", and before "," or "+" are ignored; a value's unescaped
//   leading and trailing spaces are not part of it (escape them as "\ ").
// - Keywords, ignoring letter case: CN, SN (surname), C, L, ST or S, O, OU,
//   T (title), N (name), G (given name), I (initials), GQ (generation
//   qualifier), DQ (dnQualifier), E or emailAddress; or a dotted object
//   identifier such as 2.5.4.5. Any other keyword gives -1006.
// - A value is a string, or "#" and the hexadecimal DER of the value (two
//   hex digits per octet, at least one whole encoding, nothing else).
//   In a string, a backslash escapes one of  space " # + , ; < = > \  or
//   introduces two hex digits giving one octet; the characters " ; < > must
//   be escaped, and "+" "," end the value unless escaped. The octets of the
//   value must be UTF-8; the empty value is refused.
// - Value types: E is IA5String (ASCII only); C and DQ are PrintableString
//   (refused otherwise); any other value is PrintableString when every
//   character is a letter, a digit, space or one of ( ) + , - . / : = ?, and
//   UTF8String otherwise (apostrophes, Chinese names, ...).
// - The empty text (or spaces only) is the empty name.
// Anything else gives -1020.
//
// Text form of a name: the same syntax, keywords CN SN C L ST O OU T N G I
// GQ DQ E, values of the string types (PrintableString, UTF8String,
// IA5String, BMPString, ...) as UTF-8 text escaped like RFC 4514 printers do
// (\ " + , ; < > always, "#" or space at the start and space at the end),
// and as KEYWORD=#HEXDER every other value and every value whose text would
// not read back (a C or DQ outside PrintableString, an E outside ASCII, a NUL
// octet); an attribute outside the table as OID=#HEXDER. Text made from a
// name parses back to a name that gives the same text again, with the same
// attributes and values.
#pragma once

#include "pki/errors.h"

#ifdef __cplusplus
extern "C" {
#endif

/* DN text (UTF-8, NUL-terminated) -> DER Name. Output-buffer rule of
 * crypto/keyconv.h: a null derName asks for the size; a smaller *len gives
 * -1019. -1010 null text or len, -1020 syntax, -1006 unknown keyword. */
int KV_ParseDN(const char* utf8, unsigned char* derName, unsigned* len);

/* DER Name -> DN text (UTF-8). *textLen counts the terminating NUL: a null
 * text asks for that size; a smaller *textLen gives -1019; after writing,
 * *textLen is the text length plus one. -1002 when der is not a Name. */
int KV_NameToText(const unsigned char* derName, unsigned derLen, char* text, unsigned* textLen);

#ifdef __cplusplus
}  // extern "C"
#endif
