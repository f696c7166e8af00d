// The key-history file: "<keyhistorys>" holding "<keyhistory>" entries, each
// named by its "<issuerkeyid>". New entries are merged in by that id (a known
// id replaces the old entry in place, a new one is appended); the previous
// file is kept as the backup.
#pragma once

#include <string>
#include <vector>

#include "control/platform.h"

namespace kv::control {

struct KeyHistoryEntry {
  std::string issuerKeyId;
  std::string text;  // the whole "<keyhistory>...</keyhistory>" element
};

// Parses a document; false when it is not a "<keyhistorys>" document of
// entries that each carry a non-empty "<issuerkeyid>".
bool ParseKeyHistory(const std::string& xml, std::vector<KeyHistoryEntry>* entries);

// The document text of entries.
std::string KeyHistoryText(const std::vector<KeyHistoryEntry>& entries);

// Merges entries into the file of the key-history folder. False when the
// existing file cannot be read as a document or a write fails; the file is
// then as it was.
bool MergeKeyHistory(Platform& p, const std::vector<KeyHistoryEntry>& entries);

// The file and its backup.
std::string KeyHistoryPath(Platform& p);
std::string KeyHistoryBackupPath(Platform& p);

}  // namespace kv::control
