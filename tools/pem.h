// PEM armour for the command's outputs, and a private file writer for keys.
#pragma once

#include <string>

namespace kvtool {

// "-----BEGIN label-----", Base64 in lines of 64, "-----END label-----".
std::string PemEncode(const std::string& label, const std::string& der);

// Writes data to path with mode 0600 from the start (never readable by
// others, not even for a moment): a new file beside the target, renamed
// into place. False with a message in error.
bool WritePrivate(const std::string& path, const std::string& data, std::string& error);

}  // namespace kvtool
