// The key-history reader on arbitrary input: it must never crash, and what it
// accepts must read back to the same entries once written out.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "control/internal/key_history.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string xml(reinterpret_cast<const char*>(data), size);
  std::vector<kv::control::KeyHistoryEntry> entries;
  if (!kv::control::ParseKeyHistory(xml, &entries)) return 0;
  std::vector<kv::control::KeyHistoryEntry> again;
  if (!kv::control::ParseKeyHistory(kv::control::KeyHistoryText(entries), &again) ||
      again.size() != entries.size()) {
    std::abort();
  }
  for (size_t i = 0; i < entries.size(); ++i) {
    if (again[i].issuerKeyId != entries[i].issuerKeyId || again[i].text != entries[i].text) {
      std::abort();
    }
  }
  return 0;
}
