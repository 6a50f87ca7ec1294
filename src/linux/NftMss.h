// TCP MSS clamping through nftables, in the calling thread's network namespace.
//
// The agent owns one table there, "inet veld", with one chain, "mss", on the forward hook.
// Each clamped device has up to two rules in it, found by the device they match:
//
//    iifname "<dev>" tcp flags syn tcp option maxseg size > N tcp option maxseg size set N
//    oifname "<dev>" tcp flags syn tcp option maxseg size > M tcp option maxseg size set M
//
// for an ingress clamp N and an egress clamp M: SYNs (and SYN-ACKs) that arrive on the
// device, or leave through it, carry at most that MSS. Traffic the switch itself sends or
// receives is not clamped. A clamp of 0 is no clamp (no rule). Everything returns 0 or a
// positive errno; `error`, when given, receives the text of a failure.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace Konet {

struct MssClamp {
   uint16_t ingress = 0;
   uint16_t egress = 0;
   bool none() const { return ingress == 0 && egress == 0; }
   friend bool operator==(MssClamp const&, MssClamp const&) = default;
};

inline constexpr char const* kMssTable = "veld";  // family inet
inline constexpr char const* kMssChain = "mss";

// The clamps in the agent's table, by device; no table is no clamps.
int mssClampDump(std::map<std::string, MssClamp>* out, std::string* error = nullptr);

// Replaces the device's rules with those of `clamp`, in one transaction: the device's old
// rules go (however many there are), the new ones come. Creates the table and chain when
// there is something to clamp. EINVAL for a device name the kernel or nftables would refuse.
int mssClampSet(std::string const& dev, MssClamp clamp, std::string* error = nullptr);

}  // namespace Konet
