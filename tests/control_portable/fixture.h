// A portable platform over a scratch data directory, and the OpenSSL steps the
// tests use as the independent side.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "control/control.h"
#include "support/support.h"

namespace kvtest {

using kv::control::Bytes;

inline std::string Str(const Bytes& b) {
  return std::string(b.begin(), b.end());
}
inline Bytes Vec(const std::string& s) {
  return Bytes(s.begin(), s.end());
}

// Runs a command that must succeed and returns its output.
inline std::string Must(const std::string& command) {
  ShellResult r = RunShell(command + " 2>&1");
  EXPECT_EQ(r.status, 0) << command << "\n" << r.out;
  return r.out;
}

class PortableTest : public ::testing::Test {
 protected:
  void SetUp() override { Reopen(); }

  // A new platform instance over the same directories (what a new process sees).
  void Reopen(kv::control::SigningChooser* chooser = nullptr) {
    kv::control::PortableConfig config;
    config.dataDirectory = tmp_ / "data";
    config.homeDirectory = tmp_ / "home";
    config.chooser = chooser;
    p_ = std::make_unique<kv::control::PortablePlatform>(config);
  }

  // A fresh key and self-signed certificate made by OpenSSL: DER of the
  // certificate; the key stays in tmp_/<name>.key (PEM).
  Bytes MakeCertificate(const std::string& name, const std::string& subject,
                        const std::string& extra = "") {
    Must("openssl req -x509 -newkey rsa:1024 -nodes -keyout " + (tmp_ / name) + ".key -subj '" +
         subject + "' -days 365 -outform DER -out " + (tmp_ / name) + ".der " + extra);
    return Vec(ReadFile(tmp_ / name + ".der"));
  }

  TempDir tmp_;
  std::unique_ptr<kv::control::PortablePlatform> p_;
};

}  // namespace kvtest
