// Contract of the cipher interfaces beyond the known answers: argument
// checks, padding failures, and relations between the key forms.
#include <gtest/gtest.h>

#include <vector>

#include "crypto/crypto.h"
#include "crypto/kat_reader.h"

namespace kvtest {
namespace {

const std::vector<uint8_t> kKey24 = FromHex("0123456789abcdeffedcba987654321089abcdef01234567");
const std::vector<uint8_t> kIv = FromHex("1234567890abcdef");

TEST(CipherKeys, LengthsOutsideTheAlgorithmAreRefused) {
  std::vector<uint8_t> big(300, 7);
  kv::Des des;
  EXPECT_FALSE(des.SetKey(big.data(), 7));
  EXPECT_FALSE(des.SetKey(big.data(), 16));
  EXPECT_FALSE(des.SetKey(nullptr, 8));
  EXPECT_FALSE(des.HasKey());
  kv::TripleDes tdes;
  EXPECT_FALSE(tdes.SetKey(big.data(), 8));
  EXPECT_FALSE(tdes.SetKey(big.data(), 23));
  EXPECT_FALSE(tdes.SetKey(big.data(), 32));
  kv::Rc2 rc2;
  EXPECT_FALSE(rc2.SetKey(big.data(), 0, 64));
  EXPECT_FALSE(rc2.SetKey(big.data(), 129, 64));
  EXPECT_FALSE(rc2.SetKey(big.data(), 16, 0));
  EXPECT_FALSE(rc2.SetKey(big.data(), 16, 1025));
  EXPECT_TRUE(rc2.SetKey(big.data(), 1, 1));
  EXPECT_TRUE(rc2.SetKey(big.data(), 128, 1024));
  kv::Rc4 rc4;
  uint8_t buf[4] = {};
  EXPECT_FALSE(rc4.Process(buf, buf, 4)) << "no key yet";
  EXPECT_FALSE(rc4.SetKey(big.data(), 0));
  EXPECT_FALSE(rc4.SetKey(big.data(), 257));
  EXPECT_TRUE(rc4.SetKey(big.data(), 256));
  size_t n = 1;
  uint8_t out[32];
  EXPECT_FALSE(kv::DesCbcEncrypt(big.data(), 9, kIv.data(), 8, buf, 4, out, &n));
  EXPECT_EQ(n, 0u);
  EXPECT_FALSE(kv::TripleDesCbcDecrypt(big.data(), 8, kIv.data(), 8, out, 8, out, &n));
  EXPECT_FALSE(kv::Rc2CbcEncrypt(big.data(), 16, 2000, kIv.data(), 8, buf, 4, out, &n));
}

TEST(CipherKeys, DesIgnoresParityBits) {
  // The low bit of each key byte is parity; a schedule that reads it is wrong.
  std::vector<uint8_t> key(kKey24.begin(), kKey24.begin() + 8), flipped = key;
  for (auto& b : flipped) b ^= 1;
  kv::Des a, b;
  ASSERT_TRUE(a.SetKey(key.data(), 8));
  ASSERT_TRUE(b.SetKey(flipped.data(), 8));
  uint8_t x[8], y[8];
  a.EncryptBlock(kIv.data(), x);
  b.EncryptBlock(kIv.data(), y);
  EXPECT_EQ(ToHex(x, 8), ToHex(y, 8));
}

TEST(CipherKeys, TripleDesKeyFormsReduceToEachOther) {
  // K1 = K2 = K3 collapses EDE to single DES; a 16-byte key means K3 = K1.
  std::vector<uint8_t> k1(kKey24.begin(), kKey24.begin() + 8);
  std::vector<uint8_t> same = k1;
  same.insert(same.end(), k1.begin(), k1.end());
  same.insert(same.end(), k1.begin(), k1.end());
  std::vector<uint8_t> two(kKey24.begin(), kKey24.begin() + 16), twoExpanded = two;
  twoExpanded.insert(twoExpanded.end(), k1.begin(), k1.end());
  kv::Des des;
  kv::TripleDes t1, t2, t3;
  ASSERT_TRUE(des.SetKey(k1.data(), 8));
  ASSERT_TRUE(t1.SetKey(same.data(), 24));
  ASSERT_TRUE(t2.SetKey(two.data(), 16));
  ASSERT_TRUE(t3.SetKey(twoExpanded.data(), 24));
  std::vector<uint8_t> msg(40, 0x5a), a(48), b(48);
  size_t na = 0, nb = 0;
  ASSERT_TRUE(kv::CbcEncrypt(des, kIv.data(), 8, msg.data(), msg.size(), a.data(), &na));
  ASSERT_TRUE(kv::CbcEncrypt(t1, kIv.data(), 8, msg.data(), msg.size(), b.data(), &nb));
  EXPECT_EQ(ToHex(a.data(), na), ToHex(b.data(), nb));
  ASSERT_TRUE(kv::CbcEncrypt(t2, kIv.data(), 8, msg.data(), msg.size(), a.data(), &na));
  ASSERT_TRUE(kv::CbcEncrypt(t3, kIv.data(), 8, msg.data(), msg.size(), b.data(), &nb));
  EXPECT_EQ(ToHex(a.data(), na), ToHex(b.data(), nb));
}

// Decrypts with padding a ciphertext whose last plaintext block is `last`.
bool DecryptsWithPadding(const std::vector<uint8_t>& last, std::vector<uint8_t>* msg) {
  kv::TripleDes c;
  c.SetKey(kKey24.data(), 24);
  std::vector<uint8_t> plain(16, 0x11);
  plain.insert(plain.end(), last.begin(), last.end());
  std::vector<uint8_t> ct(plain.size());
  size_t n = 0;
  EXPECT_TRUE(kv::CbcEncrypt(c, kIv.data(), 8, plain.data(), plain.size(), ct.data(), &n, false));
  msg->assign(ct.size(), 0xee);
  bool ok = kv::CbcDecrypt(c, kIv.data(), 8, ct.data(), ct.size(), msg->data(), &n, true);
  msg->resize(n);
  return ok;
}

TEST(CbcPadding, DecryptionAcceptsOnlyWellFormedPadding) {
  std::vector<uint8_t> msg;
  EXPECT_TRUE(DecryptsWithPadding(FromHex("0808080808080808"), &msg));
  EXPECT_EQ(msg.size(), 16u);
  EXPECT_TRUE(DecryptsWithPadding(FromHex("4142434445030303"), &msg));
  EXPECT_EQ(msg.size(), 21u);
  EXPECT_TRUE(DecryptsWithPadding(FromHex("4142434445464701"), &msg));
  EXPECT_EQ(msg.size(), 23u);
  for (const char* bad : {"4142434445464700", "0909090909090909", "4142434445020303",
                          "0708080808080808", "41424344454647ff"}) {
    EXPECT_FALSE(DecryptsWithPadding(FromHex(bad), &msg)) << bad;
    EXPECT_TRUE(msg.empty()) << bad;
  }
}

TEST(CbcPadding, IncompleteInputFails) {
  kv::Des des;
  des.SetKey(kKey24.data(), 8);
  std::vector<uint8_t> in(24, 3), out(40);
  size_t n = 0;
  // Ciphertext that is not whole blocks, or empty, cannot be padded.
  EXPECT_FALSE(kv::CbcDecrypt(des, kIv.data(), 8, in.data(), 23, out.data(), &n, true));
  EXPECT_FALSE(kv::CbcDecrypt(des, kIv.data(), 8, in.data(), 0, out.data(), &n, true));
  // Without padding, a partial block is an error in both directions.
  EXPECT_FALSE(kv::CbcEncrypt(des, kIv.data(), 8, in.data(), 23, out.data(), &n, false));
  EXPECT_FALSE(kv::CbcDecrypt(des, kIv.data(), 8, in.data(), 17, out.data(), &n, false));
  EXPECT_EQ(n, 0u);
  // Without padding, empty input is an empty message.
  EXPECT_TRUE(kv::CbcEncrypt(des, kIv.data(), 8, in.data(), 0, out.data(), &n, false));
  EXPECT_EQ(n, 0u);
  // With padding, empty input is one block of padding.
  EXPECT_TRUE(kv::CbcEncrypt(des, kIv.data(), 8, in.data(), 0, out.data(), &n, true));
  EXPECT_EQ(n, 8u);
}

TEST(CbcStreams, RefuseUseWithoutValidInit) {
  kv::Des keyed, unkeyed;
  keyed.SetKey(kKey24.data(), 8);
  kv::CbcEncryptor<kv::Des> enc;
  uint8_t in[16] = {}, out[32];
  size_t n = 5;
  EXPECT_FALSE(enc.Update(in, 16, out, &n));
  EXPECT_EQ(n, 0u);
  EXPECT_FALSE(enc.Final(out, &n));
  EXPECT_FALSE(enc.Init(unkeyed, kIv.data(), 8, true));
  EXPECT_FALSE(enc.Init(keyed, kIv.data(), 7, true));
  EXPECT_FALSE(enc.Init(keyed, nullptr, 8, true));
  EXPECT_FALSE(enc.Init(kKey24.data(), 7, kIv.data(), 8, true));
  // Initialised from raw key bytes, the stream matches the one-shot function.
  ASSERT_TRUE(enc.Init(kKey24.data(), 8, kIv.data(), 8, true));
  EXPECT_TRUE(enc.Update(in, 3, out, &n));
  EXPECT_TRUE(enc.Final(out, &n));
  EXPECT_EQ(n, 8u);
  uint8_t want[8];
  ASSERT_TRUE(kv::DesCbcEncrypt(kKey24.data(), 8, kIv.data(), 8, in, 3, want, &n));
  EXPECT_EQ(ToHex(out, 8), ToHex(want, 8));
  // Final ends the message: the next one needs Init.
  EXPECT_FALSE(enc.Update(in, 3, out, &n));
}

}  // namespace
}  // namespace kvtest
