// IpIntfSm: the kernel work of one backlog entry (addresses, IFF_NOARP, MSS clamps,
// per-interface settings) and the namespace-wide settings. Runs inside the VRF's namespace.
#include <linux/if_addr.h>

#include <cstring>

#include "mox/Trace.h"
#include "veld/addr/NoArp.h"
#include "veld/ipv4/IpIntfConfigReactors.h"
#include "veld/ipv4/IpIntfSm.h"

namespace Veld {

namespace {

Mox::TraceHandle th("Veld");

using Opt = IpIntfSm::IpIntfConfOptType;

char const* const kOptFile[] = {
    "forwarding",       "rp_filter",      "proxy_arp",           "arp_ignore", "proxy_arp_pvlan",
    "accept_redirects", "send_redirects", "use_icmp_src_ipaddr", "arp_accept", "bc_forwarding",
};

char const* bit(bool on) { return on ? "1" : "0"; }

}  // namespace

// ---- Addresses

void IpIntfSm::addIpToIntf(Konet::IntfId const& intf, Konet::IpAddrWithMask const& addr,
                           KernelNetInfo::InterfaceKey ifKey, std::string const& deviceName,
                           uint32_t ifaFlags) {
   auto g = in_.addrMap->genAddr(ifKey);
   if (g && g->addr(addr)) {
      MOX_TRACE(th, 7, "Adding ip addr " << addr << " to " << deviceName << " already exists");
      return;
   }
   MOX_TRACE(th, 5, "Adding ip addr " << addr << " to " << deviceName);
   queuedAdds_.push_back({ifKey, deviceName, addr, ifaFlags});
   if (statusAfterAdds_.empty() || statusAfterAdds_.back() != intf)
      statusAfterAdds_.push_back(intf);
}

void IpIntfSm::flushAdds() {
   if (!queuedAdds_.empty()) {
      std::vector<Konet::IpAddrAdd> adds;
      adds.reserve(queuedAdds_.size());
      for (auto const& q : queuedAdds_)
         adds.push_back({static_cast<int>(q.ifKey.ifIndex), q.addr, q.ifaFlags});
      std::vector<int> results;
      kernelIo().ipAddrAddAll(in_.netlinkSocket, adds, &results);
      for (size_t i = 0; i < queuedAdds_.size(); ++i) {
         auto const& q = queuedAdds_[i];
         if (results[i] == 0) {
            in_.addrMap->addAddr(q.ifKey, q.addr);
         } else if (results[i] == EINVAL) {
            Mox::logMessage(
                Mox::LogSeverity::error, "VELD-ADDR",
                "Failed to assign address " + q.addr.toString() + " to interface " + q.deviceName);
         } else {
            Mox::logFailure("VELD-ADDR", "Failed to update interface address of " + q.deviceName,
                            results[i]);
         }
      }
      queuedAdds_.clear();
   }
   // The status shows what the kernel holds now.
   auto intfs = std::move(statusAfterAdds_);
   statusAfterAdds_.clear();
   for (auto const& intf : intfs)
      doUpdateIpStatusAddr(intf);
}

Mox::HashSet<Konet::IpAddrWithMask> IpIntfSm::wantedAddrs(
    Mox::Ptr<Ip::IpIntfConfig const> const& config, bool running) const {
   Mox::HashSet<Konet::IpAddrWithMask> wanted;
   if (!config || !running || configVrf(config) != in_.vrfName) return wanted;
   if (config->addrWithMask().len()) wanted.insert(config->addrWithMask());
   if (config->virtualAddrWithMask().len()) wanted.insert(config->virtualAddrWithMask());
   for (auto const& a : config->secondaryWithMaskIterator())
      wanted.insert(a);
   for (auto const& a : config->virtualSecondaryWithMaskIterator())
      wanted.insert(a);
   return wanted;
}

// The kernel makes the first address of a subnet on a device its primary and every later
// one a secondary, and promotes a secondary when the primary goes. The configured primary
// is the primary of its subnet only if it came first: when another address of the subnet is
// there before it (a primary that changed, a secondary promoted meanwhile), the subnet's
// addresses leave together, with promote_secondaries off as in a flush, and the adds that
// follow put the primary back first. The kernel's flags come from the mirror; an address
// the mirror does not show yet is taken as it was added.
void IpIntfSm::regroupPrimarySubnet(Mox::Ptr<Ip::IpIntfConfig const> const& config,
                                    KernelNetInfo::Interface const& kniIntf) {
   auto primary = config->addrWithMask();
   auto g = in_.addrMap->genAddr(kniIntf.key);
   if (!primary.len() || !g) return;
   std::vector<Konet::IpAddrWithMask> subnet;
   for (auto const& a : g->addrIterator().keys()) {
      if (a != primary && a.len() == primary.len() && a.subnet() == primary.subnet()) {
         subnet.push_back(a);
      }
   }
   if (subnet.empty()) return;
   if (g->addr(primary)) {
      KernelNetInfo::IpKey key{kniIntf.key, Konet::IpGenAddr(primary.addr()), primary.len()};
      auto const* state = kniRoot_->status()->ipState().find(key);
      if (!state || !(state->flags & KernelNetInfo::kIfaSecondary)) return;
      subnet.push_back(primary);
   }
   auto const& dev = kniIntf.deviceName;
   MOX_TRACE(th, 5, "Primary " << primary << " of " << dev << " is not first in its subnet");
   writeDeviceProc(kniIntf, "promote_secondaries", "0");
   for (auto const& a : subnet) {
      MOX_TRACE(th, 5, "Deleting ip addr " << a << " from " << dev);
      delIpFromIntf(kniIntf, a);
   }
   writeDeviceProc(kniIntf, "promote_secondaries", "1");
}

bool IpIntfSm::prefixRouteDiffers(KernelNetInfo::Interface const& kniIntf,
                                  uint32_t ifaFlags) const {
   auto g = in_.addrMap->genAddr(kniIntf.key);
   if (!g) return false;
   for (auto const& a : g->addrIterator().keys()) {
      KernelNetInfo::IpKey key{kniIntf.key, Konet::IpGenAddr(a.addr()), a.len()};
      auto const* state = kniRoot_->status()->ipState().find(key);
      if (state && (state->flags & IFA_F_NOPREFIXROUTE) != (ifaFlags & IFA_F_NOPREFIXROUTE)) {
         return true;
      }
   }
   return false;
}

// Deletes one address of the device and keeps the address map in step; a failure is logged
// and left to the next visit.
void IpIntfSm::delIpFromIntf(KernelNetInfo::Interface const& kniIntf,
                             Konet::IpAddrWithMask const& addr) {
   int err = kernelIo().ipAddrDel(in_.netlinkSocket, static_cast<int>(kniIntf.key.ifIndex), addr);
   if (err == 0) {
      in_.addrMap->delAddr(kniIntf.key, addr);
   } else {
      Mox::logFailure("VELD-ADDR",
                      "Error deleting " + addr.toString() + " from " + kniIntf.deviceName, err);
   }
}

bool IpIntfSm::doUpdateKernelAddrIntf(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf << " in Ns " << nsName() << " vrf " << in_.vrfName);
   if (!in_.kernelIntfDir || !in_.ipConfig || !kniRoot_ || !in_.addrMap) {
      MOX_TRACE(th, 5,
                " exiting for " << intf << " kernelIntfDir() "
                                << (in_.kernelIntfDir ? "present" : "missing") << " config() "
                                << (in_.ipConfig ? "present" : "missing") << " kernelNetInfoRoot() "
                                << (kniRoot_ ? "present" : "missing") << " VRF: " << in_.vrfName);
      return false;
   }
   auto config = routedIpIntfConfig(intf);
   if (standbyMode_) MOX_TRACE(th, 5, "Standby Veld skipping larder update for " << intf);

   auto dev = in_.kernelIntfDir->intfStatusAndDeviceName(intf).second;
   if (dev.empty()) {
      // The device is not (or no longer) in this namespace: nothing here to program.
      MOX_TRACE(th, 5, "No deviceName set for " << intf);
      doUpdateIpStatusAddr(intf);
      return false;
   }
   auto kniIntf = kniRoot_->interfaceByName(dev);
   if (kniIntf == KernelNetInfo::Interface()) {
      // The mirror can trail the interface status by an event; when the record appears,
      // its KniIntfState schedules the interface again.
      MOX_TRACE(th, 5, "no kernel record for " << dev << " yet");
      return false;
   }
   bool running = kniIntf.running();
   L3::VrfName intfVrf = configVrf(config);
   bool sameVrf = config && intfVrf == in_.vrfName;
   MOX_TRACE(th, 6, "interface " << dev << ": running=" << running);
   MOX_TRACE(th, 6, "interface VRF: " << intfVrf << ", my VRF: " << in_.vrfName);

   if (config && sameVrf) intfStatusEnsure(intf, config);

   int sock = in_.netlinkSocket;
   {
      // No ARP while either family's configuration of the routed interface asks for it.
      auto ip6 = in_.vrfIp6IntfConfig ? in_.vrfIp6IntfConfig->ipIntfConfig(intf) : nullptr;
      auto status = in_.kernelIntfDir->intfStatus(intf);
      doUpdateNoArp(
          kernelIo(), sock, kniIntf,
          noArpWanted(status.ptr(), config && sameVrf ? config.ptr() : nullptr, ip6.ptr()));
   }

   // The same for MSS clamps: a device routed here is clamped as configured, one that
   // leaves the routed set is not clamped any more.
   doUpdateMss(dev, config && sameVrf
                        ? Konet::MssClamp{config->maxMssIngress(), config->maxMssEgress()}
                        : Konet::MssClamp{});

   auto g = in_.addrMap->genAddrIs(kniIntf.key);
   MOX_TRACE(th, 6,
             "kii for ifIndex=" << kniIntf.key << " intfName=" << dev << " has "
                                << g->addrIterator().size() << " addresses");

   // What this VRF wants on the device; nothing when it is not routed here.
   auto wanted = wantedAddrs(config, true);
   bool mayAdd =
       config && sameVrf && running &&
       !(ipIntfKernelUpdateCodef(intf) && ipIntfKernelUpdateCodef(intf)->procUpdatePending);
   if (mayAdd) regroupPrimarySubnet(config, kniIntf);
   // Addresses the kernel holds (as far as the map knows) that nobody wants go.
   for (auto const& a : g->addrIterator().keys()) {
      if (wanted.contains(a)) continue;
      auto status = ipIntfStatusOf(intf);
      if (status && status->activeSecondaryWithMask(a)) {
         MOX_TRACE(th, 5, "Deleting secondary ip address " << a << " for " << intf);
      } else {
         MOX_TRACE(th, 5, "Deleting ip addr " << a << " from " << dev);
      }
      delIpFromIntf(kniIntf, a);
   }

   updateDpRoutingEnabled(intf);

   // A device takes addresses once its per-interface settings are in the kernel
   // (promote_secondaries above all), so the settings of this entry go first.
   if (auto const* entry = ipIntfKernelUpdateCodef(intf); entry && entry->procUpdatePending) {
      MOX_TRACE(th, 5, " Deferring adding addresses for " << intf);
      return true;
   }

   if (config && sameVrf && running) {
      // An interface without attached routes has its addresses without their subnet
      // routes. The kernel keeps an IPv4 address's flags when it is added again, so a change
      // of the setting takes the device's addresses out (a flush: nothing promoted), and the
      // next visit, once the mirror has seen them go, puts them back as they must be now,
      // the primary first.
      uint32_t ifaFlags = config->attachedRoutes() ? 0 : IFA_F_NOPREFIXROUTE;
      if (prefixRouteDiffers(kniIntf, ifaFlags)) {
         MOX_TRACE(th, 5,
                   "Re-adding the addresses of " << dev << " with attached routes "
                                                 << config->attachedRoutes());
         procWrittenIs(kniIntf.key, "promote_secondaries");
         int err = kernelIo().ipAddrFlush(sock, static_cast<int>(kniIntf.key.ifIndex), dev,
                                          nsName().name());
         if (err) {
            Mox::logFailure("VELD-ADDR", "Failed to flush interface addresses of " + dev, err);
         }
         in_.addrMap->flushAddr(kniIntf.key);
         return true;
      }
      // The primary first, so that the kernel makes it the primary of its subnet.
      auto add = [&](Konet::IpAddrWithMask const& a) {
         if (a.len()) addIpToIntf(intf, a, kniIntf.key, dev, ifaFlags);
      };
      add(config->addrWithMask());
      for (auto const& a : config->secondaryWithMaskIterator())
         add(a);
      add(config->virtualAddrWithMask());
      for (auto const& a : config->virtualSecondaryWithMaskIterator())
         add(a);
      // With adds queued, the status follows when they are sent.
      if (statusAfterAdds_.empty() || statusAfterAdds_.back() != intf) doUpdateIpStatusAddr(intf);
      return false;
   }

   if (config) {
      // A routed interface whose device is down, or that belongs to another VRF, keeps no
      // IPv4 address: flush them all, without the kernel promoting secondaries meanwhile.
      MOX_TRACE(th, 5, "ipIntf " << intf << " running " << running << " sameVrf " << sameVrf);
      MOX_TRACE(th, 5,
                "ipAddrFlush sd " << sock << " ifindex " << kniIntf.key << " devName " << dev
                                  << " ns " << nsName());
      procWrittenIs(kniIntf.key, "promote_secondaries");  // the flush's
      int err =
          kernelIo().ipAddrFlush(sock, static_cast<int>(kniIntf.key.ifIndex), dev, nsName().name());
      if (err) {
         Mox::logFailure("VELD-ADDR", "Failed to flush interface addresses of " + dev, err);
      }
      in_.addrMap->flushAddr(kniIntf.key);
   }
   doClearStatusAddrs(ipIntfStatusOf(intf));
   return false;
}

// ---- MSS clamps

void IpIntfSm::doUpdateMss(std::string const& dev, Konet::MssClamp want) {
   std::string error;
   if (!mssHeld_) {
      // What an earlier run of the agent left is ours to correct, so the namespace's clamps
      // are read once. Where they cannot be read (a kernel without nftables) an interface
      // that asks for no clamp is not an error, and does not ask again.
      if (want.none() && mssUnreadable_) return;
      std::map<std::string, Konet::MssClamp> held;
      if (int err = kernelIo().mssClampDump(&held, &error)) {
         mssUnreadable_ = true;
         if (!want.none()) {
            Mox::logFailure("VELD-MSS",
                            "Failed to read the MSS clamps of namespace " + nsName().name() +
                                " for " + dev + ": " + error,
                            err);
         }
         return;
      }
      mssHeld_ = std::move(held);
   }
   auto it = mssHeld_->find(dev);
   if ((it == mssHeld_->end() ? Konet::MssClamp{} : it->second) == want) return;
   MOX_TRACE(th, 5,
             "MSS clamps of " << dev << ": ingress " << want.ingress << " egress " << want.egress);
   if (int err = kernelIo().mssClampSet(dev, want, &error)) {
      Mox::logFailure("VELD-MSS",
                      "Failed to set the MSS clamps of " + dev + " to ingress " +
                          std::to_string(want.ingress) + " egress " + std::to_string(want.egress) +
                          ": " + error,
                      err);
      return;
   }
   if (want.none()) {
      mssHeld_->erase(dev);
   } else {
      (*mssHeld_)[dev] = want;
   }
}

// ---- Per-interface settings

int IpIntfSm::doUpdateProcConfigOpt(Konet::IntfId const& intf, IpIntfConfOptType opt,
                                    IntfIpKernelState& state,
                                    KernelNetInfo::Interface const& kniIntf,
                                    Mox::Ptr<Ip::IpIntfConfig const> const& config) {
   auto const& dev = kniIntf.deviceName;
   bool routing = in_.routingInfoConfig && in_.routingInfoConfig->routing();
   std::string value;
   switch (opt) {
      case Opt::confOptForwarding:
         value = bit(isForwardingEnabled(intf, ipIntfStatusOf(intf), config, routing));
         break;
      case Opt::confOptRPFilter: {
         // The kernel checks reverse paths only where the hardware cannot: the configured mode
         // when the forwarding hardware lacks uRPF, off when it does the check itself.
         using M = IntfIpKernelState::RpFilterMode;
         auto mode = config ? config->urpf().mode : Urpf::UrpfMode::disable;
         M rp = M::off;
         if (!(in_.routingHardwareStatus && in_.routingHardwareStatus->urpfSupported())) {
            rp = mode == Urpf::UrpfMode::strict    ? M::strict
                 : mode == Urpf::UrpfMode::disable ? M::off
                                                   : M::loose;
         }
         state.rpFilterModeIs(rp);
         value = std::to_string(Mox::enumValue(rp));
         break;
      }
      case Opt::confOptProxyArp:
         value = bit((config && config->proxyArpEnabled()) ||
                     (in_.proxyArpVirtualMac && in_.proxyArpVirtualMac->intf(intf)));
         break;
      case Opt::confOptArpIgnore:
         // A router answers ARP on an interface only for that interface's own addresses.
         value = "1";
         break;
      case Opt::confOptLocalProxyArp:
         value = bit(config && config->localProxyArpEnabled());
         break;
      case Opt::confOptAcceptIcmpRedirectIPv4:
         value = "0";
         break;
      case Opt::confOptSendIcmpRedirectIPv4:
         value = bit(in_.ipConfig && in_.ipConfig->sendRedirects());
         break;
      case Opt::confOptUseIcmpSrcIpAddr:
         // Management interfaces answer from their own address; the others use the
         // configured ICMP source address when there is one.
         value =
             bit(!intf.isManagement() && in_.ipConfig &&
                 (!in_.ipConfig->icmpSrcIpAddr().isZero() || !in_.ipConfig->icmpSrcIntf().empty()));
         break;
      case Opt::confOptGratuitousArpAccept:
         value = bit(config && config->gratuitousArpAccepted());
         break;
      case Opt::confOptDirectedBroadcast:
         // The kernel forwards a directed broadcast out of a device only when both the
         // device and "all" allow it; "all" is always on (doUpdateGlobalKnobs), so the
         // device's own value decides.
         value = bit(config && config->directedBroadcastEnabled());
         break;
   }
   auto i = static_cast<size_t>(opt);
   if (!state.needsWrite(i, value)) return 0;
   if (!kernelHasConf(kOptFile[i])) {
      state.heldIs(i, value);  // a setting this kernel does not have
      return 0;
   }
   if (!state.written(i) && kernelHolds(kniIntf, kOptFile[i], value)) {
      state.heldIs(i, value);
      ++procWritesSkipped_;
      return 0;
   }
   std::string path = std::string(kProcConfDir) + dev + "/" + kOptFile[i];
   int err = writeDeviceProc(kniIntf, kOptFile[i], value);
   if (err == ENOENT) {
      // A file this kernel lacks, or a device that went (its return resets the record).
      state.heldIs(i, value);
      return 0;
   }
   if (err) {
      MOX_TRACE(th, 3, "Failed (err: " << err << ") to write " << value << " to " << path);
      return err;
   }
   state.writtenIs(i, value);
   if (opt == Opt::confOptRPFilter) {
      MOX_TRACE(th, 5, "Flushing kernel route cache");
      kernelIo().writeProcSys("/proc/sys/net/ipv4/route/flush", "-1");
   }
   return 0;
}

int IpIntfSm::doUpdateProc(Konet::IntfId const& intf) {
   MOX_TRACE_FN(th, " for " << intf);
   auto dev = in_.kernelIntfDir ? in_.kernelIntfDir->intfStatusAndDeviceName(intf).second : "";
   auto kniIntf =
       dev.empty() || !kniRoot_ ? KernelNetInfo::Interface() : kniRoot_->interfaceByName(dev);
   if (kniIntf == KernelNetInfo::Interface()) {
      Mox::logMessage(Mox::LogSeverity::info, "VELD-PROC",
                      std::string("doUpdateProc tried to write to /proc before") +
                          " deviceName for " + intf.name() + " was written.");
      return 0;
   }
   auto config = routedIpIntfConfig(intf);
   if (!config) return 0;  // only routed interfaces are ours to set
   auto& state = intfIpKernelState_[intf];
   if (state.ifIndex() != kniIntf.key.ifIndex) {
      // Another device carries the interface now: nothing was written to it yet.
      state = IntfIpKernelState();
      state.ifIndexIs(kniIntf.key.ifIndex);
   }
   // Device-level settings first: a deleted primary promotes a secondary instead of taking
   // it along; ARP replies carry the best local source; ARP filtering is the kernel's.
   static char const* const kExtraFile[] = {"promote_secondaries", "arp_announce", "arp_filter"};
   static char const* const kExtraValue[] = {"1", "2", "0"};
   int result = 0;
   for (size_t i = 0; i < 3; ++i) {
      auto& written = state.extra(i);
      if (written.is(kExtraValue[i])) continue;
      if (!written && kernelHolds(kniIntf, kExtraFile[i], kExtraValue[i])) {
         written = kExtraValue[i];
         ++procWritesSkipped_;
         continue;
      }
      int err = writeDeviceProc(kniIntf, kExtraFile[i], kExtraValue[i]);
      if (err == 0) written = kExtraValue[i];
      if (err && err != ENOENT && !result) result = err;
   }
   for (size_t i = 0; i < IntfIpKernelState::kOptions; ++i) {
      int err = doUpdateProcConfigOpt(intf, static_cast<Opt>(i), state, kniIntf, config);
      if (err && !result) result = err;
   }
   return result;
}

// The kernel's link messages number every per-device setting it has; one they do not know
// may still be there (a kernel of its own), so "all" is asked once whether it has it.
bool IpIntfSm::kernelHasConf(char const* file) {
   if (Konet::ipv4DevconfIndex(file) != 0) return true;
   auto [has, fresh] = confFileExists_.emplace(file);
   if (fresh) {
      std::string value;
      *has = kernelIo().readProcSys(std::string(kProcConfDir) + "all/" + file, &value) != ENOENT;
   }
   return *has;
}

namespace {
// A device's files as bits: by the kernel's number of each, one bit for all unnumbered ones.
uint64_t confBit(std::string_view file) {
   return uint64_t(1) << (Konet::ipv4DevconfIndex(file) & 63);
}
}  // namespace

bool IpIntfSm::linkConfFresh(KernelNetInfo::InterfaceKey key, std::string_view file) const {
   auto const* written = procWrittenSinceLink_.find(key.ifIndex);
   return !written || !(*written & confBit(file));
}

// Whether the device's `file` holds `value` already, for a file without a record of ours:
// the device's settings come with its link messages, so a fresh device (or a restarted
// agent) writes only what differs. The kernel sends no link message when a file is written,
// so the report stands in for a read only while fresh and for a file the agent has not
// written since the device appeared; otherwise the file is read.
bool IpIntfSm::kernelHolds(KernelNetInfo::Interface const& kniIntf, char const* file,
                           std::string const& value) {
   uint32_t reported = 0;
   if (linkConfFresh(kniIntf.key, file) && kniIntf.confFresh(Mox::System::currentTime()) &&
       kniIntf.ipv4ConfValue(Konet::ipv4DevconfIndex(file), &reported)) {
      return std::to_string(reported) == value;
   }
   std::string held;
   return kernelIo().readProcSys(std::string(kProcConfDir) + kniIntf.deviceName + "/" + file,
                                 &held) == 0 &&
          held == value;
}

void IpIntfSm::procWrittenIs(KernelNetInfo::InterfaceKey key, std::string_view file) {
   procWrittenSinceLink_[key.ifIndex] |= confBit(file);
}

int IpIntfSm::writeDeviceProc(KernelNetInfo::Interface const& kniIntf, std::string const& file,
                              std::string const& value) {
   procWrittenIs(kniIntf.key, file);
   return kernelIo().writeProcSys(std::string(kProcConfDir) + kniIntf.deviceName + "/" + file,
                                  value);
}

// ---- Namespace-wide settings

bool IpIntfSm::writeOnChange(std::string const& path, std::string const& value) {
   auto const* written = globalWritten_.find(path);
   if (written && *written == value) return true;
   // The first time, a restart finds it set already; later, only a change is written.
   int err = written ? kernelIo().writeProcSys(path, value)
                     : kernelIo().writeProcSysIfDiffers(path, value);
   if (err == 0 || err == ENOENT) globalWritten_.assign(path, value);
   return err == 0 || err == ENOENT;  // a knob this kernel lacks is not an error
}

Konet::IpAddr IpIntfSm::icmpSrcIntfAddr() {
   if (icmpSrcIntf_.empty() || !in_.kernelIntfDir) return Konet::IpAddr();
   auto dev = in_.kernelIntfDir->intfStatusAndDeviceName(icmpSrcIntf_).second;
   std::vector<Konet::IfconfEntry> entries;
   if (dev.empty() || kernelIo().ifconfInterfaces(&entries)) return Konet::IpAddr();
   for (auto const& e : entries) {
      if (e.name == dev) return e.addr;
   }
   return Konet::IpAddr();
}

bool IpIntfSm::doUpdateGlobalKnobs() {
   MOX_TRACE_FN(th, " vrf " << in_.vrfName);
   bool ok = true;
   auto writeOnChange = [&](std::string const& path, std::string const& value) {
      ok = this->writeOnChange(path, value) && ok;
   };
   if (in_.kernelProtoConfig) {
      writeOnChange("/proc/sys/net/ipv4/tcp_nosock_send_rst",
                    bit(in_.kernelProtoConfig->tcpSendReset()));
      writeOnChange("/proc/sys/net/ipv4/udp_nosock_send_icmp",
                    bit(in_.kernelProtoConfig->udpSendUnreachable()));
   }
   // Directed broadcast is decided per device (bc_forwarding); "all" only has to allow it.
   writeOnChange(std::string(kProcConfDir) + "all/bc_forwarding", "1");
   if (in_.ipConfig) {
      char const* redirects = bit(in_.ipConfig->sendRedirects());
      for (char const* d : {"all", "default", "lo"}) {
         writeOnChange(std::string(kProcConfDir) + d + "/send_redirects", redirects);
      }
      // ICMP errors leave from the configured address, else from the ICMP source
      // interface's address as the kernel lists it; none: the kernel chooses.
      auto src = in_.ipConfig->icmpSrcIpAddr();
      if (src.isZero()) src = icmpSrcIntfAddr();
      writeOnChange("/proc/sys/net/ipv4/icmp_src_ipaddr", src.toString());
      for (char const* d : {"all", "default", "lo"}) {
         writeOnChange(std::string(kProcConfDir) + d + "/use_icmp_src_ipaddr", bit(!src.isZero()));
      }
   }
   return ok;
}

}  // namespace Veld
