#include "asn1/asn_der.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <typeinfo>
#include <vector>

#include "asn1/asn_constructed.h"
#include "asn1/asn_primitives.h"
#include "asn1/internal/asn_text.h"

namespace {

// Minimal length octets (at most four after the 0x8k prefix).
unsigned LengthOctets(unsigned n, unsigned char buf[5]) {
  if (n < 0x80) {
    buf[0] = static_cast<unsigned char>(n);
    return 1;
  }
  unsigned k = n < 0x100 ? 1 : n < 0x10000 ? 2 : n < 0x1000000 ? 3 : 4;
  buf[0] = static_cast<unsigned char>(0x80 | k);
  for (unsigned i = 0; i < k; ++i) buf[1 + i] = static_cast<unsigned char>(n >> (8 * (k - 1 - i)));
  return k + 1;
}

// Identifier octets of tag, appended to out (the octets of
// AsnDerEncode::EncodeTag). Returns their number.
// With placeholder, one octet more (zero) follows for the length, written in
// the same append.
inline unsigned PutTag(const AsnTag& tag, MiByteBuffer& out, bool placeholder = false) {
  unsigned char first = static_cast<unsigned char>(tag.tagClass & 0xC0);
  first |=
      tag.tagMode == ASN_TAG_MODE_EXPLICIT ? 0x20 : static_cast<unsigned char>(tag.tagForm & 0x20);
  if (tag.tagNumber < 31) {
    const char octets[2] = {static_cast<char>(first | tag.tagNumber), 0};
    out.Append(octets, placeholder ? 2u : 1u);
    return 1;
  }
  unsigned char buf[7];
  buf[0] = static_cast<unsigned char>(first | 0x1F);
  unsigned char groups[5];
  unsigned g = 0;
  uint32_t v = tag.tagNumber;
  do {
    groups[g++] = static_cast<unsigned char>(v & 0x7F);
    v >>= 7;
  } while (v);
  unsigned n = 1;
  while (g > 0) {
    --g;
    buf[n++] = static_cast<unsigned char>(groups[g] | (g ? 0x80 : 0));
  }
  buf[n] = 0;
  out.Append(reinterpret_cast<const char*>(buf), placeholder ? n + 1 : n);
  return n;
}

// The length step of the DER encoding, done in place: the caller has written
// t identifier octets at pos, then appended one placeholder octet and c
// content octets after it. A one-octet length fills the placeholder, so short
// content is never moved; a longer one moves the content once. Same octets as
// inserting EncodeLength(c) between identifier and content. Returns the size
// of the whole encoding.
inline unsigned PutContentAndLength(unsigned c, MiByteBuffer& out, unsigned pos, unsigned t) {
  unsigned char buf[5];
  const unsigned k = LengthOctets(c, buf);
  char* p = out.GetChars();
  p[pos + t] = static_cast<char>(buf[0]);
  if (k > 1) out.Insert(pos + t + 1, reinterpret_cast<const char*>(buf + 1), k - 1);
  return out.GetLength() - pos;
}

// The last two decimal digits of v, as MiTime::GetTimeString writes a
// two-digit field.
inline void PutDigits(char* p, int v) {
  p[1] = static_cast<char>('0' + v % 10);
  p[0] = static_cast<char>('0' + (v / 10) % 10);
}

const unsigned char* Bytes(const MiByte& in) {
  return in.GetBytes();
}

void CheckInput(const MiByte& in, unsigned pos) {
  if (in.GetLength() == 0) throw MiInvalidArgumentExp();
  if (pos >= in.GetLength()) throw MiOutOfRangeExp();
}

// Saved content octets with byte type 1 instead of the value's own.
void StoreContent(AsnObject& obj, const MiByte& in, unsigned pos, unsigned length) {
  obj.SetAsnContentByte(in.GetChars(), pos, length);
}

void AppendRaw(MiByteBuffer& out, const void* p, size_t n) {
  if (n) out.Append(static_cast<const char*>(p), static_cast<unsigned>(n));
}

thread_local unsigned g_depth = 0;
const unsigned kMaxDepth = 64;

// Does the choice (or a nested untagged choice) have an alternative for tag?
bool ChoiceHasAlternative(const AsnChoice& c, const AsnTag& tag) {
  const AsnElementList& l = c.Elements();
  for (unsigned i = 0; i < l.Size(); ++i) {
    const AsnObject* a = l.At(i);
    if (a->IsAsnChoice()) {
      if (ChoiceHasAlternative(static_cast<const AsnChoice&>(*a), tag)) return true;
    } else if (a->GetAsnTag().SameClassAndNumber(tag)) {
      return true;
    }
  }
  return false;
}

}  // namespace

namespace kv_asn {

DepthGuard::DepthGuard() {
  if (g_depth >= kMaxDepth) throw AsnDecodeExp();
  ++g_depth;
}
DepthGuard::~DepthGuard() {
  --g_depth;
}

void CheckContent(const MiByte& in, unsigned pos, unsigned length) {
  if (in.GetLength() == 0) throw MiInvalidArgumentExp();
  if (pos > in.GetLength() || length > in.GetLength() - pos) throw MiOutOfRangeExp();
}

bool EncodeSavedContent(const AsnObject& obj, MiByteBuffer& out, unsigned pos, unsigned& written) {
  if (obj.GetAsnByteType() != ASN_BYTE_CONTENT || !obj.GetSavedByte()) return false;
  out.SetLength(pos);
  out.Append(*obj.GetSavedByte());
  written = obj.GetSavedByte()->GetLength();
  return true;
}

unsigned EncodeObject(AsnEncode& enc, const AsnObject& obj, MiByteBuffer& out, unsigned pos) {
  out.SetLength(pos);
  if (obj.GetAsnByteType() == ASN_BYTE_WHOLE && obj.GetSavedByte()) {
    out.Append(*obj.GetSavedByte());
    return obj.GetSavedByte()->GetLength();
  }
  if (typeid(enc) == typeid(AsnDerEncode)) {
    // The DER visitor's own tag and length octets are written here without
    // going through the virtual slots (a subclass that overrides them takes
    // the general path below).
    const unsigned t = PutTag(obj.GetAsnTag(), out, true);
    return PutContentAndLength(obj.EncodeContent(enc, out, pos + t + 1), out, pos, t);
  }
  unsigned t = enc.EncodeTag(obj.GetAsnTag(), out, pos);
  unsigned c = obj.EncodeContent(enc, out, pos + t);
  out.Insert(pos + t, enc.EncodeLength(c));
  return out.GetLength() - pos;
}

unsigned DecodeObject(AsnDecode& dec, AsnObject& obj, const MiByte& in, unsigned pos) {
  obj.Reset(nullptr);
  CheckInput(in, pos);
  AsnTag tag;
  unsigned t = dec.DecodeTag(tag, in, pos);
  obj.SetAsnTag(tag);
  unsigned length = 0;
  unsigned l = dec.DecodeLength(length, in, pos + t);
  unsigned cpos = pos + t + l;
  CheckContent(in, cpos, length);
  if (obj.GetAsnByteType() == ASN_BYTE_WHOLE)
    obj.SetAsnByte(in.GetChars(), pos, t + l + length);
  else
    obj.DecodeContent(dec, in, cpos, length);
  return t + l + length;
}

void SortSetOfEncodings(MiByteBuffer& out, unsigned start, const unsigned* sizes, unsigned count) {
  if (count < 2) return;
  const unsigned total = out.GetLength() - start;
  std::string copy(out.GetChars() + start, total);
  struct Span {
    unsigned off, len;
  };
  std::vector<Span> spans(count);
  unsigned off = 0;
  for (unsigned i = 0; i < count; ++i) {
    spans[i] = {off, sizes[i]};
    off += sizes[i];
  }
  // MiByteBuffer order: shorter first, then octets as unsigned values.
  std::stable_sort(spans.begin(), spans.end(), [&copy](const Span& a, const Span& b) {
    if (a.len != b.len) return a.len < b.len;
    return std::memcmp(copy.data() + a.off, copy.data() + b.off, a.len) < 0;
  });
  out.SetLength(start);
  for (const Span& s : spans) AppendRaw(out, copy.data() + s.off, s.len);
}

unsigned DecodeListContent(AsnDecode& d, const MiByte& in, unsigned pos, unsigned length,
                           AsnObject* (*make)(void*), void* list,
                           void (*reserve)(void*, unsigned)) {
  CheckContent(in, pos, length);
  DepthGuard guard;
  const unsigned end = pos + length;
  if (reserve) {
    // Count the encodings first (identifier and length octets only, stopping
    // quietly at anything malformed, which the decoding below reports), so
    // that the list is allocated once instead of growing step by step.
    const unsigned char* b = Bytes(in);
    unsigned count = 0;
    unsigned p = pos;
    while (p < end) {
      ++count;
      uint64_t q = p + 1;  // past the first identifier octet
      if ((b[p] & 0x1F) == 0x1F) {
        while (q < end && (b[q] & 0x80)) ++q;
        ++q;
      }
      if (q >= end) break;
      uint64_t len = b[q];
      unsigned k = 0;
      if (len & 0x80) {
        k = b[q] & 0x7F;
        if (k > 4 || q + k >= end) break;
        len = 0;
        for (unsigned i = 1; i <= k; ++i) len = (len << 8) | b[q + i];
      }
      const uint64_t next = q + 1 + k + len;
      if (next > end) break;
      p = static_cast<unsigned>(next);
    }
    if (count > 1) reserve(list, count);
  }
  unsigned p = pos;
  while (p < end) {
    AsnObject* v = make(list);
    unsigned n = v->Decode(d, in, p);
    if (n > end - p) throw AsnDecodeExp();
    v->SetAsnPresent(true);
    p += n;
  }
  return length;
}

}  // namespace kv_asn

using kv_asn::CheckContent;
using kv_asn::DecodeObject;
using kv_asn::EncodeObject;

// ---- Encoding ----------------------------------------------------------------

#define KV_SIMPLE_ENCODE(T)                                                      \
  unsigned AsnDerEncode::Encode(const T& obj, MiByteBuffer& out, unsigned pos) { \
    return EncodeObject(*this, obj, out, pos);                                   \
  }
KV_SIMPLE_ENCODE(AsnContainer)
KV_SIMPLE_ENCODE(AsnSet)
KV_SIMPLE_ENCODE(AsnSequence)
KV_SIMPLE_ENCODE(AsnTeletexString)
KV_SIMPLE_ENCODE(AsnVisibleString)
KV_SIMPLE_ENCODE(AsnPrintableString)
KV_SIMPLE_ENCODE(AsnNumericString)
KV_SIMPLE_ENCODE(AsnUTF8String)
KV_SIMPLE_ENCODE(AsnUniversalString)
KV_SIMPLE_ENCODE(AsnIA5String)
KV_SIMPLE_ENCODE(AsnBMPString)
KV_SIMPLE_ENCODE(AsnNull)
KV_SIMPLE_ENCODE(AsnUTCTime)
KV_SIMPLE_ENCODE(AsnGeneralizedTime)
KV_SIMPLE_ENCODE(AsnOid)
KV_SIMPLE_ENCODE(AsnEnumerated)
KV_SIMPLE_ENCODE(AsnBitString)
KV_SIMPLE_ENCODE(AsnInteger)
KV_SIMPLE_ENCODE(AsnOctetString)
KV_SIMPLE_ENCODE(AsnBoolean)
#undef KV_SIMPLE_ENCODE

unsigned AsnDerEncode::Encode(const AsnChoice& obj, MiByteBuffer& out, unsigned pos) {
  out.SetLength(pos);
  if (obj.GetAsnByteType() == ASN_BYTE_WHOLE && obj.GetSavedByte()) {
    out.Append(*obj.GetSavedByte());
    return obj.GetSavedByte()->GetLength();
  }
  // Saved content octets go out under the identifier that was read.
  if (obj.GetAsnByteType() == ASN_BYTE_CONTENT && obj.GetSavedByte())
    return EncodeObject(*this, obj, out, pos);
  const AsnObject* alt = obj.Get();
  if (!alt) throw AsnEncodeExp();
  // An untagged nested choice writes its own selection.
  if (alt->IsAsnChoice()) return alt->Encode(*this, out, pos);
  if (typeid(*this) == typeid(AsnDerEncode)) {
    const unsigned t = PutTag(alt->GetAsnTag(), out, true);
    return PutContentAndLength(alt->EncodeContent(*this, out, pos + t + 1), out, pos, t);
  }
  unsigned t = EncodeTag(alt->GetAsnTag(), out, pos);
  unsigned c = alt->EncodeContent(*this, out, pos + t);
  out.Insert(pos + t, EncodeLength(c));
  return out.GetLength() - pos;
}

// The saved-content check is spelled out so that the usual case (no saved
// octets) costs no call.
#define KV_BEGIN_CONTENT(obj)                                             \
  out.SetLength(pos);                                                     \
  if (obj.GetAsnByteType() == ASN_BYTE_CONTENT && obj.GetSavedByte()) {   \
    unsigned saved_ = 0;                                                  \
    if (kv_asn::EncodeSavedContent(obj, out, pos, saved_)) return saved_; \
  }

unsigned AsnDerEncode::EncodeContent(const AsnContainer& obj, MiByteBuffer& out, unsigned pos) {
  KV_BEGIN_CONTENT(obj)
  if (!obj.GetData()) throw AsnDataExp();
  return obj.GetData()->Encode(*this, out, pos);
}

unsigned AsnDerEncode::EncodeContent(const AsnChoice& obj, MiByteBuffer& out, unsigned pos) {
  KV_BEGIN_CONTENT(obj)
  const AsnObject* alt = obj.Get();
  if (!alt) throw AsnEncodeExp();
  return alt->EncodeContent(*this, out, pos);
}

namespace {
unsigned EncodeElements(AsnEncode& enc, const AsnObject* const* items, unsigned n,
                        MiByteBuffer& out, unsigned pos) {
  for (unsigned i = 0; i < n; ++i) {
    const AsnObject* e = items[i];
    if (e->IsAsnPresent()) {
      e->Encode(enc, out, out.GetLength());
    } else if (e->GetAsnState() != ASN_STATE_OPTIONAL && e->GetAsnState() != ASN_STATE_DEFAULT) {
      throw AsnEncodeExp();
    }
  }
  return out.GetLength() - pos;
}
}  // namespace

unsigned AsnDerEncode::EncodeContent(const AsnSequence& obj, MiByteBuffer& out, unsigned pos) {
  KV_BEGIN_CONTENT(obj)
  const AsnElementList& l = obj.Elements();
  const unsigned n = l.Size();
  for (unsigned i = 0; i < n; ++i) {
    const AsnObject* e = l.At(i);
    if (e->IsAsnPresent()) {
      e->Encode(*this, out, out.GetLength());
    } else if (e->GetAsnState() != ASN_STATE_OPTIONAL && e->GetAsnState() != ASN_STATE_DEFAULT) {
      throw AsnEncodeExp();
    }
  }
  return out.GetLength() - pos;
}

unsigned AsnDerEncode::EncodeContent(const AsnSet& obj, MiByteBuffer& out, unsigned pos) {
  KV_BEGIN_CONTENT(obj)
  const AsnElementList& l = obj.Elements();
  const unsigned n = l.Size();
  if (n == 0) return 0;
  // The order is worked out on a copy of the element pointers: on the stack
  // for the usual small SET, on the heap otherwise.
  const AsnObject* local[16];
  std::vector<const AsnObject*> heap;
  const AsnObject** items = local;
  if (n > 16) {
    heap.resize(n);
    items = heap.data();
  }
  for (unsigned i = 0; i < n; ++i) items[i] = l.At(i);
  // The toolkit's pairwise SET order: exchange when j's class is not above
  // i's (signed) and j's number is below i's. Nothing else is compared.
  for (unsigned i = 0; i + 1 < n; ++i)
    for (unsigned j = i + 1; j < n; ++j) {
      const AsnTag& ti = items[i]->GetAsnTag();
      const AsnTag& tj = items[j]->GetAsnTag();
      if (static_cast<int32_t>(tj.tagClass) <= static_cast<int32_t>(ti.tagClass) &&
          tj.tagNumber < ti.tagNumber)
        std::swap(items[i], items[j]);
    }
  return EncodeElements(*this, items, n, out, pos);
}

#define KV_NARROW_CONTENT(T)                                                            \
  unsigned AsnDerEncode::EncodeContent(const T& obj, MiByteBuffer& out, unsigned pos) { \
    KV_BEGIN_CONTENT(obj)                                                               \
    const MiString& s = obj.GetData();                                                  \
    AppendRaw(out, s.GetChars(), s.GetLength());                                        \
    return s.GetLength();                                                               \
  }
KV_NARROW_CONTENT(AsnTeletexString)
KV_NARROW_CONTENT(AsnVisibleString)
KV_NARROW_CONTENT(AsnPrintableString)
KV_NARROW_CONTENT(AsnNumericString)
KV_NARROW_CONTENT(AsnIA5String)
#undef KV_NARROW_CONTENT

unsigned AsnDerEncode::EncodeContent(const AsnUTF8String& obj, MiByteBuffer& out, unsigned pos) {
  KV_BEGIN_CONTENT(obj)
  // Collected in a small block and appended a block at a time; a character
  // takes at most six octets.
  const AsnQuadruple* q = obj.GetQuadruples();
  const unsigned count = obj.GetCount();
  char block[256];
  unsigned used = 0;
  std::string wide;
  for (unsigned i = 0; i < count; ++i) {
    if (used + 6 > sizeof block) {
      out.Append(block, used);
      used = 0;
    }
    const uint32_t code = q[i].Code();
    if (code < 0x80) {
      block[used++] = static_cast<char>(code);
    } else {
      wide.clear();
      kv_asn::AppendUtf8(wide, code);
      std::memcpy(block + used, wide.data(), wide.size());
      used += static_cast<unsigned>(wide.size());
    }
  }
  AppendRaw(out, block, used);
  return out.GetLength() - pos;
}

unsigned AsnDerEncode::EncodeContent(const AsnUniversalString& obj, MiByteBuffer& out,
                                     unsigned pos) {
  KV_BEGIN_CONTENT(obj)
  AppendRaw(out, obj.GetQuadruples(), 4u * obj.GetCount());
  return 4u * obj.GetCount();
}

unsigned AsnDerEncode::EncodeContent(const AsnBMPString& obj, MiByteBuffer& out, unsigned pos) {
  KV_BEGIN_CONTENT(obj)
  const AsnQuadruple* q = obj.GetQuadruples();
  for (unsigned i = 0; i < obj.GetCount(); ++i) {
    out.Append(static_cast<unsigned char>(q[i].row));
    out.Append(static_cast<unsigned char>(q[i].cell));
  }
  return 2u * obj.GetCount();
}

unsigned AsnDerEncode::EncodeContent(const AsnNull& obj, MiByteBuffer& out, unsigned pos) {
  KV_BEGIN_CONTENT(obj)
  return 0;
}

unsigned AsnDerEncode::EncodeContent(const AsnUTCTime& obj, MiByteBuffer& out, unsigned pos) {
  KV_BEGIN_CONTENT(obj)
  const MiTime& t = obj.GetTime();
  // Two digits cannot carry other years.
  if (t.IsEmpty() || t.GetYear() < 1950 || t.GetYear() > 2049) throw AsnEncodeExp();
  // The text of GetTimeString() ("YYMMDDhhmmssZ"), written straight into
  // the buffer: digits as MiTime::GetTimeString puts them.
  char text[13];
  PutDigits(text, t.GetYear() % 100);
  PutDigits(text + 2, t.GetMonth());
  PutDigits(text + 4, t.GetDay());
  PutDigits(text + 6, t.GetHour());
  PutDigits(text + 8, t.GetMinute());
  PutDigits(text + 10, t.GetSecond());
  text[12] = 'Z';
  out.Append(text, 13);
  return 13;
}

unsigned AsnDerEncode::EncodeContent(const AsnGeneralizedTime& obj, MiByteBuffer& out,
                                     unsigned pos) {
  KV_BEGIN_CONTENT(obj)
  if (obj.GetTime().IsEmpty()) throw AsnEncodeExp();
  MiString s = obj.GetTimeString();
  AppendRaw(out, s.GetChars(), s.GetLength());
  return s.GetLength();
}

unsigned AsnDerEncode::EncodeContent(const AsnOid& obj, MiByteBuffer& out, unsigned pos) {
  KV_BEGIN_CONTENT(obj)
  unsigned known = 0;
  if (const unsigned char* octets = obj.GetContentOctets(known)) {
    AppendRaw(out, octets, known);
    return known;
  }
  const MiString& text = obj.GetData();
  unsigned char quick[kv_asn::kOidQuickOctets];
  unsigned n = 0;
  if (kv_asn::OidTextToOctetsQuick(text.GetChars(), text.GetLength(), quick, n)) {
    AppendRaw(out, quick, n);
    return n;
  }
  std::string oct;
  if (!kv_asn::OidTextToOctets(text.GetChars(), text.GetLength(), oct)) throw AsnDataExp();
  AppendRaw(out, oct.data(), oct.size());
  return static_cast<unsigned>(oct.size());
}

unsigned AsnDerEncode::EncodeContent(const AsnEnumerated& obj, MiByteBuffer& out, unsigned pos) {
  KV_BEGIN_CONTENT(obj)
  unsigned char buf[4];
  unsigned n = kv_asn::Int32Octets(obj.GetData(), buf);
  AppendRaw(out, buf, n);
  return n;
}

unsigned AsnDerEncode::EncodeContent(const AsnBitString& obj, MiByteBuffer& out, unsigned pos) {
  KV_BEGIN_CONTENT(obj)
  const MiBitSet& bits = obj.GetData();
  out.Append(static_cast<unsigned char>((8 - bits.GetBitLength() % 8) % 8));
  const MiByte& b = bits.GetByte();
  AppendRaw(out, b.GetChars(), b.GetLength());
  return 1 + b.GetLength();
}

unsigned AsnDerEncode::EncodeContent(const AsnInteger& obj, MiByteBuffer& out, unsigned pos) {
  KV_BEGIN_CONTENT(obj)
  const MiBigInteger& v = obj.GetData();
  if (v.Size() == 0) {
    out.Append(static_cast<unsigned char>(0));
    return 1;
  }
  AppendRaw(out, v.Data(), v.Size());
  return v.Size();
}

unsigned AsnDerEncode::EncodeContent(const AsnOctetString& obj, MiByteBuffer& out, unsigned pos) {
  KV_BEGIN_CONTENT(obj)
  const MiByte& b = obj.GetData();
  AppendRaw(out, b.GetChars(), b.GetLength());
  return b.GetLength();
}

unsigned AsnDerEncode::EncodeContent(const AsnBoolean& obj, MiByteBuffer& out, unsigned pos) {
  KV_BEGIN_CONTENT(obj)
  out.Append(static_cast<unsigned char>(obj.GetData() ? 0xFF : 0x00));
  return 1;
}
#undef KV_BEGIN_CONTENT

unsigned AsnDerEncode::EncodeTag(const AsnTag& tag, MiByteBuffer& out, unsigned pos) {
  out.SetLength(pos);
  return PutTag(tag, out);
}

MiByte AsnDerEncode::EncodeLength(unsigned length) {
  unsigned char buf[5];
  unsigned k = LengthOctets(length, buf);
  return MiByte(reinterpret_cast<const char*>(buf), k);
}

// ---- Decoding ----------------------------------------------------------------

#define KV_SIMPLE_DECODE(T)                                               \
  unsigned AsnDerDecode::Decode(T& obj, const MiByte& in, unsigned pos) { \
    return DecodeObject(*this, obj, in, pos);                             \
  }
KV_ASN_VISIT_CLASSES(KV_SIMPLE_DECODE)
#undef KV_SIMPLE_DECODE

unsigned AsnDerDecode::DecodeTag(AsnTag& tag, const MiByte& in, unsigned pos) {
  CheckInput(in, pos);
  const unsigned char* p = Bytes(in);
  const unsigned len = in.GetLength();
  unsigned char b = p[pos];
  tag.tagClass = b & 0xC0;
  tag.tagForm = b & 0x20;
  tag.tagMode = ASN_TAG_MODE_NONE;
  if ((b & 0x1F) < 31) {
    tag.tagNumber = b & 0x1F;
    return 1;
  }
  uint32_t number = 0;
  for (unsigned count = 1;; ++count) {
    unsigned i = pos + count;
    if (i >= len) throw MiRangeExp();
    unsigned char c = p[i];
    number = (number << 7) | (c & 0x7F);
    if (!(c & 0x80)) {
      tag.tagNumber = number;
      return count + 1;
    }
    if (count == 5) throw MiRangeExp();
  }
}

unsigned AsnDerDecode::DecodeLength(unsigned& length, const MiByte& in, unsigned pos) {
  CheckInput(in, pos);
  const unsigned char* p = Bytes(in);
  unsigned char b = p[pos];
  if (b < 0x80) {
    length = b;
    return 1;
  }
  unsigned k = b & 0x7F;
  if (k == 0) {
    // Indefinite form: read as length zero, by design.
    length = 0;
    return 1;
  }
  // The length octets may not run to the end of the input (nor past it).
  if (k > 4 || pos + k + 1 >= in.GetLength()) throw MiRangeExp();
  unsigned v = 0;
  for (unsigned i = 1; i <= k; ++i) v = (v << 8) | p[pos + i];
  length = v;
  return 1 + k;
}

#define KV_BEGIN_DECODE(obj)                      \
  CheckContent(in, pos, length);                  \
  if (obj.GetAsnByteType() == ASN_BYTE_CONTENT) { \
    StoreContent(obj, in, pos, length);           \
    return length;                                \
  }

unsigned AsnDerDecode::DecodeContent(AsnContainer& obj, const MiByte& in, unsigned pos,
                                     unsigned length) {
  KV_BEGIN_DECODE(obj)
  AsnObject* data = obj.GetData();
  if (!data) throw AsnDataExp();
  kv_asn::DepthGuard guard;
  unsigned n = data->Decode(*this, in, pos);
  if (n != length) throw AsnDecodeExp();
  data->SetAsnPresent(true);
  return length;
}

unsigned AsnDerDecode::DecodeContent(AsnChoice& obj, const MiByte& in, unsigned pos,
                                     unsigned length) {
  KV_BEGIN_DECODE(obj)
  obj.Unselect();
  const AsnElementList& l = obj.Elements();
  if (l.Size() == 0) throw AsnDecodeExp();
  kv_asn::DepthGuard guard;
  const AsnTag& tag = obj.GetAsnTag();
  for (unsigned i = 0; i < l.Size(); ++i) {
    AsnObject* a = l.At(i);
    bool match = a->IsAsnChoice() ? ChoiceHasAlternative(static_cast<AsnChoice&>(*a), tag)
                                  : a->GetAsnTag().SameClassAndNumber(tag);
    if (!match) continue;
    a->Reset(nullptr);
    if (a->IsAsnChoice()) a->SetAsnTag(tag);
    unsigned n = a->DecodeContent(*this, in, pos, length);
    a->SetAsnPresent(true);
    obj.SelectIndex(static_cast<int>(i));
    return n;
  }
  throw AsnDecodeExp();
}

namespace {

void PushComponentByteType(const AsnElementList& l, ASN_BYTE_TYPE t) {
  if (t != ASN_BYTE_CONTENT && t != ASN_BYTE_WHOLE) return;
  for (unsigned i = 0; i < l.Size(); ++i) {
    if (t == ASN_BYTE_WHOLE)
      l.At(i)->OnByte();
    else
      l.At(i)->OnContentByte();
  }
}

}  // namespace

unsigned AsnDerDecode::DecodeContent(AsnSequence& obj, const MiByte& in, unsigned pos,
                                     unsigned length) {
  KV_BEGIN_DECODE(obj)
  if (length == 0) return 0;
  const AsnElementList& l = obj.Elements();
  const unsigned n = l.Size();
  if (n == 0) throw AsnDecodeExp();
  kv_asn::DepthGuard guard;
  PushComponentByteType(l, obj.GetComponentByteType());
  const unsigned end = pos + length;
  unsigned p = pos;
  unsigned i = 0;
  for (; p < end && i < n; ++i) {
    AsnObject* e = l.At(i);
    AsnTag next;
    DecodeTag(next, in, p);
    const ASN_STATE state = e->GetAsnState();
    bool decode;
    if (state == ASN_STATE_MANDATORY || e->GetAsnTag().SameClassAndNumber(next) ||
        e->IsAsnAnyType()) {
      // Tags of mandatory elements are not checked, by design.
      decode = true;
    } else if (state == ASN_STATE_OPTIONAL || state == ASN_STATE_DEFAULT) {
      decode = e->IsAsnChoice() && ChoiceHasAlternative(static_cast<AsnChoice&>(*e), next);
    } else {
      throw AsnDecodeExp();
    }
    if (decode) {
      unsigned used = e->Decode(*this, in, p);
      if (used > end - p) throw AsnDecodeExp();
      e->SetAsnPresent(true);
      p += used;
    } else {
      e->SetAsnPresent(false);
    }
  }
  for (; i < n; ++i) {
    AsnObject* e = l.At(i);
    if (e->GetAsnState() != ASN_STATE_OPTIONAL && e->GetAsnState() != ASN_STATE_DEFAULT)
      throw AsnDecodeExp();
    e->SetAsnPresent(false);
  }
  return p - pos;
}

unsigned AsnDerDecode::DecodeContent(AsnSet& obj, const MiByte& in, unsigned pos, unsigned length) {
  KV_BEGIN_DECODE(obj)
  if (length == 0) return 0;
  const AsnElementList& l = obj.Elements();
  const unsigned n = l.Size();
  if (n == 0) throw AsnDecodeExp();
  kv_asn::DepthGuard guard;
  PushComponentByteType(l, obj.GetComponentByteType());
  for (unsigned i = 0; i < n; ++i) l.At(i)->SetAsnPresent(false);
  const unsigned end = pos + length;
  unsigned p = pos;
  while (p < end) {
    AsnTag next;
    DecodeTag(next, in, p);
    AsnObject* e = nullptr;
    for (unsigned i = 0; i < n && !e; ++i)
      if (l.At(i)->GetAsnTag().SameClassAndNumber(next)) e = l.At(i);
    if (!e) throw AsnDecodeExp();
    unsigned used = e->Decode(*this, in, p);
    if (used > end - p) throw AsnDecodeExp();
    e->SetAsnPresent(true);
    p += used;
  }
  return length;
}

#define KV_NARROW_DECODE(T)                                                                       \
  unsigned AsnDerDecode::DecodeContent(T& obj, const MiByte& in, unsigned pos, unsigned length) { \
    KV_BEGIN_DECODE(obj)                                                                          \
    obj.SetData(in.GetChars(), pos, length);                                                      \
    return length;                                                                                \
  }
KV_NARROW_DECODE(AsnTeletexString)
KV_NARROW_DECODE(AsnVisibleString)
KV_NARROW_DECODE(AsnPrintableString)
KV_NARROW_DECODE(AsnNumericString)
KV_NARROW_DECODE(AsnIA5String)
KV_NARROW_DECODE(AsnUniversalString)
#undef KV_NARROW_DECODE

unsigned AsnDerDecode::DecodeContent(AsnUTF8String& obj, const MiByte& in, unsigned pos,
                                     unsigned length) {
  KV_BEGIN_DECODE(obj)
  std::vector<uint32_t> codes;
  if (!kv_asn::Utf8ToCodes(Bytes(in) + pos, length, codes)) throw MiInvalidArgumentExp();
  std::vector<AsnQuadruple> q(codes.size());
  for (size_t i = 0; i < codes.size(); ++i) q[i] = AsnQuadruple(codes[i]);
  obj.SetData(q.empty() ? nullptr : q.data(), static_cast<unsigned>(q.size()));
  return length;
}

unsigned AsnDerDecode::DecodeContent(AsnBMPString& obj, const MiByte& in, unsigned pos,
                                     unsigned length) {
  KV_BEGIN_DECODE(obj)
  if (length % 2) throw MiInvalidArgumentExp();
  std::vector<AsnQuadruple> q(length / 2);
  const unsigned char* p = Bytes(in) + pos;
  for (unsigned i = 0; i < length / 2; ++i) q[i] = AsnQuadruple((p[2 * i] << 8) | p[2 * i + 1]);
  obj.SetData(q.empty() ? nullptr : q.data(), static_cast<unsigned>(q.size()));
  return length;
}

unsigned AsnDerDecode::DecodeContent(AsnNull& obj, const MiByte& in, unsigned pos,
                                     unsigned length) {
  KV_BEGIN_DECODE(obj)
  if (length != 0) throw MiInvalidArgumentExp();
  return 0;
}

unsigned AsnDerDecode::DecodeContent(AsnUTCTime& obj, const MiByte& in, unsigned pos,
                                     unsigned length) {
  KV_BEGIN_DECODE(obj)
  // The parser works on a terminated copy; an embedded zero ends the text
  // early and is then refused as malformed.
  std::string text(in.GetChars() + pos, length);
  if (std::strlen(text.c_str()) != length) throw AsnDataExp();
  obj.SetTime(text.c_str());
  return length;
}

unsigned AsnDerDecode::DecodeContent(AsnGeneralizedTime& obj, const MiByte& in, unsigned pos,
                                     unsigned length) {
  KV_BEGIN_DECODE(obj)
  std::string text(in.GetChars() + pos, length);
  if (std::strlen(text.c_str()) != length) throw AsnDataExp();
  obj.SetTime(text.c_str());
  return length;
}

unsigned AsnDerDecode::DecodeContent(AsnOid& obj, const MiByte& in, unsigned pos, unsigned length) {
  KV_BEGIN_DECODE(obj)
  std::string text;
  const unsigned char* p = Bytes(in) + pos;
  if (!kv_asn::OidOctetsToText(p, length, text)) throw AsnDecodeExp();
  // Short content is kept for re-encoding when the text gives it back
  // exactly, that is when no subidentifier starts with a 0x80 group (a
  // non-minimal form, which re-encodes shorter).
  bool minimal = true;
  for (unsigned i = 0; i < length; ++i)
    if (p[i] == 0x80 && (i == 0 || !(p[i - 1] & 0x80))) minimal = false;
  obj.SetDecoded(text.c_str(), minimal ? p : nullptr, minimal ? length : 0);
  return length;
}

unsigned AsnDerDecode::DecodeContent(AsnEnumerated& obj, const MiByte& in, unsigned pos,
                                     unsigned length) {
  KV_BEGIN_DECODE(obj)
  if (length == 0) throw MiInvalidArgumentExp();
  // The last four octets, two's complement.
  const unsigned char* p = Bytes(in) + pos;
  unsigned k = length < 4 ? length : 4;
  uint32_t v = (p[length - k] & 0x80) ? 0xFFFFFFFFu : 0;
  for (unsigned i = length - k; i < length; ++i) v = (v << 8) | p[i];
  obj.SetData(static_cast<int32_t>(v));
  return length;
}

unsigned AsnDerDecode::DecodeContent(AsnBitString& obj, const MiByte& in, unsigned pos,
                                     unsigned length) {
  KV_BEGIN_DECODE(obj)
  if (length == 0) throw MiInvalidArgumentExp();
  const unsigned unused = Bytes(in)[pos];
  const uint64_t bits = 8ull * (length - 1);
  if (unused > 7 || unused > bits) throw MiInvalidArgumentExp();
  const unsigned n = static_cast<unsigned>(bits - unused);
  if (n == 0) {
    obj.SetData(MiBitSet());
  } else {
    MiBitSet set;
    set.SetBitsByte(in.GetChars(), pos + 1, n);
    // Padding bits are not part of the value.
    if (n % 8) {
      MiBitSet exact(set.GetByte(), n);
      obj.SetData(exact);
    } else {
      obj.SetData(set);
    }
  }
  return length;
}

unsigned AsnDerDecode::DecodeContent(AsnInteger& obj, const MiByte& in, unsigned pos,
                                     unsigned length) {
  KV_BEGIN_DECODE(obj)
  obj.SetData(MiBigInteger::FromTwosComplement(Bytes(in) + pos, length));
  return length;
}

unsigned AsnDerDecode::DecodeContent(AsnOctetString& obj, const MiByte& in, unsigned pos,
                                     unsigned length) {
  KV_BEGIN_DECODE(obj)
  if (length == 0)
    obj.SetData(MiByte());
  else
    obj.SetData(in.GetChars(), pos, length);
  return length;
}

unsigned AsnDerDecode::DecodeContent(AsnBoolean& obj, const MiByte& in, unsigned pos,
                                     unsigned length) {
  KV_BEGIN_DECODE(obj)
  if (length == 0) throw MiInvalidArgumentExp();
  obj.SetData(Bytes(in)[pos] != 0);
  return length;
}
#undef KV_BEGIN_DECODE
