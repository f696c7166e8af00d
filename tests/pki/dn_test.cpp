// Distinguished names: DN node text (KV_Name) and DN text (KV_ParseDN,
// KV_NameToText). The text cases live in tests/data/pki/dn_text.txt; the
// encodings are read back by OpenSSL (asn1parse, -nameopt RFC2253) and Python
// cryptography (rfc4514_string), never by the toolkit alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "pki/pki.h"
#include "support/support.h"

namespace {

const std::string kData = std::string(KV_TEST_DATA_DIR) + "/pki/";

std::string Str(const MiByte& b) {
  return b.Empty() ? std::string() : std::string(b.GetChars(), b.GetLength());
}

MiByte Bytes(const std::string& s) {
  return MiByte(s.data(), static_cast<unsigned>(s.size()));
}

int Parse(const std::string& text, std::string& der) {
  unsigned len = 0;
  int rv = KV_ParseDN(text.c_str(), nullptr, &len);
  if (rv != 0) return rv;
  der.assign(len, '\0');
  rv = KV_ParseDN(text.c_str(), reinterpret_cast<unsigned char*>(&der[0]), &len);
  der.resize(len);
  return rv;
}

std::string Format(const std::string& der) {
  unsigned len = 0;
  auto p = reinterpret_cast<const unsigned char*>(der.data());
  auto n = static_cast<unsigned>(der.size());
  if (KV_NameToText(p, n, nullptr, &len) != 0) return "<error>";
  std::string text(len, '\0');
  if (KV_NameToText(p, n, &text[0], &len) != 0) return "<error>";
  text.resize(len - 1);
  return text;
}

std::string ShellQuote(const std::string& s) {
  std::string q = "'";
  for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

// The attributes of a multi-valued RDN in sorted order: RFC 4514 leaves their
// order open, OpenSSL reverses it and Python's differs from run to run.
std::string SortWithinRdns(const std::string& text) {
  std::string out, part;
  std::vector<std::string> parts;
  auto flushRdn = [&](char sep) {
    parts.push_back(part);
    part.clear();
    if (sep == '+') return;
    std::sort(parts.begin(), parts.end());
    for (size_t i = 0; i < parts.size(); ++i) out += (i ? "+" : "") + parts[i];
    if (sep) out += sep;
    parts.clear();
  };
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) {
      part += text.substr(i++, 2);
    } else if (text[i] == ',' || text[i] == '+') {
      flushRdn(text[i]);
    } else {
      part += text[i];
    }
  }
  flushRdn('\0');
  return out;
}

// OpenSSL's view of a DER Name: "TYPE:value" per attribute, in encoded order.
std::vector<std::string> Asn1Parse(const kvtest::TempDir& dir, const std::string& der) {
  std::string file = dir.Write("name.der", der);
  std::istringstream out(kvtest::RunShell("openssl asn1parse -inform DER -in " + file).out);
  std::vector<std::string> values;
  std::string line;
  while (std::getline(out, line)) {
    size_t prim = line.find("prim: ");
    if (prim == std::string::npos || line.find("OBJECT") != std::string::npos) continue;
    std::string rest = line.substr(prim + 6);
    size_t colon = rest.find(':');
    std::string type = rest.substr(0, rest.find(' '));
    values.push_back(type + ":" + rest.substr(colon + 1));
  }
  return values;
}

TEST(DnText, CasesOfTheDataFile) {
  std::ifstream in(kData + "dn_text.txt");
  ASSERT_TRUE(in.good());
  std::string line;
  int cases = 0;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> f;
    std::istringstream fields(line);
    std::string field;
    while (std::getline(fields, field, '\t')) f.push_back(field);
    while (f.size() < 3) f.emplace_back();
    std::string der;
    int status = Parse(f[1], der);
    ++cases;
    ASSERT_EQ(status, std::stoi(f[0])) << "input: " << f[1];
    if (status != 0) continue;
    std::string text = Format(der);
    EXPECT_EQ(text, f[2]) << "input: " << f[1];
    // The text form reads back to the same encoding (a value given in hex
    // may come back as text of another string type).
    std::string again;
    ASSERT_EQ(Parse(text, again), 0) << text;
    if (f[1].find("=#") == std::string::npos) {
      EXPECT_EQ(again, der) << text;
    }
    EXPECT_EQ(Format(again), text);
  }
  EXPECT_GT(cases, 50);
}

TEST(DnText, EncodingAsOpenSSLReadsIt) {
  kvtest::TempDir dir;
  struct Case {
    const char* text;
    std::vector<std::string> expected;  // encoded order: the text reversed
  } cases[] = {
      {"CN=alice,O=Example,C=CN",
       {"PRINTABLESTRING:CN", "PRINTABLESTRING:Example", "PRINTABLESTRING:alice"}},
      {"CN=张三,OU=O'Brien,E=a@b.example",
       {"IA5STRING:a@b.example", "UTF8STRING:O'Brien", "UTF8STRING:张三"}},
      {"CN=a\\,b (x),2.5.4.5=1234", {"PRINTABLESTRING:1234", "PRINTABLESTRING:a,b (x)"}},
  };
  for (const Case& c : cases) {
    std::string der;
    ASSERT_EQ(Parse(c.text, der), 0) << c.text;
    EXPECT_EQ(Asn1Parse(dir, der), c.expected) << c.text;
  }
  // One RDN per comma, attributes of a "+" in one SET.
  std::string der;
  ASSERT_EQ(Parse("CN=a+O=b,C=CN", der), 0);
  std::string dump =
      kvtest::RunShell("openssl asn1parse -inform DER -in " + dir.Write("m.der", der)).out;
  size_t sets = 0;
  for (size_t at = dump.find("cons: SET"); at != std::string::npos;
       at = dump.find("cons: SET", at + 1))
    ++sets;
  EXPECT_EQ(sets, 2u) << dump;
}

TEST(DnText, FormatMatchesOpenSSLAndPythonOnTheirOwnNames) {
  kvtest::TempDir dir;
  // OpenSSL encodes these subjects (UTF8String by default, multi-valued RDNs).
  const char* subjects[] = {
      "/C=CN/ST=Beijing/L=Haidian/O=Example Org/OU=R&D/CN=alice",
      "/C=CN/O=北京 Example/CN=张三",
      "/O=O'Brien \\, Sons/CN=x+SN=y",
      "/CN= lead;semi<angle>\"quote\"\\\\back#",
      "/CN=#start/title=Dr/GN=Al/initials=AB/dnQualifier=q/emailAddress=a@b.example",
  };
  const std::string py =
      "/usr/bin/python3 -c \"import sys; from cryptography import x509;"
      "from cryptography.x509.oid import NameOID as N, ObjectIdentifier as I;"
      "r=x509.load_der_x509_csr(open(sys.argv[1],'rb').read());"
      "o={N.SURNAME:'SN',N.TITLE:'T',N.GIVEN_NAME:'G',I('2.5.4.43'):'I',"
      "N.DN_QUALIFIER:'DQ',N.EMAIL_ADDRESS:'E',N.GENERATION_QUALIFIER:'GQ'};"
      "sys.stdout.write(r.subject.rfc4514_string(o))\" ";
  PKCS_Initialize();
  PKCS_CTX ctx = nullptr;
  ASSERT_EQ(PKCS_CreateCtx(&ctx), 0);
  for (const char* subject : subjects) {
    std::string csr = dir / "req.der";
    ASSERT_EQ(kvtest::RunShell("openssl req -new -newkey rsa:1024 -nodes -keyout " +
                               (dir / "k.pem") + " -utf8 -multivalue-rdn -subj " +
                               ShellQuote(subject) + " -outform DER -out " + csr + " 2>/dev/null")
                  .status,
              0)
        << subject;
    std::string request = kvtest::ReadFile(csr);
    KV_LIST* parts = nullptr;
    ASSERT_EQ(KV_CreateList(&parts), 0);
    PKCS_PUBKEY key;
    PKCS_InitPubKey(ctx, &key);
    ASSERT_EQ(KVPKCS_DecomposePKCS10(ctx, reinterpret_cast<const unsigned char*>(request.data()),
                                     static_cast<unsigned>(request.size()), parts, &key),
              0);
    const unsigned char* item = nullptr;
    unsigned n = 0;
    ASSERT_EQ(KV_ListGet(parts, 0, &item, &n), 0);
    std::string ours = Format(std::string(reinterpret_cast<const char*>(item), n));
    EXPECT_EQ(SortWithinRdns(ours), SortWithinRdns(kvtest::RunShell(py + csr).out)) << subject;
    // OpenSSL names the table's attributes differently; map its line.
    std::string theirs = kvtest::RunShell("openssl req -inform DER -in " + csr +
                                          " -noout -subject -nameopt RFC2253,-esc_msb")
                             .out;
    theirs = theirs.substr(theirs.find('=') + 1);
    while (!theirs.empty() && theirs.back() == '\n') theirs.pop_back();
    for (auto [from, to] :
         std::vector<std::pair<std::string, std::string>>{{"title=", "T="},
                                                          {"GN=", "G="},
                                                          {"initials=", "I="},
                                                          {"dnQualifier=", "DQ="},
                                                          {"emailAddress=", "E="}}) {
      for (size_t at = theirs.find(from); at != std::string::npos; at = theirs.find(from, at))
        theirs.replace(at, from.size(), to);
    }
    EXPECT_EQ(SortWithinRdns(ours), SortWithinRdns(theirs)) << subject;
    // And our text parses back to a name OpenSSL reads the same way.
    std::string der;
    ASSERT_EQ(Parse(ours, der), 0) << ours;
    EXPECT_EQ(Format(der), ours);
    PKCS_FreePubKey(ctx, &key);
    KV_DestroyList(parts);
  }
  PKCS_DestroyCtx(ctx);
  PKCS_Finalize();
}

TEST(DnText, BufferRules) {
  unsigned len = 0;
  EXPECT_EQ(KV_ParseDN(nullptr, nullptr, &len), KV_ERR_ARGUMENT);
  EXPECT_EQ(KV_ParseDN("CN=a", nullptr, nullptr), KV_ERR_ARGUMENT);
  ASSERT_EQ(KV_ParseDN("CN=a", nullptr, &len), 0);
  std::string der(len, '\0');
  unsigned small = len - 1;
  EXPECT_EQ(KV_ParseDN("CN=a", reinterpret_cast<unsigned char*>(&der[0]), &small), KV_ERR_BUFFER);
  ASSERT_EQ(KV_ParseDN("CN=a", reinterpret_cast<unsigned char*>(&der[0]), &len), 0);
  unsigned textLen = 0;
  auto p = reinterpret_cast<const unsigned char*>(der.data());
  ASSERT_EQ(KV_NameToText(p, len, nullptr, &textLen), 0);
  EXPECT_EQ(textLen, 5u);  // "CN=a" and its NUL
  char text[5];
  unsigned four = 4;
  EXPECT_EQ(KV_NameToText(p, len, text, &four), KV_ERR_BUFFER);
  ASSERT_EQ(KV_NameToText(p, len, text, &textLen), 0);
  EXPECT_STREQ(text, "CN=a");
  EXPECT_EQ(KV_NameToText(p, len - 1, text, &textLen), KV_ERR_DECODE);
}

TEST(DnNodeText, AddAndReadBackByTheLabelTable) {
  KV_Name name;
  EXPECT_EQ(name.addNameNode(Bytes("  C =CN")), 0);
  // A leading blank and any letter case make a label field.
  EXPECT_EQ(name.addNameNode(Bytes(" cn =alice")), 0);
  EXPECT_EQ(name.addNameNode(Bytes("  e =a@b.example")), 0);
  // Without the blank the field swallows a letter of the value.
  EXPECT_EQ(name.addNameNode(Bytes("cn=alice")), KV_ERR_UNSUPPORTED);
  EXPECT_EQ(name.addNameNode(Bytes(" CN =")), KV_ERR_BUFFER);
  EXPECT_EQ(name.addNameNode(Bytes(" CN")), KV_ERR_BUFFER);
  EXPECT_EQ(name.addNameNode(Bytes(" ?? =x")), KV_ERR_UNSUPPORTED);
  // PrintableString cannot hold it.
  EXPECT_EQ(name.addNameNode(Bytes(" CN =O'Brien")), KV_ERR_ENCODE);

  int total = 0;
  ASSERT_EQ(name.getNameNodeTotal(total), 0);
  ASSERT_EQ(total, 3);
  const char* expected[] = {"  C =CN", " CN =alice", "  E =a@b.example"};
  for (int i = 0; i < 3; ++i) {
    MiByte node;
    ASSERT_EQ(name.getNameNodeByIndex(i, node), 0);
    EXPECT_EQ(Str(node), expected[i]);
  }
  MiByte node;
  EXPECT_EQ(name.getNameNodeByIndex(3, node), KV_ERR_INDEX);
  EXPECT_EQ(name.getNameNodeByIndex(-1, node), KV_ERR_INDEX);

  // E is an IA5String, the others PrintableString, one RDN each, in order.
  kvtest::TempDir dir;
  MiByte der;
  ASSERT_EQ(name.getName(der), 0);
  EXPECT_EQ(Asn1Parse(dir, Str(der)),
            (std::vector<std::string>{"PRINTABLESTRING:CN", "PRINTABLESTRING:alice",
                                      "IA5STRING:a@b.example"}));
  MiString text;
  ASSERT_EQ(name.getText(text), 0);
  EXPECT_EQ(std::string(text), "E=a@b.example,CN=alice,C=CN");
}

TEST(DnNodeText, UnknownAttributesAndMissingValues) {
  // serialNumber (2.5.4.5) is outside the table; UTF-8 values are returned
  // as their content octets.
  std::string der;
  ASSERT_EQ(Parse("2.5.4.5=42,CN=张三", der), 0);
  KV_Name name;
  ASSERT_EQ(name.setName(Bytes(der)), 0);
  MiByte node;
  ASSERT_EQ(name.getNameNodeByIndex(0, node), 0);
  EXPECT_EQ(Str(node), " CN =张三");
  ASSERT_EQ(name.getNameNodeByIndex(1, node), 0);
  EXPECT_EQ(Str(node), " ?? =42");

  // An RDN with no attribute, and one whose attribute has no value.
  Name raw;
  ASSERT_EQ(name.getName(raw), 0);
  raw.GetRdnSequence()->Get(0)->Clear();
  raw.GetRdnSequence()->Get(1)->Get(0)->GetValue()->ClearData();
  ASSERT_EQ(name.setName(raw), 0);
  EXPECT_EQ(name.getNameNodeByIndex(0, node), KV_ERR_MISSING_FIELD);
  EXPECT_EQ(name.getNameNodeByIndex(1, node), KV_ERR_MISSING_FIELD);

  EXPECT_EQ(name.setName(Bytes("\x30\x03\x31\x01")), KV_ERR_DECODE);
  EXPECT_EQ(name.setText("CN="), KV_ERR_SYNTAX);
  ASSERT_EQ(name.setText("CN=b,O=a"), 0);
  KV_Name other;
  ASSERT_EQ(other.setText("O=a"), 0);
  EXPECT_NE(name, other);
  ASSERT_EQ(other.addNameNode(Bytes(" CN =b")), 0);
  EXPECT_EQ(name, other);
}

}  // namespace
