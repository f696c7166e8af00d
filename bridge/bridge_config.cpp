#include "bridge_config.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace kvbridge {

std::string ConfigPath() {
  const char* xdg = std::getenv("XDG_CONFIG_HOME");
  if (xdg && *xdg == '/') return std::string(xdg) + "/korvanta/bridge.conf";
  const char* home = std::getenv("HOME");
  return std::string(home ? home : "") + "/.config/korvanta/bridge.conf";
}

bool NormaliseOrigin(const std::string& text, std::string* out) {
  std::string s = text;
  while (!s.empty() && std::isspace(static_cast<unsigned char>(s.back()))) s.pop_back();
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  const size_t sep = s.find("://");
  if (sep == std::string::npos) return false;
  const std::string scheme = s.substr(0, sep);
  if (scheme != "http" && scheme != "https") return false;
  const std::string rest = s.substr(sep + 3);
  if (rest.empty() || rest.size() > 255) return false;
  // host: letters, digits, '-', '.', or a bracketed IPv6 literal; then :port.
  size_t i = 0;
  if (rest[0] == '[') {
    const size_t close = rest.find(']');
    if (close == std::string::npos || close < 3) return false;
    for (size_t k = 1; k < close; ++k) {
      if (!std::isxdigit(static_cast<unsigned char>(rest[k])) && rest[k] != ':' && rest[k] != '.')
        return false;
    }
    i = close + 1;
  } else {
    while (i < rest.size() &&
           (std::isalnum(static_cast<unsigned char>(rest[i])) || rest[i] == '-' || rest[i] == '.'))
      ++i;
    if (i == 0) return false;
  }
  if (i < rest.size()) {
    if (rest[i] != ':' || i + 1 == rest.size() || rest.size() - i - 1 > 5) return false;
    for (size_t k = i + 1; k < rest.size(); ++k) {
      if (!std::isdigit(static_cast<unsigned char>(rest[k]))) return false;
    }
    if (std::atoi(rest.c_str() + i + 1) > 65535) return false;
  }
  *out = s;
  return true;
}

std::vector<std::string> LoadAllowList(const std::string& path) {
  std::vector<std::string> out;
  std::ifstream in(path);
  std::string line, origin;
  while (std::getline(in, line)) {
    const size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos || line[start] == '#') continue;
    if (NormaliseOrigin(line.substr(start), &origin) &&
        std::find(out.begin(), out.end(), origin) == out.end())
      out.push_back(origin);
  }
  return out;
}

namespace {
bool MakeParents(const std::string& path) {
  for (size_t p = path.find('/', 1); p != std::string::npos; p = path.find('/', p + 1)) {
    const std::string dir = path.substr(0, p);
    if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  return true;
}
}  // namespace

bool SaveAllowList(const std::string& path, const std::vector<std::string>& origins,
                   std::string* error) {
  if (!MakeParents(path)) {
    *error = std::strerror(errno);
    return false;
  }
  // Written beside and renamed, so a running bridge never reads half a file.
  const std::string tmp = path + ".tmp";
  {
    std::ofstream out(tmp, std::ios::trunc);
    out << "# Page origins allowed to use the korvanta bridge, one per line.\n";
    for (const std::string& o : origins) out << o << "\n";
    if (!out.flush()) {
      *error = "cannot write " + tmp;
      return false;
    }
  }
  if (std::rename(tmp.c_str(), path.c_str()) != 0) {
    *error = std::strerror(errno);
    return false;
  }
  return true;
}

bool HostAllowed(const std::string& host, unsigned short port) {
  const std::string p = ":" + std::to_string(port);
  std::string h = host;
  std::transform(h.begin(), h.end(), h.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return h == "127.0.0.1" + p || h == "[::1]" + p || h == "localhost" + p;
}

}  // namespace kvbridge
