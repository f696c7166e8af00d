// Text conversion against Python's codecs, environment expansion, GUIDs, the
// file calls, and the two listing commands.
#include <stdlib.h>
#include <sys/stat.h>

#include "control_portable/fixture.h"

namespace kvtest {
namespace {

using namespace kv::control;

std::string PythonHex(const std::string& expr) {
  std::string out = Must("python3 -c \"import sys; sys.stdout.write(" + expr + ".hex())\"");
  return out;
}

std::string Hex(const std::string& s) {
  static const char d[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : s) {
    out.push_back(d[c >> 4]);
    out.push_back(d[c & 15]);
  }
  return out;
}

std::string Utf16Hex(const std::u16string& s) {
  std::string bytes;
  for (char16_t c : s) {
    bytes.push_back(static_cast<char>(c & 0xFF));
    bytes.push_back(static_cast<char>(c >> 8));
  }
  return Hex(bytes);
}

using SystemTest = PortableTest;

TEST_F(SystemTest, CodePageConversionsAgreeWithPythonCodecs) {
  const std::u16string text = u"\u4e2d\u6587\u8bc1\u4e66 Korvanta \u2460\u00b7\uff21";
  const std::string py = "'\\u4e2d\\u6587\\u8bc1\\u4e66 Korvanta \\u2460\\u00b7\\uff21'";
  std::string narrow;
  ASSERT_TRUE(p_->ToNarrow(text, &narrow));
  EXPECT_EQ(Hex(narrow), PythonHex(py + ".encode('gbk')"));
  std::u16string wide;
  ASSERT_TRUE(p_->ToWide(narrow, &wide));
  EXPECT_EQ(wide, text);
  EXPECT_EQ(Utf16Hex(wide),
            PythonHex("bytes.fromhex('" + Hex(narrow) + "').decode('gbk').encode('utf-16-le')"));
  // What the code page cannot hold becomes '?', one per UTF-16 unit, and
  // octets that are not GBK text likewise.
  ASSERT_TRUE(p_->ToNarrow(u"a\U0001F600b\u0e01", &narrow));
  EXPECT_EQ(narrow, "a??b?");
  ASSERT_TRUE(p_->ToWide(std::string("x\xff\xd6", 3), &wide));
  EXPECT_EQ(wide.substr(0, 2), u"x?");
  ASSERT_TRUE(p_->ToNarrow(u"", &narrow));
  EXPECT_EQ(narrow, "");

  PortableConfig utf8;
  utf8.dataDirectory = tmp_ / "d";
  utf8.codePage = "UTF-8";
  PortablePlatform other(utf8);
  ASSERT_TRUE(other.ToNarrow(text, &narrow));
  EXPECT_EQ(Hex(narrow), PythonHex(py + ".encode('utf-8')"));
  PortableConfig bogus;
  bogus.codePage = "NO-SUCH-CODEPAGE";
  PortablePlatform broken(bogus);
  EXPECT_FALSE(broken.ToNarrow(text, &narrow));
}

TEST_F(SystemTest, EnvironmentStringsExpandKnownVariablesOnly) {
  ::setenv("KVTEST_DRIVE", "/home", 1);
  ::setenv("KVTEST_PATH", "/user one", 1);
  ::unsetenv("KVTEST_NONE");
  const char* src = "%KVTEST_DRIVE%%KVTEST_PATH%\\velmora %KVTEST_NONE% 100% %KVTEST_DRIVE";
  const std::string want = "/home/user one\\velmora %KVTEST_NONE% 100% %KVTEST_DRIVE";
  uint32_t need = p_->ExpandEnvironmentStrings(src, nullptr, 0);
  EXPECT_EQ(need, want.size() + 1);
  std::vector<char> small(need - 1, 'z');
  EXPECT_EQ(p_->ExpandEnvironmentStrings(src, small.data(), need - 1), need);
  EXPECT_EQ(small[0], 'z');
  std::vector<char> buf(need);
  EXPECT_EQ(p_->ExpandEnvironmentStrings(src, buf.data(), need), need);
  EXPECT_EQ(std::string(buf.data()), want);
  EXPECT_EQ(p_->ExpandEnvironmentStrings("%KVTEST_NONE%%KVTEST_DRIVE%", buf.data(), need), 19u);
  EXPECT_EQ(std::string(buf.data()), "%KVTEST_NONE%/home");
}

TEST_F(SystemTest, GuidsAreRandomVersionFour) {
  Guid a, b;
  ASSERT_TRUE(p_->CoCreateGuid(&a));
  ASSERT_TRUE(p_->CoCreateGuid(&b));
  EXPECT_EQ(a.data3 >> 12, 4);
  EXPECT_EQ(a.data4[0] & 0xC0, 0x80);
  EXPECT_FALSE(a.data1 == b.data1 && a.data2 == b.data2 && a.data3 == b.data3);
}

TEST_F(SystemTest, DirectoriesAndFilesBehaveAsTheWin32Calls) {
  std::string data = tmp_ / "data";
  char dir[512];
  EXPECT_EQ(p_->GetSystemDirectory(dir, sizeof dir), data.size());
  EXPECT_EQ(std::string(dir), data);
  EXPECT_EQ(p_->GetSystemDirectory(dir, 4), data.size() + 1);
  EXPECT_EQ(p_->KeyHistoryDirectory(), data);
  EXPECT_EQ(p_->ContainerFilePath(), (tmp_ / "home") + "/velmoraContianer.data");

  std::string path = tmp_ / "f.bin";
  const std::string a(5000, 'a'), b = "short";
  ASSERT_TRUE(p_->WriteFileAtomic(path, reinterpret_cast<const uint8_t*>(a.data()), a.size()));
  ASSERT_TRUE(p_->WriteFileAtomic(path, reinterpret_cast<const uint8_t*>(b.data()), b.size()));
  struct stat st;
  ASSERT_EQ(::stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  EXPECT_EQ(ReadFile(path), b);
  Bytes got;
  ASSERT_TRUE(p_->ReadFile(path, 3, &got));
  EXPECT_EQ(Str(got), "sho");
  EXPECT_TRUE(p_->FileExists(path));
  EXPECT_FALSE(p_->FileExists(tmp_.Path()));           // a folder is not a file
  EXPECT_EQ(Must("ls -A " + tmp_.Path()), "f.bin\n");  // no temporary left behind
  EXPECT_TRUE(p_->DeleteFile(path));
  EXPECT_FALSE(p_->DeleteFile(path));
  EXPECT_FALSE(p_->ReadFile(path, 10, &got));
  EXPECT_FALSE(p_->WriteFileAtomic(tmp_ / "missing/dir/f", got.data(), 0));
}

#ifdef KV_KORVANTA_BIN
TEST_F(SystemTest, StoresAndContainersCommandsListWhatThePlatformWrote) {
  ProvHandle prov = 0;
  ASSERT_TRUE(p_->AcquireContext(&prov, "{LIST-ME}", "Microsoft Base Cryptographic Provider v1.0",
                                 1, KV_CRYPT_NEWKEYSET));
  KeyHandle key = 0;
  ASSERT_TRUE(p_->GenKey(prov, KV_AT_SIGNATURE, 1024u << 16 | KV_CRYPT_EXPORTABLE, &key));
  ASSERT_TRUE(p_->GenKey(prov, KV_AT_KEYEXCHANGE, 512u << 16, &key));
  Bytes der = MakeCertificate("c", "/C=CN/O=Example/CN=Listed");
  ASSERT_TRUE(p_->SetKeyParam(key, KV_KP_CERTIFICATE, der.data(), uint32_t(der.size()), 0));
  StoreHandle my = 0;
  ASSERT_TRUE(p_->OpenSystemStore("MY", &my));
  CertHandle c = 0;
  ASSERT_TRUE(p_->AddEncodedCertificateToStore(my, der.data(), uint32_t(der.size()), 3, &c));
  KeyProvInfo info;
  info.containerName = u"{LIST-ME}";
  info.providerName = u"Microsoft Base Cryptographic Provider v1.0";
  info.provType = 1;
  info.keySpec = KV_AT_SIGNATURE;
  ASSERT_TRUE(p_->SetKeyProvInfo(c, &info));

  std::string bin = std::string(KV_KORVANTA_BIN) + " ";
  std::string data = " --data-dir " + (tmp_ / "data");
  std::string containers = Must(bin + "containers" + data);
  EXPECT_NE(containers.find("{LIST-ME}"), std::string::npos) << containers;
  EXPECT_NE(containers.find("signature: 1024 bits, exportable"), std::string::npos) << containers;
  EXPECT_NE(containers.find("exchange:  512 bits, not exportable, certificate attached"),
            std::string::npos)
      << containers;
  std::string stores = Must(bin + "stores MY" + data);
  std::string fp = Must("openssl x509 -inform DER -in " + (tmp_ / "c.der") +
                        " -noout -fingerprint -sha1 | tr -d ':' | cut -d= -f2");
  EXPECT_NE(stores.find("MY " + fp.substr(0, 40)), std::string::npos) << stores;
  EXPECT_NE(stores.find("subject:   C=CN, O=Example, CN=Listed"), std::string::npos) << stores;
  EXPECT_NE(stores.find("container: {LIST-ME}"), std::string::npos) << stores;
  std::string enddate = Must("openssl x509 -inform DER -in " + (tmp_ / "c.der") +
                             " -noout -enddate -dateopt iso_8601");
  EXPECT_NE(stores.find("notAfter:  " + enddate.substr(9, 19)), std::string::npos)
      << stores << enddate;
  EXPECT_EQ(Must(bin + "stores CA" + data), "");
  EXPECT_NE(RunShell(bin + "stores NOPE" + data + " 2>/dev/null").status, 0);
  EXPECT_EQ(RunShell(bin + "containers --help").status, 0);
}
#endif

}  // namespace
}  // namespace kvtest
