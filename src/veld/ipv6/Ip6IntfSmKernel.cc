// Ip6IntfSm: the address work of one backlog entry (link-local and global addresses,
// disable_ipv6, DAD failures, SLAAC addresses) and the free helpers it uses. Runs inside the
// VRF's namespace.
#include <cstring>
#include <iomanip>
#include <sstream>
#include <vector>

#include "mox/Trace.h"
#include "veld/LocalInterface.h"
#include "veld/addr/NoArp.h"
#include "veld/ipv6/Ip6IntfSm.h"

namespace Veld {

namespace {

Mox::TraceHandle th("VeldIp6");

std::string eui64Text(Interface::Eui64 const& e) {
   std::ostringstream os;
   os << std::hex << std::setfill('0');
   for (size_t i = 0; i < e.size(); ++i)
      os << (i ? ":" : "") << std::setw(2) << int(e[i]);
   return os.str();
}

// No EUI-64: all zero, or the placeholder some platforms publish for a device without one.
bool eui64Absent(Interface::Eui64 const& e) {
   return e == Interface::Eui64{} || eui64Text(e) == "00:00:00:ff:ff:00:00:00";
}

}  // namespace

Interface::Eui64 toModifiedEui64(Interface::Eui64 eui64) {
   eui64[0] ^= 0x02;
   if (eui64[3] == 0xff && eui64[4] == 0xff) eui64[4] = 0xfe;
   return eui64;
}

Konet::Ip6AddrWithMask ip6LinkLocal(Mox::Ptr<Interface::IntfStatus const> const& intfStatus,
                                    Mox::Ptr<Ip6::IntfConfig const> const& intfConfig) {
   if (intfConfig && intfConfig->llAddrWithMask() != Konet::Ip6AddrWithMask()) {
      return intfConfig->llAddrWithMask();
   }
   Konet::Ip6AddrWithMask none(Konet::Ip6Addr(), 64);
   if (!intfStatus || eui64Absent(intfStatus->eui64())) return none;
   auto eui = toModifiedEui64(intfStatus->eui64());
   MOX_TRACE(th, 7, intfStatus->intfId() << ": ip6LinkLocal EUI-64: " << eui64Text(eui));
   Konet::Ip6Addr::Bytes b{};
   b[0] = 0xfe;
   b[1] = 0x80;
   std::memcpy(&b[8], eui.data(), 8);
   Konet::Ip6AddrWithMask ll(Konet::Ip6Addr(b), 64);
   MOX_TRACE(th, 7, intfStatus->intfId() << ": ip6LinkLocal " << ll);
   return ll;
}

bool isEui64Present(Mox::Ptr<Interface::IntfStatus const> const& intfStatus) {
   if (!intfStatus) return false;
   if (intfStatus->intfId().isLoopback()) return true;
   MOX_TRACE(th, 8, intfStatus->intfId() << " id: " << eui64Text(intfStatus->eui64()));
   return !eui64Absent(intfStatus->eui64());
}

bool linkLocalDadFailed(KernelAddrs6 const* kernelAddrs) {
   if (!kernelAddrs) return false;
   for (auto const& [a, flags] : *kernelAddrs) {
      if (a.addr().isLinkLocal() && (flags & Ip6IntfSm::kIfaDadFailed)) return true;
   }
   return false;
}

void mcaddrUpdate(Konet::IntfId const& intf, Ip6::MulticastGroupsForApplications* groups,
                  Konet::Ip6Addr const& addr, bool add) {
   if (!groups || addr.isZero()) return;
   auto group = addr.isMulticast() ? addr : addr.solicitedNodeMulticast();
   auto veld = groups->applicationIs(Mcast::veldApplication());
   if (add) {
      MOX_TRACE(th, 7, intf << " add multicast group " << group);
      veld->multicastAddrIs(Ip6::IntfAddrInfo{intf, group});
   } else {
      MOX_TRACE(th, 7, intf << " delete multicast group " << group);
      veld->multicastAddrDel(Ip6::IntfAddrInfo{intf, group});
   }
}

void mcaddrDelAll(Konet::IntfId const& intf, Ip6::MulticastGroupsForApplications* groups) {
   if (auto veld = groups ? groups->application(Mcast::veldApplication()) : nullptr)
      veld->multicastAddrDelIntf(intf);
}

bool Ip6IntfSm::kernelAddrAdd(KernelNetInfo::Interface const& kernelIntf, Konet::IntfId const& intf,
                              Konet::Ip6AddrWithMask const& addr) {
   MOX_ASSERT(kernelIntf != KernelNetInfo::Interface());
   MOX_TRACE(th, 5, " add config addr to Kernel: " << addr << " on " << kernelIntf.deviceName);
   int err = kernelIo().ip6AddrAdd(in_.netlinkSocket, int(kernelIntf.key.ifIndex), addr);
   if (err == 0 || err == EEXIST) {
      in_.addrMap->addAddr6(kernelIntf.key, addr);
      if (in_.ownAddrs) in_.ownAddrs->addrIs(intf, addr);
      return true;
   }
   MOX_TRACE(th, 0,
             kernelIntf.deviceName << ": Failed to add address of " << addr << ": "
                                   << std::strerror(err));
   Mox::logFailure("VELD-ADDR", "Failed to update interface address of " + kernelIntf.deviceName,
                   err);
   return false;
}

bool Ip6IntfSm::kernelAddrDel(KernelNetInfo::Interface const& kernelIntf, Konet::IntfId const& intf,
                              Konet::Ip6AddrWithMask const& addr) {
   int err = kernelIo().ip6AddrDel(in_.netlinkSocket, int(kernelIntf.key.ifIndex), addr);
   if (err == 0 || err == EADDRNOTAVAIL) {
      in_.addrMap->delAddr6(kernelIntf.key, addr);
      if (in_.ownAddrs) in_.ownAddrs->addrDel(intf, addr);
      return true;
   }
   MOX_TRACE(th, 0,
             kernelIntf.deviceName << ": Failed to remove address of " << addr << ": "
                                   << std::strerror(err));
   if (err != ENODEV) {
      Mox::logFailure(
          "VELD-ADDR",
          "Failed to remove address " + addr.toString() + " of " + kernelIntf.deviceName, err);
   }
   return false;
}

// An autoconfigured address: the interface takes addresses from router advertisements
// (configured and in the kernel), the kernel marks it as neither permanent nor failed, and
// its interface identifier is the interface's modified EUI-64.
bool Ip6IntfSm::isSlaacAddress(Konet::Ip6AddrWithMask const& addr, uint32_t flags,
                               Konet::IntfId const& intf) const {
   auto config = routedIp6IntfConfig(intf);
   if (!config || config->addrSource() != Ip6::AddrSource::slaac) {
      MOX_TRACE(th, 8, "slaac not enabled in config for " << intf);
      return false;
   }
   auto const* state = intfIp6KernelState_.find(intf);
   if (!state || !state->written(IntfIp6KernelState::autoconf).is("1")) {
      MOX_TRACE(th, 8, "slaac not enabled in kernel for " << intf);
      return false;
   }
   if (flags & (kIfaPermanent | kIfaDadFailed) || addr.addr().isLinkLocal()) {
      MOX_TRACE(th, 8, "flags not consistent with SLAAC address for " << intf);
      return false;
   }
   auto status = in_.kernelIntfDir ? in_.kernelIntfDir->intfStatus(intf) : nullptr;
   if (!status) {
      MOX_TRACE(th, 8, "Intf details not found for " << intf);
      return false;
   }
   if (eui64Absent(status->eui64())) {
      MOX_TRACE(th, 8, "EUI-64 not found for " << intf);
      return false;
   }
   auto eui = toModifiedEui64(status->eui64());
   bool match = std::memcmp(&addr.addr().bytes()[8], eui.data(), 8) == 0;
   MOX_TRACE(th, 7, addr << (match ? " matches EUI-64, " : " does not match EUI-64, ") << intf);
   return match;
}

// A configured address the kernel reports as DAD-failed: a global one leaves the kernel, a
// link-local one stays (so that no global address is added); either is listed and logged once.
void Ip6IntfSm::dadFailure(Konet::IntfId const& intf, KernelNetInfo::Interface const& kniIntf,
                           Konet::Ip6AddrWithMask const& a, bool linkLocal) {
   if (!linkLocal) {
      MOX_TRACE(th, 5, " delete config addr from Kernel: " << a);
      kernelAddrDel(kniIntf, intf, a);
   }
   if (!dadFailed_.emplace(intf).first->insert(a)) return;
   Mox::logMessage(
       Mox::LogSeverity::error, "IP6ROUTING_DAD_FAILED",
       "IPv6 DAD failed on interface " + intf.name() + " for address " + a.addr().toString());
}

void Ip6IntfSm::updateNoArp(Konet::IntfId const& intf,
                            Mox::Ptr<Interface::IntfStatus const> const& intfStatus,
                            KernelNetInfo::Interface const& kniIntf,
                            Mox::Ptr<Ip6::IntfConfig const> const& config) {
   auto ip = in_.vrfIpIntfConfig ? in_.vrfIpIntfConfig->ipIntfConfig(intf) : nullptr;
   doUpdateNoArp(kernelIo(), in_.netlinkSocket, kniIntf,
                 noArpWanted(intfStatus.ptr(), ip.ptr(), config.ptr()));
}

void Ip6IntfSm::removeOwnAddrs(Konet::IntfId const& intf, KernelNetInfo::Interface const& kniIntf) {
   auto const* own = in_.ownAddrs ? in_.ownAddrs->addrs(intf) : nullptr;
   if (!own) return;
   for (auto const& a : own->keys()) {
      MOX_TRACE(th, 5, " Delete Kernel Addr: " << a);
      kernelAddrDel(kniIntf, intf, a);
   }
}

bool Ip6IntfSm::doUpdateKernelAddrIntf(Konet::IntfId const& intf) {
   // 1. The interface's pieces.
   auto [intfStatus, dev] = in_.kernelIntfDir
                                ? in_.kernelIntfDir->intfStatusAndDeviceName(intf)
                                : std::pair<Mox::Ptr<Interface::IntfStatus const>, std::string>();
   auto anyConfig = in_.vrfIp6IntfConfig ? in_.vrfIp6IntfConfig->ipIntfConfig(intf) : nullptr;
   auto kniIntf =
       kniRoot_ && !dev.empty() ? kniRoot_->interfaceByName(dev) : KernelNetInfo::Interface();
   bool eui64Present = isEui64Present(intfStatus);
   MOX_TRACE(th, 6,
             " IntfStatusAndDeviceName: "
                 << ", intf: " << intf << ", deviceName: " << dev
                 << ", intfConfig: " << bool(anyConfig) << ", intfKernel: " << kniIntf.key
                 << ", eui64Present: " << eui64Present);
   bool override = enableOverride(intf);
   if (!intfStatus) {
      MOX_TRACE(th, 5, " intfStatus in doUpdateKernelAddrIntf is NULL");
      return false;
   }
   if (kniIntf == KernelNetInfo::Interface() || !in_.addrMap) {
      MOX_TRACE(th, 5, " Kernel Intf not present");
      return false;
   }
   if (!anyConfig && !override) {
      // Not configured here (any more): what the agent added goes.
      MOX_TRACE(th, 5, " intfConfig in doUpdateKernelAddrIntf is NULL");
      updateNoArp(intf, intfStatus, kniIntf, nullptr);
      removeOwnAddrs(intf, kniIntf);
      handleIntfStatusForDeletedIntfConfig(intf);
      return false;
   }

   // 2. The routed configuration; without an EUI-64 the enable timer looks again later.
   auto config = routedIp6IntfConfig(intf);
   bool configEnable = config && config->enable();
   if (configEnable && !eui64Present && config->llAddrWithMask() == Konet::Ip6AddrWithMask()) {
      MOX_TRACE(th, 5, " eui64 not present. Start ip6Enable timer. ");
      if (!ip6EnableTimerIs(intf, true)) MOX_TRACE(th, 5, "configIntfSm not present");
   } else {
      MOX_TRACE(th, 7, " intfConfigEnable: " << configEnable);
      ip6EnableTimerIs(intf, false);
   }

   // 3. Whether this update writes status.
   bool writeStatus = mayWriteStatus(intf) && !standbyMode_;
   if (standbyMode_ && !isLocalInterface(intf)) {
      MOX_TRACE(th, 5, "Standby Veld skipping larder update for " << intf);
   }

   // 4. Status objects.
   L3::VrfName intfVrf =
       anyConfig && anyConfig->l3Config() ? anyConfig->l3Config()->vrf() : L3::VrfName("default");
   if (intfVrf.name().empty()) intfVrf = L3::VrfName("default");
   bool sameVrf = intfVrf == in_.vrfName;
   MOX_TRACE(
       th, 6,
       "interface VRF: " << intfVrf << ", my VRF: " << in_.vrfName << " sameVrf: " << sameVrf);
   bool enabled = configEnable || override;
   if (writeStatus) {
      if (!enabled || !sameVrf || !config) {
         deleteIp6IntfStatus(intf);
      } else {
         addIp6IntfStatus(intf);
      }
   }

   // The device's IFF_NOARP, decided with the IPv4 configuration whatever IPv6 does.
   updateNoArp(intf, intfStatus, kniIntf, sameVrf ? config : nullptr);

   // 5. No DAD on loopback devices.
   if (intf.isLoopback()) {
      MOX_TRACE(th, 5, "LoopbackIntf - disable Dad");
      if (kernelIo().writeProcSysIfDiffers(
              std::string(Konet::V6_PROC_CONF) + "/" + dev + "/dad_transmits", "0")) {
         MOX_TRACE(th, 0, "Falied to Disable DAD on " << dev);
      }
   }

   // 6. IPv6 on the device, before any address.
   if (!setIp6Enable(dev, intf, enabled, nsName(), procIpv6Set_)) {
      MOX_TRACE(th, 0,
                " Failed to enable/disable IPv6. proc file " << dev << " in vrf " << in_.vrfName);
      return false;
   }
   if (!enabled) {
      MOX_TRACE(th, 5, "Ipv6 disabled in " << intf);
      // The kernel dropped the device's addresses: status and groups follow.
      if (writeStatus) mcaddrDelAll(intf, in_.multicastGroups.ptr());
      return false;
   }
   if (!sameVrf) {
      in_.addrMap->flushAddr6(kniIntf.key);
      MOX_TRACE(th, 5, "Ipv6 not same vrf, returning.");
      return false;
   }
   if (!configEnable) {
      // On through the override alone: nothing of the configuration is put on the device,
      // and what the agent put there goes (its link-local address stays with IPv6).
      if (auto const* own = in_.ownAddrs ? in_.ownAddrs->addrs(intf) : nullptr) {
         for (auto const& a : own->keys()) {
            if (!a.addr().isLinkLocal()) kernelAddrDel(kniIntf, intf, a);
         }
      }
      MOX_TRACE(th, 5, "Done handling ipv6 enable override, returning.");
      return false;
   }

   // 7. All-nodes group and link-local address (IFF_NOARP was decided after step 4).
   if (writeStatus) mcaddrUpdate(intf, in_.multicastGroups.ptr(), Konet::Ip6Addr::allNodes(), true);
   static KernelAddrs6 const kNone;
   auto const* kernel = kernelAddrs6(kniIntf.key);
   auto const& held = kernel ? *kernel : kNone;
   auto ll = ip6LinkLocal(intfStatus, config);
   MOX_TRACE(th, 6, "New LinkLocal Address: " << ll);
   bool running = kniIntf.running();
   bool haveLl = !ll.addr().isZero();
   bool llHeld = haveLl && held.contains(ll);
   if (haveLl && running && !llHeld && !dadFailed(intf, ll)) {
      llHeld = kernelAddrAdd(kniIntf, intf, ll);
   }
   // The kernel joins the solicited-node group of the link-local address as of any other.
   if (llHeld && writeStatus) mcaddrUpdate(intf, in_.multicastGroups.ptr(), ll.addr(), true);

   // 8. + 11. The kernel's addresses: SLAAC, configured and foreign ones stay; the agent's
   // own that are no longer configured go.
   std::vector<Konet::Ip6AddrWithMask> deleted;
   for (auto const& [a, flags] : held) {
      MOX_TRACE(th, 7, "Kernel addr: " << a);
      if (config->addr(a) || a == ll) {
         MOX_TRACE(th, 8, "Continue.Ignore address we expected to be configure");
         continue;
      }
      if (isSlaacAddress(a, flags, intf)) {
         MOX_TRACE(th, 7, "Continue.Ignore SLAAC address configured from kernel");
         continue;
      }
      if (intf.isLoopback() && a.addr().isLinkLocal()) {
         MOX_TRACE(th, 7, " Skipping loopback intf link local addr: " << a);
         continue;
      }
      if (in_.ownAddrs && in_.ownAddrs->addr(intf, a)) {
         MOX_TRACE(th, 5, " Delete Kernel Addr: " << a);
         if (kernelAddrDel(kniIntf, intf, a)) deleted.push_back(a);
         continue;
      }
      MOX_TRACE(th, 7, " Addr Not managed by us: " << a);
   }
   // What was deleted leaves the status now, not when the kernel's event comes.
   for (auto const& a : deleted) {
      if (auto* mine = kernelAddrs6_.find(kniIntf.key)) mine->erase(a);
      if (!writeStatus) continue;
      if (auto status = ip6IntfStatusOf(intf); status && status->addrHas(a)) {
         MOX_TRACE(th, 5, " Deleting IntfStatus addr: " << a);
         status->addrDel(a);
      }
      // Addresses that differ in their upper bits share a solicited-node group: it stays
      // while another address of the interface needs it.
      auto group = a.addr().solicitedNodeMulticast();
      bool shared = haveLl && ll.addr().solicitedNodeMulticast() == group;
      for (auto const& b : config->addrIterator())
         shared = shared || b.addr().solicitedNodeMulticast() == group;
      if (!shared) mcaddrUpdate(intf, in_.multicastGroups.ptr(), a.addr(), false);
   }
   // Own addresses the kernel no longer holds are not own any more.
   if (auto const* own = in_.ownAddrs ? in_.ownAddrs->addrs(intf) : nullptr) {
      for (auto const& a : own->keys()) {
         if (!config->addr(a) && a != ll && !held.contains(a)) in_.ownAddrs->addrDel(intf, a);
      }
   }
   if (auto const* failed = dadFailed_.find(intf); failed && writeStatus) {
      if (auto status = ip6IntfStatusOf(intf)) {
         for (auto const& a : status->dadFailedAddrIterator().keys()) {
            if (!failed->contains(a)) {
               MOX_TRACE(th, 5, "Deleting from dadfailed: " << a);
               status->dadFailedAddrDel(a);
            }
         }
      }
   } else if (auto status = writeStatus ? ip6IntfStatusOf(intf) : nullptr) {
      for (auto const& a : status->dadFailedAddrIterator().keys())
         status->dadFailedAddrDel(a);
   }

   // 9. A device takes addresses once it runs in this namespace; the kernel drops them on
   // link down. When it starts running, its kernel record schedules it again.
   if (!running) {
      MOX_TRACE(th, 5, " Deferring adding addresses for " << intf);
      doUpdateIp6StatusAddr(intf);
      return false;
   }

   // 10. The global addresses.
   bool llFailed = linkLocalDadFailed(kernel);
   // Global addresses wait until the kernel holds the link-local address and it is through
   // DAD: the kernel's event about it brings the interface back.
   auto const* llFlags = haveLl ? held.find(ll) : nullptr;
   if (!llFailed && haveLl && (!llFlags || (*llFlags & kIfaTentative))) {
      MOX_TRACE(th, 5, " Deferring adding addresses for " << intf << ": link-local tentative");
      doUpdateIp6StatusAddr(intf);
      return false;
   }
   for (auto const& a : config->addrIterator()) {
      if (a.addr().isLinkLocal()) {
         MOX_TRACE(th, 7, "Ignoring Link local address configured. " << a);
         if (writeStatus) mcaddrUpdate(intf, in_.multicastGroups.ptr(), a.addr(), true);
         continue;
      }
      if (llFailed) {
         MOX_TRACE(th, 5, " link-local DAD failed, not adding config addr to Kernel: " << a);
         continue;
      }
      if (dadFailed(intf, a)) continue;
      // The group of an address the kernel already holds is listed too (after a restart).
      if ((held.contains(a) || kernelAddrAdd(kniIntf, intf, a)) && writeStatus) {
         mcaddrUpdate(intf, in_.multicastGroups.ptr(), a.addr(), true);
      }
   }

   // 12. Status, and the VRF this machine puts the interface in, for its L3 status.
   doUpdateIp6StatusAddr(intf);
   if (auto status = writeStatus ? ip6IntfStatusOf(intf) : nullptr) {
      if (in_.updateIp6IntfStatusVrfReq)
         in_.updateIp6IntfStatusVrfReq->requestIs(intf, in_.vrfName);
      status->nsRetransmitIntervalIs(config->nsRetransmitInterval());
      MOX_TRACE(th, 7,
                "Updated ip6::status with ip6::config value of " << config->nsRetransmitInterval());
      status->acceptDadIs(config->acceptDad());
      MOX_TRACE(th, 7,
                "Updated acceptDad ip6::status with config value of " << config->acceptDad());
      status->enhancedDadIs(config->enhancedDad());
      MOX_TRACE(th, 7,
                "Updated enhancedDad ip6::status with config value of " << config->enhancedDad());
      status->urpfIs(config->urpf());
      updateDpRoutingEnabled(intf);
   }
   // 13.
   return false;
}

}  // namespace Veld
