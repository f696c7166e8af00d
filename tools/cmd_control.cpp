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

namespace {

using json = nlohmann::ordered_json;
using kv::control::Utf16ToUtf8;
using kv::control::Utf8ToUtf16;
using Text = CBrendalKorvanta::Text;
using Ret = CBrendalKorvanta::Ret;

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

// Parameter kinds of the 29 methods: 'i' an integer, 's' a string.
struct MethodInfo {
  const char* name;
  const char* params;
  bool password;  // the last string is a password
};

const MethodInfo kMethods[] = {
    {"listCSP", "i", false},
    {"setCSP", "s", false},
    {"genKeyPair", "i", false},
    {"genTempKeyPair", "", false},
    {"getVersion", "", false},
    {"writeClientCert", "s", false},
    {"writeKmcCert", "sss", false},
    {"genEEDownCertRequestData_Client", "sss", false},
    {"genEEDownCertRequestData_Kmc", "ssss", false},
    {"genEERevokeCertRequestData", "", false},
    {"genEEUpdateCertRequestData", "", false},
    {"getPublicKeyFromPKCS10Data", "s", false},
    {"genEERestoreKHRequestData", "", false},
    {"writeKmcCertwithKH", "ssss", false},
    {"writeKH", "s", false},
    {"writeClientCertToPFX", "ss", true},
    {"writeKmcCertToPFX", "ssss", true},
    {"genP10", "i", false},
    {"genEEUpdateCertRequestData_Client", "s", false},
    {"genEEUpdateCertRequestData_Kmc", "ss", false},
    {"restoreKmcCert", "sss", false},
    {"genP10_kex", "i", false},
    {"writeClientCert_kex", "s", false},
    {"genP10_exp", "ii", false},
    {"writeClientCert_exp", "s", false},
    {"writeClientCert_noprotect", "s", false},
    {"genP10_exp_withdn", "iis", false},
    {"writeClientCert_exp_X509", "s", false},
    {"leavingMostRecentCert", "ss", false},
};

const MethodInfo* FindMethod(const std::string& name) {
  for (const MethodInfo& m : kMethods) {
    if (name == m.name) return &m;
  }
  return nullptr;
}

int Usage(const std::string& message) {
  std::cerr << "korvanta: " << message << "\n\n" << kHelp;
  return 2;
}

json TextResult(const Text& t) {
  return t ? json(Utf16ToUtf8(*t)) : json(nullptr);
}

// Runs one call; the arguments are already checked against the method's
// parameter kinds.
json Invoke(CBrendalKorvanta& c, const std::string& m, const std::vector<json>& a) {
  auto S = [&](size_t i) { return Utf8ToUtf16(a[i].get<std::string>()); };
  auto I = [&](size_t i) { return a[i].get<int>(); };
  Text text;
  Ret ret;
  int32_t status = 0;
  bool isRet = false;
  bool none = false;
  if (m == "listCSP")
    status = c.listCSP(I(0), &text);
  else if (m == "setCSP")
    status = c.setCSP(S(0)), none = true;
  else if (m == "genKeyPair")
    status = c.genKeyPair(I(0), &text);
  else if (m == "genTempKeyPair")
    status = c.genTempKeyPair(&text);
  else if (m == "getVersion")
    status = c.getVersion(&text);
  else if (m == "writeClientCert")
    status = c.writeClientCert(S(0), &ret), isRet = true;
  else if (m == "writeKmcCert")
    status = c.writeKmcCert(S(0), S(1), S(2), &ret), isRet = true;
  else if (m == "genEEDownCertRequestData_Client")
    status = c.genEEDownCertRequestData_Client(S(0), S(1), S(2), &text);
  else if (m == "genEEDownCertRequestData_Kmc")
    status = c.genEEDownCertRequestData_Kmc(S(0), S(1), S(2), S(3), &text);
  else if (m == "genEERevokeCertRequestData")
    status = c.genEERevokeCertRequestData(&text);
  else if (m == "genEEUpdateCertRequestData")
    status = c.genEEUpdateCertRequestData(&text);
  else if (m == "getPublicKeyFromPKCS10Data")
    status = c.getPublicKeyFromPKCS10Data(S(0), &text);
  else if (m == "genEERestoreKHRequestData")
    status = c.genEERestoreKHRequestData(&text);
  else if (m == "writeKmcCertwithKH")
    status = c.writeKmcCertwithKH(S(0), S(1), S(2), S(3), &ret), isRet = true;
  else if (m == "writeKH")
    status = c.writeKH(S(0), &ret), isRet = true;
  else if (m == "writeClientCertToPFX")
    status = c.writeClientCertToPFX(S(0), S(1), &text);
  else if (m == "writeKmcCertToPFX")
    status = c.writeKmcCertToPFX(S(0), S(1), S(2), S(3), &text);
  else if (m == "genP10")
    status = c.genP10(I(0), &text);
  else if (m == "genEEUpdateCertRequestData_Client")
    status = c.genEEUpdateCertRequestData_Client(S(0), &text);
  else if (m == "genEEUpdateCertRequestData_Kmc")
    status = c.genEEUpdateCertRequestData_Kmc(S(0), S(1), &text);
  else if (m == "restoreKmcCert")
    status = c.restoreKmcCert(S(0), S(1), S(2), &ret), isRet = true;
  else if (m == "genP10_kex")
    status = c.genP10_kex(I(0), &text);
  else if (m == "writeClientCert_kex")
    status = c.writeClientCert_kex(S(0), &ret), isRet = true;
  else if (m == "genP10_exp")
    status = c.genP10_exp(I(0), I(1), &text);
  else if (m == "writeClientCert_exp")
    status = c.writeClientCert_exp(S(0), &ret), isRet = true;
  else if (m == "writeClientCert_noprotect")
    status = c.writeClientCert_noprotect(S(0), &ret), isRet = true;
  else if (m == "genP10_exp_withdn")
    status = c.genP10_exp_withdn(I(0), I(1), S(2), &text);
  else if (m == "writeClientCert_exp_X509")
    status = c.writeClientCert_exp_X509(S(0), &ret), isRet = true;
  else if (m == "leavingMostRecentCert")
    status = c.leavingMostRecentCert(S(0), S(1), &ret), isRet = true;
  json out = json::object();
  if (status == KV_E_FAIL) {
    out["status"] = status;
    out["error"] = "E_FAIL: the method failed without a result";
    return out;
  }
  out["status"] = status;
  if (none) {
    out["result"] = nullptr;
  } else if (isRet) {
    out["result"] = ret ? json(*ret) : json(nullptr);
  } else {
    out["result"] = TextResult(text);
  }
  return out;
}

// Checks a call's arguments; an empty string when they fit.
std::string CheckArgs(const MethodInfo& m, const std::vector<json>& args) {
  const std::string kinds = m.params;
  if (args.size() != kinds.size()) {
    return std::string(m.name) + " takes " + std::to_string(kinds.size()) + " argument(s)";
  }
  for (size_t i = 0; i < kinds.size(); ++i) {
    if (kinds[i] == 'i' && !args[i].is_number_integer()) {
      return std::string(m.name) + ": argument " + std::to_string(i + 1) + " is an integer";
    }
    if (kinds[i] == 's' && !args[i].is_string() && !args[i].is_null()) {
      return std::string(m.name) + ": argument " + std::to_string(i + 1) + " is a string";
    }
  }
  return std::string();
}

// A chooser that always cancels.
class Cancel : public kv::control::SigningChooser {
 public:
  int Choose(const std::vector<kv::control::SigningCandidate>&) override { return -1; }
};

void Print(const json& j) {
  std::cout << j.dump(-1, ' ', false, json::error_handler_t::replace) << "\n" << std::flush;
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
      const json result = Invoke(control, call.method->name, call.args);
      for (auto& [k, v] : result.items()) out[k] = v;
      Print(out);
    }
    return 0;
  }

  // JSON lines.
  int status = 0;
  std::string line;
  while (std::getline(std::cin, line)) {
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    json out = json::object();
    json request = json::parse(line, nullptr, false);
    if (request.is_discarded() || !request.is_object()) {
      out["id"] = nullptr;
      out["error"] = "not a JSON object";
      Print(out);
      status = 1;
      continue;
    }
    out["id"] = request.contains("id") ? request["id"] : json(nullptr);
    const json method = request.value("method", json(nullptr));
    const MethodInfo* m = method.is_string() ? FindMethod(method.get<std::string>()) : nullptr;
    if (!m) {
      out["error"] = "no such method";
      Print(out);
      status = 1;
      continue;
    }
    std::vector<json> callArgs;
    if (request.contains("args")) {
      if (!request["args"].is_array()) {
        out["error"] = "args is not an array";
        Print(out);
        status = 1;
        continue;
      }
      for (const json& v : request["args"]) callArgs.push_back(v.is_null() ? json("") : v);
    }
    const std::string problem = CheckArgs(*m, callArgs);
    if (!problem.empty()) {
      out["error"] = problem;
      Print(out);
      status = 1;
      continue;
    }
    json result = Invoke(control, m->name, callArgs);
    for (auto& [k, v] : result.items()) out[k] = v;
    Print(out);
  }
  return status;
}
