#include "pki/internal/der.h"

namespace kv::pki {

MiByte Der(const AsnObject& obj) {
  MiByteBuffer buf;
  unsigned n = obj.DerEncode(buf, 0);
  return MiByte(buf.GetChars(), n);
}

bool DecodeWhole(AsnObject& obj, const unsigned char* p, unsigned n) {
  if (p == nullptr || n == 0) return false;
  unsigned header = 0, content = 0;
  // The runtime reads indefinite lengths as zero; insisting on one definite
  // encoding that fills the input keeps trailing garbage out.
  if (!SplitTlv(p, n, header, content)) return false;
  // The runtime does not check a mandatory element's own identifier; the
  // outermost one at least must be the type's.
  const AsnTag& tag = obj.GetAsnTag();
  if (!obj.IsAsnChoice() && !obj.IsAsnAnyType() && tag.tagNumber < 31 &&
      p[0] != (tag.tagClass | tag.tagForm | tag.tagNumber)) {
    return false;
  }
  try {
    MiByte in(reinterpret_cast<const char*>(p), n);
    return obj.DerDecode(in, 0) == n;
  } catch (const MiException&) {
    return false;
  }
}

bool SplitTlv(const unsigned char* p, unsigned n, unsigned& header, unsigned& content) {
  if (p == nullptr || n < 2) return false;
  unsigned i = 1;
  if ((p[0] & 0x1f) == 0x1f) {  // high tag number form
    while (i < n && (p[i] & 0x80)) ++i;
    if (++i >= n) return false;
  }
  unsigned char first = p[i++];
  unsigned long long len = 0;
  if (first < 0x80) {
    len = first;
  } else {
    unsigned count = first & 0x7f;
    if (count == 0 || count > 4 || i + count > n) return false;
    for (unsigned k = 0; k < count; ++k) len = (len << 8) | p[i++];
  }
  if (len != n - i) return false;
  header = i;
  content = static_cast<unsigned>(len);
  return true;
}

MiByte ContentOctets(const AsnObject& obj) {
  MiByte der = Der(obj);
  unsigned header = 0, content = 0;
  if (!SplitTlv(der.GetBytes(), der.GetLength(), header, content)) return MiByte();
  return MiByte(der.GetChars(), header, content);
}

}  // namespace kv::pki
