// The request messages: every octet of each format, the MAC checked by the
// reference CA (with an authorisation code in GBK), "DS" signatures checked by
// the reference CA, and the input and signing failures.
#include <ctime>
#include <regex>

#include "control/control_util.h"

namespace kvtest {
namespace {

using Text = CBrendalKorvanta::Text;

const char kDecl[] = "<?xml version=\"1.0\" encoding=\"gb2312\" standalone=\"yes\" ?><request>";

std::string Now() {
  std::time_t t = std::time(nullptr);
  std::tm local{};
  localtime_r(&t, &local);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y%m%d%H%M%S", &local);
  return buf;
}

class Messages : public ControlTest {
 protected:
  // The message's TIME, checked to lie between the two readings around the
  // call.
  std::string TimeOf(const std::string& message) {
    std::smatch m;
    EXPECT_TRUE(std::regex_search(message, m, std::regex("<localtime>([0-9]{14})</localtime>")))
        << message;
    return m.size() > 1 ? m[1].str() : std::string();
  }
  std::string Header(const std::string& type, const std::string& time) {
    return "<source><header><type>" + type + "</type><version>2.0</version><localtime>" + time +
           "</localtime></header>";
  }
  // Writes the message as the narrow text the control built and MACed.
  std::string NarrowFile(const Text& message) {
    std::string narrow;
    EXPECT_TRUE(fake_.ToNarrow(*message, &narrow));
    return dir_.Write("msg.xml", narrow);
  }
  void UseSigner(const RsaKey& key, const std::string& certB64) {
    fake_.chooser = [&key, certB64](const std::string& text) {
      Bytes sig = key.SignSha1(Bytes(text.begin(), text.end()));
      return kv::control::SignedText{B64(std::string(sig.begin(), sig.end())), certB64};
    };
  }
  // A certificate for the pool key from the reference CA.
  std::string CertFor(const RsaKey& key) {
    const Bytes pub = key.PublicDer();
    const std::string f = dir_.Write("signer.b64", B64(std::string(pub.begin(), pub.end())));
    EXPECT_EQ(RefCa("issue --pubkey " + f + " --out " + Path("s.p7") + " --leaf-out " +
                    Path("signer.der") + " --subject CN=Signer")
                  .status,
              0);
    return B64(ReadFile(Path("signer.der")));
  }
};

TEST_F(Messages, ClientDownloadRequestIsExactAndItsMacChecksWithAGbkCode) {
  const std::string before = Now();
  Text msg;
  ASSERT_EQ(control_.genEEDownCertRequestData_Client(U("R1"), U("授权码"), U("K"), &msg), 0);
  const std::string after = Now();
  const std::string text = Utf8(msg);
  const std::string time = TimeOf(text);
  EXPECT_LE(before, time);
  EXPECT_GE(after, time);
  const std::string source = Header("EEDOWNCERT", time) +
                             "<body><entry name=\"REFNO\" value=\"R1\"/><entry name=\"PUBLICKEY\" "
                             "value=\"K\"/></body></source>";
  std::smatch mac;
  ASSERT_TRUE(std::regex_search(text, mac, std::regex("<signaturevalue>([^<]*)<")));
  EXPECT_EQ(mac[1].str().size(), 28u);
  EXPECT_EQ(text, kDecl + source +
                      "<signature><signaturemethod algorithm=\"MAC\"></signaturemethod>"
                      "<signaturevalue>" +
                      mac[1].str() + "</signaturevalue></signature></request>");
  // The reference CA computes the same MAC from the code's CP936 octets, and
  // not from another key.
  const std::string file = NarrowFile(msg);
  EXPECT_EQ(RefCa("check-mac --message " + file + " --authcode 授权码").out, "MAC OK\n");
  EXPECT_EQ(RefCa("check-mac --message " + file + " --authcode 授权").out, "MAC BAD\n");
  EXPECT_EQ(RefCa("check-mac --message " + file + " --authcode 授权码 --codepage utf-8").out,
            "MAC BAD\n");
}

TEST_F(Messages, KmcDownloadRequestCarriesTheLengthAsGiven) {
  Text msg;
  ASSERT_EQ(control_.genEEDownCertRequestData_Kmc(U("R2"), U("secret"), U("T"), U("4096"), &msg),
            0);
  const std::string text = Utf8(msg);
  const std::string source = Header("EEDOWNCERT", TimeOf(text)) +
                             "<body><entry name=\"REFNO\" value=\"R2\"/><entry "
                             "name=\"TEMPPUBLICKEY\" value=\"T\"/><entry name=\"KEYLENGTH\" "
                             "value=\"4096\"/></body></source>";
  EXPECT_EQ(
      text.find(std::string(kDecl) + source + "<signature><signaturemethod algorithm=\"MAC\">"), 0u)
      << text;
  EXPECT_EQ(RefCa("check-mac --message " + NarrowFile(msg) + " --authcode secret").out, "MAC OK\n");
  // A leading number counts: "1024bits" is 1024, copied as given.
  ASSERT_EQ(control_.genEEDownCertRequestData_Kmc(U("R"), U("A"), U("T"), U("1024bits"), &msg), 0);
  EXPECT_NE(Utf8(msg).find("value=\"1024bits\""), std::string::npos);
}

TEST_F(Messages, DownloadRequestInputChecksInOrder) {
  struct Case {
    const char *ref, *code, *key, *length;
    int32_t client, kmc;
  } cases[] = {
      {"", "", "", "", 22088208, 22098208},   {"R", "", "", "", 22088209, 22098209},
      {"R", "A", "", "", 22088210, 22098210}, {"R", "A", "K", "", 0, 22098217},
      {"R", "A", "K", "768", 0, 22098217},    {"R", "A", "K", "abc", 0, 22098217},
  };
  for (const Case& c : cases) {
    Text client, kmc;
    EXPECT_EQ(control_.genEEDownCertRequestData_Client(U(c.ref), U(c.code), U(c.key), &client),
              c.client);
    EXPECT_EQ(
        control_.genEEDownCertRequestData_Kmc(U(c.ref), U(c.code), U(c.key), U(c.length), &kmc),
        c.kmc);
    EXPECT_EQ(client.has_value(), c.client == 0);
    EXPECT_FALSE(kmc.has_value()) << "unassigned on failure";
  }
  // Text the code page cannot hold converts to nothing: an empty code.
  fake_.codePage = "ASCII";
  Text msg;
  EXPECT_EQ(control_.genEEDownCertRequestData_Client(U("R"), U("授权码"), U("K"), &msg), 22088209);
}

TEST_F(Messages, ValuesAreCopiedWithoutEscaping) {
  Text msg;
  ASSERT_EQ(control_.genEEDownCertRequestData_Client(U("a\"b<c"), U("A"), U("K&"), &msg), 0);
  EXPECT_NE(Utf8(msg).find("value=\"a\"b<c\"/><entry name=\"PUBLICKEY\" value=\"K&\"/>"),
            std::string::npos);
}

TEST_F(Messages, SameSecondSameMessage) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    Text a, b;
    ASSERT_EQ(control_.genEEDownCertRequestData_Client(U("R"), U("A"), U("K"), &a), 0);
    ASSERT_EQ(control_.genEEDownCertRequestData_Client(U("R"), U("A"), U("K"), &b), 0);
    if (TimeOf(Utf8(a)) != TimeOf(Utf8(b))) continue;  // the second turned over
    EXPECT_EQ(Utf8(a), Utf8(b));
    return;
  }
  FAIL() << "three calls in a row straddled a second";
}

TEST_F(Messages, SignedRequestsAreExactAndVerify) {
  auto key = RsaKey::Pool(1024, 0);
  const std::string cert = CertFor(*key);
  UseSigner(*key, cert);
  struct Case {
    const char* type;
    std::string body;
    std::function<int32_t(Text*)> call;
  } cases[] = {
      {"EEREVOKECERT", "<body></body>",
       [&](Text* t) { return control_.genEERevokeCertRequestData(t); }},
      {"EEUPDATECERT", "<body></body>",
       [&](Text* t) { return control_.genEEUpdateCertRequestData(t); }},
      {"EERESTOREKH", "<body></body>",
       [&](Text* t) { return control_.genEERestoreKHRequestData(t); }},
      {"EEUPDATECERT", "<body><entry name=\"PUBLICKEY\" value=\"P10\"/></body>",
       [&](Text* t) { return control_.genEEUpdateCertRequestData_Client(U("P10"), t); }},
      // Neither checked: an empty request or key gives an empty entry.
      {"EEUPDATECERT", "<body><entry name=\"PUBLICKEY\" value=\"\"/></body>",
       [&](Text* t) { return control_.genEEUpdateCertRequestData_Client(U(""), t); }},
      {"EEUPDATECERT",
       "<body><entry name=\"TEMPPUBLICKEY\" value=\"\"/><entry name=\"KEYLENGTH\" "
       "value=\"1024\"/></body>",
       [&](Text* t) { return control_.genEEUpdateCertRequestData_Kmc(U(""), U("1024"), t); }},
  };
  for (const Case& c : cases) {
    Text msg;
    ASSERT_EQ(c.call(&msg), 0) << c.type;
    const std::string text = Utf8(msg);
    std::smatch sig;
    ASSERT_TRUE(std::regex_search(text, sig, std::regex("<signaturevalue>([^<]*)<")));
    EXPECT_EQ(text, kDecl + Header(c.type, TimeOf(text)) + c.body +
                        "</source><signature><signaturemethod algorithm=\"DS\"></signaturemethod>"
                        "<signaturevalue>" +
                        sig[1].str() + "</signaturevalue><keyinfo><x509data><x509certificate>" +
                        cert + "</x509certificate></x509data></keyinfo></signature></request>");
    EXPECT_EQ(RefCa("check-ds --message " + NarrowFile(msg)).out, "DS OK\n") << c.type;
  }
  // A signature over other text fails the reference check.
  fake_.chooser = [&](const std::string&) {
    Bytes s = key->SignSha1(Bytes{'x'});
    return kv::control::SignedText{B64(std::string(s.begin(), s.end())), cert};
  };
  Text msg;
  ASSERT_EQ(control_.genEERevokeCertRequestData(&msg), 0);
  EXPECT_EQ(RefCa("check-ds --message " + NarrowFile(msg)).out, "DS BAD\n");
}

TEST_F(Messages, SigningFailuresReportInTheirBlocks) {
  // The default chooser cancels.
  struct Case {
    std::function<int32_t(Text*)> call;
    int32_t status;
  } cases[] = {
      {[&](Text* t) { return control_.genEERevokeCertRequestData(t); }, 22108306},
      {[&](Text* t) { return control_.genEEUpdateCertRequestData(t); }, 22118306},
      {[&](Text* t) { return control_.genEERestoreKHRequestData(t); }, 22138306},
      {[&](Text* t) { return control_.genEEUpdateCertRequestData_Client(U("P"), t); }, 22118306},
      {[&](Text* t) { return control_.genEEUpdateCertRequestData_Kmc(U("T"), U("2048"), t); },
       22118306},
      // The length is checked first, in the block of the KMC download.
      {[&](Text* t) { return control_.genEEUpdateCertRequestData_Kmc(U("T"), U("100"), t); },
       22098217},
      {[&](Text* t) { return control_.genEEUpdateCertRequestData_Kmc(U("T"), U(""), t); },
       22098217},
  };
  for (const Case& c : cases) {
    Text msg;
    EXPECT_EQ(c.call(&msg), c.status);
    EXPECT_FALSE(msg.has_value());
  }
  // Half an answer is no answer.
  fake_.chooser = [](const std::string&) { return kv::control::SignedText{"c2ln", ""}; };
  Text msg;
  EXPECT_EQ(control_.genEERevokeCertRequestData(&msg), 22108306);
  fake_.chooser = [](const std::string&) { return kv::control::SignedText{"", "Y2VydA=="}; };
  EXPECT_EQ(control_.genEERestoreKHRequestData(&msg), 22138306);
  EXPECT_FALSE(msg.has_value());
}

}  // namespace
}  // namespace kvtest
