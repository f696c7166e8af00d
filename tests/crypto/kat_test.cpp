// The known-answer driver: reads every vector file directly and runs each
// record through the one-shot and streaming interfaces.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "crypto/crypto.h"
#include "crypto/internal/cpu.h"
#include "crypto/kat_reader.h"

namespace kvtest {
namespace {

const std::string kVectors = KV_VECTORS_DIR;
const std::string kOurData = std::string(KV_TEST_DATA_DIR) + "/crypto";

// Runs the body once with the accelerated code allowed and once forced onto
// the portable code.
class BothPaths : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override { kv::internal::SetAccelerationAllowed(GetParam()); }
  void TearDown() override { kv::internal::SetAccelerationAllowed(true); }
};
INSTANTIATE_TEST_SUITE_P(Code, BothPaths, testing::Values(true, false),
                         [](const testing::TestParamInfo<bool>& i) {
                           return i.param ? "Accelerated" : "Portable";
                         });

// Split points for streaming: every position for short inputs, for long ones
// every position near both ends and a stride through the middle.
std::vector<size_t> SplitPoints(size_t n) {
  std::vector<size_t> s;
  for (size_t i = 0; i <= n; ++i) {
    if (n <= 600 || i < 200 || n - i < 200 || i % 97 == 0) s.push_back(i);
  }
  return s;
}

// Checks one message against its digest through Digest(), two-piece updates
// at every split point, byte-by-byte updates, and a context reused after
// Final() and after Reset() of a half-fed message.
template <class H>
void CheckDigest(const std::vector<uint8_t>& msg, const std::string& want,
                 const std::string& where) {
  SCOPED_TRACE(where);
  uint8_t out[H::kDigestSize];
  H::Digest(msg.data(), msg.size(), out);
  ASSERT_EQ(ToHex(out, sizeof out), want) << "one-shot";

  H h;
  for (size_t cut : SplitPoints(msg.size())) {
    h.Update(msg.data(), cut);
    h.Update(msg.data() + cut, msg.size() - cut);
    h.Final(out);  // also resets for the next round
    ASSERT_EQ(ToHex(out, sizeof out), want) << "split at " << cut;
  }
  if (msg.size() <= 2048) {
    h.Update("garbage", 7);
    h.Reset();
    for (uint8_t b : msg) h.Update(&b, 1);
    h.Final(out);
    ASSERT_EQ(ToHex(out, sizeof out), want) << "byte by byte after Reset";
  }
}

template <class H>
void RunDigestFile(const std::string& path) {
  auto recs = ReadKatFile(path);
  ASSERT_FALSE(recs.empty()) << path;
  for (const auto& r : recs) {
    if (!r.Has("Len")) continue;
    long bits = r.Int("Len");
    ASSERT_EQ(bits % 8, 0);
    auto msg = r.Hex("Msg");
    msg.resize(size_t(bits / 8));  // "Len = 0" comes with "Msg = 00"
    CheckDigest<H>(msg, r.Get("MD"), path + ":" + std::to_string(r.line));
  }
}

// The NIST Monte Carlo chain: each step hashes the previous three digests.
template <class H>
void RunMonteCarlo(const std::string& path) {
  auto recs = ReadKatFile(path);
  std::vector<uint8_t> seed;
  int checked = 0;
  for (const auto& r : recs) {
    if (r.Has("Seed")) {
      seed = r.Hex("Seed");
      continue;
    }
    if (!r.Has("MD")) continue;
    std::vector<uint8_t> md[3] = {seed, seed, seed};
    H h;
    for (int i = 0; i < 1000; ++i) {
      h.Update(md[0].data(), md[0].size());
      h.Update(md[1].data(), md[1].size());
      h.Update(md[2].data(), md[2].size());
      md[0] = md[1];
      md[1] = md[2];
      h.Final(md[2].data());
    }
    ASSERT_EQ(ToHex(md[2]), r.Get("MD")) << "COUNT " << r.Get("COUNT");
    seed = md[2];
    ++checked;
  }
  EXPECT_EQ(checked, 100);
}

TEST_P(BothPaths, Sha1) {
  RunDigestFile<kv::Sha1>(kVectors + "/hashes/SHA1/SHA1ShortMsg.rsp");
  RunDigestFile<kv::Sha1>(kVectors + "/hashes/SHA1/SHA1LongMsg.rsp");
  RunMonteCarlo<kv::Sha1>(kVectors + "/hashes/SHA1/SHA1Monte.rsp");
}

TEST(Digests, Md5) {
  RunDigestFile<kv::Md5>(kVectors + "/hashes/MD5/rfc-1321.txt");
}

TEST(Digests, Md2) {
  RunDigestFile<kv::Md2>(kOurData + "/md2-rfc1319.txt");
  RunDigestFile<kv::Md2>(kOurData + "/md2-pycryptodome.txt");
}

// ---- block ciphers in CBC mode

std::vector<uint8_t> Concat(std::vector<uint8_t> a, const std::vector<uint8_t>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// Streams in through the encryptor or decryptor E in two pieces cut at cut
// (or byte by byte when cut is npos), reusing e.
template <class E>
bool Stream(E& e, const typename E::CipherType& c, const std::vector<uint8_t>& iv,
            const std::vector<uint8_t>& in, size_t cut, bool pad, std::vector<uint8_t>* out) {
  out->assign(in.size() + 16, 0);
  size_t pos = 0, n = 0;
  if (!e.Init(c, iv.data(), iv.size(), pad)) return false;
  auto feed = [&](const uint8_t* p, size_t len) {
    bool ok = e.Update(p, len, out->data() + pos, &n);
    pos += n;
    return ok;
  };
  bool ok = true;
  if (cut == std::string::npos) {
    for (size_t i = 0; i < in.size(); ++i) ok = ok && feed(in.data() + i, 1);
  } else {
    ok = feed(in.data(), cut) && feed(in.data() + cut, in.size() - cut);
  }
  ok = ok && e.Final(out->data() + pos, &n);
  out->resize(pos + (ok ? n : 0));
  return ok;
}

// One message through every interface: one-shot (also in place) and the
// streaming classes at every split point and byte by byte, in both
// directions. ct is the encryption of msg (after padding when pad is set).
template <class C>
void CheckCbc(const C& c, const std::vector<uint8_t>& iv, const std::vector<uint8_t>& msg,
              const std::vector<uint8_t>& ct, bool pad, const std::string& where) {
  SCOPED_TRACE(where + (pad ? " padded" : " unpadded"));
  std::vector<uint8_t> out(msg.size() + 8);
  size_t n = 0;
  ASSERT_TRUE(kv::CbcEncrypt(c, iv.data(), iv.size(), msg.data(), msg.size(), out.data(), &n, pad));
  ASSERT_EQ(ToHex(out.data(), n), ToHex(ct)) << "one-shot encrypt";
  out.assign(ct.size(), 0);
  ASSERT_TRUE(kv::CbcDecrypt(c, iv.data(), iv.size(), ct.data(), ct.size(), out.data(), &n, pad));
  ASSERT_EQ(ToHex(out.data(), n), ToHex(msg)) << "one-shot decrypt";

  std::vector<uint8_t> buf = msg;
  buf.resize(ct.size());
  ASSERT_TRUE(kv::CbcEncrypt(c, iv.data(), iv.size(), buf.data(), msg.size(), buf.data(), &n, pad));
  ASSERT_EQ(ToHex(buf), ToHex(ct)) << "in-place encrypt";
  ASSERT_TRUE(kv::CbcDecrypt(c, iv.data(), iv.size(), buf.data(), buf.size(), buf.data(), &n, pad));
  ASSERT_EQ(ToHex(buf.data(), n), ToHex(msg)) << "in-place decrypt";

  kv::CbcEncryptor<C> enc;
  kv::CbcDecryptor<C> dec;
  std::vector<uint8_t> got;
  for (size_t cut : SplitPoints(msg.size())) {
    ASSERT_TRUE(Stream(enc, c, iv, msg, cut, pad, &got)) << "encrypt split at " << cut;
    ASSERT_EQ(ToHex(got), ToHex(ct)) << "encrypt split at " << cut;
  }
  for (size_t cut : SplitPoints(ct.size())) {
    ASSERT_TRUE(Stream(dec, c, iv, ct, cut, pad, &got)) << "decrypt split at " << cut;
    ASSERT_EQ(ToHex(got), ToHex(msg)) << "decrypt split at " << cut;
  }
  if (msg.size() <= 2048) {
    ASSERT_TRUE(Stream(enc, c, iv, msg, std::string::npos, pad, &got));
    ASSERT_EQ(ToHex(got), ToHex(ct)) << "encrypt byte by byte";
    ASSERT_TRUE(Stream(dec, c, iv, ct, std::string::npos, pad, &got));
    ASSERT_EQ(ToHex(got), ToHex(msg)) << "decrypt byte by byte";
  }
}

// A NIST record gives unpadded CBC. With padding, the expected output is the
// same followed by the encryption of one block of eights chained on the last
// ciphertext block.
template <class C>
void CheckNistCbc(const C& c, const KatRecord& r, const std::string& where) {
  auto iv = r.Hex("IV"), pt = r.Hex("PLAINTEXT"), ct = r.Hex("CIPHERTEXT");
  ASSERT_EQ(pt.size(), ct.size());
  CheckCbc(c, iv, pt, ct, false, where);
  uint8_t block[8];
  const uint8_t* chain = ct.empty() ? iv.data() : ct.data() + ct.size() - 8;
  for (int i = 0; i < 8; ++i) block[i] = uint8_t(8 ^ chain[i]);
  c.EncryptBlock(block, block);
  CheckCbc(c, iv, pt, Concat(ct, std::vector<uint8_t>(block, block + 8)), true, where);
}

TEST(Ciphers, DesCbc) {
  // The single-key TCBC files (not the TCBCI interleaved ones, not MMT) are
  // DES-CBC known answers: variable key, text, permutation and S-box tests.
  int files = 0;
  for (const auto& path : ListFiles(kVectors + "/ciphers/3DES/CBC", "TCBC")) {
    std::string base = path.substr(path.rfind('/') + 1);
    if (base.compare(0, 5, "TCBCI") == 0 || base.compare(0, 7, "TCBCMMT") == 0) continue;
    ++files;
    for (const auto& r : ReadKatFile(path)) {
      auto key = r.Hex("KEYs");
      kv::Des des;
      ASSERT_TRUE(des.SetKey(key.data(), key.size()));
      CheckNistCbc(des, r, base + ":" + std::to_string(r.line));
    }
  }
  EXPECT_EQ(files, 5);
}

TEST(Ciphers, TripleDesCbc) {
  int files = 0;
  for (const auto& path : ListFiles(kVectors + "/ciphers/3DES/CBC", "TCBCMMT")) {
    std::string base = path.substr(path.rfind('/') + 1);
    ++files;
    for (const auto& r : ReadKatFile(path)) {
      auto k1 = r.Hex("KEY1"), k2 = r.Hex("KEY2"), k3 = r.Hex("KEY3");
      auto key = Concat(Concat(k1, k2), k3);
      kv::TripleDes tdes;
      ASSERT_TRUE(tdes.SetKey(key.data(), key.size()));
      CheckNistCbc(tdes, r, base + ":" + std::to_string(r.line));
      if (k1 == k3) {  // the same record through the two-key form
        ASSERT_TRUE(tdes.SetKey(key.data(), 16));
        CheckNistCbc(tdes, r, base + ":" + std::to_string(r.line) + " two-key");
      }
    }
  }
  EXPECT_EQ(files, 3);
}

TEST(Ciphers, Rc2Blocks) {
  for (const auto& r : ReadKatFile(kOurData + "/rc2-rfc2268.txt")) {
    SCOPED_TRACE("rc2-rfc2268.txt:" + std::to_string(r.line));
    auto key = r.Hex("KEY"), pt = r.Hex("PLAINTEXT"), ct = r.Hex("CIPHERTEXT");
    kv::Rc2 rc2;
    ASSERT_TRUE(rc2.SetKey(key.data(), key.size(), int(r.Int("EFFECTIVE_BITS"))));
    uint8_t out[8];
    rc2.EncryptBlock(pt.data(), out);
    EXPECT_EQ(ToHex(out, 8), ToHex(ct));
    rc2.DecryptBlock(ct.data(), out);
    EXPECT_EQ(ToHex(out, 8), ToHex(pt));
    // A single block in CBC with a zero IV is the block cipher itself.
    CheckCbc(rc2, std::vector<uint8_t>(8), pt, ct, false, "cbc");
  }
}

TEST(Ciphers, Rc2CbcPadded) {
  auto recs = ReadKatFile(kOurData + "/rc2-cbc-pycryptodome.txt");
  ASSERT_EQ(recs.size(), 96u);
  for (const auto& r : recs) {
    auto key = r.Hex("KEY"), iv = r.Hex("IV"), msg = r.Hex("PLAINTEXT"), ct = r.Hex("CIPHERTEXT");
    kv::Rc2 rc2;
    ASSERT_TRUE(rc2.SetKey(key.data(), key.size(), int(r.Int("EFFECTIVE_BITS"))));
    std::string where = "rc2-cbc-pycryptodome.txt:" + std::to_string(r.line);
    CheckCbc(rc2, iv, msg, ct, true, where);
    // Unpadded, the padded message gives the same ciphertext.
    auto padded = msg;
    padded.resize(ct.size(), uint8_t(ct.size() - msg.size()));
    CheckCbc(rc2, iv, padded, ct, false, where);
    // The raw-key one-shot functions agree.
    std::vector<uint8_t> out(ct.size());
    size_t n = 0;
    ASSERT_TRUE(kv::Rc2CbcEncrypt(key.data(), key.size(), int(r.Int("EFFECTIVE_BITS")), iv.data(),
                                  iv.size(), msg.data(), msg.size(), out.data(), &n));
    ASSERT_EQ(ToHex(out.data(), n), ToHex(ct));
  }
}

// ---- RC4: each record is 16 key stream bytes at an offset.

TEST(Ciphers, Rc4) {
  auto files = ListFiles(kVectors + "/ciphers/ARC4", "rfc-6229-");
  files.push_back(kVectors + "/ciphers/ARC4/arc4.txt");
  ASSERT_EQ(files.size(), 8u);
  for (const auto& path : files) {
    for (const auto& r : ReadKatFile(path)) {
      SCOPED_TRACE(path + ":" + std::to_string(r.line));
      auto key = r.Hex("KEY"), pt = r.Hex("PLAINTEXT"), ct = r.Hex("CIPHERTEXT");
      size_t off = size_t(r.Int("OFFSET"));
      std::vector<uint8_t> in(off + pt.size(), 0xa5), out(in.size());
      std::copy(pt.begin(), pt.end(), in.begin() + long(off));
      // One-shot, then streamed in pieces of every length from 1 to 17.
      ASSERT_TRUE(kv::Rc4::Process(key.data(), key.size(), in.data(), out.data(), in.size()));
      ASSERT_EQ(ToHex(out.data() + off, pt.size()), ToHex(ct));
      kv::Rc4 rc4;
      for (size_t piece = 1; piece <= 17; ++piece) {
        ASSERT_TRUE(rc4.SetKey(key.data(), key.size()));
        std::vector<uint8_t> buf = in;
        for (size_t pos = 0; pos < buf.size(); pos += piece) {
          size_t n = std::min(piece, buf.size() - pos);
          ASSERT_TRUE(rc4.Process(buf.data() + pos, buf.data() + pos, n));  // in place
        }
        ASSERT_EQ(ToHex(buf.data() + off, pt.size()), ToHex(ct)) << "pieces of " << piece;
      }
    }
  }
}

}  // namespace
}  // namespace kvtest
