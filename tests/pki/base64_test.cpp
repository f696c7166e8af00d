#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "asn1/asn1.h"
#include "pki/pki.h"

namespace {

using Bytes = std::string;

std::string Encode(const Bytes& data, bool lineBreaks, int* reported = nullptr) {
  int length = -1;
  KV_Base64 b64;
  EXPECT_EQ(b64.Encode(const_cast<char*>(data.data()), static_cast<int>(data.size()), nullptr,
                       &length, lineBreaks),
            0);
  // One octet of slack: a text of a multiple of 64 characters carries a
  // second closing line feed beyond the reported length.
  std::string out(static_cast<std::size_t>(length) + 1, '\x01');
  int written = -1;
  EXPECT_EQ(b64.Encode(const_cast<char*>(data.data()), static_cast<int>(data.size()), &out[0],
                       &written, lineBreaks),
            0);
  EXPECT_EQ(written, length);
  if (reported != nullptr) *reported = written;
  std::size_t used = out.find('\x01');
  return out.substr(0, used);
}

Bytes Decode(const std::string& text, int* length = nullptr) {
  std::string out(text.size() + 1, '\0');
  int n = -1;
  EXPECT_EQ(KVPKCS_Base64Decode(const_cast<char*>(text.data()), static_cast<int>(text.size()),
                                &out[0], &n),
            0);
  if (length != nullptr) *length = n;
  return out.substr(0, static_cast<std::size_t>(n < 0 ? 0 : n));
}

std::string WithoutLineFeeds(std::string s) {
  s.erase(std::remove(s.begin(), s.end(), '\n'), s.end());
  return s;
}

std::string Unescape(const std::string& s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '\\' || i + 1 == s.size()) {
      out += s[i];
      continue;
    }
    char c = s[++i];
    if (c == 'n') {
      out += '\n';
    } else if (c == 'r') {
      out += '\r';
    } else if (c == 't') {
      out += '\t';
    } else if (c == 'x' && i + 2 < s.size()) {
      out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += c;
    }
  }
  return out;
}

Bytes FromHex(const std::string& hex) {
  Bytes out;
  if (hex == "-") return out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return out;
}

Bytes RandomBytes(std::mt19937& rng, std::size_t n) {
  Bytes b(n, '\0');
  for (char& c : b) c = static_cast<char>(rng());
  return b;
}

std::string RunCommand(const std::string& command) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) return out;
  char buf[4096];
  std::size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  EXPECT_EQ(pclose(p), 0) << command;
  return out;
}

// A scratch directory removed at the end of the test.
struct TempDir {
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kv_b64_XXXXXX").string();
    path = mkdtemp(&pattern[0]) != nullptr ? pattern : std::string();
  }
  ~TempDir() {
    if (!path.empty()) std::filesystem::remove_all(path);
  }
  std::string Write(const std::string& name, const Bytes& data) const {
    std::string file = path + "/" + name;
    std::ofstream(file, std::ios::binary)
        .write(data.data(), static_cast<std::streamsize>(data.size()));
    return file;
  }
  std::string path;
};

TEST(Base64, KnownAnswersFromDataFile) {
  std::ifstream in(std::string(KV_TEST_DATA_DIR) + "/base64/known_answers.txt");
  ASSERT_TRUE(in) << "missing known_answers.txt";
  std::string line;
  int cases = 0;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::vector<std::string> f;
    std::stringstream ss(line);
    std::string field;
    while (std::getline(ss, field, '\t')) f.push_back(field);
    if (f.size() == 2) f.push_back("");
    ASSERT_EQ(f.size(), 3u) << line;
    if (f[0] == "encode") {
      EXPECT_EQ(Encode(FromHex(f[1]), false), f[2]) << line;
      EXPECT_EQ(WithoutLineFeeds(Encode(FromHex(f[1]), true)), f[2]) << line;
    } else {
      ASSERT_EQ(f[0], "decode") << line;
      std::string text = f[1] == "-" ? std::string() : Unescape(f[1]);
      int n = -1;
      EXPECT_EQ(Decode(text, &n), FromHex(f[2])) << line;
      EXPECT_EQ(n, static_cast<int>(FromHex(f[2]).size())) << line;
    }
    ++cases;
  }
  EXPECT_GT(cases, 30);
}

TEST(Base64, LineLayoutAndReportedLength) {
  // 48 octets: 64 characters, two closing line feeds, length 65.
  Bytes data(48, 'x');
  char out[80];
  std::memset(out, '#', sizeof out);
  int n = 0;
  EXPECT_EQ(KVPKCS_Base64Encode(&data[0], 48, out, &n), 0);
  EXPECT_EQ(n, 65);
  EXPECT_EQ(out[63] != '\n' && out[64] == '\n' && out[65] == '\n', true);
  EXPECT_EQ(out[66], '#');  // nothing written beyond the second line feed

  // 3 octets: four characters and a line feed.
  std::memset(out, '#', sizeof out);
  EXPECT_EQ(KVPKCS_Base64Encode(const_cast<char*>("Man"), 3, out, &n), 0);
  EXPECT_EQ(n, 5);
  EXPECT_EQ(std::string(out, 6), "TWFu\n#");

  // Nothing to encode: the closing line feed alone.
  EXPECT_EQ(KVPKCS_Base64Encode(nullptr, 0, out, &n), 0);
  EXPECT_EQ(n, 1);
  EXPECT_EQ(out[0], '\n');

  // Lengths around line boundaries: (L - 1) / 64 + L + 1.
  for (int octets : {45, 46, 47, 48, 49, 93, 96, 97, 144, 1000}) {
    int reported = 0;
    std::string text = Encode(Bytes(static_cast<std::size_t>(octets), 'q'), true, &reported);
    int L = (octets + 2) / 3 * 4;
    EXPECT_EQ(reported, (L - 1) / 64 + L + 1) << octets;
    std::string expected;
    for (int pos = 0; pos < L; pos += 64) {
      expected += WithoutLineFeeds(text).substr(static_cast<std::size_t>(pos), 64);
      if (L - pos >= 64) expected += '\n';
    }
    expected += '\n';
    EXPECT_EQ(text, expected) << octets;
  }
  // Without line breaks the length is the text length.
  int plain = 0;
  EXPECT_EQ(Encode(Bytes(48, 'x'), false, &plain).size(), 64u);
  EXPECT_EQ(plain, 64);
}

TEST(Base64, NullOutputsReportLengthsOnly) {
  int n = 0;
  EXPECT_EQ(KVPKCS_Base64Decode(const_cast<char*>("TWFu"), 4, nullptr, &n), 0);
  EXPECT_EQ(n, 4);
  EXPECT_EQ(KVPKCS_Base64Encode(const_cast<char*>("Man"), 3, nullptr, &n), 0);
  EXPECT_EQ(n, 5);
  // Negative counts read as nothing; a missing length pointer is not written.
  EXPECT_EQ(KVPKCS_Base64Decode(const_cast<char*>("TWFu"), -5, nullptr, &n), 0);
  EXPECT_EQ(n, 0);
  char out[8];
  EXPECT_EQ(KVPKCS_Base64Decode(const_cast<char*>("TWFu"), 4, out, nullptr), 0);
  EXPECT_EQ(std::string(out, 3), "Man");
  EXPECT_EQ(KVPKCS_Base64Encode(const_cast<char*>("Man"), -1, out, &n), 0);
  EXPECT_EQ(n, 1);
}

TEST(Base64, MiByteForms) {
  KV_Base64 b64;
  MiByte in("Man", 3), text, back;
  EXPECT_EQ(b64.Encode(in, text, false), 0);
  EXPECT_STREQ(text.GetChars(), "TWFu");
  EXPECT_EQ(b64.Encode(in, text, true), 0);
  EXPECT_STREQ(text.GetChars(), "TWFu\n");
  EXPECT_EQ(b64.Decode(text, back), 0);
  EXPECT_TRUE(back == in);

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
  EXPECT_EQ(b64.Decode(empty, back), 0);
  EXPECT_TRUE(back.Empty());
}

// Python's base64 module is the oracle for the text of many lengths.
TEST(Base64, EncodingMatchesPython) {
  std::mt19937 rng(20261123);
  TempDir dir;
  ASSERT_FALSE(dir.path.empty());
  std::vector<Bytes> blobs;
  std::string args;
  std::vector<std::size_t> lengths;
  for (std::size_t n = 0; n <= 200; ++n) lengths.push_back(n);
  for (std::size_t n : {255u, 256u, 767u, 768u, 769u, 3071u, 3072u, 4096u, 65536u, 100001u}) {
    lengths.push_back(n);
  }
  for (std::size_t i = 0; i < lengths.size(); ++i) {
    blobs.push_back(RandomBytes(rng, lengths[i]));
    args += " " + dir.Write(std::to_string(i) + ".bin", blobs.back());
  }
  std::string script =
      dir.Write("enc.py",
                "import base64, sys\n"
                "for p in sys.argv[1:]:\n"
                "    sys.stdout.write(base64.b64encode(open(p, 'rb').read()).decode() + '\\n')\n");
  std::string output = RunCommand("/usr/bin/python3 " + script + args);
  std::stringstream lines(output);
  for (std::size_t i = 0; i < blobs.size(); ++i) {
    std::string expected;
    ASSERT_TRUE(static_cast<bool>(std::getline(lines, expected))) << "python output ended at " << i;
    EXPECT_EQ(Encode(blobs[i], false), expected) << "length " << blobs[i].size();
    EXPECT_EQ(WithoutLineFeeds(Encode(blobs[i], true)), expected) << "length " << blobs[i].size();
    EXPECT_EQ(Decode(expected), blobs[i]) << "length " << blobs[i].size();
  }
}

// OpenSSL writes the same 64-character lines (with a single closing line
// feed); our decoder must read its output back to the data.
TEST(Base64, OpenSslTextDecodesAndMatchesOurLines) {
  std::mt19937 rng(7);
  TempDir dir;
  ASSERT_FALSE(dir.path.empty());
  for (std::size_t n : {0u, 1u, 2u, 3u, 47u, 48u, 49u, 95u, 96u, 1000u, 5000u, 65535u}) {
    Bytes data = RandomBytes(rng, n);
    std::string file = dir.Write("d.bin", data);
    std::string theirs = RunCommand("openssl base64 -in " + file);
    EXPECT_EQ(Decode(theirs), data) << n;
    std::string ours = Encode(data, true);
    EXPECT_EQ(WithoutLineFeeds(ours), WithoutLineFeeds(theirs)) << n;
    if (n == 0) continue;  // OpenSSL writes nothing at all for no data
    // Line feeds: the same places, plus our second closing one after a full line.
    std::size_t L = (n + 2) / 3 * 4;
    EXPECT_EQ(ours, L % 64 == 0 ? theirs + "\n" : theirs) << n;
  }
}

// Decoding is lax: any mix of foreign characters, and blocks written one
// after another, give the data back.
TEST(Base64, NoiseAndConcatenatedBlocks) {
  std::mt19937 rng(3);
  for (int round = 0; round < 200; ++round) {
    Bytes a = RandomBytes(rng, rng() % 50);
    Bytes b = RandomBytes(rng, 1 + rng() % 50);
    std::string text = Encode(a, false) + Encode(b, true);
    std::string noisy;
    for (char c : text) {
      noisy += c;
      if (rng() % 4 == 0) noisy += " \r\t*.-!\x80"[rng() % 8];
    }
    ASSERT_EQ(Decode(noisy), a + b) << text;
  }
}

}  // namespace
