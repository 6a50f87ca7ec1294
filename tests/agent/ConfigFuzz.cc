// libFuzzer target: the configuration loader on arbitrary bytes. It must refuse or accept
// without crashing, leaking or tripping a sanitizer, and whatever it accepts must read back
// the same from the document it writes.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "agent/Config.h"

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* data, size_t size) {
   auto r =
       VeldAgent::parseConfiguration(std::string_view(reinterpret_cast<char const*>(data), size));
   if (r.config) {
      auto again = VeldAgent::parseConfiguration(VeldAgent::configurationToJson(*r.config));
      if (!again.config || !(*again.config == *r.config)) __builtin_trap();
   }
   return 0;
}
