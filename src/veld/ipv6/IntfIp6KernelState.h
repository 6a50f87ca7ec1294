// What the IPv6 machine last wrote to an interface's /proc settings, so that an unchanged
// value is never written again, with a count of the successful writes of each setting; and
// the record of the disable_ipv6 value last written per interface.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "konet/IntfId.h"
#include "mox/HashMap.h"
#include "veld/ProcValue.h"

namespace Veld {

class IntfIp6KernelState {
public:
   // The settings in the order they are written.
   enum Setting : uint8_t {
      forwarding,
      customNsSource,
      useCustomNsSource,
      nsRetransTime,
      acceptDad,
      enhancedDad,
      acceptRedirects,
      acceptRa,
      acceptRaPinfo,
      autoconf,
      acceptRaDefRtr,
      kSettings
   };

   bool needsWrite(Setting s, std::string const& value) const { return !written_[s].is(value); }
   void writtenIs(Setting s, std::string const& value) {
      written_[s] = value;
      ++updates_[s];
   }
   // The kernel held `value` already: recorded, not counted as a write.
   void heldIs(Setting s, std::string const& value) { written_[s] = value; }
   ProcValue const& written(Setting s) const { return written_[s]; }
   uint32_t updates(Setting s) const { return updates_[s]; }

   uint32_t numForwardingUpdates() const { return updates_[forwarding]; }
   uint32_t numNsRetransIntervalUpdates() const { return updates_[nsRetransTime]; }
   uint32_t numAcceptDadUpdates() const { return updates_[acceptDad]; }
   uint32_t numEnhancedDadUpdates() const { return updates_[enhancedDad]; }
   uint32_t numAcceptIcmpRedirectIPv6Updates() const { return updates_[acceptRedirects]; }
   uint32_t numAcceptRaUpdates() const { return updates_[acceptRa]; }
   uint32_t numAcceptRaPrefixInfoUpdates() const { return updates_[acceptRaPinfo]; }
   uint32_t numAutoconfUpdates() const { return updates_[autoconf]; }
   uint32_t numAcceptRaDefRtrUpdates() const { return updates_[acceptRaDefRtr]; }

   // The kernel device the values were written to (its ifindex): they go with it.
   uint32_t ifIndex() const { return ifIndex_; }
   void ifIndexIs(uint32_t ifIndex) { ifIndex_ = ifIndex; }

private:
   std::array<ProcValue, kSettings> written_{};
   std::array<uint32_t, kSettings> updates_{};
   uint32_t ifIndex_ = 0;
};

// The IPv6 enable state last written through disable_ipv6, per interface.
struct ProcIpv6Set {
   Mox::HashMap<Konet::IntfId, bool> procIpv6Enabled;
};

}  // namespace Veld
