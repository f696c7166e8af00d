// korvanta containers: the user's key containers.
#include <iostream>

#include "cmd_portable.h"
#include "control/control.h"

namespace kvtool {

const char kContainersHelp[] =
    "usage: korvanta containers [--data-dir DIR]\n"
    "\n"
    "Lists the key containers of the software providers: for each, its name and\n"
    "its signature and exchange keys with their size, whether they may be\n"
    "exported and whether a certificate is attached. DIR is the data directory\n"
    "(default $XDG_DATA_HOME/korvanta, else ~/.local/share/korvanta).\n";

namespace {

void PrintKey(const char* label, const kv::control::ContainerSummary::Key& k) {
  std::cout << "  " << label;
  if (!k.present) {
    std::cout << "none\n";
    return;
  }
  std::cout << k.bits << " bits, " << (k.exportable ? "exportable" : "not exportable")
            << (k.hasCertificate ? ", certificate attached" : "") << "\n";
}

}  // namespace

int ContainersCommand(const std::vector<std::string>& args) {
  kv::control::PortableConfig config;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--help" || a == "-h") {
      std::cout << kContainersHelp;
      return 0;
    } else if (a == "--data-dir" && i + 1 < args.size()) {
      config.dataDirectory = args[++i];
    } else {
      std::cerr << "korvanta: unexpected argument \"" << a << "\"\n\n" << kContainersHelp;
      return 2;
    }
  }
  kv::control::PortablePlatform platform(config);
  for (const kv::control::ContainerSummary& c : platform.ListContainers()) {
    std::cout << c.name << "\n";
    PrintKey("signature: ", c.signature);
    PrintKey("exchange:  ", c.exchange);
  }
  return 0;
}

}  // namespace kvtool
