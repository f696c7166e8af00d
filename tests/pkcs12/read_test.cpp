// The reader over files other software wrote: OpenSSL with each PKCS #12 PBE
// scheme, Python's cryptography, and the vectors package's files.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>

#include "asn1/asn1.h"
#include "pkcs12/p12_util.h"
#include "pki/internal/context.h"

namespace {

using p12test::DataPath;
using p12test::Quote;

class Read : public ::testing::Test {
 protected:
  void SetUp() override {
    cert_ = p12test::PemDer("leaf.pem");
    ca_ = p12test::PemDer("ca.pem");
  }

  // `openssl pkcs12 -export` of the leaf key, leaf and CA certificate.
  std::string OpenSslExport(const std::string& options, const std::string& password) {
    std::string pw = dir_.Write("pw", password), out = dir_ / "o.p12";
    std::string cmd = "openssl pkcs12 -export " + options + " -inkey " +
                      Quote(DataPath("leaf-key.pem")) + " -in " + Quote(DataPath("leaf.pem")) +
                      " -certfile " + Quote(DataPath("ca.pem")) + " -name 'Leaf User' -passout " +
                      Quote(password.empty() ? "pass:" : "file:" + pw) + " -out " + Quote(out) +
                      " 2>&1";
    auto r = kvtest::RunShell(cmd);
    EXPECT_EQ(r.status, 0) << cmd << "\n" << r.out;
    return kvtest::ReadFile(out);
  }

  // The file read back must give the leaf key, the leaf as the leaf, the CA
  // as the one other certificate, and the name.
  void ExpectContents(const std::string& pfx, const char* password, const std::string& what) {
    p12test::Parsed p;
    ASSERT_EQ(p12test::Parse(lib_, pfx, password, p), 0) << what;
    EXPECT_EQ(p.c.hasKey, 1) << what;
    EXPECT_EQ(p.ModulusHex(), key_.ModulusHex()) << what;
    EXPECT_EQ(p12test::Hex(p.c.key.privateExponent, p.c.key.privateExponentLen),
              p12test::Hex(key_.get()->privateExponent, key_.get()->privateExponentLen))
        << what;
    EXPECT_TRUE(p.Cert() == cert_) << what;
    EXPECT_EQ(p.Others(), std::vector<std::string>{ca_}) << what;
    ASSERT_NE(p.c.friendlyName, nullptr) << what;
    EXPECT_STREQ(p.c.friendlyName, "Leaf User") << what;
  }

  p12test::Library lib_;
  p12test::KeyRecord key_{"leaf-key.pem"};
  kvtest::TempDir dir_;
  std::string cert_, ca_;
};

TEST_F(Read, OpenSslLegacyFilesWithEveryPbeScheme) {
  ExpectContents(OpenSslExport("-legacy", "58203716"), "58203716", "-legacy defaults");
  const char* schemes[] = {"PBE-SHA1-3DES",    "PBE-SHA1-2DES",   "PBE-SHA1-RC2-40",
                           "PBE-SHA1-RC2-128", "PBE-SHA1-RC4-40", "PBE-SHA1-RC4-128"};
  for (const char* key : schemes) {
    for (const char* cert : {"PBE-SHA1-RC2-40", "PBE-SHA1-3DES", "NONE"}) {
      std::string opts =
          std::string("-legacy -macalg sha1 -iter 3 -keypbe ") + key + " -certpbe " + cert;
      ExpectContents(OpenSslExport(opts, "s3cret"), "s3cret", opts);
    }
  }
  // The other way round: each scheme on the certificates.
  for (const char* cert : schemes) {
    std::string opts = std::string("-legacy -keypbe PBE-SHA1-3DES -certpbe ") + cert;
    ExpectContents(OpenSslExport(opts, "s3cret"), "s3cret", opts);
  }
}

TEST_F(Read, PasswordsBeyondAscii) {
  const char* pw = "p\xC3\xA4ssw\xC3\xB6rd \xE5\x8F\xA3\xE4\xBB\xA4";
  ExpectContents(OpenSslExport("-legacy", pw), pw, "unicode password");
  // OpenSSL writes the empty password as the two closing zeros, other
  // writers as no octets: both read with "".
  ExpectContents(OpenSslExport("-legacy", ""), "", "empty password");
  ExpectContents(OpenSslExport("-legacy", ""), nullptr, "null password");
}

TEST_F(Read, WrongPasswordIsRefusedBeforeAnythingIsDecrypted) {
  std::string pfx = OpenSslExport("-legacy", "58203716");
  for (const char* wrong : {"58203717", "", "5820371"}) {
    p12test::Parsed p;
    EXPECT_EQ(p12test::Parse(lib_, pfx, wrong, p), KV_ERR_MAC) << wrong;
    EXPECT_EQ(p.c.hasKey, 0);
    EXPECT_EQ(p.c.key.modulus, nullptr);
    EXPECT_EQ(p.c.cert, nullptr);
    EXPECT_EQ(p.c.others, nullptr);
    EXPECT_EQ(p.c.friendlyName, nullptr);
  }
  // Without a MAC a wrong password shows when the first bag decrypts.
  std::string nomac = OpenSslExport("-legacy -nomac", "58203716");
  ExpectContents(nomac, "58203716", "-nomac");
  p12test::Parsed p;
  int rv = p12test::Parse(lib_, nomac, "wrong", p);
  EXPECT_EQ(rv, KV_ERR_DECRYPT);
  EXPECT_EQ(p.c.cert, nullptr);
}

TEST_F(Read, NewerSchemesAreRefusedAsUnsupported) {
  // OpenSSL 3's defaults: PBES2 with AES-256-CBC and a SHA-256 MAC.
  p12test::Parsed p;
  EXPECT_EQ(p12test::Parse(lib_, OpenSslExport("", "pw"), "pw", p), KV_ERR_UNSUPPORTED);
  // A SHA-1 MAC over PBES2 bags: the MAC checks, the bags cannot be opened.
  EXPECT_EQ(p12test::Parse(lib_, OpenSslExport("-macalg sha1", "pw"), "pw", p), KV_ERR_UNSUPPORTED);
  EXPECT_EQ(p.c.cert, nullptr);
  // Iteration counts past a million would hold the reader for minutes.
  EXPECT_EQ(p12test::Parse(lib_, OpenSslExport("-legacy -nomac -certpbe NONE -iter 1000001", "pw"),
                           "pw", p),
            KV_ERR_UNSUPPORTED);
  // ... but the password is still checked first.
  EXPECT_EQ(p12test::Parse(lib_, OpenSslExport("-macalg sha1", "pw"), "wrong", p), KV_ERR_MAC);
}

TEST_F(Read, PythonCryptographyFiles) {
  std::string pw = dir_.Write("pw", "58203716"), out = dir_ / "py.p12";
  std::string cmd = "python3 " + Quote(DataPath("p12_oracle.py")) + " write " + Quote(out) + " " +
                    Quote(pw) + " " + Quote(DataPath("leaf-key.pem")) + " " +
                    Quote(DataPath("leaf.pem")) + " " + Quote(DataPath("ca.pem")) +
                    " 3des 'Leaf User' 2>&1";
  auto r = kvtest::RunShell(cmd);
  ASSERT_EQ(r.status, 0) << r.out;
  ExpectContents(kvtest::ReadFile(out), "58203716", "python 3des");
  cmd.replace(cmd.find(" 3des "), 6, " aes ");
  ASSERT_EQ(kvtest::RunShell(cmd).status, 0);
  p12test::Parsed p;
  EXPECT_EQ(p12test::Parse(lib_, kvtest::ReadFile(out), "58203716", p), KV_ERR_UNSUPPORTED);
}

// Records of "NAME = value" lines separated by blank lines.
std::vector<std::map<std::string, std::string>> Records(const std::string& path) {
  std::ifstream f(path);
  std::vector<std::map<std::string, std::string>> out(1);
  std::string line;
  while (std::getline(f, line)) {
    size_t eq = line.find(" = ");
    if (line.empty() && !out.back().empty()) out.emplace_back();
    if (!line.empty() && line[0] != '#' && eq != std::string::npos)
      out.back()[line.substr(0, eq)] = line.substr(eq + 3);
  }
  if (out.back().empty()) out.pop_back();
  return out;
}

TEST_F(Read, VectorsPackageFilesAsPythonReadsThem) {
  auto records = Records(DataPath("vectors-python.txt"));
  ASSERT_EQ(records.size(), 29u);
  for (auto& r : records) {
    std::string path = std::string(KV_VECTORS_DIR) + "/pkcs12/" + r["FILE"];
    std::string der = kvtest::ReadFile(path);
    ASSERT_FALSE(der.empty()) << path;
    const char* pw = r["PASSWORD"] == "-" ? "" : r["PASSWORD"].c_str();
    KV_PFX file;
    int rv = file.Read(*kv::pki::ContextOp(lib_.ctx()),
                       MiByte(der.data(), static_cast<unsigned>(der.size())), pw);
    ASSERT_EQ(rv, std::stoi(r["STATUS"])) << r["FILE"];
    if (rv != 0) continue;
    std::vector<std::string> names;
    int keys = 0;
    for (const KV_PFX_BAG& b : file.Bags()) {
      if (b.kind == KV_PFX_BAG::CERT)
        names.push_back(b.friendlyName.empty() ? "-" : b.friendlyName);
      if (b.kind == KV_PFX_BAG::KEY || b.kind == KV_PFX_BAG::SHROUDED_KEY) ++keys;
    }
    std::sort(names.begin(), names.end());
    std::string joined;
    for (const auto& n : names) joined += (joined.empty() ? "" : ",") + n;
    EXPECT_EQ(p12test::Hex(joined), r["NAMES"]) << r["FILE"];
    EXPECT_EQ(names.size(), std::stoul(r["CERTS"])) << r["FILE"];
    EXPECT_EQ(keys, r["KEY"] == "none" ? 0 : 1) << r["FILE"];
    // The flat reader takes only RSA keys; these hold other keys.
    p12test::Parsed p;
    EXPECT_EQ(p12test::Parse(lib_, der, pw, p), 0) << r["FILE"];
    EXPECT_EQ(p.c.hasKey, r["KEY"] == "rsa" ? 1 : 0) << r["FILE"];
    EXPECT_EQ((p.c.cert ? 1u : 0u) + p.Others().size(), std::stoul(r["CERTS"])) << r["FILE"];
  }
}

TEST_F(Read, DamagedInputIsRefusedWithoutCrashing) {
  std::string pfx = OpenSslExport("-legacy", "pw");
  p12test::Parsed p;
  EXPECT_EQ(p12test::Parse(lib_, "", "pw", p), KV_ERR_ARGUMENT);
  EXPECT_EQ(p12test::Parse(lib_, cert_, "pw", p), KV_ERR_DECODE);
  EXPECT_EQ(p12test::Parse(lib_, pfx.substr(0, pfx.size() - 1), "pw", p), KV_ERR_DECODE);
  // A flipped octet inside the authenticated safe breaks the MAC.
  std::string flipped = pfx;
  flipped[flipped.size() / 2] ^= 1;
  int rv = p12test::Parse(lib_, flipped, "pw", p);
  EXPECT_TRUE(rv == KV_ERR_MAC || rv == KV_ERR_DECODE) << rv;
  EXPECT_EQ(p.c.cert, nullptr);
}

TEST_F(Read, FlatReaderChecksLibraryAndContext) {
  std::string pfx = OpenSslExport("-legacy", "pw");
  auto* data = reinterpret_cast<const unsigned char*>(pfx.data());
  KV_PFX_CONTENTS c;
  KV_InitPFXContents(&c);
  EXPECT_EQ(KV_ParsePFX(nullptr, data, static_cast<unsigned>(pfx.size()), "pw", &c),
            KV_ERR_BAD_CONTEXT);
  EXPECT_EQ(KV_ParsePFX(lib_.ctx(), data, static_cast<unsigned>(pfx.size()), "pw", nullptr),
            KV_ERR_ARGUMENT);
  EXPECT_EQ(KV_FreePFXContents(&c), 0);
}

}  // namespace
