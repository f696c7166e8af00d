#include "crypto/kat_reader.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <algorithm>
#include <cstdlib>
#include <fstream>

namespace kvtest {
namespace {
std::string Trim(const std::string& s) {
  size_t b = s.find_first_not_of(" \t\r\n");
  if (b == std::string::npos) return "";
  size_t e = s.find_last_not_of(" \t\r\n");
  return s.substr(b, e - b + 1);
}
}  // namespace

const std::string& KatRecord::Get(const std::string& name) const {
  static const std::string empty;
  auto it = fields.find(name);
  if (it == fields.end()) {
    ADD_FAILURE() << "record at line " << line << " lacks " << name;
    return empty;
  }
  return it->second;
}

std::vector<uint8_t> KatRecord::Hex(const std::string& name) const {
  return FromHex(Get(name));
}

long KatRecord::Int(const std::string& name) const {
  return std::strtol(Get(name).c_str(), nullptr, 10);
}

std::vector<KatRecord> ReadKatFile(const std::string& path) {
  std::vector<KatRecord> out;
  std::ifstream in(path);
  if (!in) {
    ADD_FAILURE() << "cannot read " << path;
    return out;
  }
  std::string section, raw;
  KatRecord cur;
  int lineno = 0;
  auto flush = [&] {
    if (!cur.fields.empty()) out.push_back(cur);
    cur = KatRecord();
  };
  while (std::getline(in, raw)) {
    ++lineno;
    std::string line = Trim(raw);
    if (line.empty()) {
      flush();
      continue;
    }
    if (line[0] == '#') continue;
    if (line[0] == '[') {
      flush();
      section = line.substr(
          1, line.find(']') == std::string::npos ? std::string::npos : line.find(']') - 1);
      continue;
    }
    size_t eq = line.find('=');
    if (eq == std::string::npos) continue;
    if (cur.fields.empty()) {
      cur.section = section;
      cur.line = lineno;
    }
    cur.fields[Trim(line.substr(0, eq))] = Trim(line.substr(eq + 1));
  }
  flush();
  return out;
}

std::vector<uint8_t> FromHex(const std::string& hex) {
  std::vector<uint8_t> v;
  auto nib = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  int hi = -1;
  for (char c : hex) {
    int n = nib(c);
    if (n < 0) continue;  // tolerate spaces inside long values
    if (hi < 0) {
      hi = n;
    } else {
      v.push_back(uint8_t(hi << 4 | n));
      hi = -1;
    }
  }
  EXPECT_LT(hi, 0) << "odd number of hex digits in " << hex.substr(0, 40);
  return v;
}

std::string ToHex(const uint8_t* p, size_t n) {
  static const char d[] = "0123456789abcdef";
  std::string s;
  for (size_t i = 0; i < n; ++i) {
    s += d[p[i] >> 4];
    s += d[p[i] & 15];
  }
  return s;
}

std::vector<std::string> ListFiles(const std::string& dir, const std::string& prefix) {
  std::vector<std::string> names;
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      std::string n = e->d_name;
      if (n.compare(0, prefix.size(), prefix) == 0) names.push_back(dir + "/" + n);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace kvtest
