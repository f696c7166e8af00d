// Helpers shared by the DER visitors and the primitive types (not installed).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "asn1/mi_byte_buffer.h"

namespace kv_asn {

// Dotted OID text to content octets; false on a malformed text.
bool OidTextToOctets(const char* text, unsigned n, std::string& out);
// The same for the common case, without allocating: true with the octets in
// out[0, len) when the text is valid, has arcs of at most 19 digits and
// encodes to at most kOidQuickOctets octets; false otherwise (malformed or
// not common), and the caller then uses OidTextToOctets.
constexpr unsigned kOidQuickOctets = 64;
bool OidTextToOctetsQuick(const char* text, unsigned n, unsigned char* out, unsigned& len);
// Content octets to dotted text; false on malformed content.
bool OidOctetsToText(const unsigned char* p, unsigned n, std::string& out);
// UTF-8 octets to character codes; false when malformed.
bool Utf8ToCodes(const unsigned char* p, unsigned n, std::vector<uint32_t>& out);
void AppendUtf8(std::string& out, uint32_t code);
// Minimal two's-complement octets of a 32-bit value.
unsigned Int32Octets(int32_t v, unsigned char out[4]);

// UTCTime / GeneralizedTime text parsers on (p, n); false when malformed.
}  // namespace kv_asn
