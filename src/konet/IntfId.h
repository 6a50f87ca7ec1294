// An interface identifier: the switch's name of an interface ("Ethernet1", "Ethernet3/1",
// "Vlan10", "Management1", "Loopback0", "Port-Channel5"). It is not a kernel device name:
// the device that carries an interface has its own name, known from interface status.
// The default-constructed IntfId is empty and means "no interface".
#pragma once

#include <compare>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace Konet {

class IntfId {
public:
   static constexpr size_t maxLength = 100;

   IntfId() = default;
   // Asserts that the name is valid (see parse); names from outside go through parse.
   explicit IntfId(std::string_view name);

   // A letter, then letters, digits and "/.:_-"; at most maxLength bytes.
   static std::optional<IntfId> parse(std::string_view text, std::string* error = nullptr);

   std::string const& name() const { return name_; }
   std::string const& toString() const { return name_; }
   bool empty() const { return name_.empty(); }

   bool isLoopback() const { return name_.starts_with("Loopback"); }
   bool isManagement() const { return name_.starts_with("Management"); }

   friend bool operator==(IntfId const&, IntfId const&) = default;
   friend std::strong_ordering operator<=>(IntfId const&, IntfId const&) = default;

private:
   std::string name_;
};

std::ostream& operator<<(std::ostream& os, IntfId const& id);
// What traces record of it (mox/TraceArg.h): what it prints.
inline std::string_view traceText(IntfId const& id) { return id.name(); }

}  // namespace Konet

template <>
struct std::hash<Konet::IntfId> {
   size_t operator()(Konet::IntfId const& id) const noexcept {
      return std::hash<std::string>()(id.name());
   }
};
