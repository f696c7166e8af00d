// korvanta pkcs12: build and inspect PFX files.
#pragma once

#include <string>
#include <vector>

// Exit status 0 success, 1 bad input (message on standard error), 2 bad usage.
int CmdPkcs12(const std::vector<std::string>& args);
