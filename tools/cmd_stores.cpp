// korvanta stores: the certificates of the user's stores.
#include <iostream>

#include "cmd_portable.h"
#include "control/control.h"

namespace kvtool {

const char kStoresHelp[] =
    "usage: korvanta stores [MY|CA|ROOT] [--data-dir DIR]\n"
    "\n"
    "Lists the certificates of one store, or of MY, CA and ROOT, in the order they\n"
    "were added: store and SHA-1 thumbprint, then subject, issuer, notAfter and\n"
    "the key container the certificate is bound to. DIR is the data directory\n"
    "(default $XDG_DATA_HOME/korvanta, else ~/.local/share/korvanta).\n";

int StoresCommand(const std::vector<std::string>& args) {
  using namespace kv::control;
  PortableConfig config;
  std::vector<std::string> stores;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--help" || a == "-h") {
      std::cout << kStoresHelp;
      return 0;
    } else if (a == "--data-dir") {
      if (i + 1 >= args.size()) {
        std::cerr << "korvanta: --data-dir needs a folder\n\n" << kStoresHelp;
        return 2;
      }
      config.dataDirectory = args[++i];
    } else if ((a == "MY" || a == "CA" || a == "ROOT") && stores.empty()) {
      stores.push_back(a);
    } else {
      std::cerr << "korvanta: unexpected argument \"" << a << "\"\n\n" << kStoresHelp;
      return 2;
    }
  }
  if (stores.empty()) stores = {"MY", "CA", "ROOT"};
  PortablePlatform platform(config);
  bool first = true;
  for (const std::string& name : stores) {
    StoreHandle store = 0;
    if (!platform.OpenSystemStore(name.c_str(), &store)) {
      std::cerr << "korvanta: cannot open store " << name << "\n";
      return 1;
    }
    CertHandle cert = 0;
    while (platform.EnumCertificatesInStore(store, cert, &cert)) {
      Bytes der;
      CertificateSummary s;
      if (!platform.GetEncoded(cert, &der) || !DescribeCertificate(der, &s)) continue;
      std::cout << (first ? "" : "\n") << name << " " << s.thumbprint << "\n"
                << "  subject:   " << s.subject << "\n"
                << "  issuer:    " << s.issuer << "\n"
                << "  notAfter:  " << s.notAfter << "\n";
      first = false;
      KeyProvInfo info;
      std::string container, provider;
      if (platform.GetKeyProvInfo(cert, &info) &&
          platform.ToNarrow(info.containerName, &container) &&
          platform.ToNarrow(info.providerName, &provider)) {
        std::cout << "  container: " << container << " (" << provider << ", key spec "
                  << info.keySpec << ")\n";
      } else {
        std::cout << "  container: none\n";
      }
    }
    platform.CloseStore(store);
  }
  return 0;
}

}  // namespace kvtool
