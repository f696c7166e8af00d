#include "support/support.h"

#include <dirent.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace kvtest {

std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

namespace {

std::string Base64Decode(const std::string& text) {
  std::string out;
  unsigned acc = 0;
  int bits = 0;
  for (char c : text) {
    int v;
    if (c >= 'A' && c <= 'Z') {
      v = c - 'A';
    } else if (c >= 'a' && c <= 'z') {
      v = c - 'a' + 26;
    } else if (c >= '0' && c <= '9') {
      v = c - '0' + 52;
    } else if (c == '+') {
      v = 62;
    } else if (c == '/') {
      v = 63;
    } else {
      continue;  // line breaks, padding
    }
    acc = (acc << 6) | static_cast<unsigned>(v);
    bits += 6;
    if (bits >= 8) {
      bits -= 8;
      out.push_back(static_cast<char>((acc >> bits) & 0xFF));
    }
  }
  return out;
}

}  // namespace

std::vector<std::string> PemBlocks(const std::string& text,
                                   const std::vector<std::string>& labels) {
  std::vector<std::string> blocks;
  size_t pos = 0;
  while ((pos = text.find("-----BEGIN ", pos)) != std::string::npos) {
    size_t labelEnd = text.find("-----", pos + 11);
    if (labelEnd == std::string::npos) break;
    std::string label = text.substr(pos + 11, labelEnd - pos - 11);
    std::string endLine = "-----END " + label + "-----";
    size_t bodyStart = labelEnd + 5;
    size_t end = text.find(endLine, bodyStart);
    if (end == std::string::npos) break;
    if (std::find(labels.begin(), labels.end(), label) != labels.end())
      blocks.push_back(Base64Decode(text.substr(bodyStart, end - bodyStart)));
    pos = end + endLine.size();
  }
  return blocks;
}

const char kSystemRootsDir[] = "/usr/share/ca-certificates/mozilla";

std::vector<std::string> SystemRootNames() {
  std::vector<std::string> names;
  if (DIR* d = opendir(kSystemRootsDir)) {
    while (dirent* ent = readdir(d)) {
      std::string n = ent->d_name;
      if (n.size() > 4 && n.compare(n.size() - 4, 4, ".crt") == 0) names.push_back(n);
    }
    closedir(d);
  }
  std::sort(names.begin(), names.end());
  return names;
}

ShellResult RunShell(const std::string& command) {
  ShellResult r{-1, std::string()};
  FILE* p = popen(command.c_str(), "r");
  if (!p) return r;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "kvtest-XXXXXX").string();
  if (mkdtemp(&pattern[0]) != nullptr) path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  if (!path_.empty()) std::filesystem::remove_all(path_, ec);
}

std::string TempDir::Write(const std::string& name, const std::string& data) const {
  const std::string path = *this / name;
  std::ofstream(path, std::ios::binary) << data;
  return path;
}

}  // namespace kvtest
