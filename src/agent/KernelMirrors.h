// The kernel mirrors of the namespaces the agent serves: one Konet::KernelMirror for the
// default namespace and one for each VRF's, each fed from its netlink socket by the event
// loop and published in the state-database tree at "kni/ns/<ns>/status", where the VRF
// roots find them. Also a request socket per namespace for the agent's own kernel work.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "agent/EventLoop.h"
#include "konet/IpPrefix.h"
#include "konet/NamespaceName.h"
#include "linux/Fd.h"
#include "linux/KernelMirror.h"
#include "mox/Larder.h"

namespace VeldAgent {

class KernelMirrors {
public:
   using Observer = std::function<void(Konet::NamespaceName const&, Konet::KernelMirror*)>;

   KernelMirrors(EventLoop& loop, Mox::Ptr<Larder::EntityManager> larder);
   ~KernelMirrors();

   // Starts mirroring `ns` (loading the kernel's state), publishes it and tells the
   // observers. 0 or an errno; starting a mirrored namespace again is 0.
   int mirrorIs(Konet::NamespaceName const& ns);
   // Stops mirroring `ns`, unpublishes it and tells the observers (with a null mirror).
   void mirrorDel(Konet::NamespaceName const& ns);
   Konet::KernelMirror* mirror(Konet::NamespaceName const& ns) const;
   std::vector<Konet::NamespaceName> namespaces() const;

   // The agent's netlink request socket in `ns`; -1 when `ns` is not mirrored.
   int requestSocket(Konet::NamespaceName const& ns) const;

   // Called for every mirror started or stopped after the observer is added.
   void observerAdd(Observer observer) { observers_.push_back(std::move(observer)); }

   static std::string larderPath(Konet::NamespaceName const& ns);

private:
   struct Entry {
      std::unique_ptr<Konet::KernelMirror> mirror;
      Konet::Fd requests;
   };
   static Konet::NamespaceName key(Konet::NamespaceName const& ns);
   EventLoop& loop_;
   Mox::Ptr<Larder::EntityManager> larder_;
   std::map<Konet::NamespaceName, Entry> entries_;
   std::vector<Observer> observers_;
};

}  // namespace VeldAgent

namespace VeldAgent {

// The IPv4 addresses the kernel holds in one namespace, by ifindex, from its mirror.
std::map<uint32_t, std::vector<Konet::IpAddrWithMask>> kernelIpv4ByIfindex(
    Konet::KernelMirror const& mirror);

}  // namespace VeldAgent
