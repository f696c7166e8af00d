// The encoding visitors. AsnEncode/AsnDecode are the abstract interfaces with
// one operation per ASN.1 class; AsnDerEncode/AsnDerDecode implement DER the
// way this toolkit reads it (mandatory tags unchecked, pairwise SET order,
// indefinite lengths read as zero).
#pragma once

#include "asn1/asn_object.h"

class AsnContainer;
class AsnChoice;
class AsnSet;
class AsnSequence;
class AsnTeletexString;
class AsnVisibleString;
class AsnPrintableString;
class AsnNumericString;
class AsnUTF8String;
class AsnUniversalString;
class AsnIA5String;
class AsnBMPString;
class AsnNull;
class AsnUTCTime;
class AsnGeneralizedTime;
class AsnOid;
class AsnEnumerated;
class AsnBitString;
class AsnInteger;
class AsnOctetString;
class AsnBoolean;

#define KV_ASN_VISIT_CLASSES(X) \
  X(AsnContainer)               \
  X(AsnChoice)                  \
  X(AsnSet)                     \
  X(AsnSequence)                \
  X(AsnTeletexString)           \
  X(AsnVisibleString)           \
  X(AsnPrintableString)         \
  X(AsnNumericString)           \
  X(AsnUTF8String)              \
  X(AsnUniversalString)         \
  X(AsnIA5String)               \
  X(AsnBMPString)               \
  X(AsnNull)                    \
  X(AsnUTCTime)                 \
  X(AsnGeneralizedTime)         \
  X(AsnOid)                     \
  X(AsnEnumerated)              \
  X(AsnBitString)               \
  X(AsnInteger)                 \
  X(AsnOctetString)             \
  X(AsnBoolean)

class AsnEncode : public MiObject {
 public:
  ~AsnEncode() override = default;
#define KV_DECL(T) virtual unsigned Encode(const T& obj, MiByteBuffer& out, unsigned pos) = 0;
  KV_ASN_VISIT_CLASSES(KV_DECL)
#undef KV_DECL
#define KV_DECL(T) \
  virtual unsigned EncodeContent(const T& obj, MiByteBuffer& out, unsigned pos) = 0;
  KV_ASN_VISIT_CLASSES(KV_DECL)
#undef KV_DECL
  virtual unsigned EncodeTag(const AsnTag& tag, MiByteBuffer& out, unsigned pos) = 0;
  virtual MiByte EncodeLength(unsigned length) = 0;
};

class AsnDecode : public MiObject {
 public:
  ~AsnDecode() override = default;
#define KV_DECL(T) virtual unsigned Decode(T& obj, const MiByte& in, unsigned pos) = 0;
  KV_ASN_VISIT_CLASSES(KV_DECL)
#undef KV_DECL
#define KV_DECL(T) \
  virtual unsigned DecodeContent(T& obj, const MiByte& in, unsigned pos, unsigned length) = 0;
  KV_ASN_VISIT_CLASSES(KV_DECL)
#undef KV_DECL
  virtual unsigned DecodeTag(AsnTag& tag, const MiByte& in, unsigned pos) = 0;
  virtual unsigned DecodeLength(unsigned& length, const MiByte& in, unsigned pos) = 0;
};

class AsnDerEncode : public AsnEncode {
 public:
#define KV_DECL(T) unsigned Encode(const T& obj, MiByteBuffer& out, unsigned pos) override;
  KV_ASN_VISIT_CLASSES(KV_DECL)
#undef KV_DECL
#define KV_DECL(T) unsigned EncodeContent(const T& obj, MiByteBuffer& out, unsigned pos) override;
  KV_ASN_VISIT_CLASSES(KV_DECL)
#undef KV_DECL
  unsigned EncodeTag(const AsnTag& tag, MiByteBuffer& out, unsigned pos) override;
  MiByte EncodeLength(unsigned length) override;
};

class AsnDerDecode : public AsnDecode {
 public:
#define KV_DECL(T) unsigned Decode(T& obj, const MiByte& in, unsigned pos) override;
  KV_ASN_VISIT_CLASSES(KV_DECL)
#undef KV_DECL
#define KV_DECL(T) \
  unsigned DecodeContent(T& obj, const MiByte& in, unsigned pos, unsigned length) override;
  KV_ASN_VISIT_CLASSES(KV_DECL)
#undef KV_DECL
  unsigned DecodeTag(AsnTag& tag, const MiByte& in, unsigned pos) override;
  unsigned DecodeLength(unsigned& length, const MiByte& in, unsigned pos) override;
};

// Generic whole-encoding steps for any object, used by every Encode/Decode of
// the DER visitors, by the SEQUENCE OF / SET OF templates and by AsnAny. They
// go through the object's virtual EncodeContent/DecodeContent slots.
namespace kv_asn {
// Encodes obj (identifier, length, content) at pos; honours byte type 2.
unsigned EncodeObject(AsnEncode& enc, const AsnObject& obj, MiByteBuffer& out, unsigned pos);
// Decodes obj from in at pos (reset, identifier, length, content); honours byte
// type 2. Returns the octets of the whole encoding.
unsigned DecodeObject(AsnDecode& dec, AsnObject& obj, const MiByte& in, unsigned pos);
// Raises the documented exceptions when [pos, pos+length) is not inside in.
void CheckContent(const MiByte& in, unsigned pos, unsigned length);
// With byte type 1 and a saved copy, appends the saved content octets at pos
// and returns true.
bool EncodeSavedContent(const AsnObject& obj, MiByteBuffer& out, unsigned pos, unsigned& written);
// out holds, from start on, whole encodings back to back whose sizes are given;
// rewrites them in SET OF order (shorter first, then unsigned octets).
void SortSetOfEncodings(MiByteBuffer& out, unsigned start, const unsigned* sizes, unsigned count);
// Raises AsnDecodeExp when the nesting of constructed values gets too deep.
class DepthGuard {
 public:
  DepthGuard();
  ~DepthGuard();
  DepthGuard(const DepthGuard&) = delete;
  DepthGuard& operator=(const DepthGuard&) = delete;
};
}  // namespace kv_asn
