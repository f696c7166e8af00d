// Helpers of the token layer's tests: byte conversions, RSA keys made by
// OpenSSL, and the OpenSSL / Python oracles run in a scratch directory.
#pragma once

#include <string>
#include <vector>

#include "asn1/mi_byte.h"
#include "crypto/p11.h"
#include "support/support.h"

namespace p11test {

using Bytes = std::vector<unsigned char>;

MiByte M(const Bytes& b);
MiByte M(const std::string& s);
Bytes B(const MiByte& m);
Bytes Random(size_t n, unsigned seed);
std::string Hex(const Bytes& b);
Bytes Unhex(const std::string& hex);
inline unsigned char* U(const char* s) {
  return reinterpret_cast<unsigned char*>(const_cast<char*>(s));
}

void OpenSoft(KV_P11_OP& op);  // asserts success

// Components n e d p q dP dQ qInv (unsigned big-endian) and PEM files of both
// halves for OpenSSL.
struct RsaKey {
  Bytes comp[8];
  std::string privPem, pubPem;
};
// A key made by OpenSSL, once per program and size.
const RsaKey& OpensslKey(int bits);
// PEM files for eight components made elsewhere (ours).
RsaKey KeyFromComponents(const std::vector<Bytes>& comp);

KV_P11_Key PublicKey(const RsaKey& k);
KV_P11_Key PrivateKey(const RsaKey& k);
// The components a key object gives back: 8, 2 or none.
std::vector<Bytes> Components(KV_P11_Key& key);

// Debian's interpreter, which has cryptography and pycryptodome.
extern const std::string kPython;
bool HaveOracles();  // openssl and python3-cryptography

std::string Scratch(const std::string& name);
std::string WriteScratch(const std::string& name, const Bytes& data);
Bytes ReadScratch(const std::string& name);
// Runs a shell command in the scratch directory; its exit status, and its
// standard output in *out.
int Shell(const std::string& cmd, std::string* out = nullptr);
// "openssl ARGS" with data on standard input; returns standard output. Fails
// the test on a nonzero exit unless status is given.
Bytes Openssl(const std::string& args, const Bytes& data, int* status = nullptr);

}  // namespace p11test
