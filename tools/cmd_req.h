// korvanta req: make an RSA key and a PKCS#10 request for it, or check a
// request's signature.
#pragma once

#include <string>
#include <vector>

int CmdReq(const std::vector<std::string>& args);
