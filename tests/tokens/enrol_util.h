// Helpers of the token and crash tests: the korvanta command as a child
// process, the reference CA, and OpenSSL as the judge of key pairs.
#pragma once

#include <string>
#include <vector>

#include "control/control.h"
#include "support/support.h"

namespace kvtest {
using Bytes = kv::control::Bytes;

extern const char kEnhanced[];

// The korvanta control command line on a data folder and home.
std::string Cli(const std::string& data, const std::string& home);
// Runs the calls; the result text of the last one ("" when none).
std::string Call(const std::string& data, const std::string& home, const std::string& calls);
// A Base64 PKCS#7 (root, one intermediate, leaf) for a Base64 PKCS#1 public
// key, from the reference CA; "" on failure.
std::string IssueFor(const TempDir& dir, const std::string& pubB64, const std::string& subject);
std::string B64Of(const std::string& bytes);

bool IsFile(const std::string& path);
// Names in a folder ending in suffix.
std::vector<std::string> Files(const std::string& dir, const std::string& suffix);

// OpenSSL's modulus line of a container's public key, or of a DER certificate.
std::string PublicModulus(kv::control::Platform& p, const std::string& container,
                          const std::string& provider, uint32_t keySpec);
std::string CertModulus(const TempDir& dir, const std::string& der);

}  // namespace kvtest
