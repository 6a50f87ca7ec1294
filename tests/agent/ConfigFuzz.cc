// libFuzzer target: the configuration loader on arbitrary bytes. It must refuse or accept
// without crashing, leaking or tripping a sanitizer; whatever it accepts must read back the
// same from the document it writes; and the checks themselves never fail on a document the
// reader took.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "agent/Config.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
   auto r =
       VeldAgent::parseConfiguration(std::string_view(reinterpret_cast<char const*>(data), size));
   if (r.config.has_value() == !r.errors.empty()) __builtin_trap();
   for (auto const& e : r.errors) {
      if (e.message.starts_with(VeldAgent::kCheckFault)) __builtin_trap();
   }
   if (r.config) {
      auto again = VeldAgent::parseConfiguration(VeldAgent::configurationToJson(*r.config));
      if (!again.config || !(*again.config == *r.config)) __builtin_trap();
   }
   return 0;
}
