// Verbs over the portable platform's data directory.
#pragma once

#include <string>
#include <vector>

namespace kvtool {

extern const char kStoresHelp[];
extern const char kContainersHelp[];

// korvanta stores [MY|CA|ROOT] [--data-dir DIR]
int StoresCommand(const std::vector<std::string>& args);
// korvanta containers [--data-dir DIR]
int ContainersCommand(const std::vector<std::string>& args);

}  // namespace kvtool
