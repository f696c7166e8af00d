// korvanta control: one control object on the portable platform, driven by
// calls given as arguments or by JSON lines on standard input.
#include "cmd_control.h"

#include <cstdlib>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "control/control.h"
#include "control/internal/support.h"
#include "control/korvanta_control.h"
#include "crypto/internal/wipe.h"
#include "crypto/p11.h"
#include "input.h"
#include "jsoncall/json_call.h"

namespace {

using kvtool::FindMethod;
using kvtool::json;
using kvtool::MethodInfo;

const char kHelp[] =
    "usage: korvanta control [OPTIONS] [METHOD [ARG...]]...\n"
    "\n"
    "Creates one enrolment control object on the portable platform and calls\n"
    "its methods. Calls given as arguments run in order: each METHOD name is\n"
    "followed by exactly as many ARGs as it takes, e.g.\n"
    "  korvanta control setCSP \"Microsoft Enhanced Cryptographic Provider v1.0\" \\\n"
    "                   genKeyPair 2048\n"
    "Without calls, each line of standard input is one call:\n"
    "  {\"id\":1,\"method\":\"genKeyPair\",\"args\":[2048]}\n"
    "and each call prints one line:\n"
    "  {\"id\":1,\"status\":0,\"result\":\"MIIB...\"}\n"
    "result is null where the method leaves it unassigned, \"\" where it sets the\n"
    "empty string, the integer for methods that return `ret`; a failing\n"
    "automation result prints an \"error\" member instead. Argument calls are\n"
    "numbered from 1.\n"
    "\n"
    "options:\n"
    "  --data-dir DIR          containers and stores (default: $XDG_DATA_HOME/korvanta)\n"
    "  --home DIR              where the container-name file goes (default: $HOME)\n"
    "  --code-page NAME        the narrow text's code page (default: CP936)\n"
    "  --signer-subject TEXT   sign \"DS\" requests with the first MY certificate whose\n"
    "                          subject contains TEXT (default: the signing is cancelled)\n"
    "  --signer-thumbprint HEX ... or the one with this SHA-1 thumbprint\n"
    "  --pass-file FILE        the password (first line) for an argument written \"-\"\n"
    "  --pass-env VAR          ... or from an environment variable\n"
    "\n"
    "Passwords of writeClientCertToPFX and writeKmcCertToPFX given as \"-\" on the\n"
    "command line come from --pass-file or --pass-env. Exit status: 0 when every\n"
    "call ran (whatever its status), 1 for an input line that is not a call,\n"
    "2 for bad usage.\n";

int Usage(const std::string& message) {
  std::cerr << "korvanta: " << message << "\n\n" << kHelp;
  return 2;
}

// A chooser that always cancels.
class Cancel : public kv::control::SigningChooser {
 public:
  int Choose(const std::vector<kv::control::SigningCandidate>&) override { return -1; }
};

void Print(const json& j) {
  std::cout << kvtool::Dump(j) << "\n" << std::flush;
}

void Silent(void*, const char*) {}

}  // namespace

int CmdControl(const std::vector<std::string>& args) {
  kv::control::PortableConfig config;
  std::unique_ptr<kv::control::SigningChooser> chooser = std::make_unique<Cancel>();
  std::string password;
  bool havePassword = false;
  struct Wiper {
    std::string* s;
    ~Wiper() {
      if (!s->empty()) kv::internal::Wipe(&(*s)[0], s->size());
    }
  } wipe{&password};
  std::vector<std::string> calls;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--help" || a == "-h") {
      std::cout << kHelp;
      return 0;
    }
    const bool takesValue = a == "--data-dir" || a == "--home" || a == "--code-page" ||
                            a == "--signer-subject" || a == "--signer-thumbprint" ||
                            a == "--pass-file" || a == "--pass-env";
    if (!takesValue) {
      calls.assign(args.begin() + static_cast<long>(i), args.end());
      break;
    }
    if (i + 1 >= args.size()) return Usage(a + " needs a value");
    const std::string& v = args[++i];
    if (a == "--data-dir") {
      config.dataDirectory = v;
    } else if (a == "--home") {
      config.homeDirectory = v;
    } else if (a == "--code-page") {
      config.codePage = v;
    } else if (a == "--signer-subject") {
      chooser = std::make_unique<kv::control::ScriptedChooser>(
          kv::control::ScriptedChooser::BySubject(v));
    } else if (a == "--signer-thumbprint") {
      chooser = std::make_unique<kv::control::ScriptedChooser>(
          kv::control::ScriptedChooser::ByThumbprint(v));
    } else if (a == "--pass-env") {
      const char* env = std::getenv(v.c_str());
      if (!env) return Usage("environment variable " + v + " is not set");
      password = env;
      havePassword = true;
    } else {
      std::string error;
      if (!kvtool::ReadAll(v, password, error)) {
        std::cerr << "korvanta: " << v << ": " << error << "\n";
        return 1;
      }
      password = password.substr(0, password.find('\n'));
      if (!password.empty() && password.back() == '\r') password.pop_back();
      havePassword = true;
    }
  }

  // Parse the argument calls before anything runs.
  struct Call {
    const MethodInfo* method;
    std::vector<json> args;
  };
  std::vector<Call> parsed;
  for (size_t i = 0; i < calls.size();) {
    const MethodInfo* m = FindMethod(calls[i]);
    if (!m) return Usage("no method named \"" + calls[i] + "\"");
    const std::string kinds = m->params;
    if (i + 1 + kinds.size() > calls.size()) {
      return Usage(std::string(m->name) + " takes " + std::to_string(kinds.size()) +
                   " argument(s)");
    }
    Call call{m, {}};
    for (size_t k = 0; k < kinds.size(); ++k) {
      const std::string& v = calls[i + 1 + k];
      if (kinds[k] == 'i') {
        char* end = nullptr;
        long n = std::strtol(v.c_str(), &end, 10);
        if (v.empty() || *end != '\0')
          return Usage(std::string(m->name) + ": \"" + v + "\" is not an integer");
        call.args.emplace_back(static_cast<int>(n));
      } else if (m->password && k + 1 == kinds.size() && v == "-") {
        if (!havePassword) return Usage("a password \"-\" needs --pass-file or --pass-env");
        call.args.emplace_back(password);
      } else {
        call.args.emplace_back(v);
      }
    }
    parsed.push_back(std::move(call));
    i += 1 + kinds.size();
  }

  KV_P11_SetDiagnostics(Silent, nullptr);
  config.chooser = chooser.get();
  kv::control::PortablePlatform platform(config);
  CBrendalKorvanta control(platform);

  if (!parsed.empty()) {
    int id = 0;
    for (const Call& call : parsed) {
      json out = json::object();
      out["id"] = ++id;
      const json result = kvtool::Invoke(control, call.method->name, call.args);
      for (auto& [k, v] : result.items()) out[k] = v;
      Print(out);
    }
    return 0;
  }

  // JSON lines.
  int status = 0;
  std::string line;
  const kvtool::Invoker invoke = [&](const kvtool::MethodInfo& m, const std::vector<json>& a) {
    return kvtool::Invoke(control, m.name, a);
  };
  while (std::getline(std::cin, line)) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    bool valid = false;
    Print(kvtool::HandleMessage(line, invoke, &valid));
    if (!valid) status = 1;
  }
  return status;
}
