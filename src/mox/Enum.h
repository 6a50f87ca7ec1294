// Enumerations with a string form.
//
// An enumeration declares its names once, next to it, through an ADL hook:
//
//    enum class Color : uint8_t { red = 0, green = 1 };
//    constexpr auto moxEnumNames(Color) {
//       return Mox::EnumNames<Color, 2>{{{Color::red, "red"}, {Color::green, "green"}}};
//    }
//
//    inline std::ostream& operator<<(std::ostream& os, Color c) { return Mox::streamEnum(os, c); }
//
// and gets stringValue(), lookup by number and by name, and streaming.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <ostream>
#include <string_view>
#include <type_traits>

namespace Mox {

template <class E>
struct EnumName {
   E value;
   std::string_view name;
};

template <class E, size_t N>
using EnumNames = std::array<EnumName<E>, N>;

template <class E>
concept MoxEnum = std::is_enum_v<E> && requires(E e) {
   moxEnumNames(e);
};

template <MoxEnum E>
constexpr std::string_view stringValue(E e) {
   for (auto const& n : moxEnumNames(E{})) {
      if (n.value == e) return n.name;
   }
   return "???";
}

template <MoxEnum E>
constexpr std::optional<E> enumFromValue(std::underlying_type_t<E> v) {
   for (auto const& n : moxEnumNames(E{})) {
      if (static_cast<std::underlying_type_t<E>>(n.value) == v) return n.value;
   }
   return std::nullopt;
}

template <MoxEnum E>
constexpr std::optional<E> enumFromName(std::string_view name) {
   for (auto const& n : moxEnumNames(E{})) {
      if (n.name == name) return n.value;
   }
   return std::nullopt;
}

template <MoxEnum E>
constexpr auto enumValue(E e) {
   return static_cast<std::underlying_type_t<E>>(e);
}

template <MoxEnum E>
std::ostream& streamEnum(std::ostream& os, E e) {
   return os << stringValue(e);
}

}  // namespace Mox
