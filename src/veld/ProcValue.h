// The value last written to (or found in) one /proc setting of a device, or none.
//
// The machines keep one per setting per interface, and the settings take numbers: the text
// is kept in place, without a string of its own. A value too long to keep is not kept (as if
// nothing had been written), so that the next pass writes it again rather than trust it.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

namespace Veld {

class ProcValue {
public:
   static constexpr size_t kMaxSize = 15;

   ProcValue() = default;
   ProcValue(std::string_view v) { *this = v; }
   ProcValue& operator=(std::string_view v) {
      if (v.size() > kMaxSize) {
         size_ = kNone;
         return *this;
      }
      std::memcpy(text_, v.data(), v.size());
      size_ = static_cast<uint8_t>(v.size());
      return *this;
   }

   bool known() const { return size_ != kNone; }
   explicit operator bool() const { return known(); }
   // The value; empty when none is known.
   std::string_view view() const { return known() ? std::string_view(text_, size_) : ""; }
   // Whether the value is known and is v.
   bool is(std::string_view v) const { return known() && view() == v; }

private:
   static constexpr uint8_t kNone = 0xff;
   char text_[kMaxSize];
   uint8_t size_ = kNone;
};

}  // namespace Veld
