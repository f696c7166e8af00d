#include "control/internal/support.h"

#include <cstdio>
#include <ctime>
#include <vector>

#include "pki/base64.h"

namespace kv::control {

const char kTempContainer[] = "BrendalTmpContainer";
const char kBaseProvider[] = "Microsoft Base Cryptographic Provider v1.0";

std::string Narrow(Platform& p, const std::u16string& text) {
  std::string out;
  if (text.empty() || !p.ToNarrow(text, &out)) return std::string();
  return out;
}

std::u16string Wide(Platform& p, const std::string& text) {
  std::u16string out;
  if (text.empty()) return out;
  if (!p.ToWide(text, &out)) throw ControlFault("text conversion failed");
  return out;
}

std::string Utf16ToUtf8(const std::u16string& text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    uint32_t c = text[i];
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
        text[i + 1] <= 0xDFFF) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00);
      ++i;
    } else if (c >= 0xD800 && c <= 0xDFFF) {
      c = 0xFFFD;  // a lone surrogate
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    }
  }
  return out;
}

std::u16string Utf8ToUtf16(const std::string& text) {
  std::u16string out;
  size_t i = 0;
  while (i < text.size()) {
    auto b = static_cast<unsigned char>(text[i]);
    uint32_t c = 0xFFFD;
    size_t n = b < 0x80 ? 1 : (b >> 5) == 6 ? 2 : (b >> 4) == 14 ? 3 : (b >> 3) == 30 ? 4 : 0;
    if (n == 1) {
      c = b;
    } else if (n > 1 && i + n <= text.size()) {
      c = b & (0x7F >> n);
      for (size_t k = 1; k < n; ++k) {
        auto cont = static_cast<unsigned char>(text[i + k]);
        if ((cont & 0xC0) != 0x80) {
          c = 0xFFFD;
          n = k;
          break;
        }
        c = (c << 6) | (cont & 0x3F);
      }
    } else {
      n = 1;
    }
    i += n;
    if (c >= 0x10000) {
      c -= 0x10000;
      out += static_cast<char16_t>(0xD800 + (c >> 10));
      out += static_cast<char16_t>(0xDC00 + (c & 0x3FF));
    } else {
      out += static_cast<char16_t>(c);
    }
  }
  return out;
}

std::string RandomContainerName(Platform& p) {
  Guid g;
  if (!p.CoCreateGuid(&g)) throw ControlFault("can not create a random name!");
  char text[64];
  std::snprintf(text, sizeof text, "%08lX-%04X-%04x-%02X%02X-%02X%02X%02X%02X%02X%02X",
                static_cast<unsigned long>(g.data1), g.data2, g.data3, g.data4[0], g.data4[1],
                g.data4[2], g.data4[3], g.data4[4], g.data4[5], g.data4[6], g.data4[7]);
  return text;
}

int SaveContainerName(Platform& p, const std::string& name) {
  if (name.empty()) return -2;
  if (!p.WriteFileAtomic(p.ContainerFilePath(), reinterpret_cast<const uint8_t*>(name.data()),
                         name.size())) {
    return -1;
  }
  return 0;
}

int SaveContainerNameAndFlag(Platform& p, const std::string& name, int flag) {
  if (name.empty()) return -2;
  std::string content = name + (flag == 1 ? "1" : "0");
  if (!p.WriteFileAtomic(p.ContainerFilePath(), reinterpret_cast<const uint8_t*>(content.data()),
                         content.size())) {
    return -1;
  }
  return 0;
}

bool ReadContainerName(Platform& p, std::string* name) {
  Bytes data;
  if (!p.ReadFile(p.ContainerFilePath(), 128, &data) || data.empty()) return false;
  // The buffer is zero-filled: the name ends at the first zero octet.
  std::string text(data.begin(), data.end());
  *name = text.substr(0, text.find('\0'));
  return !name->empty();
}

bool ReadContainerNameAndFlag(Platform& p, std::string* name, bool* exportable) {
  Bytes data;
  if (!p.ReadFile(p.ContainerFilePath(), 37, &data) || data.size() < 36) return false;
  *name = std::string(data.begin(), data.begin() + 36);
  // Only a "0" clears the flag. A file without the flag octet comes from
  // genKeyPair, genP10 or genP10_kex, which always make exportable keys.
  *exportable = data.size() < 37 || data[36] != '0';
  return true;
}

void DeleteContainerFile(Platform& p) {
  const std::string path = p.ContainerFilePath();
  if (p.FileExists(path)) p.DeleteFile(path);
}

bool CreateContainer(Platform& p, const std::string& provider, const std::string& name,
                     ProvOwner* prov) {
  if (p.AcquireContext(prov->out(), name.c_str(), provider.c_str(), KV_PROV_RSA_FULL,
                       KV_CRYPT_NEWKEYSET)) {
    return true;
  }
  if (p.GetLastError() != KV_NTE_EXISTS) return false;
  DeleteContainer(p, provider, name);
  return p.AcquireContext(prov->out(), name.c_str(), provider.c_str(), KV_PROV_RSA_FULL,
                          KV_CRYPT_NEWKEYSET);
}

void DeleteContainer(Platform& p, const std::string& provider, const std::string& name) {
  ProvHandle none = 0;
  p.AcquireContext(&none, name.c_str(), provider.c_str(), KV_PROV_RSA_FULL, KV_CRYPT_DELETEKEYSET);
}

std::string Base64Encode(const uint8_t* data, size_t len) {
  if (len == 0) return std::string();
  KV_Base64 codec;
  auto* in = reinterpret_cast<char*>(const_cast<uint8_t*>(data));
  int outLen = 0;
  codec.Encode(in, static_cast<int>(len), nullptr, &outLen, false);
  std::string out(static_cast<size_t>(outLen) + 1, '\0');
  if (codec.Encode(in, static_cast<int>(len), &out[0], &outLen, false) != 0) {
    throw ControlFault("Base64 encoding failed");
  }
  out.resize(static_cast<size_t>(outLen));
  return out;
}

std::string Base64Encode(const Bytes& data) {
  return Base64Encode(data.data(), data.size());
}

Bytes Base64Decode(const std::string& text) {
  if (text.empty()) return Bytes();
  KV_Base64 codec;
  std::vector<char> in(text.begin(), text.end());
  Bytes out(text.size() + 1, 0);
  int outLen = 0;
  codec.Decode(in.data(), static_cast<int>(in.size()), reinterpret_cast<char*>(out.data()),
               &outLen);
  out.resize(outLen > 0 ? static_cast<size_t>(outLen) : 0);
  return out;
}

std::string LocalTimeText() {
  std::time_t now = std::time(nullptr);
  std::tm local{};
#ifdef _WIN32
  if (localtime_s(&local, &now) != 0) return std::string();
#else
  if (localtime_r(&now, &local) == nullptr) return std::string();
#endif
  char buf[128] = {};
  if (std::strftime(buf, sizeof buf, "%Y%m%d%H%M%S", &local) == 0) return std::string();
  return buf;
}

bool IsSoftwareProvider(const std::string& provider) {
  return provider.compare(0, 9, "Microsoft") == 0;
}

}  // namespace kv::control
