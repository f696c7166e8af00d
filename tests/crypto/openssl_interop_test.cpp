// Our digests and ciphers against the OpenSSL command line on random data,
// padding included.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "crypto/crypto.h"
#include "crypto/kat_reader.h"
#include "support/support.h"

namespace kvtest {
namespace {

class OpensslCli : public testing::Test {
 protected:
  void SetUp() override {
    if (std::system("openssl version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no openssl";
    ASSERT_FALSE(tmp_.Path().empty());
    dir_ = tmp_.Path();
  }

  std::vector<uint8_t> Random(size_t n) {
    std::vector<uint8_t> v(n);
    for (auto& b : v) b = uint8_t(rng_());
    return v;
  }
  void Write(const std::string& name, const std::vector<uint8_t>& data) {
    std::ofstream(dir_ + "/" + name, std::ios::binary)
        .write(reinterpret_cast<const char*>(data.data()), std::streamsize(data.size()));
  }
  std::vector<uint8_t> Read(const std::string& name) {
    std::ifstream in(dir_ + "/" + name, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
  }
  // Runs openssl with args on file "in", writing file "out"; returns its
  // output. dgst takes its input file as an operand, enc with -in.
  std::vector<uint8_t> Openssl(const std::string& args, const std::vector<uint8_t>& in) {
    Write("in", in);
    std::remove((dir_ + "/out").c_str());
    std::string input = (args.compare(0, 4, "dgst") == 0 ? " '" : " -in '") + dir_ + "/in'";
    std::string cmd =
        "openssl " + args + " -out '" + dir_ + "/out'" + input + " 2>'" + dir_ + "/err'";
    int rc = std::system(cmd.c_str());
    EXPECT_EQ(rc, 0) << cmd;
    return Read("out");
  }
  std::string Enc(const std::string& cipher, const std::vector<uint8_t>& key,
                  const std::vector<uint8_t>& iv) {
    std::string s = "enc -" + cipher + " -provider legacy -provider default -K " + ToHex(key);
    if (!iv.empty()) s += " -iv " + ToHex(iv);
    return s;
  }

  TempDir tmp_;
  std::string dir_;
  std::mt19937 rng_{1123};
  const std::vector<size_t> sizes_ = {0, 1, 7, 8, 9, 15, 16, 17, 100, 1000, 4099};
};

TEST_F(OpensslCli, Digests) {
  for (size_t n : sizes_) {
    auto msg = Random(n);
    uint8_t md5[16], sha1[20];
    kv::Md5::Digest(msg.data(), msg.size(), md5);
    kv::Sha1::Digest(msg.data(), msg.size(), sha1);
    EXPECT_EQ(ToHex(Openssl("dgst -md5 -binary", msg)), ToHex(md5, 16)) << n;
    EXPECT_EQ(ToHex(Openssl("dgst -sha1 -binary", msg)), ToHex(sha1, 20)) << n;
  }
}

// Encrypts with ours and with openssl (padding on), compares, and decrypts
// openssl's output with ours.
template <class C>
void CompareCbc(const std::string& args, const C& cipher, const std::vector<uint8_t>& iv,
                const std::vector<uint8_t>& msg, std::vector<uint8_t> theirs) {
  std::vector<uint8_t> ours(msg.size() + 8), back(theirs.size() + 8);
  size_t n = 0;
  ASSERT_TRUE(kv::CbcEncrypt(cipher, iv.data(), 8, msg.data(), msg.size(), ours.data(), &n));
  ours.resize(n);
  EXPECT_EQ(ToHex(ours), ToHex(theirs)) << args << " on " << msg.size() << " bytes";
  ASSERT_TRUE(kv::CbcDecrypt(cipher, iv.data(), 8, theirs.data(), theirs.size(), back.data(), &n));
  back.resize(n);
  EXPECT_EQ(ToHex(back), ToHex(msg)) << args;
}

TEST_F(OpensslCli, DesAndTripleDes) {
  for (size_t n : sizes_) {
    auto msg = Random(n), iv = Random(8), k8 = Random(8), k16 = Random(16), k24 = Random(24);
    kv::Des des;
    kv::TripleDes two, three;
    ASSERT_TRUE(des.SetKey(k8.data(), 8));
    ASSERT_TRUE(two.SetKey(k16.data(), 16));
    ASSERT_TRUE(three.SetKey(k24.data(), 24));
    CompareCbc("des-cbc", des, iv, msg, Openssl(Enc("des-cbc", k8, iv), msg));
    CompareCbc("des-ede-cbc", two, iv, msg, Openssl(Enc("des-ede-cbc", k16, iv), msg));
    CompareCbc("des-ede3-cbc", three, iv, msg, Openssl(Enc("des-ede3-cbc", k24, iv), msg));
  }
}

TEST_F(OpensslCli, Rc2) {
  // openssl offers 128 effective bits (16-byte key), 64 (8) and 40 (5).
  struct Variant {
    const char* name;
    size_t key_len;
    int bits;
  };
  for (const Variant& v :
       {Variant{"rc2-cbc", 16, 128}, Variant{"rc2-64-cbc", 8, 64}, Variant{"rc2-40-cbc", 5, 40}}) {
    for (size_t n : sizes_) {
      auto msg = Random(n), iv = Random(8), key = Random(v.key_len);
      kv::Rc2 rc2;
      ASSERT_TRUE(rc2.SetKey(key.data(), key.size(), v.bits));
      CompareCbc(v.name, rc2, iv, msg, Openssl(Enc(v.name, key, iv), msg));
    }
  }
}

TEST_F(OpensslCli, Rc4) {
  for (size_t n : sizes_) {
    auto msg = Random(n), key = Random(16);
    std::vector<uint8_t> ours(n);
    ASSERT_TRUE(kv::Rc4::Process(key.data(), key.size(), msg.data(), ours.data(), n));
    EXPECT_EQ(ToHex(ours), ToHex(Openssl(Enc("rc4", key, {}), msg))) << n;
  }
}

}  // namespace
}  // namespace kvtest
