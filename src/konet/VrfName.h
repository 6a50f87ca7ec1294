// The name of a VRF; "default" is the default VRF.
#pragma once

#include <compare>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "mox/Error.h"

namespace L3 {

class VrfName {
public:
   static constexpr size_t maxLength = 100;
   static constexpr std::string_view defaultVrfName = "default";

   // The default VRF.
   VrfName() : name_(defaultVrfName) {}
   // Longer than maxLength: Mox::RangeException
   // "VrfName::bytes > VrfName::maxLength not allowed".
   VrfName(std::string_view name);  // NOLINT: a name is written as text
   VrfName(char const* name) : VrfName(std::string_view(name)) {}  // NOLINT

   static VrfName defaultVrf() { return VrfName(); }

   std::string const& name() const { return name_; }
   std::string const& toString() const { return name_; }
   bool isDefault() const { return name_ == defaultVrfName; }

   friend bool operator==(VrfName const&, VrfName const&) = default;
   friend std::strong_ordering operator<=>(VrfName const&, VrfName const&) = default;

private:
   std::string name_;
};

std::ostream& operator<<(std::ostream& os, VrfName const& v);
inline std::string_view traceText(VrfName const& v) { return v.name(); }

}  // namespace L3

template <>
struct std::hash<L3::VrfName> {
   size_t operator()(L3::VrfName const& v) const noexcept {
      return std::hash<std::string>()(v.name());
   }
};
