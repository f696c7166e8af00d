// Minimal DER walk over a certificate for the attributes of a PKCS#11
// certificate object. Only definite lengths are accepted (DER has no others).
#include "crypto/internal/p11_certinfo.h"

#include <cstring>

#include "crypto/sha1.h"

namespace kv::p11 {
namespace {

struct Tlv {
  unsigned char tag = 0;
  const unsigned char* start = nullptr;  // first octet of the identifier
  const unsigned char* body = nullptr;   // first content octet
  size_t len = 0;                        // content length
  size_t Total() const { return static_cast<size_t>(body - start) + len; }
};

// Reads one TLV at p (n octets left). Multi-octet tags are not used by the
// fields we walk, so they count as malformed.
bool ReadTlv(const unsigned char* p, size_t n, Tlv* t) {
  if (n < 2) return false;
  t->start = p;
  t->tag = p[0];
  if ((t->tag & 0x1f) == 0x1f) return false;
  size_t pos = 1;
  unsigned char first = p[pos++];
  size_t len = 0;
  if (first < 0x80) {
    len = first;
  } else {
    size_t count = first & 0x7f;
    if (count == 0 || count > 4 || count > n - pos) return false;
    for (size_t i = 0; i < count; ++i) len = (len << 8) | p[pos++];
  }
  if (len > n - pos) return false;
  t->body = p + pos;
  t->len = len;
  return true;
}

// Steps through the contents of a constructed TLV.
class Reader {
 public:
  explicit Reader(const Tlv& t) : p_(t.body), end_(t.body + t.len) {}
  bool Next(Tlv* t) {
    if (!ReadTlv(p_, static_cast<size_t>(end_ - p_), t)) return false;
    p_ = t->body + t->len;
    return true;
  }
  bool Peek(Tlv* t) const { return ReadTlv(p_, static_cast<size_t>(end_ - p_), t); }

 private:
  const unsigned char* p_;
  const unsigned char* end_;
};

std::vector<unsigned char> Whole(const Tlv& t) {
  return std::vector<unsigned char>(t.start, t.start + t.Total());
}

const unsigned char kRsaOid[] = {0x2a, 0x86, 0x48, 0x86, 0xf7, 0x0d, 0x01, 0x01, 0x01};

void ReadRsaModulus(const Tlv& spki, std::vector<unsigned char>* modulus) {
  Reader r(spki);
  Tlv alg, oid, bits;
  if (!r.Next(&alg) || alg.tag != 0x30 || !r.Next(&bits) || bits.tag != 0x03) return;
  Reader ar(alg);
  if (!ar.Next(&oid) || oid.tag != 0x06 || oid.len != sizeof kRsaOid ||
      std::memcmp(oid.body, kRsaOid, sizeof kRsaOid) != 0)
    return;
  if (bits.len < 1 || bits.body[0] != 0) return;
  Tlv key, n;
  if (!ReadTlv(bits.body + 1, bits.len - 1, &key) || key.tag != 0x30) return;
  Reader kr(key);
  if (!kr.Next(&n) || n.tag != 0x02 || n.len == 0) return;
  const unsigned char* p = n.body;
  size_t len = n.len;
  while (len > 0 && *p == 0) ++p, --len;
  modulus->assign(p, p + len);
}

}  // namespace

bool ReadCertFields(const unsigned char* der, size_t n, CertFields* out) {
  *out = CertFields();
  if (der == nullptr) return false;
  Tlv cert, tbs, t;
  if (!ReadTlv(der, n, &cert) || cert.tag != 0x30) return false;
  Reader cr(cert);
  if (!cr.Next(&tbs) || tbs.tag != 0x30) return false;
  Reader r(tbs);
  if (r.Peek(&t) && t.tag == 0xa0) r.Next(&t);  // version
  Tlv serial, sigAlg, issuer, validity, subject, spki;
  if (!r.Next(&serial) || serial.tag != 0x02) return false;
  if (!r.Next(&sigAlg) || sigAlg.tag != 0x30) return false;
  if (!r.Next(&issuer) || issuer.tag != 0x30) return false;
  if (!r.Next(&validity) || validity.tag != 0x30) return false;
  if (!r.Next(&subject) || subject.tag != 0x30) return false;
  if (!r.Next(&spki) || spki.tag != 0x30) return false;
  out->serial = Whole(serial);
  out->issuer = Whole(issuer);
  out->subject = Whole(subject);
  ReadRsaModulus(spki, &out->modulus);
  return true;
}

std::vector<unsigned char> KeyIdOfModulus(const std::vector<unsigned char>& modulus) {
  size_t skip = 0;
  while (skip < modulus.size() && modulus[skip] == 0) ++skip;
  std::vector<unsigned char> id(kv::Sha1::kDigestSize);
  kv::Sha1::Digest(modulus.data() + skip, modulus.size() - skip, id.data());
  return id;
}

}  // namespace kv::p11
