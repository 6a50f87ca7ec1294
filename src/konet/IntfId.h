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

   std::string const& name() const { return p_->name; }
   std::string const& toString() const { return p_->name; }
   bool empty() const { return p_->name.empty(); }
   size_t hash() const { return p_->hash; }

   bool isLoopback() const { return p_->name.starts_with("Loopback"); }
   bool isManagement() const { return p_->name.starts_with("Management"); }

   // Each name is stored once: equal names are the same entry.
   friend bool operator==(IntfId const& a, IntfId const& b) { return a.p_ == b.p_; }
   friend std::strong_ordering operator<=>(IntfId const& a, IntfId const& b) {
      return a.p_ == b.p_ ? std::strong_ordering::equal : a.p_->name <=> b.p_->name;
   }

   // One stored name. Interfaces are few and long-lived, and every machine keys its tables by
   // them: an IntfId is a pointer to its name's entry, which lives as long as the process.
   struct Entry {
      std::string name;
      size_t hash = 0;
   };

private:
   static Entry const* intern(std::string_view name);
   static Entry const kEmpty;
   Entry const* p_ = &kEmpty;
};

std::ostream& operator<<(std::ostream& os, IntfId const& id);
// What traces record of it (mox/TraceArg.h): what it prints.
inline std::string_view traceText(IntfId const& id) { return id.name(); }

}  // namespace Konet

template <>
struct std::hash<Konet::IntfId> {
   size_t operator()(Konet::IntfId const& id) const noexcept { return id.hash(); }
};
