// A program outside the project that uses the library through its umbrella headers.
#include "asn1/asn1.h"
#include "crypto/crypto.h"
#include "pki/pki.h"

// Encodes SEQUENCE { n INTEGER, name IA5String } and decodes it back.
static bool Asn1RoundTrip() {
  AsnSequence s;
  AsnInteger n(-129);
  n.SetAsnName("n");
  s.AddElement(&n);
  AsnIA5String name("korvanta");
  name.SetAsnName("name");
  s.AddElement(&name);
  s.Set("n", &n);
  s.Set("name", &name);
  MiByteBuffer out;
  s.DerEncode(out, 0);
  AsnSequence back(s);
  back.Reset(nullptr);
  return back.DerDecode(out.GetByte(), 0) == out.GetLength() && back.EqualsContent(&s);
}

int main() {
  return Asn1RoundTrip() ? 0 : 1;
}
