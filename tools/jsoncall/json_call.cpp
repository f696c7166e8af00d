// The JSON message form of the control's methods.
#include "json_call.h"

#include "control/control.h"
#include "control/internal/support.h"
#include "control/korvanta_control.h"

namespace kvtool {

using kv::control::Utf16ToUtf8;
using kv::control::Utf8ToUtf16;
using Text = CBrendalKorvanta::Text;
using Ret = CBrendalKorvanta::Ret;

namespace {

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

}  // namespace

const MethodInfo* FindMethod(const std::string& name) {
  for (const MethodInfo& m : kMethods) {
    if (name == m.name) return &m;
  }
  return nullptr;
}

namespace {

json TextResult(const Text& t) {
  return t ? json(Utf16ToUtf8(*t)) : json(nullptr);
}

}  // namespace

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

json HandleMessage(const std::string& text, const Invoker& invoke, bool* valid) {
  *valid = false;
  json out = json::object();
  json request = json::parse(text, nullptr, false);
  if (request.is_discarded() || !request.is_object()) {
    out["id"] = nullptr;
    out["error"] = "not a JSON object";
    return out;
  }
  // Only a number or a string echoes back; anything else could be large.
  const json id = request.contains("id") ? request["id"] : json(nullptr);
  out["id"] = id.is_number() || id.is_string() ? id : json(nullptr);
  const json method = request.value("method", json(nullptr));
  const MethodInfo* m = method.is_string() ? FindMethod(method.get<std::string>()) : nullptr;
  if (!m) {
    out["error"] = "no such method";
    return out;
  }
  std::vector<json> callArgs;
  if (request.contains("args")) {
    if (!request["args"].is_array()) {
      out["error"] = "args is not an array";
      return out;
    }
    for (const json& v : request["args"]) callArgs.push_back(v.is_null() ? json("") : v);
  }
  const std::string problem = CheckArgs(*m, callArgs);
  if (!problem.empty()) {
    out["error"] = problem;
    return out;
  }
  *valid = true;
  json result = invoke(*m, callArgs);
  for (auto& [k, v] : result.items()) out[k] = v;
  return out;
}

std::string Dump(const json& j) {
  return j.dump(-1, ' ', false, json::error_handler_t::replace);
}

}  // namespace kvtool
