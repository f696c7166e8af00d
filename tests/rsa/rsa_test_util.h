// Helpers shared by the RSA engine tests: owning key components, loading them
// into contexts and replaying fixed padding bytes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "crypto/rsa.h"

namespace rsatest {

using Bytes = std::vector<std::uint8_t>;

// Eight big-endian components in the engine's order; public keys use two.
struct Key {
  Bytes part[KV_RSA_COMPONENT_COUNT];

  std::vector<KV_RSA_COMPONENT> Components() const;
  kv::RsaCtxPtr LoadPublic() const;   // fails the test if loading fails
  kv::RsaCtxPtr LoadPrivate() const;  // likewise
  int Bits() const;
};

struct Case {
  Bytes message, seed, result;
  int line = 0;
};

struct KeyVectors {
  Key key;
  std::string title;
  std::vector<Case> cases;
};

// Reads a file in the layout of the PKCS#1 vector files: "# Label:" lines
// followed by lines of hex; "# Example N: ... key pair" starts a key,
// "# Private key" its private half, and each "# Message..." a case.
std::vector<KeyVectors> ReadVectors(const std::string& path);

Key FromBlock(const KV_RSA_COMPONENT* block);
Bytes Unhex(const std::string& hex);
std::string Hex(const Bytes& b);

// Feeds the given bytes as padding/seed until destroyed.
class FixedPadding {
 public:
  explicit FixedPadding(const Bytes& bytes);
  ~FixedPadding();
  bool Exhausted() const { return pos_ == bytes_.size(); }

 private:
  static int Fill(void* arg, unsigned char* buf, unsigned int len);
  Bytes bytes_;
  std::size_t pos_ = 0;
};

}  // namespace rsatest
