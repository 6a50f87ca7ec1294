// What the IPv4 machine last wrote to an interface's /proc settings, so that an unchanged
// value is never written again, with a count of the writes of each setting.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include "mox/Enum.h"
#include "veld/ProcValue.h"

namespace Veld {

class IntfIpKernelState {
public:
   // The kernel's reverse-path filter modes, written as their numbers.
   enum class RpFilterMode : uint8_t { off = 0, strict = 1, loose = 2 };

   static constexpr size_t kOptions = 10;

   // The value last written for option `opt` (a IpIntfSm::IpIntfConfOptType), if any.
   ProcValue const& written(size_t opt) const { return written_[opt]; }
   bool needsWrite(size_t opt, std::string const& value) const { return !written_[opt].is(value); }
   void writtenIs(size_t opt, std::string const& value) {
      written_[opt] = value;
      ++updates_[opt];
   }
   // Records a value that needed no write: the kernel had no file for it (ENOENT), or
   // already held it. Not asked again until the value or the device changes.
   void heldIs(size_t opt, std::string const& value) { written_[opt] = value; }
   // Forgets what was written, so that everything is written again (the device was
   // re-created, or the machine was asked to resync).
   void clear() { written_ = {}; }

   uint32_t updates(size_t opt) const { return updates_[opt]; }
   uint32_t numForwardingUpdates() const { return updates_[0]; }
   uint32_t numRpFilterUpdates() const { return updates_[1]; }
   uint32_t numProxyArpUpdates() const { return updates_[2]; }
   uint32_t numArpIgnoreUpdates() const { return updates_[3]; }
   uint32_t numLocalProxyArpUpdates() const { return updates_[4]; }
   uint32_t numAcceptIcmpRedirectIPv4Updates() const { return updates_[5]; }
   uint32_t numSendIcmpRedirectIPv4Updates() const { return updates_[6]; }
   uint32_t numUseIcmpSrcIpAddrUpdates() const { return updates_[7]; }
   uint32_t numGratArpAcceptUpdates() const { return updates_[8]; }
   uint32_t numDirectedBroadcastUpdates() const { return updates_[9]; }

   // The kernel device the values were written to (its ifindex): they go with it.
   uint32_t ifIndex() const { return ifIndex_; }
   void ifIndexIs(uint32_t ifIndex) { ifIndex_ = ifIndex; }

   RpFilterMode rpFilterMode() const { return rpFilterMode_; }
   void rpFilterModeIs(RpFilterMode m) { rpFilterMode_ = m; }

   // The device-level settings written with the options (promote_secondaries, ...).
   ProcValue& extra(size_t i) { return extra_[i]; }

private:
   std::array<ProcValue, kOptions> written_{};
   std::array<uint32_t, kOptions> updates_{};
   std::array<ProcValue, 3> extra_{};
   RpFilterMode rpFilterMode_ = RpFilterMode::off;
   uint32_t ifIndex_ = 0;
};

constexpr auto moxEnumNames(IntfIpKernelState::RpFilterMode) {
   using M = IntfIpKernelState::RpFilterMode;
   return Mox::EnumNames<M, 3>{{{M::off, "off"}, {M::strict, "strict"}, {M::loose, "loose"}}};
}
inline std::ostream& operator<<(std::ostream& os, IntfIpKernelState::RpFilterMode m) {
   return Mox::streamEnum(os, m);
}

}  // namespace Veld
