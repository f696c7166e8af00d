// Base64 text (standard alphabet, "=" padding) for octets, in a streaming
// style: update steps that take any amount of input and carry at most two
// octets (encoding) or three characters (decoding) to the next call, and a
// finish step that flushes them.
#pragma once

#include "asn1/mi_byte.h"
#include "pki/errors.h"

class KV_Base64 {
 public:
  // Encodes n octets. outLen receives the text length; with lineBreaks a line
  // feed follows every 64th character and one more ends the text, and the
  // reported length is (L - 1) / 64 + L + 1 for L Base64 characters. When L
  // is a multiple of 64 a second closing line feed is written beyond that
  // length, so out needs room for *outLen + 1 octets. A null out only reports
  // the length. Returns 0, or KV_ERR_MEMORY when the scratch block cannot be
  // allocated.
  int Encode(char* in, int n, char* out, int* outLen, bool lineBreaks);
  // The same on MiBytes: out receives the text of the reported length.
  int Encode(MiByte& in, MiByte& out, bool lineBreaks);

  // Decodes n characters; line feeds and characters outside the alphabet are
  // skipped, badly padded groups dropped, and several padded blocks decode as
  // one stream. outLen receives the octet count, or 0 when the text ends in
  // an incomplete group. out needs room for n octets; a null out only reports
  // n. Always returns 0.
  int Decode(char* in, int n, char* out, int* outLen);
  // The same on MiBytes (out is left empty for an incomplete final group).
  // Returns 0 or KV_ERR_MEMORY.
  int Decode(MiByte& in, MiByte& out);

 private:
  struct EncodeState {
    int pending;              // octets carried over: 0, 1 or 2
    unsigned char octets[2];  // the carried octets
    int column;               // output characters counted 1..76 (no effect on breaks)
  };
  struct DecodeState {
    int pending;             // characters carried over: 0 to 3
    unsigned char chars[3];  // the carried characters
  };

  void encodeini(EncodeState* state);
  int encodeupdate(unsigned char* in, int n, unsigned char* out, EncodeState* state);
  int encodefinish(unsigned char* out, EncodeState* state);
  void decodeini(DecodeState* state);
  int decodeupdate(unsigned char* in, int n, unsigned char* out, DecodeState* state);
  int decodefinish(unsigned char* out, DecodeState* state);

  // Runs the encoding steps over in[0, n) into out, without line feeds, and
  // returns the number of characters.
  long long EncodeText(const char* in, int n, char* out);
};

extern "C" {
// Encode with line breaks; see KV_Base64::Encode. No exception escapes.
int KVPKCS_Base64Encode(char* in, int n, char* out, int* outLen);
// See KV_Base64::Decode. No exception escapes.
int KVPKCS_Base64Decode(char* in, int n, char* out, int* outLen);
}
