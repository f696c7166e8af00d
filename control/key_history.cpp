// writeKH and the key-history file it keeps.
#include "control/internal/key_history.h"

#include "control/internal/method.h"
#include "control/korvanta_control.h"

using namespace kv::control;

namespace {

const char kDeclaration[] = "<?xml version=\"1.0\" encoding=\"gb2312\" standalone=\"yes\" ?>";
const char kOpen[] = "<keyhistorys>";
const char kClose[] = "</keyhistorys>";
const char kEmpty[] = "<keyhistorys/>";
const char kEntryOpen[] = "<keyhistory>";
const char kEntryClose[] = "</keyhistory>";
const char kIdOpen[] = "<issuerkeyid>";
const char kIdClose[] = "</issuerkeyid>";
// A key history larger than this is not one.
constexpr size_t kMaxFile = 16u << 20;

bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

size_t SkipSpace(const std::string& s, size_t i) {
  while (i < s.size() && IsSpace(s[i])) ++i;
  return i;
}

bool At(const std::string& s, size_t i, const char* word) {
  return s.compare(i, std::char_traits<char>::length(word), word) == 0;
}

std::string JoinPath(const std::string& dir, const char* name) {
  if (dir.empty()) return name;
  const bool windows = dir.find('\\') != std::string::npos && dir.find('/') == std::string::npos;
  const char sep = windows ? '\\' : '/';
  return dir.back() == sep ? dir + name : dir + sep + name;
}

}  // namespace

namespace kv::control {

bool ParseKeyHistory(const std::string& xml, std::vector<KeyHistoryEntry>* entries) {
  entries->clear();
  size_t i = SkipSpace(xml, 0);
  // An optional declaration.
  if (At(xml, i, "<?xml")) {
    size_t end = xml.find("?>", i);
    if (end == std::string::npos) return false;
    i = SkipSpace(xml, end + 2);
  }
  if (At(xml, i, kEmpty)) {
    return SkipSpace(xml, i + sizeof kEmpty - 1) == xml.size();
  }
  if (!At(xml, i, kOpen)) return false;
  i += sizeof kOpen - 1;
  for (;;) {
    i = SkipSpace(xml, i);
    if (At(xml, i, kClose)) break;
    if (!At(xml, i, kEntryOpen)) return false;
    size_t end = xml.find(kEntryClose, i);
    if (end == std::string::npos) return false;
    end += sizeof kEntryClose - 1;
    KeyHistoryEntry entry;
    entry.text = xml.substr(i, end - i);
    size_t id = entry.text.find(kIdOpen);
    if (id == std::string::npos) return false;
    id += sizeof kIdOpen - 1;
    size_t idEnd = entry.text.find(kIdClose, id);
    if (idEnd == std::string::npos || idEnd == id) return false;
    entry.issuerKeyId = entry.text.substr(id, idEnd - id);
    // A later entry of the same id in one document replaces the earlier.
    bool replaced = false;
    for (KeyHistoryEntry& known : *entries) {
      if (known.issuerKeyId == entry.issuerKeyId) {
        known = entry;
        replaced = true;
      }
    }
    if (!replaced) entries->push_back(std::move(entry));
    i = end;
  }
  return SkipSpace(xml, i + sizeof kClose - 1) == xml.size();
}

std::string KeyHistoryText(const std::vector<KeyHistoryEntry>& entries) {
  std::string text = std::string(kDeclaration) + kOpen;
  for (const KeyHistoryEntry& e : entries) text += e.text;
  return text + kClose;
}

std::string KeyHistoryPath(Platform& p) {
  return JoinPath(p.KeyHistoryDirectory(), "velmora.khf");
}

std::string KeyHistoryBackupPath(Platform& p) {
  return JoinPath(p.KeyHistoryDirectory(), "velmorakhf.bak");
}

bool MergeKeyHistory(Platform& p, const std::vector<KeyHistoryEntry>& entries) {
  const std::string path = KeyHistoryPath(p);
  std::vector<KeyHistoryEntry> merged;
  Bytes old;
  const bool existed = p.FileExists(path);
  if (existed) {
    if (!p.ReadFile(path, kMaxFile, &old)) return false;
    if (!old.empty() && !ParseKeyHistory(std::string(old.begin(), old.end()), &merged)) {
      return false;
    }
  }
  for (const KeyHistoryEntry& e : entries) {
    bool replaced = false;
    for (KeyHistoryEntry& known : merged) {
      if (known.issuerKeyId == e.issuerKeyId) {
        known = e;
        replaced = true;
      }
    }
    if (!replaced) merged.push_back(e);
  }
  // The previous file becomes the backup; then the new one replaces it.
  if (existed && !p.WriteFileAtomic(KeyHistoryBackupPath(p), old.data(), old.size())) return false;
  const std::string text = KeyHistoryText(merged);
  return p.WriteFileAtomic(path, reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

}  // namespace kv::control

int32_t CBrendalKorvanta::writeKH(const std::u16string& keyHistory, Ret* ret) {
  return Guarded([&]() -> int32_t {
    const int32_t failed = Status(kBlockWriteKH, kKeyHistory);
    Bytes xml = Base64Decode(Narrow(platform_, keyHistory));
    std::vector<KeyHistoryEntry> entries;
    if (xml.empty() || !ParseKeyHistory(std::string(xml.begin(), xml.end()), &entries) ||
        !MergeKeyHistory(platform_, entries)) {
      *ret = failed;
      return 0;
    }
    *ret = 0;
    return 0;
  });
}
