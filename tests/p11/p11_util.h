// Helpers of the token layer's tests: byte conversions, an opened soft-token
// chooser, RSA keys made by OpenSSL and the OpenSSL / Python oracles.
#pragma once

#include <cstdint>
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
Bytes Random(size_t n, uint32_t seed);
std::string Hex(const Bytes& b);
Bytes Unhex(const std::string& hex);

// Opens the soft token on op (asserting success).
void OpenSoft(KV_P11_OP& op);

// An RSA key pair in component form (n e d p q dP dQ qInv, unsigned
// big-endian) with PEM files of both halves for OpenSSL.
struct RsaKey {
  Bytes comp[8];
  std::string privPem, pubPem;
  unsigned ModulusBytes() const;
};

// A key of that size made by OpenSSL, once per program.
const RsaKey& OpensslKey(int bits);
// PEM files for components made elsewhere (ours); n and e only for a public key.
RsaKey KeyFromComponents(const Bytes* comp, int count);

KV_P11_Key PublicKey(const RsaKey& k);
KV_P11_Key PrivateKey(const RsaKey& k);
// The components a key object carries (2 or 8).
std::vector<Bytes> Components(KV_P11_Key& key);

// The scratch directory of the program.
const kvtest::TempDir& Scratch();
std::string WriteScratch(const std::string& name, const Bytes& data);
Bytes ReadScratch(const std::string& name);

// Runs a shell command; its status, and its output in *out when given.
int Shell(const std::string& cmd, std::string* out = nullptr);
// "openssl ARGS" in the scratch directory with data on standard input; its
// standard output is returned. *status receives the exit status (without it a
// failure fails the test).
Bytes Openssl(const std::string& args, const Bytes& data, int* status = nullptr);

// Debian's interpreter, which has cryptography and pycryptodome.
extern const std::string kPython;

bool HaveOpenssl();
bool HavePython(const std::string& module);

}  // namespace p11test
