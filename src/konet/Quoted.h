#pragma once

#include <string>
#include <string_view>

namespace Konet {

// 'text' in single quotes, the start of the value types' parse errors. Built by appending
// to a string that already holds the opening quote: prepending a literal to a temporary
// (`"'" + std::string(text)`) makes GCC 12 at -O3 warn of a memcpy overlap that cannot
// happen (-Wrestrict).
inline std::string quoted(std::string_view text) {
   std::string s;
   s.reserve(text.size() + 2);
   s += '\'';
   s += text;
   s += '\'';
   return s;
}

}  // namespace Konet
