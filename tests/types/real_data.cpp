#include "real_data.h"

namespace kvtest {

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

}  // namespace kvtest
