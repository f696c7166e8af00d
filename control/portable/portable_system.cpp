// GUIDs, environment, files and text conversion of the portable platform.
#include <iconv.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "control/portable/internal/containers.h"
#include "control/portable/internal/files.h"
#include "control/portable/portable_platform.h"
#include "crypto/rsa.h"

namespace kv::control {

using namespace portable;

namespace {

class Converter {
 public:
  Converter(const char* to, const char* from) : cd_(iconv_open(to, from)) {}
  ~Converter() {
    if (ok()) iconv_close(cd_);
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;
  bool ok() const { return cd_ != reinterpret_cast<iconv_t>(-1); }

  // Converts in whole; a unit that does not convert becomes `replacement`
  // (in the target encoding) and the input goes on after `skip` octets, as
  // the platform's conversions put a default character in its place.
  bool Run(const std::string& in, size_t skip, const std::string& replacement, std::string* out) {
    out->clear();
    char* src = const_cast<char*>(in.data());
    size_t left = in.size();
    char buf[256];
    while (true) {
      char* dst = buf;
      size_t room = sizeof buf;
      size_t rc = iconv(cd_, left ? &src : nullptr, left ? &left : nullptr, &dst, &room);
      out->append(buf, static_cast<size_t>(dst - buf));
      if (rc != static_cast<size_t>(-1)) {
        if (left == 0) break;
        continue;
      }
      if (errno == E2BIG) continue;
      if (errno != EILSEQ && errno != EINVAL) return false;
      *out += replacement;
      size_t step = skip < left ? skip : left;
      src += step;
      left -= step;
      iconv(cd_, nullptr, nullptr, nullptr, nullptr);
    }
    return true;
  }

 private:
  iconv_t cd_;
};

}  // namespace

bool PortablePlatform::CoCreateGuid(Guid* guid) {
  if (!guid) return Fail(KV_ERROR_INVALID_PARAMETER);
  uint8_t r[16];
  if (KV_RSA_OsRandom(nullptr, r, sizeof r) != 0) return Fail(KV_NTE_FAIL);
  // Version 4 (random), variant 10x as RFC 4122 sets them.
  r[6] = static_cast<uint8_t>((r[6] & 0x0F) | 0x40);
  r[8] = static_cast<uint8_t>((r[8] & 0x3F) | 0x80);
  guid->data1 = uint32_t(r[0]) << 24 | uint32_t(r[1]) << 16 | uint32_t(r[2]) << 8 | r[3];
  guid->data2 = static_cast<uint16_t>(r[4] << 8 | r[5]);
  guid->data3 = static_cast<uint16_t>(r[6] << 8 | r[7]);
  std::memcpy(guid->data4, r + 8, 8);
  return true;
}

uint32_t PortablePlatform::ExpandEnvironmentStrings(const char* src, char* dst, uint32_t size) {
  if (!src) {
    SetError(KV_ERROR_INVALID_PARAMETER);
    return 0;
  }
  std::string out;
  for (const char* p = src; *p;) {
    const char* close = *p == '%' ? std::strchr(p + 1, '%') : nullptr;
    if (!close || close == p + 1) {
      out.push_back(*p++);
      continue;
    }
    std::string name(p + 1, close);
    if (const char* value = std::getenv(name.c_str())) {
      out += value;
      p = close + 1;
    } else {
      // Left as written; the closing '%' may open the next reference.
      out.append(p, close);
      p = close;
    }
  }
  uint32_t need = static_cast<uint32_t>(out.size() + 1);
  if (dst && size >= need) std::memcpy(dst, out.c_str(), need);
  return need;
}

uint32_t PortablePlatform::GetSystemDirectory(char* dst, uint32_t size) {
  uint32_t need = static_cast<uint32_t>(dataDir_.size() + 1);
  if (!dst || size < need) return need;
  std::memcpy(dst, dataDir_.c_str(), need);
  return need - 1;
}

std::string PortablePlatform::ContainerFilePath() {
  return homeDir_ + "/velmoraContianer.data";
}

std::string PortablePlatform::KeyHistoryDirectory() {
  return dataDir_;
}

bool PortablePlatform::WriteFileAtomic(const std::string& path, const uint8_t* data, size_t len) {
  if (!WriteAtomic(path, data, len)) return Fail(KV_NTE_FAIL);
  return true;
}

bool PortablePlatform::ReadFile(const std::string& path, size_t maxLen, Bytes* data) {
  if (!data) return Fail(KV_ERROR_INVALID_PARAMETER);
  if (!ReadAll(path, maxLen, data)) return Fail(KV_NTE_NOT_FOUND);
  return true;
}

bool PortablePlatform::FileExists(const std::string& path) {
  return IsRegularFile(path);
}

bool PortablePlatform::DeleteFile(const std::string& path) {
  if (!RemoveFile(path)) return Fail(KV_NTE_NOT_FOUND);
  return true;
}

bool PortablePlatform::ToNarrow(const std::u16string& wide, std::string* narrow) {
  if (!narrow) return Fail(KV_ERROR_INVALID_PARAMETER);
  Converter conv(codePage_.c_str(), "UTF-16LE");
  if (!conv.ok()) return Fail(KV_ERROR_INVALID_PARAMETER);
  std::string in;
  in.reserve(wide.size() * 2);
  for (char16_t c : wide) {
    in.push_back(static_cast<char>(c & 0xFF));
    in.push_back(static_cast<char>(c >> 8));
  }
  if (!conv.Run(in, 2, "?", narrow)) return Fail(KV_ERROR_INVALID_PARAMETER);
  return true;
}

bool PortablePlatform::ToWide(const std::string& narrow, std::u16string* wide) {
  if (!wide) return Fail(KV_ERROR_INVALID_PARAMETER);
  Converter conv("UTF-16LE", codePage_.c_str());
  if (!conv.ok()) return Fail(KV_ERROR_INVALID_PARAMETER);
  std::string out;
  if (!conv.Run(narrow, 1, std::string("?\0", 2), &out)) return Fail(KV_ERROR_INVALID_PARAMETER);
  wide->clear();
  for (size_t i = 0; i + 1 < out.size(); i += 2)
    wide->push_back(static_cast<char16_t>(uint8_t(out[i]) | uint8_t(out[i + 1]) << 8));
  return true;
}

}  // namespace kv::control
