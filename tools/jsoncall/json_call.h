// The JSON message form of the control's 29 methods, shared by
// `korvanta control` and the browser bridge:
//   {"id":1,"method":"genKeyPair","args":[2048]}
//   -> {"id":1,"status":0,"result":"MIIB..."}
#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

class CBrendalKorvanta;

namespace kvtool {

using json = nlohmann::ordered_json;

// Parameter kinds of one method: 'i' an integer, 's' a string.
struct MethodInfo {
  const char* name;
  const char* params;
  bool password;  // the last string is a password
};

const MethodInfo* FindMethod(const std::string& name);

// Checks a call's arguments; an empty string when they fit.
std::string CheckArgs(const MethodInfo& m, const std::vector<json>& args);

// Runs one checked call on the control: {"status":..,"result":..} or
// {"status":..,"error":..}.
json Invoke(CBrendalKorvanta& c, const std::string& method, const std::vector<json>& args);

// Runs a checked call; the bridge and the command pass the control, the fuzz
// target a stub.
using Invoker = std::function<json(const MethodInfo&, const std::vector<json>&)>;

// Parses one message, checks it and, when it is a valid call, hands it to
// invoke. The answer always carries "id" (null when the message has none).
// *valid is false when the message never reached invoke.
json HandleMessage(const std::string& text, const Invoker& invoke, bool* valid);

// Serialises an answer; invalid UTF-8 is replaced rather than thrown on.
std::string Dump(const json& j);

}  // namespace kvtool
