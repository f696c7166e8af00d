// Reader of known-answer files in the NIST response layout: "# comments",
// "[SECTION]" headers, and records of "NAME = value" lines separated by blank
// lines. Our own vector files under tests/data/crypto use the same layout.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kvtest {

struct KatRecord {
  std::string section;  // last "[...]" header seen, without brackets
  std::map<std::string, std::string> fields;
  int line = 0;  // line of the record's first field, for messages

  bool Has(const std::string& name) const { return fields.count(name) != 0; }
  const std::string& Get(const std::string& name) const;
  std::vector<uint8_t> Hex(const std::string& name) const;
  long Int(const std::string& name) const;
};

// Reads all records of a file; fails the current test (and returns nothing)
// if the file cannot be read.
std::vector<KatRecord> ReadKatFile(const std::string& path);

std::vector<uint8_t> FromHex(const std::string& hex);
std::string ToHex(const uint8_t* p, size_t n);
inline std::string ToHex(const std::vector<uint8_t>& v) {
  return ToHex(v.data(), v.size());
}

// Files of a directory whose names start with prefix, sorted.
std::vector<std::string> ListFiles(const std::string& dir, const std::string& prefix);

}  // namespace kvtest
