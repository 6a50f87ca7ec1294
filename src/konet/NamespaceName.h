// The name of a network namespace: a named namespace under /run/netns, or the default
// namespace (the agent's own), spelled DEFAULT_NS or empty.
//
// The type bounds the length only; the Linux layer checks the characters where a name
// enters a path (src/linux/SafeName.h).
#pragma once

#include <compare>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include "mox/Error.h"

namespace Konet {

inline constexpr std::string_view DEFAULT_NS = "default";

class NamespaceName {
public:
   static constexpr size_t maxLength = 150;

   NamespaceName() = default;
   // Longer than maxLength: Mox::RangeException "NamespaceName::bytes > 150 not allowed".
   NamespaceName(std::string_view name);  // NOLINT: a name is written as text
   NamespaceName(char const* name) : NamespaceName(std::string_view(name)) {}  // NOLINT

   static NamespaceName defaultNamespace() { return NamespaceName(DEFAULT_NS); }

   std::string const& name() const { return name_; }
   std::string const& toString() const { return name_; }
   char const* c_str() const { return name_.c_str(); }
   // The default namespace: "" or "default".
   bool isDefault() const { return name_.empty() || name_ == DEFAULT_NS; }

   friend bool operator==(NamespaceName const&, NamespaceName const&) = default;
   friend std::strong_ordering operator<=>(NamespaceName const&, NamespaceName const&) = default;

private:
   std::string name_;
};

std::ostream& operator<<(std::ostream& os, NamespaceName const& ns);
inline std::string_view traceText(NamespaceName const& ns) { return ns.name(); }

}  // namespace Konet

template <>
struct std::hash<Konet::NamespaceName> {
   size_t operator()(Konet::NamespaceName const& n) const noexcept {
      return std::hash<std::string>()(n.name());
   }
};
