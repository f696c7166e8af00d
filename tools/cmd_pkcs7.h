// korvanta pkcs7: list, verify, sign, encrypt and decrypt PKCS #7 messages.
#pragma once

#include <string>
#include <vector>

// Exit status 0 success, 1 bad input or a failed check, 2 bad usage.
int CmdPkcs7(const std::vector<std::string>& args);

extern const char kPkcs7Help[];
