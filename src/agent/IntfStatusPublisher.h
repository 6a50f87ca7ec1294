// Publishes each configured interface's status as the platform would: its forwarding model
// from the configuration (routed, or bridged when unrouted), and from the kernel mirrors
// its device's name, MTU, EUI-64 (from the MAC), running state and the namespace the device
// is in now (netNsName).
//
// Watches the interface table of every mirrored namespace. A configured device that no
// mirror holds leaves the status without a device (deviceName ""), reported once; the
// interface waits for the device to appear. An interface removed from the configuration
// keeps its status until the kernel no longer holds the addresses it had (at most 3 s), so
// that its VRF's machine can still find the device to take them away.
#pragma once

#include <map>
#include <set>
#include <string>

#include "agent/Config.h"
#include "agent/DeferredWork.h"
#include "agent/Entities.h"
#include "agent/KernelMirrors.h"

namespace VeldAgent {

class IntfStatusPublisher {
public:
   IntfStatusPublisher(Entities& entities, KernelMirrors& mirrors);
   ~IntfStatusPublisher();

   void intfIs(Konet::IntfId const& id, InterfaceSettings const& settings);
   void intfDel(Konet::IntfId const& id, InterfaceSettings const& old);
   // The devices, by their kernel names, of configured interfaces that no mirror holds.
   std::set<std::string> missingDevices() const;
   bool settled() const { return retiring_.empty(); }

   static Interface::Eui64 eui64FromMac(std::array<uint8_t, 6> const& mac);

   void handleKernelIntf(Konet::NamespaceName const& ns, KernelNetInfo::InterfaceKey key);
   void handleMirror(Konet::NamespaceName const& ns, Konet::KernelMirror* mirror);

private:
   class MoxInterfaceTable;
   // What the publisher needs of an interface's settings.
   struct Intf {
      std::string device;
      bool routed = true;
      bool reportedMissing = false;
   };
   struct Retiring {
      std::string device;
      std::set<Konet::IpAddrWithMask> addrs;
      double by = 0.0;
   };
   void refresh(Konet::IntfId const& id);
   void doRetire();
   void doReport();

   Entities& e_;
   KernelMirrors& mirrors_;
   std::map<Konet::IntfId, Intf> intfs_;
   std::map<std::string, Konet::IntfId> byDevice_;
   std::map<Konet::NamespaceName, std::map<uint32_t, std::string>> names_;  // ifindex -> device
   std::map<Konet::NamespaceName, Mox::Ptr<MoxInterfaceTable>> reactors_;
   std::map<Konet::IntfId, Retiring> retiring_;
   Mox::Ptr<DeferredWork> retire_;
   Mox::Ptr<DeferredWork> report_;
};

}  // namespace VeldAgent
