#include "real_data.h"

#include <cstdio>
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
    for (const auto& l : labels) {
      if (l == label) {
        blocks.push_back(Base64Decode(text.substr(bodyStart, end - bodyStart)));
        break;
      }
    }
    pos = end + endLine.size();
  }
  return blocks;
}

std::vector<std::string> DerOf(const std::string& path, const std::string& form,
                               const std::vector<std::string>& labels) {
  std::string data = ReadFile(path);
  if (form == "der") return {data};
  return PemBlocks(data, labels);
}

MiByte ToMiByte(const std::string& s) {
  return MiByte(s.data(), static_cast<unsigned>(s.size()));
}

std::string ToString(const MiByte& b) {
  return std::string(b.GetChars() ? b.GetChars() : "", b.GetLength());
}

std::string Hex(const std::string& s) {
  static const char digits[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : s) {
    out.push_back(digits[c >> 4]);
    out.push_back(digits[c & 15]);
  }
  return out;
}

std::string Encode(const AsnObject& obj) {
  MiByteBuffer out;
  obj.DerEncode(out, 0);
  return ToString(out.GetByte());
}

std::string RoundTrip(AsnObject& obj, const std::string& der) {
  unsigned used = obj.DerDecode(ToMiByte(der), 0);
  if (used != der.size()) {
    return "decoding took " + std::to_string(used) + " of " + std::to_string(der.size()) +
           " octets";
  }
  std::string again = Encode(obj);
  if (again == der) return "";
  size_t i = 0;
  while (i < again.size() && i < der.size() && again[i] == der[i]) ++i;
  return "re-encoding differs at offset " + std::to_string(i) + " (" +
         std::to_string(again.size()) + " vs " + std::to_string(der.size()) + " octets)";
}

std::string RunCommand(const std::string& command, int* status) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (!p) {
    *status = -1;
    return out;
  }
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  *status = pclose(p);
  return out;
}

}  // namespace kvtest
