// The bridge's message parser and dispatcher on arbitrary input, over a stub
// control: it must never crash, every answer must be one JSON object with an
// "id", and only calls whose arguments fit their method reach the control.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "jsoncall/json_call.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  bool reached = false;
  const kvtool::Invoker stub = [&](const kvtool::MethodInfo& m,
                                   const std::vector<kvtool::json>& args) {
    reached = true;
    const std::string kinds = m.params;
    if (args.size() != kinds.size()) std::abort();
    for (size_t i = 0; i < kinds.size(); ++i) {
      if (kinds[i] == 'i' ? !args[i].is_number_integer() : !args[i].is_string()) std::abort();
    }
    kvtool::json out = kvtool::json::object();
    out["status"] = 0;
    out["result"] = nullptr;
    return out;
  };
  bool valid = false;
  const kvtool::json answer = kvtool::HandleMessage(text, stub, &valid);
  if (valid != reached || !answer.is_object() || !answer.contains("id")) std::abort();
  if (valid == answer.contains("error")) std::abort();
  // The answer always serialises, whatever bytes the strings held.
  if (kvtool::Dump(answer).empty()) std::abort();
  return 0;
}
