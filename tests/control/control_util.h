// Shared set-up of the control's tests: a control object on the fake
// platform, text helpers and the reference CA.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "control/fake_platform.h"
#include "control/korvanta_control.h"
#include "support/support.h"

namespace kvtest {

// UTF-8 -> automation text.
std::u16string U(const std::string& utf8);
// Automation text -> UTF-8 ("<null>" for an unassigned result).
std::string Utf8(const CBrendalKorvanta::Text& text);

// Standard Base64 without line breaks (our own, independent of the toolkit).
std::string B64(const std::string& bytes);
std::string UnB64(const std::string& text);

// Base64 of a key's PKCS#1 RSAPublicKey.
std::string PublicB64(const RsaKey& key);

// Runs tests/refca/refca.py with the arguments; status and output.
ShellResult RefCa(const std::string& args);

// Reads a PFX with OpenSSL: the private key (PKCS#1 DER) and the
// certificates, leaf first. False when OpenSSL cannot open it.
bool OpensslReadPfx(const TempDir& dir, const Bytes& pfx, const std::string& password, Bytes* key,
                    std::vector<Bytes>* certs);

// The modulus line OpenSSL prints for a PEM or DER private key file.
std::string OpensslKeyModulus(const std::string& path);

class ControlTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.Path().empty());
    fake_.pfxReader = [this](const Bytes& pfx, const std::string& password, Bytes* key,
                             std::vector<Bytes>* certs) {
      return OpensslReadPfx(dir_, pfx, password, key, certs);
    };
  }
  // Nothing the control opened stays open, whatever the outcome.
  void TearDown() override { EXPECT_EQ(fake_.LiveHandles(), 0u); }

  std::string Path(const std::string& name) const { return dir_ / name; }
  bool ContainerFileExists() const { return fake_.files.count(fake_.kContainerFile) != 0; }
  std::string ContainerFile() const {
    auto it = fake_.files.find(fake_.kContainerFile);
    return it == fake_.files.end() ? std::string()
                                   : std::string(it->second.begin(), it->second.end());
  }
  // Selects a provider and makes a key pair; returns its Base64 public key.
  std::string MakeKey(
      const std::string& provider = "Microsoft Enhanced Cryptographic Provider v1.0",
      int bits = 1024);
  // A Base64 PKCS#7 bundle (root, `intermediates` CAs, leaf) for the Base64
  // PKCS#1 public key, from the reference CA.
  std::string Issue(const std::string& pubkeyB64, const std::string& extra = "");

  FakePlatform fake_;
  CBrendalKorvanta control_{fake_};
  TempDir dir_;
};

}  // namespace kvtest
