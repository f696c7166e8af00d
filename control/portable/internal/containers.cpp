#include "control/portable/internal/containers.h"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#include "control/portable/internal/files.h"
#include "crypto/sha1.h"

namespace kv::control::portable {

namespace {

thread_local uint32_t t_lastError = 0;

const size_t kMaxRecordSize = 1 << 20;
const size_t kMaxEncodedName = 200;

std::string Fold(const std::string& s) {
  std::string out = s;
  for (char& c : out)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return out;
}

}  // namespace

void SetError(uint32_t code) {
  t_lastError = code;
}

uint32_t LastError() {
  return t_lastError;
}

std::string ContainerFileName(const std::string& name) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string folded = Fold(name), out;
  for (unsigned char c : folded) {
    bool keep = (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
                c == '{' || c == '}';
    if (keep) {
      out.push_back(static_cast<char>(c));
    } else {
      out.push_back('%');
      out.push_back(kDigits[c >> 4]);
      out.push_back(kDigits[c & 15]);
    }
  }
  if (out.size() > kMaxEncodedName) {
    uint8_t digest[Sha1::kDigestSize];
    Sha1::Digest(folded.data(), folded.size(), digest);
    out = "~" + Hex(digest, sizeof digest);
  }
  return out + ".key";
}

std::string DefaultContainerName() {
  if (passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_name && *pw->pw_name) return pw->pw_name;
  const char* user = std::getenv("USER");
  return user && *user ? user : "default";
}

bool SameContainerName(const std::string& a, const std::string& b) {
  return Fold(a) == Fold(b);
}

bool ContainerFolder::Exists(const std::string& name) const {
  ContainerRecord record;
  bool found = Load(name, &record);
  record.Wipe();
  return found;
}

bool ContainerFolder::Load(const std::string& name, ContainerRecord* record) const {
  Bytes der;
  if (!ReadAll(FileOf(name), kMaxRecordSize, &der)) return false;
  ContainerRecord rec;
  bool ok = DecodeContainer(der, &rec) && SameContainerName(rec.name, name);
  std::fill(der.begin(), der.end(), 0);
  if (!ok) {
    rec.Wipe();
    return false;
  }
  *record = std::move(rec);
  return true;
}

bool ContainerFolder::Save(const ContainerRecord& record) const {
  if (!MakePrivateDirs(dir_)) return false;
  Bytes der = EncodeContainer(record);
  bool ok = WriteAtomic(FileOf(record.name), der.data(), der.size());
  std::fill(der.begin(), der.end(), 0);
  return ok;
}

bool ContainerFolder::Remove(const std::string& name) const {
  return RemoveFile(FileOf(name));
}

}  // namespace kv::control::portable
