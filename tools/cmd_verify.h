// korvanta verify: walk a certificate's chain to a trusted certificate,
// checking each signature and validity period with the toolkit.
#pragma once

#include <string>
#include <vector>

int CmdVerify(const std::vector<std::string>& args);
