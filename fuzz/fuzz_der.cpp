// Decodes arbitrary octets into several object shapes; whatever decodes must
// encode again without failing in any other way than a documented exception.
#include <cstddef>
#include <cstdint>
#include <sstream>

#include "asn1/asn1.h"
#include "tests/asn1/asn_test_types.h"

namespace {

void Try(AsnObject& obj, const MiByte& in) {
  try {
    obj.DerDecode(in, 0);
  } catch (const MiException&) {
    return;
  }
  try {
    MiByteBuffer out;
    obj.DerEncode(out, 0);
    std::ostringstream dump;
    obj.ToOstream(dump, 0);
  } catch (const MiException&) {
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0 || size > (1u << 20)) return 0;
  MiByte in(reinterpret_cast<const char*>(data), static_cast<unsigned>(size));

  // The open-type holder must give back exactly the DER it read.
  {
    AsnAny any;
    bool decoded = false;
    unsigned used = 0;
    try {
      used = any.DerDecode(in, 0);
      decoded = true;
    } catch (const MiException&) {
    }
    if (decoded) {
      MiByteBuffer out;
      try {
        any.DerEncode(out, 0);
      } catch (const MiException&) {
        __builtin_trap();  // a decoded holder always encodes
      }
      // What we wrote reads back to the very same octets.
      MiByte again = out.GetByte();
      AsnAny second;
      MiByteBuffer out2;
      try {
        if (second.DerDecode(again, 0) != again.GetLength()) __builtin_trap();
        second.DerEncode(out2, 0);
      } catch (const MiException&) {
        __builtin_trap();
      }
      if (!(out2 == out)) __builtin_trap();
      (void)used;
    }
  }

  // A SEQUENCE of any-type elements.
  {
    AsnSequence s;
    for (const char* name : {"a", "b", "c"}) {
      AsnAny e;
      e.SetAsnName(name);
      e.SetAsnState(ASN_STATE_OPTIONAL);
      s.AddElement(&e);
    }
    Try(s, in);
  }

  // Each primitive type.
  {
    AsnBoolean b;
    Try(b, in);
    AsnInteger i;
    Try(i, in);
    AsnEnumerated e;
    Try(e, in);
    AsnBitString bs;
    Try(bs, in);
    AsnOctetString os;
    Try(os, in);
    AsnNull n;
    Try(n, in);
    AsnOid oid;
    Try(oid, in);
    AsnPrintableString ps;
    Try(ps, in);
    AsnNumericString ns;
    Try(ns, in);
    AsnVisibleString vs;
    Try(vs, in);
    AsnIA5String ia;
    Try(ia, in);
    AsnTeletexString ts;
    Try(ts, in);
    AsnUTF8String u8;
    Try(u8, in);
    AsnBMPString bmp;
    Try(bmp, in);
    AsnUniversalString us;
    Try(us, in);
    AsnUTCTime ut;
    Try(ut, in);
    AsnGeneralizedTime gt;
    Try(gt, in);
  }

  // A nested structure with optional, default, choice and list elements.
  {
    TestRecord r;
    Try(r, in);
    TestRecord saved;
    saved.OnComponentByte();
    Try(saved, in);
    AsnSetOf<TestRecord> set;
    Try(set, in);
  }
  return 0;
}
