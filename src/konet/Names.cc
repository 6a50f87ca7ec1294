#include "konet/IntfId.h"

#include <memory>
#include <mutex>
#include <unordered_map>

#include "konet/NamespaceName.h"
#include "konet/Quoted.h"
#include "konet/VrfName.h"
#include "mox/Error.h"

namespace Konet {

// IntfId

IntfId::Entry const IntfId::kEmpty{"", 0};

// The table of stored names: never freed, so that an IntfId in a static object stays valid
// to the end; guarded, since names may be made on any thread.
IntfId::Entry const* IntfId::intern(std::string_view name) {
   if (name.empty()) return &kEmpty;
   struct Table {
      std::mutex mutex;
      std::unordered_map<std::string_view, std::unique_ptr<Entry>> entries;
   };
   static Table* const table = new Table;
   std::lock_guard lock(table->mutex);
   auto found = table->entries.find(name);
   if (found != table->entries.end()) return found->second.get();
   auto entry =
       std::make_unique<Entry>(Entry{std::string(name), std::hash<std::string_view>()(name)});
   std::string_view const key = entry->name;
   return table->entries.emplace(key, std::move(entry)).first->second.get();
}

IntfId::IntfId(std::string_view name) {
   MOX_ASSERT(parse(name).has_value());
   p_ = intern(name);
}

std::optional<IntfId> IntfId::parse(std::string_view text, std::string* error) {
   auto bad = [&](char const* why) -> std::optional<IntfId> {
      if (error) *error = quoted(text) + " is not an interface name: " + why;
      return std::nullopt;
   };
   if (text.empty()) return bad("empty");
   if (text.size() > maxLength) return bad("too long");
   auto isLetter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
   if (!isLetter(text[0])) return bad("it must begin with a letter");
   for (char c : text) {
      bool ok = isLetter(c) || (c >= '0' && c <= '9') || c == '/' || c == '.' || c == ':' ||
                c == '_' || c == '-';
      if (!ok) return bad("only letters, digits and \"/.:_-\" are allowed");
   }
   IntfId id;
   id.p_ = intern(text);
   return id;
}

std::ostream& operator<<(std::ostream& os, IntfId const& id) { return os << id.name(); }

// NamespaceName

NamespaceName::NamespaceName(std::string_view name) {
   if (name.size() > maxLength) Mox::throwRangeException("NamespaceName::bytes > 150 not allowed");
   name_ = name;
}

std::ostream& operator<<(std::ostream& os, NamespaceName const& ns) { return os << ns.name(); }

}  // namespace Konet

namespace L3 {

VrfName::VrfName(std::string_view name) {
   if (name.size() > maxLength) {
      Mox::throwRangeException("VrfName::bytes > VrfName::maxLength not allowed");
   }
   name_ = name;
}

std::ostream& operator<<(std::ostream& os, VrfName const& v) { return os << v.name(); }

}  // namespace L3
