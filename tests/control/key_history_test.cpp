// The key-history file: merging by issuer key id, the backup, atomic
// replacement, and the refusals of writeKH and writeKmcCertwithKH.
#include "control/control_util.h"

namespace kvtest {
namespace {

using Ret = CBrendalKorvanta::Ret;
using Text = CBrendalKorvanta::Text;

const char kFile[] = "/system/velmora.khf";
const char kBackup[] = "/system/velmorakhf.bak";
const char kDecl[] = "<?xml version=\"1.0\" encoding=\"gb2312\" standalone=\"yes\" ?>";

std::string Entry(const std::string& id, const std::string& key) {
  return "<keyhistory><issuerkeyid>" + id + "</issuerkeyid><encprikey>" + key +
         "</encprikey></keyhistory>";
}

std::string Doc(const std::string& entries) {
  return "<keyhistorys>" + entries + "</keyhistorys>";
}

class KeyHistory : public ControlTest {
 protected:
  Ret WriteKH(const std::string& xml) {
    Ret ret;
    EXPECT_EQ(control_.writeKH(U(B64(xml)), &ret), 0);
    return ret;
  }
  std::string File(const char* path) {
    auto it = fake_.files.find(path);
    return it == fake_.files.end() ? "<none>" : std::string(it->second.begin(), it->second.end());
  }
};

TEST_F(KeyHistory, MergesByIssuerKeyIdAndKeepsTheBackup) {
  EXPECT_EQ(WriteKH(Doc(Entry("A", "1") + Entry("B", "2"))), 0);
  EXPECT_EQ(File(kFile), kDecl + Doc(Entry("A", "1") + Entry("B", "2")));
  EXPECT_EQ(File(kBackup), "<none>");
  // A known id replaces its entry where it was; a new one goes last.
  const std::string first = File(kFile);
  EXPECT_EQ(WriteKH(std::string(kDecl) + "\n<keyhistorys>\n" + Entry("C", "3") + "\n" +
                    Entry("A", "9") + "\n</keyhistorys>\n"),
            0);
  EXPECT_EQ(File(kFile), kDecl + Doc(Entry("A", "9") + Entry("B", "2") + Entry("C", "3")));
  EXPECT_EQ(File(kBackup), first);
  // Within one document the later entry of an id wins.
  EXPECT_EQ(WriteKH(Doc(Entry("D", "4") + Entry("D", "5"))), 0);
  EXPECT_NE(File(kFile).find(Entry("D", "5")), std::string::npos);
  EXPECT_EQ(File(kFile).find(Entry("D", "4")), std::string::npos);
  // An empty history changes no entry.
  const std::string before = File(kFile);
  EXPECT_EQ(WriteKH("<keyhistorys/>"), 0);
  EXPECT_EQ(File(kFile), before);
}

TEST_F(KeyHistory, RefusalsLeaveTheFileAsItWas) {
  ASSERT_EQ(WriteKH(Doc(Entry("A", "1"))), 0);
  const std::string before = File(kFile);
  for (const std::string& bad :
       {std::string(), std::string("<keyhistory>"),
        Doc("<keyhistory><encprikey>x</encprikey>"
            "</keyhistory>"),
        Doc(Entry("", "1")), Doc(Entry("A", "1") + "junk"), Doc(Entry("A", "1")) + "trailing",
        Doc("<keyhistory><issuerkeyid>A</issuerkeyid>")}) {
    EXPECT_EQ(WriteKH(bad), 22158307) << bad;
    EXPECT_EQ(File(kFile), before) << bad;
  }
  Ret ret;
  EXPECT_EQ(control_.writeKH(U("@@@@"), &ret), 0);
  EXPECT_EQ(ret, 22158307);
  // A write failure, and a stored file that is not a history.
  fake_.Fail("WriteFileAtomic", 2);
  EXPECT_EQ(WriteKH(Doc(Entry("B", "2"))), 22158307);
  EXPECT_EQ(File(kFile), before);
  fake_.files[kFile] = Bytes{'x'};
  EXPECT_EQ(WriteKH(Doc(Entry("B", "2"))), 22158307);
  EXPECT_EQ(File(kFile), "x");
}

TEST_F(KeyHistory, KmcInstallWithHistoryReadsTheHistoryFirst) {
  MakeKey();
  Ret ret;
  // A bad history is refused before anything is used up.
  ASSERT_EQ(control_.writeKmcCertwithKH(U("x"), U("y"), U("z"), U(B64("<nope/>")), &ret), 0);
  EXPECT_EQ(ret, 22148307);
  EXPECT_TRUE(ContainerFileExists());
  // A good history with a failing install: the install's code, no merge.
  ASSERT_EQ(control_.writeKmcCertwithKH(U(""), U("y"), U("z"), U(B64(Doc(Entry("A", "1")))), &ret),
            0);
  EXPECT_EQ(ret, 22078204);
  EXPECT_EQ(File(kFile), "<none>");
  // The whole way: install, then merge.
  MakeKey();
  Text temp;
  ASSERT_EQ(control_.genTempKeyPair(&temp), 0);
  ASSERT_EQ(RefCa("kmc --tempkey " + dir_.Write("t.b64", Utf8(temp)) + " --bits 1024 --out-dir " +
                  Path("kmc"))
                .status,
            0);
  ASSERT_EQ(control_.writeKmcCertwithKH(
                U(ReadFile(Path("kmc/p7.b64"))), U(ReadFile(Path("kmc/encprikey.b64"))),
                U(ReadFile(Path("kmc/tempukek.b64"))), U(B64(Doc(Entry("A", "1")))), &ret),
            0);
  EXPECT_EQ(ret, 0);
  EXPECT_EQ(File(kFile), kDecl + Doc(Entry("A", "1")));
  EXPECT_EQ(fake_.stores["MY"].size(), 1u);
}

}  // namespace
}  // namespace kvtest
