// Enrolments killed with SIGKILL after every few file steps (the atomic
// writer's test hook): afterwards every file parses, every certificate bound
// in MY has its container's key, the key history is the old or the new
// document, and the container-name file is whole or absent.
#include <gtest/gtest.h>

#include <dirent.h>

#include <memory>
#include <set>

#include "control/control.h"
#include "control/internal/key_history.h"
#include "support/support.h"
#include "tokens/enrol_util.h"

namespace kvtest {
namespace {

using kv::control::PortablePlatform;

class Crash : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.Path().empty());
    ASSERT_EQ(RunShell("mkdir -p " + Data() + " " + Home()).status, 0);
  }
  std::string Data() const { return dir_ / "data"; }
  std::string Home() const { return dir_ / "home"; }

  // Every item on disk is either untouched or whole; returns the number of
  // MY certificates with a key bound.
  int CheckState(const std::string& where) {
    kv::control::PortableConfig config;
    config.dataDirectory = Data();
    config.homeDirectory = Home();
    config.p11KitModules = false;
    config.tokenConfigFile = dir_ / "none.conf";
    PortablePlatform p(config);
    // Containers: every file decodes.
    EXPECT_EQ(p.ListContainers().size(), Files(Data() + "/containers", ".key").size()) << where;
    // Stores: every certificate parses; bound ones carry their key.
    int bound = 0;
    for (const char* store : {"MY", "CA", "ROOT"}) {
      for (const std::string& f : Files(Data() + "/stores/" + store, ".der")) {
        kv::control::CertificateSummary s;
        const std::string der = ReadFile(Data() + "/stores/" + store + "/" + f);
        EXPECT_TRUE(DescribeCertificate(Bytes(der.begin(), der.end()), &s)) << where << " " << f;
      }
    }
    kv::control::StoreHandle my = 0;
    EXPECT_TRUE(p.OpenSystemStore("MY", &my));
    kv::control::CertHandle cert = 0;
    while (p.EnumCertificatesInStore(my, cert, &cert)) {
      kv::control::KeyProvInfo info;
      // A certificate added but killed before its binding was written has
      // none: the control's add-then-bind order leaves that window.
      if (!p.GetKeyProvInfo(cert, &info)) continue;
      Bytes der;
      p.GetEncoded(cert, &der);
      std::string container, provider;
      p.ToNarrow(info.containerName, &container);
      p.ToNarrow(info.providerName, &provider);
      EXPECT_EQ(PublicModulus(p, container, provider, info.keySpec),
                CertModulus(dir_, std::string(der.begin(), der.end())))
          << where << " " << container;
      ++bound;
    }
    p.CloseStore(my);
    // The container-name file: a whole name or nothing.
    const std::string name = Home() + "/velmoraContianer.data";
    if (IsFile(name)) {
      EXPECT_EQ(ReadFile(name).size(), 36u) << where;
    }
    // No file of ours half written under its real name: key history parses.
    for (const char* f : {"/velmora.khf", "/velmorakhf.bak"}) {
      if (!IsFile(Data() + f)) continue;
      std::vector<kv::control::KeyHistoryEntry> entries;
      EXPECT_TRUE(kv::control::ParseKeyHistory(ReadFile(Data() + f), &entries)) << where << f;
    }
    return bound;
  }

  TempDir dir_;
};

TEST_F(Crash, KilledInstallsLeaveEveryItemOldOrNew) {
  std::string history;  // the key-history file as it should be after a whole run
  bool finished = false;
  int completed = 0, killed = 0;
  // Each run: a key made whole, then installation, a key-history merge and
  // the next key generation killed after step n.
  for (int n = 1; n <= 160 && !finished; n += 3) {
    const std::string where = "step " + std::to_string(n);
    const std::string pub =
        Call(Data(), Home(), "setCSP '" + std::string(kEnhanced) + "' genKeyPair 1024");
    ASSERT_FALSE(pub.empty()) << where;
    const std::string p7 = IssueFor(dir_, pub, "CN=Crash User " + std::to_string(n));
    ASSERT_FALSE(p7.empty()) << where;
    const std::string before =
        IsFile(Data() + "/velmora.khf") ? ReadFile(Data() + "/velmora.khf") : std::string();
    const std::string entry = "<keyhistory><issuerkeyid>K" + std::to_string(n) +
                              "</issuerkeyid><encprikey>AA</encprikey></keyhistory>";
    ShellResult r = RunShell("KV_CRASH_AFTER_STEPS=" + std::to_string(n) + " " +
                             Cli(Data(), Home()) + " setCSP '" + kEnhanced + "' writeClientCert " +
                             p7 + " writeKH " + B64Of("<keyhistorys>" + entry + "</keyhistorys>") +
                             " genKeyPair 1024 >/dev/null 2>&1");
    finished = r.status == 0;
    killed += finished ? 0 : 1;
    const int bound = CheckState(where);
    // The key history is the old document or the merged one.
    const std::string after =
        IsFile(Data() + "/velmora.khf") ? ReadFile(Data() + "/velmora.khf") : std::string();
    if (after != before) {
      std::vector<kv::control::KeyHistoryEntry> old, now;
      if (!before.empty()) {
        ASSERT_TRUE(kv::control::ParseKeyHistory(before, &old)) << where;
      }
      ASSERT_TRUE(kv::control::ParseKeyHistory(after, &now)) << where;
      ASSERT_EQ(now.size(), old.size() + 1) << where;
      EXPECT_EQ(now.back().issuerKeyId, "K" + std::to_string(n)) << where;
    }
    if (finished) completed = bound;
  }
  // The last run went through every step: the hook did not fire.
  EXPECT_TRUE(finished);
  EXPECT_GE(killed, 20);
  EXPECT_GE(completed, 1);
}

}  // namespace
}  // namespace kvtest
