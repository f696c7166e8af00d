// Two processes enrolling at once, many times over, on one user's files. The
// container-name file is shared without locking, so a later key generation
// takes the name from an earlier one: that install then fails the key check
// (8125), finds no name (22038309), or finds the other's container before its
// key is made (22068105: the key check is skipped then, as intended). Nothing else may happen:
// every other install succeeds, every installed certificate stays, and each bound key matches its
// certificate.
#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "support/support.h"
#include "tokens/enrol_util.h"

namespace kvtest {
namespace {

TEST(Concurrent, TwoEnrolmentsOnlyOverwriteTheContainerName) {
  TempDir dir;
  const std::string data = dir / "data", home = dir / "home";
  ASSERT_EQ(RunShell("mkdir -p " + data + " " + home).status, 0);
  const int kRounds = 8;
  // One worker: key, certificate from its own CA, install; prints each ret.
  const std::string refca =
      std::string("/usr/bin/python3 ") + KV_SOURCE_DIR + "/tests/refca/refca.py";
  const std::string cli = Cli(data, home);
  auto worker = [&](const std::string& w) {
    const std::string wd = dir / w;
    return "( mkdir -p " + wd + "; for i in $(seq " + std::to_string(kRounds) + "); do " + cli +
           " setCSP '" + kEnhanced +
           "' genKeyPair 1024 | tail -n1 | sed 's/.*\"result\":\"//; "
           "s/\".*//' > " +
           wd + "/pub.b64; " + refca + " issue --pubkey " + wd + "/pub.b64 --subject \"CN=Worker " +
           w + " $i\" --intermediates 1 --ca-dir " + wd + "/ca --out " + wd +
           "/p7.b64 || exit 1; " + cli + " setCSP '" + kEnhanced + "' writeClientCert $(cat " + wd +
           "/p7.b64) | tail -n1 | sed 's/.*\"result\"://; s/}//'; done ) > " + wd + ".out";
  };
  ShellResult r = RunShell(worker("a") + " & " + worker("b") + " & wait");
  ASSERT_EQ(r.status, 0) << r.out;

  std::map<std::string, int> codes;
  int installed = 0, workersInstalled = 0;
  for (const char* w : {"a", "b"}) {
    const int before = installed;
    std::istringstream in(ReadFile(dir / (std::string(w) + ".out")));
    std::string line;
    int n = 0;
    while (std::getline(in, line)) {
      ++n;
      ++codes[line];
      if (line == "0") ++installed;
    }
    EXPECT_EQ(n, kRounds) << w;
    if (installed > before) ++workersInstalled;
  }
  for (const auto& c : codes) {
    EXPECT_TRUE(c.first == "0" || c.first == "8125" || c.first == "22038309" ||
                c.first == "22068105")
        << c.first << " x" << c.second;
  }

  // Every successful install is in MY, bound to a key that is its own.
  kv::control::PortableConfig config;
  config.dataDirectory = data;
  config.homeDirectory = home;
  config.p11KitModules = false;
  config.tokenConfigFile = dir / "none.conf";
  kv::control::PortablePlatform p(config);
  kv::control::StoreHandle my = 0;
  ASSERT_TRUE(p.OpenSystemStore("MY", &my));
  kv::control::CertHandle cert = 0;
  int inMy = 0;
  while (p.EnumCertificatesInStore(my, cert, &cert)) {
    ++inMy;
    kv::control::KeyProvInfo info;
    ASSERT_TRUE(p.GetKeyProvInfo(cert, &info));
    Bytes der;
    p.GetEncoded(cert, &der);
    std::string container, provider;
    p.ToNarrow(info.containerName, &container);
    p.ToNarrow(info.providerName, &provider);
    EXPECT_EQ(PublicModulus(p, container, provider, info.keySpec),
              CertModulus(dir, std::string(der.begin(), der.end())));
  }
  p.CloseStore(my);
  EXPECT_EQ(inMy, installed);
  // The workers' chains share nothing: each worker that installed anything
  // put its own CA's root in ROOT. (How many installs succeed depends on how
  // the two interleave; with both in lockstep it can be none.)
  EXPECT_EQ(Files(data + "/stores/ROOT", ".der").size(), static_cast<size_t>(workersInstalled));
}

}  // namespace
}  // namespace kvtest
