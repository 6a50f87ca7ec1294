// Names and strings of the framework.
#pragma once

#include <compare>
#include <cstring>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

namespace Mox {

// A short string used for entity names.
class Name {
public:
   Name() = default;
   Name(char const* s) : s_(s) {}
   Name(std::string s) : s_(std::move(s)) {}
   Name(std::string_view s) : s_(s) {}

   std::string const& string() const { return s_; }
   char const* charPtr() const { return s_.c_str(); }
   bool empty() const { return s_.empty(); }
   size_t size() const { return s_.size(); }
   operator std::string_view() const { return s_; }

   bool operator==(Name const&) const = default;
   auto operator<=>(Name const&) const = default;
   friend std::ostream& operator<<(std::ostream& os, Name const& n) { return os << n.s_; }

private:
   std::string s_;
};

// A reference-counted, immutable string: copies share one buffer.
class String {
public:
   String() = default;
   String(char const* s) : String(std::string_view(s)) {}
   String(std::string_view s) {
      if (!s.empty()) p_ = std::make_shared<std::string const>(s);
   }
   String(std::string const& s) : String(std::string_view(s)) {}

   char const* charPtr() const { return p_ ? p_->c_str() : ""; }
   std::string_view view() const { return p_ ? std::string_view(*p_) : std::string_view(); }
   std::string string() const { return std::string(view()); }
   size_t size() const { return view().size(); }
   bool empty() const { return view().empty(); }
   operator std::string_view() const { return view(); }

   String operator+(String const& o) const { return String(string() + std::string(o.view())); }
   String& operator+=(String const& o) { return *this = *this + o; }

   bool operator==(String const& o) const { return view() == o.view(); }
   auto operator<=>(String const& o) const { return view() <=> o.view(); }
   friend std::ostream& operator<<(std::ostream& os, String const& s) { return os << s.view(); }

private:
   std::shared_ptr<std::string const> p_;
};

}  // namespace Mox

template <>
struct std::hash<Mox::Name> {
   size_t operator()(Mox::Name const& n) const noexcept { return std::hash<std::string_view>()(n); }
};

template <>
struct std::hash<Mox::String> {
   size_t operator()(Mox::String const& s) const noexcept {
      return std::hash<std::string_view>()(s.view());
   }
};
