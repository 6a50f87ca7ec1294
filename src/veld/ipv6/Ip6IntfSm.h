// The IPv6 interface machine of one VRF.
//
// Watches the VRF's view of the IPv6 interface configuration (one MoxConfigIntf per
// configured interface, which also follows the interface's status: forwarding model, EUI-64,
// device), the interfaces whose devices are in the VRF's namespace, the namespace's kernel
// interface and address records, the VRF's IPv6 routing setting, the switch-wide enhanced-DAD
// default, the enable overrides other programs ask for and the standby flag. Writes each
// routed interface's IPv6 and L3 status (not in standby; with its uRPF and data-plane
// routing, and the uRPF-anywhere summary), its multicast groups, and the
// kernel: addresses through the VRF's netlink socket, disable_ipv6 and the per-device
// settings under /proc/sys/net/ipv6; and IFF_NOARP, decided with the IPv4 configuration in
// one place (veld/addr/NoArp.h).
//
// Handlers never touch the kernel. They mark the interface's backlog entry (addrUpdatePending,
// procUpdatePending) and arm the backlog timer, which drains the backlog in runs of at most
// backlogSlice inside the VRF's namespace, resuming at a bookmark:
//
//    scheduled --run--> namespace entered? --no--> retried every run; given up after 33
//                       proc written?      --no--> retried every run; given up after 33
//                       addresses done?    --no (deferred)--> visited again on the next run
//                       all clear --> removed; an empty backlog is reported to WarpState
//
// Whose addresses: the agent deletes only the addresses it added (Ip6OwnAddrs, kept across
// restarts by the agent) and the interface's default link-local address. What the kernel
// holds is read from the address map, which follows the kernel mirror's events. A configured
// address that fails duplicate address detection leaves the kernel, is listed as DAD-failed
// and logged once; it is not added again until its configuration changes or the link goes
// down and up. A link-local address that failed stays in the kernel, and no global address is
// added while it is there.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "konet/IntfId.h"
#include "mox/Bolt.h"
#include "mox/Inputs.h"
#include "mox/StateMachine.h"
#include "platform/Interface.h"
#include "platform/Ip.h"
#include "platform/Ip6.h"
#include "platform/KernelNetInfo.h"
#include "platform/L3.h"
#include "platform/Routing.h"
#include "platform/Urpf.h"
#include "veld/KernelIo.h"
#include "veld/addr/AddrMap.h"
#include "veld/addr/KniIntfState.h"
#include "veld/config/VrfIp6IntfConfig.h"
#include "veld/config/VrfIpIntfConfig.h"
#include "veld/ipv6/IntfIp6KernelState.h"
#include "veld/ipv6/Ip6OwnAddrs.h"
#include "veld/redundancy/WarpState.h"

namespace Veld {

// The IPv6 addresses the kernel holds on one device, with their flags (IFA_F_*).
using KernelAddrs6 = Mox::HashMap<Konet::Ip6AddrWithMask, uint32_t>;

// The link-local address of an interface: the configured one, else fe80:: with the modified
// EUI-64 of the interface (::/64 when it has none).
Konet::Ip6AddrWithMask ip6LinkLocal(Mox::Ptr<Interface::IntfStatus const> const& intfStatus,
                                    Mox::Ptr<Ip6::IntfConfig const> const& intfConfig);
Interface::Eui64 toModifiedEui64(Interface::Eui64 eui64);
bool isEui64Present(Mox::Ptr<Interface::IntfStatus const> const& intfStatus);
bool linkLocalDadFailed(KernelAddrs6 const* kernelAddrs);
// Joins (add) or leaves the multicast group of `addr` for the interface, as the agent's own
// application "veld": the address itself when it is a multicast one, else its solicited-node
// group. The zero address is ignored. mcaddrDelAll leaves every group of the interface.
void mcaddrUpdate(Konet::IntfId const& intf, Ip6::MulticastGroupsForApplications* groups,
                  Konet::Ip6Addr const& addr, bool add);
void mcaddrDelAll(Konet::IntfId const& intf, Ip6::MulticastGroupsForApplications* groups);

class Ip6IntfSm : public Mox::StateMachine, public KniIntfStateOwner {
public:
   // One interface's pending kernel work.
   struct KernelUpdateCodefEntry {
      Konet::IntfId intf;
      bool procUpdatePending = false;
      bool addrUpdatePending = false;
      bool statusUpdatePending = false;
      int32_t lastError = 0;
      uint32_t tries = 0;
      double firstFailureTime = 0.0;
      bool idle() const { return !procUpdatePending && !addrUpdatePending && !statusUpdatePending; }
   };

   class MoxConfigIntf;

   // The kernel's IPv6 address flags the machine reads (IFA_F_*).
   static constexpr uint32_t kIfaDadFailed = 0x08;
   static constexpr uint32_t kIfaTentative = 0x40;
   static constexpr uint32_t kIfaPermanent = 0x80;

   // The constructor's inputs, in its order; the standby flag is given apart. The VRF's IPv4
   // view (vrfIpIntfConfig) is read only to decide the device's IFF_NOARP.
#define VELD_IP6_INTF_SM_INPUTS(X)                                           \
   X(Mox::Ptr<Ip6::Config const>, ip6Config)                                 \
   X(Mox::Ptr<VrfIp6IntfConfig const>, vrfIp6IntfConfig)                     \
   X(Mox::Ptr<AddrMap>, addrMap)                                             \
   X(Mox::Ptr<Interface::DeviceIntfStatusDir const>, kernelIntfDir)          \
   X(Mox::Ptr<Routing6::InfoConfig const>, routingInfoConfig)                \
   X(Mox::Ptr<Ip6::Input::Status>, systemIntfIp6Status)                      \
   X(Mox::Ptr<Ip6::Input::Status>, localIntfIp6Status)                       \
   X(Mox::Ptr<L3::Intf::Input::StatusDir>, systemL3IntfStatus)               \
   X(Mox::Ptr<L3::Intf::Input::StatusDir>, localL3IntfStatus)                \
   X(Mox::Ptr<Ip::AllVrfStatusLocal const>, allVrfStatusLocal)               \
   X(Mox::Ptr<Ip6::MulticastGroupsForApplications>, multicastGroups)         \
   X(int, netlinkSocket, -1)                                                 \
   X(Mox::Ptr<Interface::AllIntfStatusDir const>, allIntfStatusDir)          \
   X(Mox::Ptr<Interface::KniIntfStatusManager>, kniIntfStatusManager)        \
   X(L3::VrfName, vrfName)                                                   \
   X(Mox::Ptr<WarpState>, warpState)                                         \
   X(Mox::Ptr<Bolt::TimerWheel const>, timerWheel)                           \
   X(Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests>, updateIp6IntfStatusVrfReq) \
   X(Mox::Ptr<L3::UpdateIpIntfStatusRequests>, updateIp6IntfStatusReq)       \
   X(Mox::Ptr<Urpf::UrpfOnAllIntfStat>, urpfOnAllIntfStat)                   \
   X(Mox::Ptr<Ip6::Ip6Enable const>, ip6Enable)                              \
   X(Mox::Ptr<Ip6OwnAddrs>, ownAddrs)                                        \
   X(Mox::Ptr<VrfIpIntfConfig const>, vrfIpIntfConfig)
   struct Inputs {
      MOX_INPUTS(VELD_IP6_INTF_SM_INPUTS)
   };

   Ip6IntfSm(Inputs inputs, bool standbyMode);
   ~Ip6IntfSm() override;

   Inputs const& inputs() const { return in_; }
   L3::VrfName const& vrfName() const { return in_.vrfName; }
   Konet::NamespaceName const& nsName() const;
   Mox::Ptr<AddrMap> const& addrMap() const override { return in_.addrMap; }
   Mox::Ptr<Interface::KniIntfStatusManager> const& kniIntfStatusManager() const override {
      return in_.kniIntfStatusManager;
   }
   Mox::Ptr<Ip6::Input::Status> const& ip6StatusFor(Konet::IntfId const& intf) const;
   Mox::Ptr<L3::Intf::Input::StatusDir> const& l3StatusFor(Konet::IntfId const& intf) const;
   // The interface's IPv6 status when this VRF owns it.
   Mox::Ptr<Ip6::IntfStatus> ip6IntfStatusOf(Konet::IntfId const& intf) const;
   // The VRF's routing entry, followed when the agent re-creates it.
   void routingInfoConfigIs(Mox::Ptr<Routing6::InfoConfig const> const& config);

   bool standbyMode() const { return standbyMode_; }
   void standbyModeIs(bool standbyMode);

   KernelIo& kernelIo() const { return kernelIo_ ? *kernelIo_ : KernelIo::current(); }
   void kernelIoIs(KernelIo* io) { kernelIo_ = io; }

   // ---- The backlog
   double backlogRetryDelay() const { return backlogRetryDelay_; }
   double backlogSlice() const { return backlogSlice_; }
   uint32_t maxKernelUpdateTries() const { return maxKernelUpdateTries_; }
   static constexpr double ip6EnableTimerDelay = 1.0;
   KernelUpdateCodefEntry const* ip6IntfKernelUpdateCodef(Konet::IntfId const& intf) const {
      return ip6IntfKernelUpdateCodefList_.find(intf);
   }
   size_t ip6IntfKernelUpdateCodefListSize() const { return ip6IntfKernelUpdateCodefList_.size(); }
   std::optional<Konet::IntfId> const& ip6IntfKernelUpdateCodefBookmark() const {
      return bookmark_;
   }
   uint64_t ip6IntfKernelUpdateCodefListProcessed() const { return runs_; }
   uint64_t ip6IntfKernelUpdateCodefListItemsProcessed() const { return itemsProcessed_; }
   uint64_t ip6IntfKernelUpdateCodefListErrs() const { return errors_; }
   std::string warpKey() const { return "ip6IntfSm-" + in_.vrfName.name(); }

   IntfIp6KernelState const* intfIp6KernelState(Konet::IntfId const& intf) const {
      return intfIp6KernelState_.find(intf);
   }
   ProcIpv6Set const& procIpv6Set() const { return procIpv6Set_; }
   // What the kernel holds on a device, as the mirror's events tell (null: nothing).
   KernelAddrs6 const* kernelAddrs6(KernelNetInfo::InterfaceKey key) const {
      return kernelAddrs6_.find(key);
   }
   // The configured addresses that failed DAD, kept out of the kernel until their
   // configuration changes or the link goes down and up.
   bool dadFailed(Konet::IntfId const& intf, Konet::Ip6AddrWithMask const& a) const;

   void doScheduleKernelAddrUpdate(Konet::IntfId const& intf) override;
   void doScheduleKernelProcUpdate(Konet::IntfId const& intf);
   void processIp6IntfKernelUpdateCodefList();
   void verifyBacklogQueue();

   // ---- Kernel work (run by the backlog, inside the VRF's namespace)
   bool doUpdateKernelAddrIntf(Konet::IntfId const& intf);
   int doUpdateProc(Konet::IntfId const& intf);
   bool setIp6Enable(std::string const& deviceName, Konet::IntfId const& intf, bool enable,
                     Konet::NamespaceName const& ns, ProcIpv6Set& procIpv6Set);
   bool kernelAddrAdd(KernelNetInfo::Interface const& kernelIntf, Konet::IntfId const& intf,
                      Konet::Ip6AddrWithMask const& addr);
   bool kernelAddrDel(KernelNetInfo::Interface const& kernelIntf, Konet::IntfId const& intf,
                      Konet::Ip6AddrWithMask const& addr);
   bool isSlaacAddress(Konet::Ip6AddrWithMask const& addr, uint32_t flags,
                       Konet::IntfId const& intf) const;

   // ---- Status
   void doUpdateIp6StatusAddr(Konet::IntfId const& intf);
   Mox::Ptr<Ip6::IntfStatus> addIp6IntfStatus(Konet::IntfId const& intf);
   void deleteIp6IntfStatus(Konet::IntfId const& intf);

   // ---- Configuration
   // The interface's configuration when it is routed in this VRF's view (null otherwise).
   Mox::Ptr<Ip6::IntfConfig const> routedIp6IntfConfig(Konet::IntfId const& intf) const;
   bool isForwardingEnabled(Konet::IntfId const& intf) const;
   bool enhancedDadEnabled(Mox::Ptr<Ip6::IntfConfig const> const& config) const;
   bool enableOverride(Konet::IntfId const& intf) const {
      return in_.ip6Enable && in_.ip6Enable->enable(intf);
   }

   // ---- Handlers
   void handleInitialized();
   void handleStandbyMode();
   void handleConfig(Konet::IntfId const& intf);
   void handleJointIntf(Konet::IntfId const& intf);
   void handleKernelIntf(Konet::IntfId const& intf);
   void handleKernelRecord(KernelNetInfo::InterfaceKey key);
   void handleAddr(KernelNetInfo::IpKey const& ipKey);
   void handleIp6EnableOverride(Konet::IntfId const& intf);
   void handleRouting();
   void handleGlobalEnhancedDad();
   void handleIp6IntfStatusUpdateReq(Konet::IntfId const& intf);
   // uRPF and routing in the data plane (status only: the kernel has no IPv6 rp_filter).
   void updateUrpfStatus(Konet::IntfId const& intf, Urpf::UrpfConfig const& urpf);
   void updateUrpfAndRouting(Konet::IntfId const& intf, Urpf::UrpfConfig const& urpf);
   void handleUrpfAndRouting(Konet::IntfId const& intf);
   void updateDpRoutingEnabled(Konet::IntfId const& intf);
   void handleUrpfOnStatusChange();
   bool isUrpfOnAnyIntf() const;
   void handleIntfStatusForDeletedIntfConfig(Konet::IntfId const& intf);
   void handleBacklogTimer();
   // A configured address changed: a DAD failure of it is forgotten.
   void dadFailedForget(Konet::IntfId const& intf, Konet::Ip6AddrWithMask const& a);
   void dadFailedForgetAll(Konet::IntfId const& intf);
   // Starts (1.0 s, unless running) or stops the interface's Ip6EnableTimer; false when the
   // interface has no configuration reactor.
   bool ip6EnableTimerIs(Konet::IntfId const& intf, bool start);
   bool ip6EnableTimerArmed(Konet::IntfId const& intf) const;

private:
   class Reactors;
   KernelUpdateCodefEntry& entryFor(Konet::IntfId const& intf);
   void armBacklogTimer();
   void runEntry(Konet::IntfId const& intf);
   bool entryFailed(KernelUpdateCodefEntry& entry, int err, double now, char const* what);
   int writeSetting(Konet::IntfId const& intf, IntfIp6KernelState& state,
                    IntfIp6KernelState::Setting s, char const* dir, std::string const& dev,
                    char const* file, std::string const& value);
   bool reportedValue(std::string const& deviceName, char const* dir, char const* file,
                      std::string* value) const;
   bool kernelHasConf(char const* dir, char const* file);
   void updateNoArp(Konet::IntfId const& intf,
                    Mox::Ptr<Interface::IntfStatus const> const& intfStatus,
                    KernelNetInfo::Interface const& kniIntf,
                    Mox::Ptr<Ip6::IntfConfig const> const& config);
   // Removes from the kernel the addresses of the interface that this agent added.
   void removeOwnAddrs(Konet::IntfId const& intf, KernelNetInfo::Interface const& kniIntf);
   void dadFailure(Konet::IntfId const& intf, KernelNetInfo::Interface const& kniIntf,
                   Konet::Ip6AddrWithMask const& a, bool linkLocal);
   bool mayWriteStatus(Konet::IntfId const& intf) const;
   // The device is in this namespace and holds no IPv6 address at all.
   bool kernelAddrsGone(std::string const& deviceName) const;

   Inputs in_;
   bool standbyMode_;
   Mox::Ptr<KernelNetInfo::Root const> kniRoot_;

   double const backlogRetryDelay_ = 0.01;
   double const backlogSlice_ = 0.1;
   uint32_t const maxKernelUpdateTries_ = 33;

   std::unique_ptr<Reactors> reactors_;
   Mox::Ptr<Mox::TimerNotifiee> backlogTimer_;
   Mox::HashMap<Konet::IntfId, Mox::Ptr<MoxConfigIntf>> configIntf_;
   Mox::HashMap<std::string, bool> confFileExists_;  // kernelHasConf's answers
   Mox::HashMap<KernelNetInfo::InterfaceKey, Mox::Ptr<KniIntfState>> kniIntfState_;
   Mox::HashMap<Konet::IntfId, KernelUpdateCodefEntry> ip6IntfKernelUpdateCodefList_;
   Mox::HashMap<Konet::IntfId, IntfIp6KernelState> intfIp6KernelState_;
   ProcIpv6Set procIpv6Set_;
   // DAD failures seen, by interface: the address and whether it was logged.
   Mox::HashMap<Konet::IntfId, Mox::HashSet<Konet::Ip6AddrWithMask>> dadFailed_;
   Mox::HashMap<Konet::IntfId, bool> running_;
   Mox::HashMap<KernelNetInfo::InterfaceKey, KernelAddrs6>
       kernelAddrs6_;  // the device's running state last seen
   std::optional<Konet::IntfId> bookmark_;
   uint64_t runs_ = 0;
   uint64_t itemsProcessed_ = 0;
   uint64_t errors_ = 0;
   KernelIo* kernelIo_ = nullptr;
};

}  // namespace Veld
