// How a trace argument waits in the ring buffer for a dump (Trace.h): a trace that only
// the ring buffer keeps records its arguments as they are and leaves the formatting to the
// dump, which prints exactly what formatting at once would have printed.
//
//  - text (anything that converts to std::string_view, and types with a traceText(v) found
//    by argument-dependent lookup) is copied;
//  - values of the types below are kept as bytes, with the function that prints them;
//  - anything else is formatted at once.
#pragma once

#include <type_traits>

namespace Mox {

// Types kept as bytes: their bytes must be all they print from (no pointer to anything
// else, which a dump later could find gone). Value types opt in by specialising this.
template <class T>
inline constexpr bool traceByValue = std::is_arithmetic_v<T> || std::is_enum_v<T>;

}  // namespace Mox
