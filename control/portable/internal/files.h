// File steps of the portable platform: private folders, atomic replacement,
// bounded reads.
#pragma once

#include <string>
#include <vector>

#include "control/platform.h"

namespace kv::control::portable {

// Creates path and any missing parent with mode 0700 (existing folders are
// left as they are). False when a component cannot be made.
bool MakePrivateDirs(const std::string& path);

// Replaces path with data: a temporary file in the same folder (mode 0600),
// written, flushed to disk, renamed over path, then the folder flushed. On
// failure the temporary file is removed and path is unchanged.
bool WriteAtomic(const std::string& path, const uint8_t* data, size_t len);

// At most maxLen octets of a regular file.
bool ReadAll(const std::string& path, size_t maxLen, Bytes* data);

bool IsRegularFile(const std::string& path);

// Removes a file and flushes its folder; false when it was not there.
bool RemoveFile(const std::string& path);

// Names of the entries of a folder ending in suffix, sorted; empty when the
// folder is missing.
std::vector<std::string> ListFolder(const std::string& dir, const std::string& suffix);

}  // namespace kv::control::portable
