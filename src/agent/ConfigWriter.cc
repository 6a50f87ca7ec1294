#include "agent/ConfigWriter.h"

#include "mox/Trace.h"

namespace VeldAgent {

namespace {
Mox::TraceHandle th("VeldAgentConfig");

// Makes `have` hold what `want` holds, through the entity's own setters.
template <class Set, class Have, class Add, class Del>
void syncSet(Set const& want, Have const& have, Add add, Del del) {
   for (auto const& a : have.keys()) {
      if (!want.count(a)) del(a);
   }
   for (auto const& a : want)
      add(a);
}
}  // namespace

ConfigWriter::ConfigWriter(Entities& entities, VrfNamespaces& vrfs, IntfStatusPublisher& intfs)
    : e_(entities), vrfs_(vrfs), intfs_(intfs) {
   current_.vrfs[L3::VrfName::defaultVrf()] = VrfSettings{};
   writeRouting(current_.routing);
   writeVrf(L3::VrfName::defaultVrf(), VrfSettings{});
}

ConfigDiff ConfigWriter::apply(Configuration const& next) {
   auto diff = diffConfigurations(current_, next);
   MOX_TRACE_FN(th, diff.summary());
   if (diff.routingChanged) writeRouting(next.routing);
   for (auto const& v : diff.vrfsAdded)
      writeVrf(v, next.vrfs.at(v));
   for (auto const& v : diff.vrfsChanged)
      writeVrf(v, next.vrfs.at(v));
   for (auto const& i : diff.intfsRemoved)
      removeIntf(i, current_.interfaces.at(i));
   for (auto const& i : diff.intfsAdded)
      writeIntf(i, next.interfaces.at(i));
   for (auto const& i : diff.intfsChanged)
      writeIntf(i, next.interfaces.at(i));
   for (auto const& v : diff.vrfsRemoved)
      removeVrf(v);
   current_ = next;
   return diff;
}

void ConfigWriter::writeRouting(RoutingSettings const& r) {
   e_.kernelProto->tcpSendResetIs(r.tcpReset);
   e_.kernelProto->udpSendUnreachableIs(r.udpUnreachable);
   e_.ipConfig->sendRedirectsIs(r.sendRedirects);
   e_.ip6Config->enhancedDadIs(r.ipv6EnhancedDad);
}

void ConfigWriter::writeVrf(L3::VrfName const& name, VrfSettings const& v) {
   MOX_TRACE_FN(th, name);
   vrfs_.vrfIs(name, v);
   e_.routingVrfConfig->vrfConfigIs(name)->routingIs(v.ipv4Routing);
   e_.routing6VrfConfig->vrfConfigIs(name)->routingIs(v.ipv6Routing);
   e_.routingAgents->agentsIs(name, {v.routingAgents.begin(), v.routingAgents.end()});
}

// The routing entries go with the VRF's namespace, not before: a VRF root, once made, stays
// until the VRF's local status goes.
void ConfigWriter::removeVrf(L3::VrfName const& name) {
   MOX_TRACE_FN(th, name);
   vrfs_.vrfDel(name);
   e_.routingAgents->agentsDel(name);
   e_.routingVrfConfig->vrfConfigDel(name);
   e_.routing6VrfConfig->vrfConfigDel(name);
}

void ConfigWriter::writeIntf(Konet::IntfId const& id, InterfaceSettings const& s) {
   MOX_TRACE_FN(th, id);
   auto l3 = e_.l3Config->intfConfigIs(id);
   l3->vrfIs(s.vrf);
   // The status first: the machines meet the configuration with its device known.
   intfs_.intfIs(id, s);
   auto c = e_.cliIpConfig->ipIntfConfigIs(id);
   auto const& v4 = s.ipv4;
   // The source first: the address selection then takes the address from it.
   c->addrSourceIs(v4.dhcp         ? Ip::AddrSource::dhcp
                   : v4.unnumbered ? Ip::AddrSource::none
                                   : Ip::AddrSource::cli);
   c->configSourceIs(v4.dhcp         ? Ip::ConfigSource::dhcp
                     : v4.unnumbered ? Ip::ConfigSource::unnumbered
                                     : Ip::ConfigSource::cli);
   c->addrWithMaskIs(v4.address.value_or(Konet::IpAddrWithMask()));
   syncSet(
       v4.secondaries, c->secondaryWithMaskIterator(),
       [&](auto const& a) { c->secondaryWithMaskIs(a); },
       [&](auto const& a) { c->secondaryWithMaskDel(a); });
   c->virtualAddrWithMaskIs(v4.virtualAddress.value_or(Konet::IpAddrWithMask()));
   syncSet(
       v4.virtualSecondaries, c->virtualSecondaryWithMaskIterator(),
       [&](auto const& a) { c->virtualSecondaryWithMaskIs(a); },
       [&](auto const& a) { c->virtualSecondaryWithMaskDel(a); });
   c->proxyArpEnabledIs(v4.proxyArp);
   c->localProxyArpEnabledIs(v4.localProxyArp);
   c->gratuitousArpAcceptedIs(v4.gratuitousArpAccept);
   c->forwardingIs(v4.forwarding);
   c->urpfIs(v4.urpf);
   c->noArpIs(v4.noArp);
   c->maxMssIngressIs(v4.mssIngress);
   c->maxMssEgressIs(v4.mssEgress);
   c->directedBroadcastEnabledIs(v4.directedBroadcast);
   // A borrower carries its lender's address without the lender's subnet route: the subnet
   // is reached through the lender.
   c->attachedRoutesIs(v4.attachedRoutes && !v4.unnumbered);
   c->unnumberedIntfIdIs(v4.unnumbered.value_or(Konet::IntfId()));
   c->l3ConfigIs(l3);
   writeIntf6(id, s.ipv6, l3);
}

void ConfigWriter::writeIntf6(Konet::IntfId const& id, Ipv6Settings const& v6,
                              Mox::Ptr<L3::Intf::Config> const& l3) {
   auto c = e_.ip6Config->intfIs(id);
   syncSet(
       v6.addresses, c->addrIterator(), [&](auto const& a) { c->addrIs(a); },
       [&](auto const& a) { c->addrDel(a); });
   c->llAddrWithMaskIs(v6.linkLocal.value_or(Konet::Ip6AddrWithMask()));
   c->addrSourceIs(v6.slaac ? Ip6::AddrSource::slaac : Ip6::AddrSource::manual);
   c->acceptDadIs(v6.acceptDad);
   c->enhancedDadIs(v6.enhancedDad);
   c->nsRetransmitIntervalIs(v6.nsInterval);
   c->nsSourceAddrIs(v6.nsSource.value_or(Konet::Ip6Addr()));
   c->acceptRaDefRtrIs(v6.acceptRaDefaultRouter);
   c->l3ConfigIs(l3);
   c->enableIs(v6.enable);  // last: the interface is enabled with its whole configuration
}

void ConfigWriter::removeIntf(Konet::IntfId const& id, InterfaceSettings const& old) {
   MOX_TRACE_FN(th, id);
   e_.cliIpConfig->ipIntfConfigDel(id);
   e_.ip6Config->intfDel(id);
   e_.l3Config->intfConfigDel(id);
   intfs_.intfDel(id, old);
}

}  // namespace VeldAgent
