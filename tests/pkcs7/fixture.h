// A small PKI made by OpenSSL once per test program (root, intermediate, a
// signer, a recipient and a stranger, all RSA with SHA-1 signatures, which
// the toolkit can check), library contexts and keys, and the command lines
// the oracles run.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "pki/pkcs7.h"
#include "support/support.h"

namespace p7test {

struct Party {
  std::string name;
  std::string certPem;  // paths
  std::string keyPem;
  std::string cert;  // DER
  std::string key;   // PKCS #1 DER
};

struct Pki {
  kvtest::TempDir dir;
  Party root, inter, signer, recipient, stranger;
  bool ok = false;
};

// Made on first use; ok is false when OpenSSL could not make it.
const Pki& TestPki();

// Runs "openssl ARGS" (legacy provider loaded where asked); true on exit 0.
bool Openssl(const std::string& args);
// Runs a shell command; true on exit 0.
bool Sh(const std::string& command);

// Runs the oracle script with arguments; its exit status and output.
kvtest::ShellResult Oracle(const std::string& args);

// Library context for the test's lifetime.
class Context {
 public:
  Context();
  ~Context();
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;
  PKCS_CTX get() const { return ctx_; }

 private:
  PKCS_CTX ctx_ = nullptr;
};

// A private key record decoded from PKCS #1 DER.
class PriKey {
 public:
  explicit PriKey(const std::string& der);
  ~PriKey();
  PriKey(const PriKey&) = delete;
  PriKey& operator=(const PriKey&) = delete;
  const PKCS_PRIKEY* get() const { return &key_; }

 private:
  PKCS_PRIKEY key_;
};

// A list of octet strings for the flat functions.
class List {
 public:
  List();
  explicit List(const std::vector<std::string>& items);
  ~List();
  List(const List&) = delete;
  List& operator=(const List&) = delete;
  KV_LIST* get() const { return list_; }
  std::vector<std::string> Items() const;

 private:
  KV_LIST* list_ = nullptr;
};

// A buffer handed out by a flat function, as a string (released).
std::string Take(unsigned char* p, unsigned n);
const unsigned char* U(const std::string& s);
unsigned N(const std::string& s);

// Pseudo-random binary content (zeros and high octets included).
std::string Content(size_t n, unsigned seed = 1);

}  // namespace p7test
