// The IPv4 interface machine of one VRF.
//
// Watches the VRF's view of the IPv4 interface configuration (through one config filter per
// interface, which admits the routed interfaces, and one config reactor per routed
// interface), the interfaces whose devices are in the VRF's namespace, the namespace's kernel
// interface records, the routing and kernel-protocol configuration and the standby flag.
// Writes each routed interface's IPv4 and L3 status (not in standby), the uRPF summary, and
// the kernel: addresses and IFF_NOARP through the VRF's netlink socket, per-interface and
// namespace-wide settings under /proc/sys/net/ipv4, and the devices' TCP MSS clamps in the
// namespace's nftables table.
//
// Handlers never touch the kernel. They mark the interface's entry in the backlog
// (addrUpdatePending, procUpdatePending) and arm the backlog timer; the timer drains the
// backlog in runs of at most backlogSlice, each entry inside the VRF's namespace, resuming
// at a bookmark. An entry lives from its first scheduling until a run finds all its flags
// clear:
//
//    scheduled --run--> namespace entered? --no--> retried every run; given up after 33
//                       proc written? --no--> retried every run; given up after 33 failures
//                       addresses done? --no (deferred)--> visited again on the next run
//                       all clear --> removed; an empty backlog is reported to WarpState
//
// The configuration is the truth on a routed interface: when the kernel mirror reports an
// IPv4 address change that disagrees with it (a configured address gone, a foreign one
// added, the configured primary a secondary of its subnet), the address map follows the
// kernel and the interface is scheduled at once. An interface whose addresses keep changing
// is repaired with a delay that doubles up to driftRepairDelayMax, logged once.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "konet/IntfId.h"
#include "mox/Bolt.h"
#include "mox/Enum.h"
#include "mox/Inputs.h"
#include "mox/StateMachine.h"
#include "platform/Interface.h"
#include "platform/Ip.h"
#include "platform/Ip6.h"
#include "platform/KernelNetInfo.h"
#include "platform/L3.h"
#include "platform/ProxyArp.h"
#include "platform/Routing.h"
#include "platform/Urpf.h"
#include "veld/KernelIo.h"
#include "veld/addr/AddrMap.h"
#include "veld/addr/KniIntfState.h"
#include "veld/config/VrfIp6IntfConfig.h"
#include "veld/config/VrfIpIntfConfig.h"
#include "veld/ipv4/IntfIpKernelState.h"
#include "veld/redundancy/WarpState.h"

namespace Veld {

class IpIntfSm : public Mox::StateMachine, public KniIntfStateOwner {
public:
   // The per-interface IPv4 kernel settings.
   enum class IpIntfConfOptType : uint8_t {
      confOptForwarding = 0,
      confOptRPFilter = 1,
      confOptProxyArp = 2,
      confOptArpIgnore = 3,
      confOptLocalProxyArp = 4,
      confOptAcceptIcmpRedirectIPv4 = 5,
      confOptSendIcmpRedirectIPv4 = 6,
      confOptUseIcmpSrcIpAddr = 7,
      confOptGratuitousArpAccept = 8,
      confOptDirectedBroadcast = 9,
   };

   // One interface's pending kernel work.
   struct KernelUpdateCodefEntry {
      Konet::IntfId intf;
      bool procUpdatePending = false;
      bool addrUpdatePending = false;
      bool statusUpdatePending = false;
      int32_t lastError = 0;
      uint32_t tries = 0;
      double firstFailureTime = 0.0;
      double notBefore = 0.0;  // a repair that backs off waits until then
      bool idle() const { return !procUpdatePending && !addrUpdatePending && !statusUpdatePending; }
   };

   class MoxIpIntfConfigFilter;
   class MoxIpIntfConfig;

   // The constructor's inputs, in its order. The standby flag, which that order puts between
   // routingHardwareStatus and warpState, is given apart: it changes, they do not. The VRF's
   // IPv6 view (vrfIp6IntfConfig) is read only to decide the device's IFF_NOARP.
#define VELD_IP_INTF_SM_INPUTS(X)                                           \
   X(Mox::Ptr<Ip::Config const>, ipConfig)                                  \
   X(Mox::Ptr<VrfIpIntfConfig const>, vrfIpIntfConfig)                      \
   X(Mox::Ptr<AddrMap>, addrMap)                                            \
   X(Mox::Ptr<Interface::DeviceIntfStatusDir const>, kernelIntfDir)         \
   X(Mox::Ptr<Routing::KernelProtoConfig const>, kernelProtoConfig)         \
   X(Mox::Ptr<Routing::InfoConfig const>, routingInfoConfig)                \
   X(Mox::Ptr<Ip::Input::Status>, systemIntfIpStatus)                       \
   X(Mox::Ptr<Ip::Input::Status>, localIntfIpStatus)                        \
   X(Mox::Ptr<L3::Intf::Input::StatusDir>, systemL3IntfStatus)              \
   X(Mox::Ptr<L3::Intf::Input::StatusDir>, localL3IntfStatus)               \
   X(Mox::Ptr<Ip6::Status const>, ip6Status)                                \
   X(Mox::Ptr<Ip::AllVrfStatusLocal const>, allVrfStatusLocal)              \
   X(int, netlinkSocket, -1)                                                \
   X(Mox::Ptr<Interface::AllIntfStatusDir const>, allIntfStatusDir)         \
   X(Mox::Ptr<Interface::KniIntfStatusManager>, kniIntfStatusManager)       \
   X(L3::VrfName, vrfName)                                                  \
   X(Mox::Ptr<Routing::Hardware::Status const>, routingHardwareStatus)      \
   X(Mox::Ptr<WarpState>, warpState)                                        \
   X(Mox::Ptr<Bolt::TimerWheel const>, timerWheel)                          \
   X(Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests>, updateIpIntfStatusVrfReq) \
   X(Mox::Ptr<L3::UpdateIpIntfStatusRequests>, updateIpIntfStatusReq)       \
   X(Mox::Ptr<Urpf::UrpfOnAllIntfStat>, urpfOnAllIntfStat)                  \
   X(Mox::Ptr<ProxyArp::VirtualMacStatus const>, proxyArpVirtualMac)        \
   X(Mox::Ptr<VrfIp6IntfConfig const>, vrfIp6IntfConfig)
   struct Inputs {
      MOX_INPUTS(VELD_IP_INTF_SM_INPUTS)
   };

   IpIntfSm(Inputs inputs, bool standbyMode);
   ~IpIntfSm() override;

   Inputs const& inputs() const { return in_; }
   // The VRF's routing entry, followed when the agent re-creates it.
   void routingInfoConfigIs(Mox::Ptr<Routing::InfoConfig const> const& config);

   // ---- Inputs and outputs
   Mox::Ptr<Ip::Config const> const& ipConfig() const { return in_.ipConfig; }
   Mox::Ptr<VrfIpIntfConfig const> const& vrfIpIntfConfig() const { return in_.vrfIpIntfConfig; }
   Mox::Ptr<AddrMap> const& addrMap() const override { return in_.addrMap; }
   Mox::Ptr<Interface::DeviceIntfStatusDir const> const& kernelIntfDir() const {
      return in_.kernelIntfDir;
   }
   Mox::Ptr<KernelNetInfo::Root const> const& kernelNetInfoRoot() const { return kniRoot_; }
   Mox::Ptr<Interface::KniIntfStatusManager> const& kniIntfStatusManager() const override {
      return in_.kniIntfStatusManager;
   }
   L3::VrfName const& vrfName() const { return in_.vrfName; }
   Konet::NamespaceName const& nsName() const;
   int netlinkSocket() const { return in_.netlinkSocket; }
   Mox::Ptr<Ip::Input::Status> const& systemIntfIpStatus() const { return in_.systemIntfIpStatus; }
   Mox::Ptr<Ip::Input::Status> const& localIntfIpStatus() const { return in_.localIntfIpStatus; }
   Mox::Ptr<L3::Intf::Input::StatusDir> const& systemL3IntfStatus() const {
      return in_.systemL3IntfStatus;
   }
   Mox::Ptr<L3::Intf::Input::StatusDir> const& localL3IntfStatus() const {
      return in_.localL3IntfStatus;
   }
   // The IPv4 and L3 status an interface's status goes to (the local ones for local
   // interfaces).
   Mox::Ptr<Ip::Input::Status> const& ipStatusFor(Konet::IntfId const& intf) const;
   Mox::Ptr<L3::Intf::Input::StatusDir> const& l3StatusFor(Konet::IntfId const& intf) const;

   bool standbyMode() const { return standbyMode_; }
   void standbyModeIs(bool standbyMode);

   // The kernel access of this machine (the process's by default).
   KernelIo& kernelIo() const { return kernelIo_ ? *kernelIo_ : KernelIo::current(); }
   void kernelIoIs(KernelIo* io) { kernelIo_ = io; }

   // ---- The backlog
   double backlogRetryDelay() const { return backlogRetryDelay_; }
   double backlogSlice() const { return backlogSlice_; }
   uint32_t maxKernelUpdateTries() const { return maxKernelUpdateTries_; }
   KernelUpdateCodefEntry const* ipIntfKernelUpdateCodef(Konet::IntfId const& intf) const {
      return ipIntfKernelUpdateCodefList_.find(intf);
   }
   size_t ipIntfKernelUpdateCodefListSize() const { return ipIntfKernelUpdateCodefList_.size(); }
   std::optional<Konet::IntfId> const& ipIntfKernelUpdateCodefBookmark() const { return bookmark_; }
   uint64_t ipIntfKernelUpdateCodefListProcessed() const { return runs_; }
   uint64_t ipIntfKernelUpdateCodefListItemsProcessed() const { return itemsProcessed_; }
   uint64_t ipIntfKernelUpdateCodefListErrs() const { return errors_; }
   double backlogTimerTime() const;
   // The key this machine reports its empty backlog under in WarpState.
   std::string warpKey() const { return "ipIntfSm-" + in_.vrfName.name(); }

   IntfIpKernelState const* intfIpKernelState(Konet::IntfId const& intf) const {
      return intfIpKernelState_.find(intf);
   }
   // /proc writes left out because the device's link record showed the value.
   uint64_t procWritesSkipped() const { return procWritesSkipped_; }

   // ---- Drift
   static constexpr double driftRepairDelayMax = 4.0;
   uint64_t driftRepairs() const { return driftRepairs_; }
   // The delay of the interface's next repair (0: at once).
   double driftRepairDelay(Konet::IntfId const& intf) const;

   void doScheduleKernelAddrUpdate(Konet::IntfId const& intf) override;
   void doScheduleKernelProcUpdate(Konet::IntfId const& intf);
   void processIpIntfKernelUpdateCodefList();
   void verifyBacklogQueue();

   // ---- Kernel work (run by the backlog, inside the VRF's namespace)
   bool doUpdateKernelAddrIntf(Konet::IntfId const& intf);
   int doUpdateProc(Konet::IntfId const& intf);
   // One setting of a routed interface whose device is `kniIntf`.
   int doUpdateProcConfigOpt(Konet::IntfId const& intf, IpIntfConfOptType opt,
                             IntfIpKernelState& kernelState,
                             KernelNetInfo::Interface const& kniIntf,
                             Mox::Ptr<Ip::IpIntfConfig const> const& config);
   // `ifaFlags`: IFA_F_NOPREFIXROUTE for an interface without attached routes.
   void delIpFromIntf(KernelNetInfo::Interface const& kniIntf, Konet::IpAddrWithMask const& addr);
   // Queues the add of an address the map does not show on the device yet; flushAdds sends
   // the queue, in its order.
   void addIpToIntf(Konet::IntfId const& intf, Konet::IpAddrWithMask const& addr,
                    KernelNetInfo::InterfaceKey ifKey, std::string const& deviceName,
                    uint32_t ifaFlags = 0);
   // Sends the queued adds several to a datagram, notes each success in the address map and
   // logs each failure, then writes the status of every interface that had adds queued.
   void flushAdds();
   // Brings the device's MSS clamps in the namespace to `want`: logged and left to the next
   // visit when the kernel refuses.
   void doUpdateMss(std::string const& dev, Konet::MssClamp want);
   // The MSS clamps the namespace holds by device, as far as this machine knows.
   std::optional<std::map<std::string, Konet::MssClamp>> const& mssClamps() const {
      return mssHeld_;
   }
   // True when every namespace-wide setting is written; failed ones are retried by the backlog.
   bool doUpdateGlobalKnobs();
   // The addresses the configuration puts on the interface's device, here and now: none
   // when it is not routed in this VRF or its device is not running.
   Mox::HashSet<Konet::IpAddrWithMask> wantedAddrs(Mox::Ptr<Ip::IpIntfConfig const> const& config,
                                                   bool running) const;

   // ---- Status
   // The interface's IPv4 and L3 input statuses (ipStatusFor, l3StatusFor) are written only
   // here: created by intfStatusEnsure, removed by handleIntfStatusForDeletedIntfConfig, their
   // addresses set by doUpdateIpStatusAddr and doClearStatusAddrs, the uRPF summary flag by
   // urpfOnAnyIntfPublish, and the configured fields by the config reactor through
   // MoxIpIntfConfig::writableStatus. Each writes nothing in standby and only what this VRF
   // owns; the config reactors and the backlog ask them.
   void intfStatusEnsure(Konet::IntfId const& intf, Mox::Ptr<Ip::IpIntfConfig const> const& config);
   void urpfOnAnyIntfPublish(Konet::IntfId const& intf);
   void doUpdateIpStatusAddr(Konet::IntfId const& intf);
   void doClearStatusAddrs(Mox::Ptr<Ip::IpIntfStatus> const& status);
   Mox::Ptr<Ip::IpIntfStatus> addIpIntfStatus(Konet::IntfId const& intf,
                                              Mox::Ptr<Ip::IpIntfConfig const> const& config);
   Mox::Ptr<L3::Intf::Status> addL3IntfStatus(Konet::IntfId const& intf, L3::VrfName const& vrf);
   void handleIntfStatusForDeletedIntfConfig(Konet::IntfId const& intf);
   // True when the interface's status has a routed configuration behind it; a stale status
   // is removed when `deleteStale`.
   bool checkIpIntfCfgStatus(Mox::Ptr<Ip::IpIntfStatus const> const& status,
                             Konet::IntfId const& intf, bool deleteStale);
   void removeStaleStatuses();

   // ---- Configuration
   Mox::Ptr<Ip::IpIntfConfig const> routedIpIntfConfig(Konet::IntfId const& intf) const;
   void routedIpIntfConfigIs(Konet::IntfId const& intf,
                             Mox::Ptr<Ip::IpIntfConfig const> const& config);
   void routedIpIntfConfigDel(Konet::IntfId const& intf);
   size_t routedIpIntfConfigs() const;
   // The VRF an interface's configuration puts it in ("default" when unset).
   static L3::VrfName configVrf(Mox::Ptr<Ip::IpIntfConfig const> const& config);
   bool isForwardingEnabled(Konet::IntfId const& intf,
                            Mox::Ptr<Ip::IpIntfStatus const> const& status,
                            Mox::Ptr<Ip::IpIntfConfig const> const& config, bool routing) const;
   void updateDpRoutingEnabled(Konet::IntfId const& intf);

   // ---- uRPF
   void updateUrpfStatus(Konet::IntfId const& intf, Urpf::UrpfConfig const& urpf);
   void handleUrpfAndRouting(Konet::IntfId const& intf);
   void updateUrpfAndRouting(Konet::IntfId const& intf, Urpf::UrpfConfig const& urpf);
   bool isUrpfOnAnyIntf() const;

   // ---- Handlers
   void handleInitialized();
   void handleStandbyMode();
   void handleIpIntfConfig(Konet::IntfId const& intf);
   void handleKernelIntf(Konet::IntfId const& intf);
   void handleUpdate(KernelNetInfo::InterfaceKey key);
   void handleIpState(KernelNetInfo::IpKey const& key);
   void handleIpIntfStatusUpdateReq(Konet::IntfId const& intf);
   void handleRouting();
   void handleUrpfSupported();
   void handleVirtualMac(Konet::IntfId const& intf);
   void handleTcpSendReset();
   void handleUdpSendUnreach();
   void handleSendRedirect();
   void handleIcmpSrcIpAddr();
   void handleIcmpSrcIntf();
   void handleIcmpSrcIntfOnStatus(Konet::IntfId const& intf);
   void handleBacklogTimer();

   static constexpr char const* kProcConfDir = "/proc/sys/net/ipv4/conf/";

private:
   class Reactors;
   struct GlobalKnobs;
   KernelUpdateCodefEntry& entryFor(Konet::IntfId const& intf);
   void armBacklogTimer();
   void scheduleGlobalKnobs();
   void runEntry(Konet::IntfId const& intf);
   // Counts a failed attempt of the entry's kernel work; true when it is given up, logged once.
   bool entryFailed(KernelUpdateCodefEntry& entry, int err, double now, char const* what);
   void runGlobalKnobs();
   bool writeOnChange(std::string const& path, std::string const& value);
   void scheduleDriftRepair(Konet::IntfId const& intf);
   // Takes the configured primary's subnet out of the kernel when another address is its
   // primary there, so that the primary is added back first.
   void regroupPrimarySubnet(Mox::Ptr<Ip::IpIntfConfig const> const& config,
                             KernelNetInfo::Interface const& kniIntf);
   // Whether an address of the device, as the mirror shows it, has or lacks its subnet
   // route against what `ifaFlags` asks of it.
   bool prefixRouteDiffers(KernelNetInfo::Interface const& kniIntf, uint32_t ifaFlags) const;
   // Whether the device's link record still shows the kernel's value of one of its settings
   // (`file` under its /proc directory): the agent has not written that file since the device
   // appeared, for a /proc write sends no link message that would refresh the record.
   bool linkConfFresh(KernelNetInfo::InterfaceKey key, std::string_view file) const;
   void procWrittenIs(KernelNetInfo::InterfaceKey key, std::string_view file);
   bool kernelHolds(KernelNetInfo::Interface const& kniIntf, char const* file,
                    std::string const& value);
   // Whether the namespace's kernel has this per-device setting at all.
   bool kernelHasConf(char const* file);
   // Writes the device's /proc file and notes it written.
   int writeDeviceProc(KernelNetInfo::Interface const& kniIntf, std::string const& file,
                       std::string const& value);
   // The IPv4 address of the ICMP source interface, as the namespace's kernel lists it.
   Konet::IpAddr icmpSrcIntfAddr();
   // The interface's IPv4 status when this VRF owns it. The status directories are shared by
   // the VRFs, and while an interface moves between VRFs the other VRF's machine may still
   // hold or already hold it: that one is not ours to write.
   Mox::Ptr<Ip::IpIntfStatus> ipIntfStatusOf(Konet::IntfId const& intf) const;

   Inputs in_;  // fixed, but for routingInfoConfig
   bool standbyMode_;
   Mox::Ptr<KernelNetInfo::Root const> kniRoot_;

   double const backlogRetryDelay_ = 0.01;
   double const backlogSlice_ = 0.1;
   uint32_t const maxKernelUpdateTries_ = 33;

   std::unique_ptr<Reactors> reactors_;
   Mox::Ptr<Mox::TimerNotifiee> backlogTimer_;  // on the timer wheel
   Mox::HashMap<Konet::IntfId, Mox::Ptr<MoxIpIntfConfigFilter>> ipIntfConfigFilter_;
   Mox::HashMap<Konet::IntfId, Mox::Ptr<MoxIpIntfConfig>> routedIpIntfConfig_;
   Mox::HashMap<KernelNetInfo::InterfaceKey, Mox::Ptr<KniIntfState>> kniIntfState_;
   Mox::HashMap<Konet::IntfId, KernelUpdateCodefEntry> ipIntfKernelUpdateCodefList_;
   Mox::HashMap<Konet::IntfId, IntfIpKernelState> intfIpKernelState_;
   std::optional<Konet::IntfId> bookmark_;
   bool globalKnobsPending_ = false;
   KernelUpdateCodefEntry globalKnobs_;                    // the namespace-wide settings' tries
   Mox::HashMap<std::string, std::string> globalWritten_;  // namespace-wide file -> value
   Konet::IntfId icmpSrcIntf_;  // the ICMP source interface the machine holds now
   uint64_t runs_ = 0;
   uint64_t itemsProcessed_ = 0;
   uint64_t errors_ = 0;
   uint64_t procWritesSkipped_ = 0;
   // Address adds queued by a backlog run: a run sends them in batches (kAddBatch, and what
   // is left at its end), which takes the kernel half the time of one add per round trip.
   static constexpr size_t kAddBatch = 64;
   struct QueuedAdd {
      KernelNetInfo::InterfaceKey ifKey;
      std::string deviceName;
      Konet::IpAddrWithMask addr;
      uint32_t ifaFlags;
   };
   std::vector<QueuedAdd> queuedAdds_;
   std::vector<Konet::IntfId> statusAfterAdds_;      // their interfaces, each once
   Mox::HashMap<std::string, bool> confFileExists_;  // kernelHasConf's answers
   // The /proc files the agent wrote, by device (ifindex), since the device appeared.
   Mox::HashMap<uint32_t, uint64_t> procWrittenSinceLink_;  // linkConfFresh's bits
   struct DriftRepair {
      double delay = 0.0;  // of the next repair
      double last = 0.0;   // when drift was last seen
      bool logged = false;
   };
   Mox::HashMap<Konet::IntfId, DriftRepair> driftRepair_;
   uint64_t driftRepairs_ = 0;
   KernelIo* kernelIo_ = nullptr;
   // Read from the kernel at the first clamp, then kept by mssClampSet's successes.
   std::optional<std::map<std::string, Konet::MssClamp>> mssHeld_;
   bool mssUnreadable_ = false;  // the last attempt to read them failed
};

constexpr auto moxEnumNames(IpIntfSm::IpIntfConfOptType) {
   using T = IpIntfSm::IpIntfConfOptType;
   return Mox::EnumNames<T, 10>{{
       {T::confOptForwarding, "confOptForwarding"},
       {T::confOptRPFilter, "confOptRPFilter"},
       {T::confOptProxyArp, "confOptProxyArp"},
       {T::confOptArpIgnore, "confOptArpIgnore"},
       {T::confOptLocalProxyArp, "confOptLocalProxyArp"},
       {T::confOptAcceptIcmpRedirectIPv4, "confOptAcceptIcmpRedirectIPv4"},
       {T::confOptSendIcmpRedirectIPv4, "confOptSendIcmpRedirectIPv4"},
       {T::confOptUseIcmpSrcIpAddr, "confOptUseIcmpSrcIpAddr"},
       {T::confOptGratuitousArpAccept, "confOptGratuitousArpAccept"},
       {T::confOptDirectedBroadcast, "confOptDirectedBroadcast"},
   }};
}
inline std::ostream& operator<<(std::ostream& os, IpIntfSm::IpIntfConfOptType t) {
   return Mox::streamEnum(os, t);
}

}  // namespace Veld
