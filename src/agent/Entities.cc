#include "agent/Entities.h"

namespace VeldAgent {

using Mox::make;

Entities::Entities()
    : larder(make<Larder::EntityManager>()),
      scheduler(make<Bolt::TaskScheduler>()),
      timerWheel(make<Bolt::TimerWheel>()),
      clock(make<Mox::Clock>()),
      cliIpConfig(make<Ip::Config>()),
      ipConfig(make<Ip::Config>()),
      dhclientStatus(make<Dhclient::Status>()),
      lenderToBorrowers(make<Veld::IpUnnumbered::LenderToBorrowersStatus>()),
      ip6Config(make<Ip6::Config>()),
      l3Config(make<L3::Intf::ConfigDir>()),
      routingVrfConfig(make<Routing::VrfInfoConfigDir>()),
      routing6VrfConfig(make<Routing6::VrfInfoConfigDir>()),
      kernelProto(make<Routing::KernelProtoConfig>()),
      loopbackConfig(make<Interface::LoopbackIntfConfigDir>()),
      routingAgents(make<VrfTypes::MultiAgentVrfProtoConfig>()),
      ssoConfig(Veld::ssoConfigFactory()),
      ribQualDir(make<Mox::Dir>("qual")),
      ribStatusDir(make<Mox::Dir>("status")),
      routingHardware(make<Routing::Hardware::Status>()),
      allIntfStatus(make<Interface::AllIntfStatusDir>()),
      allIntfStatusLocal(make<Interface::AllIntfStatusLocalDir>()),
      intfNamespaceConfig(make<Interface::AllIntfNamespaceConfigDir>()),
      vrfStatusLocal(make<Ip::AllVrfStatusLocal>()),
      vrfStatusGlobal(make<Ip::AllVrfStatusGlobal>()),
      virtualMac(make<ProxyArp::VirtualMacStatus>()),
      ip6EnableDir(make<Mox::Dir>("ip6Enable")),
      ip6Enable(make<Ip6::Ip6Enable>()),
      ip6OwnAddrs(make<Veld::Ip6OwnAddrs>()),
      ipInputStatus(make<Ip::IpInputStatusDir>()),
      ipStatus(make<Ip::Status>()),
      l3InputStatus(make<L3::Intf::InputStatusDir>()),
      l3Status(make<L3::Intf::StatusDir>()),
      ip6InputStatus(make<Ip6::Ip6InputStatusDir>()),
      ip6Status(make<Ip6::Status>()),
      ip6MulticastGroups(make<Ip6::MulticastGroupsForApplications>()),
      ipMulticastGroups(make<Ip::MulticastGroupsForApplications>()),
      updateIpVrfRequests(make<L3::UpdateIpIntfStatusVrfRequests>()),
      updateIp6VrfRequests(make<L3::UpdateIpIntfStatusVrfRequests>()),
      updateIpRequests(make<L3::UpdateIpIntfStatusRequests>()),
      updateIp6Requests(make<L3::UpdateIpIntfStatusRequests>()),
      loopbackStatus(make<Interface::LoopbackIntfStatusDir>()),
      loopbackStatusLocal(make<Interface::LoopbackIntfStatusLocalDir>()),
      intfStatusPtrDir(make<Interface::IntfStatusPtrDir>()),
      agentConfig(make<AgentConfig>()),
      stagesHelper(make<StagesHelper>()) {
   systemIpStatus = ipInputStatus->inputStatusIs("veld");
   localIpStatus = ipInputStatus->inputStatusIs("veld-local");
   systemL3Status = l3InputStatus->inputStatusIs("veld");
   localL3Status = l3InputStatus->inputStatusIs("veld-local");
   systemIp6Status = ip6InputStatus->inputStatusIs("veld");
   localIp6Status = ip6InputStatus->inputStatusIs("veld-local");
   routingVrfConfig->vrfConfigIs(L3::VrfName::defaultVrf());
   routing6VrfConfig->vrfConfigIs(L3::VrfName::defaultVrf());
   // The kernel checks reverse paths itself: there is no forwarding hardware to do it.
   routingHardware->urpfSupportedIs(false);

   auto& l = *larder;
   l.entityIs("ip/config/cli", cliIpConfig);
   l.entityIs("ip/config", ipConfig);
   l.entityIs("dhclient/status", dhclientStatus);
   l.entityIs("ip/unnumbered/status", lenderToBorrowers);
   l.entityIs("ip6/config", ip6Config);
   l.entityIs("l3/intf/config", l3Config);
   l.entityIs("routing/vrf/config", routingVrfConfig);
   l.entityIs("routing6/vrf/config", routing6VrfConfig);
   l.entityIs("routing/kernel/config", kernelProto);
   l.entityIs("routing/hardware/status", routingHardware);
   l.entityIs("interface/config/loopback/intf", loopbackConfig);
   l.entityIs("interface/status/all", allIntfStatus);
   l.entityIs("interface/status/local", allIntfStatusLocal);
   l.entityIs("interface/config/namespace", intfNamespaceConfig);
   l.entityIs("ip/vrf/status/local", vrfStatusLocal);
   l.entityIs("ip/vrf/status/global", vrfStatusGlobal);
   l.entityIs("ip/input/status", ipInputStatus);
   l.entityIs("ip/status", ipStatus);
   l.entityIs("l3/intf/input/status", l3InputStatus);
   l.entityIs("l3/intf/status", l3Status);
   l.entityIs("ip6/input/status", ip6InputStatus);
   l.entityIs("ip6/status", ip6Status);
   l.entityIs("vrf/routingAgents/config", routingAgents);
   l.entityIs("redundancy/sso/config", ssoConfig);
   l.entityIs("vrf/routingAgents/qual", ribQualDir);
   l.entityIs("vrf/routingAgents/status", ribStatusDir);
   l.entityIs("ip6/enable/input", ip6EnableDir);
   l.entityIs("ip6/enable/status", ip6Enable);
   l.entityIs("ip/multicast/input", ipMulticastGroups);
   l.entityIs("ip6/multicast/input", ip6MulticastGroups);
}

}  // namespace VeldAgent
