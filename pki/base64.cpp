#include "pki/base64.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned char kPad = '=';
constexpr int kLine = 64;

// Character values: the alphabet 0..63, "=" 64, everything else 0 (so only
// 'A' among the zeros is a real character).
struct DecodeTable {
  unsigned char value[256];
  constexpr DecodeTable() : value() {
    for (int i = 0; i < 64; ++i)
      value[static_cast<unsigned char>(kAlphabet[i])] = static_cast<unsigned char>(i);
    value[kPad] = 64;
  }
};
constexpr DecodeTable kDecode;

bool Significant(unsigned char c) {
  return kDecode.value[c] != 0 || c == 'A';
}

// Octets from one group of four significant characters; a group that cannot
// be read is dropped (0 octets).
int DecodeGroup(const unsigned char g[4], unsigned char* out) {
  if (g[0] == kPad || g[1] == kPad) return 0;
  const unsigned a = kDecode.value[g[0]];
  const unsigned b = kDecode.value[g[1]];
  if (g[2] == kPad) {
    if (g[3] != kPad) return 0;
    out[0] = static_cast<unsigned char>((a << 2) | (b >> 4));
    return 1;
  }
  const unsigned c = kDecode.value[g[2]];
  out[0] = static_cast<unsigned char>((a << 2) | (b >> 4));
  out[1] = static_cast<unsigned char>(((b & 0x0F) << 4) | (c >> 2));
  if (g[3] == kPad) return 2;
  const unsigned d = kDecode.value[g[3]];
  out[2] = static_cast<unsigned char>(((c & 0x03) << 6) | d);
  return 3;
}

inline void EncodeGroup(const unsigned char* in, unsigned char* out) {
  out[0] = static_cast<unsigned char>(kAlphabet[in[0] >> 2]);
  out[1] = static_cast<unsigned char>(kAlphabet[((in[0] & 0x03) << 4) | (in[1] >> 4)]);
  out[2] = static_cast<unsigned char>(kAlphabet[((in[1] & 0x0F) << 2) | (in[2] >> 6)]);
  out[3] = static_cast<unsigned char>(kAlphabet[in[2] & 0x3F]);
}

// Base64 characters for n octets.
uint64_t TextLength(uint64_t n) {
  return (n + 2) / 3 * 4;
}

// Octets written for a text of L characters with line breaks: one line feed
// per full line and a closing one.
uint64_t WrittenLength(uint64_t L, bool lineBreaks) {
  return lineBreaks ? L + L / kLine + 1 : L;
}

// The length reported to the caller: (L - 1) / 64 + L + 1 with line breaks,
// in which a text of a multiple of 64 characters counts one closing line feed
// of the two it carries.
int64_t ReportedLength(uint64_t L, bool lineBreaks) {
  if (!lineBreaks) return static_cast<int64_t>(L);
  const int64_t l = static_cast<int64_t>(L);
  return (l - 1) / kLine + l + 1;
}

// Frees a malloc'd block when it goes out of scope.
struct Scratch {
  explicit Scratch(std::size_t n) : p(static_cast<unsigned char*>(std::malloc(n == 0 ? 1 : n))) {}
  ~Scratch() { std::free(p); }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  unsigned char* p;
};

}  // namespace

void KV_Base64::encodeini(EncodeState* state) {
  state->pending = 0;
  state->octets[0] = state->octets[1] = 0;
  state->column = 0;
}

int KV_Base64::encodeupdate(unsigned char* in, int n, unsigned char* out, EncodeState* state) {
  int written = 0;
  int i = 0;
  if (in == nullptr || n < 0) n = 0;
  // Complete the group started by the previous call.
  if (state->pending != 0) {
    unsigned char group[3] = {state->octets[0], state->octets[1], 0};
    int have = state->pending;
    while (have < 3 && i < n) group[have++] = in[i++];
    if (have < 3) {
      state->pending = have;
      state->octets[0] = group[0];
      state->octets[1] = group[1];
      return 0;
    }
    EncodeGroup(group, out);
    written = 4;
    state->pending = 0;
  }
  for (; n - i >= 3; i += 3, written += 4) EncodeGroup(in + i, out + written);
  state->pending = n - i;
  for (int k = 0; k < state->pending; ++k) state->octets[k] = in[i + k];
  if (written != 0) state->column = (state->column + written - 1) % 76 + 1;
  return written;
}

int KV_Base64::encodefinish(unsigned char* out, EncodeState* state) {
  if (state->pending == 0) return 0;
  unsigned char group[3] = {
      state->octets[0], static_cast<unsigned char>(state->pending == 2 ? state->octets[1] : 0), 0};
  EncodeGroup(group, out);
  out[3] = kPad;
  if (state->pending == 1) out[2] = kPad;
  state->pending = 0;
  state->column = (state->column + 3) % 76 + 1;
  return 4;
}

void KV_Base64::decodeini(DecodeState* state) {
  state->pending = 0;
  state->chars[0] = state->chars[1] = state->chars[2] = 0;
}

int KV_Base64::decodeupdate(unsigned char* in, int n, unsigned char* out, DecodeState* state) {
  if (in == nullptr || n < 0) n = 0;
  unsigned char group[4];
  int have = state->pending;
  for (int k = 0; k < have; ++k) group[k] = state->chars[k];
  int written = 0;
  for (int i = 0; i < n; ++i) {
    const unsigned char c = in[i];
    if (!Significant(c)) continue;  // line feeds and foreign characters
    group[have++] = c;
    if (have == 4) {
      written += DecodeGroup(group, out + written);
      have = 0;
    }
  }
  state->pending = have;
  for (int k = 0; k < have; ++k) state->chars[k] = group[k];
  return written;
}

// Nothing is left to write; returns -1 when characters of an incomplete
// group are still pending, which voids the whole result.
int KV_Base64::decodefinish(unsigned char* /*out*/, DecodeState* state) {
  const bool incomplete = state->pending != 0;
  state->pending = 0;
  return incomplete ? -1 : 0;
}

long long KV_Base64::EncodeText(const char* in, int n, char* out) {
  EncodeState state;
  encodeini(&state);
  unsigned char* text = reinterpret_cast<unsigned char*>(out);
  int L = encodeupdate(reinterpret_cast<unsigned char*>(const_cast<char*>(in)), n, text, &state);
  L += encodefinish(text + L, &state);
  return L;
}

int KV_Base64::Encode(char* in, int n, char* out, int* outLen, bool lineBreaks) {
  if (in == nullptr || n < 0) n = 0;
  const uint64_t L = TextLength(static_cast<uint64_t>(n));
  const int64_t reported = ReportedLength(L, lineBreaks);
  if (reported > INT_MAX) return KV_ERR_MEMORY;
  Scratch scratch(2 * static_cast<std::size_t>(n) + 4);
  if (scratch.p == nullptr) return KV_ERR_MEMORY;
  if (out != nullptr) {
    const long long produced = EncodeText(in, n, reinterpret_cast<char*>(scratch.p));
    if (!lineBreaks) {
      std::memcpy(out, scratch.p, static_cast<std::size_t>(produced));
    } else {
      char* dst = out;
      for (long long pos = 0; pos < produced; pos += kLine) {
        const long long chunk = produced - pos < kLine ? produced - pos : kLine;
        std::memcpy(dst, scratch.p + pos, static_cast<std::size_t>(chunk));
        dst += chunk;
        if (chunk == kLine) *dst++ = '\n';
      }
      *dst = '\n';  // the closing line feed
    }
  }
  if (outLen != nullptr) *outLen = static_cast<int>(reported);
  return 0;
}

int KV_Base64::Encode(MiByte& in, MiByte& out, bool lineBreaks) {
  if (in.GetLength() > static_cast<unsigned>(INT_MAX)) return KV_ERR_MEMORY;
  const int n = static_cast<int>(in.GetLength());
  const uint64_t L = TextLength(static_cast<uint64_t>(n));
  const uint64_t written = WrittenLength(L, lineBreaks);
  if (ReportedLength(L, lineBreaks) > INT_MAX) return KV_ERR_MEMORY;
  Scratch scratch(static_cast<std::size_t>(written));
  if (scratch.p == nullptr) return KV_ERR_MEMORY;
  int reported = 0;
  int rc = Encode(in.GetChars(), n, reinterpret_cast<char*>(scratch.p), &reported, lineBreaks);
  if (rc != 0) return rc;
  if (reported == 0) {
    out.Reset(nullptr);
  } else {
    out.SetByte(reinterpret_cast<const char*>(scratch.p), static_cast<unsigned>(reported));
  }
  return 0;
}

int KV_Base64::Decode(char* in, int n, char* out, int* outLen) {
  if (in == nullptr || n < 0) n = 0;
  if (out == nullptr) {
    if (outLen != nullptr) *outLen = n;  // an upper bound
    return 0;
  }
  DecodeState state;
  decodeini(&state);
  unsigned char* dst = reinterpret_cast<unsigned char*>(out);
  int total = decodeupdate(reinterpret_cast<unsigned char*>(in), n, dst, &state);
  const int tail = decodefinish(dst + total, &state);
  if (outLen != nullptr) *outLen = tail < 0 ? 0 : total + tail;
  return 0;
}

int KV_Base64::Decode(MiByte& in, MiByte& out) {
  if (in.GetLength() > static_cast<unsigned>(INT_MAX)) return KV_ERR_MEMORY;
  const int n = static_cast<int>(in.GetLength());
  Scratch scratch(static_cast<std::size_t>(n));
  if (scratch.p == nullptr) return KV_ERR_MEMORY;
  int length = 0;
  Decode(in.GetChars(), n, reinterpret_cast<char*>(scratch.p), &length);
  if (length == 0) {
    out.Reset(nullptr);
  } else {
    out.SetByte(reinterpret_cast<const char*>(scratch.p), static_cast<unsigned>(length));
  }
  return 0;
}

extern "C" int KVPKCS_Base64Encode(char* in, int n, char* out, int* outLen) {
  try {
    return KV_Base64().Encode(in, n, out, outLen, true);
  } catch (...) {
    return KV_ERR_MEMORY;
  }
}

extern "C" int KVPKCS_Base64Decode(char* in, int n, char* out, int* outLen) {
  try {
    return KV_Base64().Decode(in, n, out, outLen);
  } catch (...) {
    return KV_ERR_MEMORY;
  }
}
