// Nexthop resolution in the agent: what the platform's resolver manager would do.
//
// Per namespace the agent mirrors, a route mirror keeps the kernel's routes in two FIB route
// tables. Per VRF whose namespace is mirrored, a trie builder container builds the tries
// from them while some client has nexthops there, and one resolver per client resolves the
// client's nexthops of the VRF into the client's nexthop status of the VRF.
//
// Clients: "config" (the configuration's /vrfs/<vrf>/nexthops) and each program that names
// itself on the control socket. A subscriber of a client receives one JSON line per change
// of one of its nexthops' resolution.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "agent/Config.h"
#include "agent/Entities.h"
#include "agent/EventLoop.h"
#include "agent/KernelMirrors.h"
#include "agent/VrfNamespaces.h"
#include "linux/RouteMirror.h"
#include "mox/Dir.h"
#include "veld/nexthop/NexthopResolverSm.h"
#include "veld/nexthop/TrieBuilderContainer.h"

namespace VeldAgent {

class Nexthops {
public:
   static constexpr char kConfigClient[] = "config";
   using Push = std::function<void(int stream, std::string const& line)>;

   Nexthops(Entities& e, EventLoop& loop, KernelMirrors& mirrors, VrfNamespaces& vrfs);
   ~Nexthops();
   Nexthops(Nexthops const&) = delete;
   Nexthops& operator=(Nexthops const&) = delete;

   // The configuration's nexthops, and the VRFs that exist.
   void configIs(Configuration const& config);
   // A client's nexthops in one VRF, replacing what it had there (none: it leaves the VRF).
   void clientNexthopsIs(std::string const& client, L3::VrfName const& vrf,
                         std::vector<Konet::IpGenAddr> const& nexthops);
   // Looks again at which VRFs can resolve (their namespaces mirrored).
   void sync();

   // Every nexthop of every client (of one VRF when `vrf` is not empty).
   nlohmann::json show(std::string const& vrf) const;

   void pushIs(Push push) { push_ = std::move(push); }
   void subscriberIs(int stream, std::string const& client) { subscribers_[stream] = client; }
   void subscriberDel(int stream) { subscribers_.erase(stream); }

   Konet::RouteMirror* routeMirror(Konet::NamespaceName const& ns) const;
   // The resolution of one nexthop as shown and pushed.
   nlohmann::json entryJson(L3::VrfName const& vrf, std::string const& client,
                            Konet::IpGenAddr const& addr) const;

private:
   class MoxStatus;
   struct Resolver {
      Mox::Ptr<Routing::NexthopVrfStatus> status;
      Mox::Ptr<Routing::NexthopResolverSm> sm;
      Mox::Ptr<MoxStatus> watch;
   };
   struct Vrf {
      Konet::NamespaceName ns;
      Mox::Ptr<Veld::TrieBuilderContainerConfig> config;
      Mox::Ptr<Veld::TrieBuilderContainerStatus> status;
      Mox::Ptr<Veld::TrieBuilderContainer> container;
      std::map<std::string, Resolver> resolvers;  // by client
   };
   void mirrorChanged(Konet::NamespaceName const& ns, Konet::KernelMirror* mirror);
   Konet::RouteMirror* routeMirrorStarted(Konet::NamespaceName const& ns);
   Mox::Ptr<Routing::NexthopConfig> client(std::string const& name);
   void syncVrf(L3::VrfName const& name);
   void pushChange(L3::VrfName const& vrf, std::string const& client, Konet::IpGenAddr const& addr);
   std::string deviceName(Konet::NamespaceName const& ns, int ifindex) const;

   Entities& e_;
   EventLoop& loop_;
   KernelMirrors& mirrors_;
   VrfNamespaces& vrfNs_;
   Mox::Ptr<Mox::Dir> clients_ = Mox::make<Mox::Dir>(Mox::Name("nexthop/config"));
   std::map<Konet::NamespaceName, std::unique_ptr<Konet::RouteMirror>> routeMirrors_;
   std::set<L3::VrfName> configured_;
   std::map<L3::VrfName, Vrf> vrfs_;
   std::map<int, std::string> subscribers_;
   Push push_;
};

}  // namespace VeldAgent
