#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "asn1/asn1.h"
#include "pki/pki.h"
#include "support/support.h"

namespace {

// Encodes through the class, checking that the length query and the encoding
// agree; returns everything written (one octet of slack: a text of a multiple
// of 64 characters carries a second closing line feed beyond the length).
std::string Encode(const std::string& data, bool lineBreaks, int* reported = nullptr) {
  KV_Base64 b64;
  char* in = const_cast<char*>(data.data());
  const int n = static_cast<int>(data.size());
  int length = -1, written = -1;
  EXPECT_EQ(b64.Encode(in, n, nullptr, &length, lineBreaks), 0);
  std::string out(static_cast<std::size_t>(length) + 1, '\x01');
  EXPECT_EQ(b64.Encode(in, n, &out[0], &written, lineBreaks), 0);
  EXPECT_EQ(written, length);
  if (reported != nullptr) *reported = written;
  return out.substr(0, out.find('\x01'));
}

std::string Decode(const std::string& text, int* length = nullptr) {
  std::string out(text.size() + 1, '\0');
  int n = -1;
  EXPECT_EQ(KVPKCS_Base64Decode(const_cast<char*>(text.data()), static_cast<int>(text.size()),
                                &out[0], &n),
            0);
  if (length != nullptr) *length = n;
  return out.substr(0, static_cast<std::size_t>(std::max(n, 0)));
}

std::string WithoutLineFeeds(std::string s) {
  s.erase(std::remove(s.begin(), s.end(), '\n'), s.end());
  return s;
}

// "-" is nothing; otherwise hex pairs.
std::string FromHex(const std::string& hex) {
  std::string out;
  for (std::size_t i = 0; hex != "-" && i + 1 < hex.size(); i += 2) {
    out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return out;
}

// "-" is nothing; \n \r \t \xHH escapes.
std::string Unescape(const std::string& s) {
  std::string out;
  for (std::size_t i = 0; s != "-" && i < s.size(); ++i) {
    if (s[i] != '\\' || i + 1 == s.size()) {
      out += s[i];
    } else if (s[++i] == 'x') {
      out += FromHex(s.substr(i + 1, 2));
      i += 2;
    } else {
      out += s[i] == 'n' ? '\n' : s[i] == 'r' ? '\r' : s[i] == 't' ? '\t' : s[i];
    }
  }
  return out;
}

std::string RandomBytes(std::mt19937& rng, std::size_t n) {
  std::string b(n, '\0');
  for (char& c : b) c = static_cast<char>(rng());
  return b;
}

std::string RunCommand(const std::string& command) {
  kvtest::ShellResult r = kvtest::RunShell(command);
  EXPECT_EQ(r.status, 0) << command;
  return r.out;
}

// tests/data/base64/known_answers.txt: "encode <hex> <text>" and
// "decode <text> <hex>", tab-separated.
TEST(Base64, KnownAnswersFromDataFile) {
  std::ifstream in(std::string(KV_TEST_DATA_DIR) + "/base64/known_answers.txt");
  ASSERT_TRUE(in);
  std::string line;
  int cases = 0;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> f;
    std::stringstream ss(line);
    for (std::string field; std::getline(ss, field, '\t');) f.push_back(field);
    f.resize(3);
    if (f[0] == "encode") {
      EXPECT_EQ(Encode(FromHex(f[1]), false), f[2]) << line;
      EXPECT_EQ(WithoutLineFeeds(Encode(FromHex(f[1]), true)), f[2]) << line;
    } else {
      ASSERT_EQ(f[0], "decode") << line;
      int n = -1;
      EXPECT_EQ(Decode(Unescape(f[1]), &n), FromHex(f[2])) << line;
      EXPECT_EQ(n, static_cast<int>(FromHex(f[2]).size())) << line;
    }
    ++cases;
  }
  EXPECT_GT(cases, 30);
}

TEST(Base64, LineLayoutAndReportedLengths) {
  // 48 octets: 64 characters, two closing line feeds, length 65, nothing more.
  std::string data(48, 'x');
  char out[80];
  std::memset(out, '#', sizeof out);
  int n = 0;
  EXPECT_EQ(KVPKCS_Base64Encode(&data[0], 48, out, &n), 0);
  EXPECT_EQ(n, 65);
  EXPECT_EQ(std::string(out + 63, 4).substr(1), "\n\n#");
  // 3 octets: four characters and a line feed; nothing: the line feed alone.
  std::memset(out, '#', sizeof out);
  EXPECT_EQ(KVPKCS_Base64Encode(const_cast<char*>("Man"), 3, out, &n), 0);
  EXPECT_EQ(n, 5);
  EXPECT_EQ(std::string(out, 6), "TWFu\n#");
  EXPECT_EQ(KVPKCS_Base64Encode(nullptr, 0, out, &n), 0);
  EXPECT_EQ(n, 1);
  EXPECT_EQ(out[0], '\n');

  // Around line boundaries: lines of 64, a closing line feed, (L - 1) / 64 + L + 1.
  for (int octets : {45, 46, 47, 49, 93, 96, 97, 144, 1000}) {
    int reported = 0;
    std::string text = Encode(std::string(static_cast<std::size_t>(octets), 'q'), true, &reported);
    const int L = (octets + 2) / 3 * 4;
    EXPECT_EQ(reported, (L - 1) / 64 + L + 1) << octets;
    std::string expected, plain = WithoutLineFeeds(text);
    for (int pos = 0; pos < L; pos += 64) {
      expected += plain.substr(static_cast<std::size_t>(pos), 64) + (L - pos >= 64 ? "\n" : "");
    }
    EXPECT_EQ(text, expected + "\n") << octets;
  }
  int plain = 0;
  EXPECT_EQ(Encode(std::string(48, 'x'), false, &plain).size(), 64u);
  EXPECT_EQ(plain, 64);

  // Null outputs report lengths only (decoding: the input length).
  EXPECT_EQ(KVPKCS_Base64Decode(const_cast<char*>("TWFu"), 4, nullptr, &n), 0);
  EXPECT_EQ(n, 4);
  EXPECT_EQ(KVPKCS_Base64Decode(const_cast<char*>("TWFu"), -5, nullptr, &n), 0);
  EXPECT_EQ(n, 0);
  EXPECT_EQ(KVPKCS_Base64Decode(const_cast<char*>("TWFu"), 4, out, nullptr), 0);
  EXPECT_EQ(std::string(out, 3), "Man");
}

TEST(Base64, MiByteForms) {
  KV_Base64 b64;
  MiByte in("Man", 3), text, back;
  EXPECT_EQ(b64.Encode(in, text, false), 0);
  EXPECT_STREQ(text.GetChars(), "TWFu");
  EXPECT_EQ(b64.Encode(in, text, true), 0);
  EXPECT_STREQ(text.GetChars(), "TWFu\n");
  // The text has the reported length: one closing line feed for 48 octets.
  MiByte block(48, 0x55);
  EXPECT_EQ(b64.Encode(block, text, true), 0);
  EXPECT_EQ(text.GetLength(), 65u);
  EXPECT_EQ(b64.Decode(text, back), 0);
  EXPECT_TRUE(back == block);
  MiByte incomplete("TWF", 3);
  EXPECT_EQ(b64.Decode(incomplete, back), 0);
  EXPECT_TRUE(back.Empty());
  MiByte empty;
  EXPECT_EQ(b64.Encode(empty, text, false), 0);
  EXPECT_TRUE(text.Empty());
}

// Python's base64 module is the oracle for the text of many lengths.
TEST(Base64, EncodingMatchesPython) {
  std::mt19937 rng(20261123);
  kvtest::TempDir dir;
  ASSERT_FALSE(dir.Path().empty());
  std::vector<std::size_t> lengths;
  for (std::size_t n = 0; n <= 200; ++n) lengths.push_back(n);
  for (std::size_t n : {255u, 256u, 767u, 768u, 769u, 3071u, 3072u, 4096u, 65536u, 100001u}) {
    lengths.push_back(n);
  }
  std::vector<std::string> blobs;
  std::string args;
  for (std::size_t i = 0; i < lengths.size(); ++i) {
    blobs.push_back(RandomBytes(rng, lengths[i]));
    args += " " + dir.Write(std::to_string(i) + ".bin", blobs.back());
  }
  std::string script = dir.Write("enc.py",
                                 "import base64, sys\n"
                                 "for p in sys.argv[1:]:\n"
                                 "    print(base64.b64encode(open(p, 'rb').read()).decode())\n");
  std::stringstream lines(RunCommand("/usr/bin/python3 " + script + args));
  for (const std::string& blob : blobs) {
    std::string expected;
    ASSERT_TRUE(static_cast<bool>(std::getline(lines, expected)));
    EXPECT_EQ(Encode(blob, false), expected) << "length " << blob.size();
    EXPECT_EQ(WithoutLineFeeds(Encode(blob, true)), expected) << "length " << blob.size();
    EXPECT_EQ(Decode(expected), blob) << "length " << blob.size();
  }
}

// OpenSSL writes the same 64-character lines with a single closing line feed;
// our decoder must read its output back to the data.
TEST(Base64, OpenSslTextDecodesAndMatchesOurLines) {
  std::mt19937 rng(7);
  kvtest::TempDir dir;
  ASSERT_FALSE(dir.Path().empty());
  for (std::size_t n : {1u, 2u, 3u, 47u, 48u, 49u, 95u, 96u, 1000u, 5000u, 65535u}) {
    std::string data = RandomBytes(rng, n);
    std::string theirs = RunCommand("openssl base64 -in " + dir.Write("d.bin", data));
    EXPECT_EQ(Decode(theirs), data) << n;
    const std::size_t L = (n + 2) / 3 * 4;
    EXPECT_EQ(Encode(data, true), L % 64 == 0 ? theirs + "\n" : theirs) << n;
  }
}

// Decoding is lax: foreign characters anywhere, and blocks written one after
// another, still give the data back.
TEST(Base64, NoiseAndConcatenatedBlocks) {
  std::mt19937 rng(3);
  for (int round = 0; round < 200; ++round) {
    std::string a = RandomBytes(rng, rng() % 50), b = RandomBytes(rng, 1 + rng() % 50);
    std::string text = Encode(a, false) + Encode(b, true), noisy;
    for (char c : text) {
      noisy += c;
      if (rng() % 4 == 0) noisy += " \r\t*.-!\x80"[rng() % 8];
    }
    ASSERT_EQ(Decode(noisy), a + b) << text;
  }
}

}  // namespace
