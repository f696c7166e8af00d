// Certificate bundles: what certification authorities return (OpenSSL's
// crl2pkcs7 stands in for them, and the vector files for the wild), read in
// any order, with the leaf found; and our own bundles read by OpenSSL.
#include <algorithm>

#include "fixture.h"

namespace {

using namespace p7test;

class BundleTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(pki_.ok); }

  // crl2pkcs7 over the certificates in this order.
  std::string Bundle(const std::vector<const Party*>& parties) {
    std::string pem;
    for (const Party* p : parties) pem += kvtest::ReadFile(p->certPem);
    const std::string in = dir_.Write("chain.pem", pem), out = dir_ / "bundle.der";
    EXPECT_TRUE(Openssl("crl2pkcs7 -nocrl -certfile " + in + " -outform DER -out " + out));
    return kvtest::ReadFile(out);
  }

  int Read(const std::string& msg, List& list) {
    return PKCS7_ReadSignedDataMsg(ctx_.get(), U(msg), N(msg), list.get());
  }

  // The leaf of a list, or the status as text.
  std::string Leaf(const List& list) {
    unsigned n = 0;
    int rv = PKCS7_GetLeafCert(ctx_.get(), list.get(), nullptr, &n);
    if (rv != 0) return "status " + std::to_string(rv);
    std::string out(n, '\0');
    rv = PKCS7_GetLeafCert(ctx_.get(), list.get(), reinterpret_cast<unsigned char*>(&out[0]), &n);
    if (rv != 0) return "status " + std::to_string(rv);
    out.resize(n);
    return out;
  }

  std::string Status(int rv) { return "status " + std::to_string(rv); }

  const Pki& pki_ = TestPki();
  Context ctx_;
  kvtest::TempDir dir_;
};

TEST_F(BundleTest, EveryOrderOfAChainGivesItsCertificatesAndTheLeaf) {
  std::vector<const Party*> chain = {&pki_.root, &pki_.inter, &pki_.signer};
  std::sort(chain.begin(), chain.end());
  do {
    List list;
    ASSERT_EQ(Read(Bundle(chain), list), 0);
    std::vector<std::string> want;
    for (const Party* p : chain) want.push_back(p->cert);
    EXPECT_EQ(list.Items(), want);  // message order, octets as sent
    EXPECT_EQ(Leaf(list), pki_.signer.cert);
  } while (std::next_permutation(chain.begin(), chain.end()));
}

TEST_F(BundleTest, LeafOfPartialAndUnusualSets) {
  const std::string isrg = kvtest::PemBlocks(
      kvtest::ReadFile(std::string(kvtest::kSystemRootsDir) + "/ISRG_Root_X1.crt"),
      {"CERTIFICATE"})[0];
  struct Case {
    std::vector<std::string> certs;
    std::string leaf;
  } cases[] = {
      {{pki_.signer.cert}, pki_.signer.cert},
      {{pki_.root.cert, pki_.inter.cert}, pki_.inter.cert},
      {{pki_.root.cert}, pki_.root.cert},
      // A root that issued nothing here stands aside for the end entity.
      {{isrg, pki_.inter.cert, pki_.signer.cert}, pki_.signer.cert},
      // The same certificate twice is one certificate.
      {{pki_.signer.cert, pki_.inter.cert, pki_.signer.cert}, pki_.signer.cert},
      // Two end entities, two unrelated roots, nothing at all: no single leaf.
      {{pki_.root.cert, pki_.inter.cert, pki_.signer.cert, pki_.recipient.cert},
       Status(KV_ERR_NO_LEAF)},
      {{pki_.root.cert, isrg}, Status(KV_ERR_NO_LEAF)},
      {{}, Status(KV_ERR_NO_LEAF)},
      {{pki_.signer.cert, "not a certificate"}, Status(KV_ERR_DECODE)},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases);
    List list(c.certs);
    EXPECT_EQ(Leaf(list), c.leaf);
  }
}

TEST_F(BundleTest, LeafFollowsTheOutputBufferRule) {
  List list({pki_.inter.cert, pki_.signer.cert});
  unsigned n = 0;
  ASSERT_EQ(PKCS7_GetLeafCert(ctx_.get(), list.get(), nullptr, &n), 0);
  EXPECT_EQ(n, N(pki_.signer.cert));
  std::string buf(n + 10, '\0');
  unsigned small = n - 1;
  EXPECT_EQ(
      PKCS7_GetLeafCert(ctx_.get(), list.get(), reinterpret_cast<unsigned char*>(&buf[0]), &small),
      KV_ERR_BUFFER);
  unsigned big = n + 10;
  ASSERT_EQ(
      PKCS7_GetLeafCert(ctx_.get(), list.get(), reinterpret_cast<unsigned char*>(&buf[0]), &big),
      0);
  EXPECT_EQ(big, n);
  EXPECT_EQ(buf.substr(0, n), pki_.signer.cert);
  // The list functions need no context.
  EXPECT_EQ(PKCS7_GetLeafCert(nullptr, list.get(), nullptr, &n), 0);
}

TEST_F(BundleTest, OurBundleReadsInOpenssl) {
  List in({pki_.root.cert, pki_.inter.cert, pki_.signer.cert});
  unsigned char* out = nullptr;
  unsigned n = 0;
  ASSERT_EQ(PKCS7_WriteCertsMsg(ctx_.get(), in.get(), &out, &n), 0);
  const std::string msg = Take(out, n);
  kvtest::ShellResult r = kvtest::RunShell("openssl pkcs7 -inform DER -print_certs -in " +
                                           dir_.Write("ours.p7b", msg) + " 2>&1");
  ASSERT_EQ(r.status, 0) << r.out;
  for (const char* cn : {"CN = Test Root", "CN = Test Intermediate", "CN = Signer"})
    EXPECT_NE(r.out.find(std::string("subject=O = Korvanta Test, ") + cn), std::string::npos) << cn;
  // OpenSSL's own re-encoding of it is the very same octets.
  ASSERT_TRUE(Openssl("pkcs7 -inform DER -outform DER -in " + (dir_ / "ours.p7b") + " -out " +
                      (dir_ / "again.p7b")));
  EXPECT_EQ(kvtest::ReadFile(dir_ / "again.p7b"), msg);
  List back;
  ASSERT_EQ(Read(msg, back), 0);
  EXPECT_EQ(Leaf(back), pki_.signer.cert);
}

TEST_F(BundleTest, VectorFilesInDerAndBer) {
  const std::string v = std::string(KV_VECTORS_DIR) + "/pkcs7/";
  List der, ber, pem;
  ASSERT_EQ(Read(kvtest::ReadFile(v + "amazon-roots.der"), der), 0);
  ASSERT_EQ(Read(kvtest::ReadFile(v + "amazon-roots.p7b"), ber), 0);  // indefinite lengths
  EXPECT_EQ(der.Items().size(), 2u);
  EXPECT_EQ(der.Items(), ber.Items());
  EXPECT_EQ(Leaf(der), Status(KV_ERR_NO_LEAF));  // two roots
  auto blocks = kvtest::PemBlocks(kvtest::ReadFile(v + "isrg.pem"), {"PKCS7"});
  ASSERT_EQ(blocks.size(), 1u);
  ASSERT_EQ(Read(blocks[0], pem), 0);
  ASSERT_EQ(pem.Items().size(), 1u);
  EXPECT_EQ(Leaf(pem), pem.Items()[0]);
}

TEST_F(BundleTest, ReadingAppendsOrLeavesTheListAlone) {
  List list({"kept"});
  const std::string bundle = Bundle({&pki_.inter, &pki_.signer});
  ASSERT_EQ(Read(bundle, list), 0);
  EXPECT_EQ(list.Items().size(), 3u);
  EXPECT_EQ(list.Items()[0], "kept");
  // Not a signedData, not DER, nothing: the list is unchanged.
  unsigned char* out = nullptr;
  unsigned n = 0;
  ASSERT_EQ(PKCS7_WriteDataMsg(ctx_.get(), U(bundle), N(bundle), &out, &n), 0);
  EXPECT_EQ(Read(Take(out, n), list), KV_ERR_CONTENT_TYPE);
  EXPECT_EQ(Read(bundle.substr(0, bundle.size() - 1), list), KV_ERR_DECODE);
  EXPECT_EQ(PKCS7_ReadSignedDataMsg(ctx_.get(), nullptr, 0, list.get()), KV_ERR_ARGUMENT);
  EXPECT_EQ(list.Items().size(), 3u);
  // Zero octets after the message (a buffer longer than it) are accepted.
  List padded;
  EXPECT_EQ(Read(bundle + std::string(16, '\0'), padded), 0);
  EXPECT_EQ(padded.Items().size(), 2u);
}

}  // namespace
