// One SoftHSM2 token directory for the whole test program. SoftHSM reads its
// configuration when the module is initialised and a module is loaded once per
// process, so the tokens are all made up front, before anything loads it, and
// each test works on its own token or its own object labels.
#pragma once

#include <string>
#include <vector>

#include "support/support.h"

namespace p11test {

extern const char kModule[];  // the SoftHSM2 module
extern const char kPin[];
extern const char kSoPin[];
// Debian's interpreter, which has cryptography and pycryptodome.
extern const char kPython[];
// Output of the RSA oracle (tests/data/pkcs11/rsa_oracle.py) run with args.
std::string Oracle(const std::string& args);

// Tokens made by the environment.
extern const char kOpsToken[];    // key generation, signing, certificates
extern const char kPinToken[];    // login failures
extern const char kKnownToken[];  // holds the imported key pair "known"

// The scratch directory of the program (config, tokens, the known key).
const kvtest::TempDir& Scratch();
// The configuration file the environment wrote.
std::string ConfPath();

// The imported key: PEM private key file, and its components as hex.
std::string KnownKeyPem();
std::string KnownModulusHex();

std::string Hex(const std::vector<unsigned char>& v);
std::vector<unsigned char> FromHex(const std::string& hex);

// The public key (n, e) as a PEM SubjectPublicKeyInfo file written by Python's
// cryptography package; returns its path, empty on failure.
std::string WritePublicPem(const std::string& name, const std::vector<unsigned char>& n,
                           const std::vector<unsigned char>& e);

// Loads the module for a token; asserts nothing, returns the status.
int LoadToken(const char* token);

// Collects the texts reported to the diagnostics sink while it lives.
class DiagCapture {
 public:
  DiagCapture();
  ~DiagCapture();
  const std::vector<std::string>& Texts() const { return texts_; }

 private:
  static void Sink(void* arg, const char* text);
  std::vector<std::string> texts_;
};

}  // namespace p11test
