// The known-answer driver: reads every vector file directly and runs each
// record through the one-shot and streaming interfaces.
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace kvtest
