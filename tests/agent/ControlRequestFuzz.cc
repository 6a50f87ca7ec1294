// libFuzzer target: the control socket's request parser on arbitrary bytes. It must refuse
// or accept without crashing or tripping a sanitizer; what it accepts reads back the same
// from the request text the client writes, and a refusal says where.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "agent/ControlRequest.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
   auto line = std::string_view(reinterpret_cast<char const*>(data), size);
   auto parsed = VeldAgent::parseControlRequest(line);
   if (parsed.request.has_value() == !parsed.errors.empty()) __builtin_trap();
   if (parsed.request) {
      auto again = VeldAgent::parseControlRequest(VeldAgent::controlRequestText(*parsed.request));
      if (!again.request || !(*again.request == *parsed.request)) __builtin_trap();
   }
   for (auto const& e : parsed.errors) {
      if (e.message.empty()) __builtin_trap();
      // Answers are JSON: an error's text must survive the dump whatever bytes it quotes.
      (void)VeldAgent::dumpJson(nlohmann::json{{"error", e.toString()}});
   }
   return 0;
}
