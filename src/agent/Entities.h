// The entities the agent gives the library: its configuration inputs (written by
// ConfigWriter), the platform's status that the agent publishes in the platform's place
// (interfaces, VRFs, kernel mirrors) and the status the library writes back. All of them are
// published in the agent's state-database tree, at the paths listed in Entities.cc.
#pragma once

#include "mox/Bolt.h"
#include "mox/Dir.h"
#include "mox/Larder.h"
#include "platform/Agent.h"
#include "platform/Dhclient.h"
#include "platform/Interface.h"
#include "platform/Ip.h"
#include "platform/Ip6.h"
#include "platform/L3.h"
#include "platform/ProxyArp.h"
#include "platform/Routing.h"
#include "veld/ipv6/Ip6OwnAddrs.h"
#include "veld/redundancy/SsoConfig.h"
#include "veld/unnumbered/LenderToBorrowersStatus.h"

namespace VeldAgent {

struct Entities {
   Entities();

   Mox::Ptr<Larder::EntityManager> larder;
   Mox::Ptr<Bolt::TaskScheduler> scheduler;
   Mox::Ptr<Bolt::TimerWheel> timerWheel;
   Mox::Ptr<Mox::Clock> clock;

   // Configuration. The interfaces' IPv4 configuration is written to cliIpConfig; the
   // address selection copies it to ipConfig, which the rest of the library reads, with each
   // primary address from its source (the command line, DHCP or a lender).
   Mox::Ptr<Ip::Config> cliIpConfig;
   Mox::Ptr<Ip::Config> ipConfig;
   Mox::Ptr<Dhclient::Status> dhclientStatus;  // written by DhcpClients
   Mox::Ptr<Veld::IpUnnumbered::LenderToBorrowersStatus> lenderToBorrowers;
   Mox::Ptr<Ip6::Config> ip6Config;
   Mox::Ptr<L3::Intf::ConfigDir> l3Config;
   Mox::Ptr<Routing::VrfInfoConfigDir> routingVrfConfig;  // the default VRF's entry always exists
   Mox::Ptr<Routing6::VrfInfoConfigDir> routing6VrfConfig;
   Mox::Ptr<Routing::KernelProtoConfig> kernelProto;
   Mox::Ptr<Interface::LoopbackIntfConfigDir> loopbackConfig;
   Mox::Ptr<VrfTypes::MultiAgentVrfProtoConfig> routingAgents;  // the daemons per VRF
   Mox::Ptr<Veld::SsoConfig> ssoConfig;                         // set by a control request

   // The routing daemons' launch handshake: one directory per daemon in each (RoutingAgentFiles).
   Mox::Ptr<Mox::Dir> ribQualDir;
   Mox::Ptr<Mox::Dir> ribStatusDir;

   // The platform's status, published by the agent.
   Mox::Ptr<Routing::Hardware::Status> routingHardware;
   Mox::Ptr<Interface::AllIntfStatusDir> allIntfStatus;
   Mox::Ptr<Interface::AllIntfStatusLocalDir> allIntfStatusLocal;
   Mox::Ptr<Interface::AllIntfNamespaceConfigDir> intfNamespaceConfig;  // IpIntfVrfReactor's
   Mox::Ptr<Ip::AllVrfStatusLocal> vrfStatusLocal;
   Mox::Ptr<Ip::AllVrfStatusGlobal> vrfStatusGlobal;
   Mox::Ptr<ProxyArp::VirtualMacStatus> virtualMac;
   // Programs' requests for IPv6 on interfaces: one Ip6::Ip6Enable per program, by its
   // name (written by the control socket's requests); ip6Enable is their merge (written by
   // the library's Ip6EnableSm), which the IPv6 machines read.
   Mox::Ptr<Mox::Dir> ip6EnableDir;
   Mox::Ptr<Ip6::Ip6Enable> ip6Enable;
   // The IPv6 addresses the agent added, seeded at start from the configuration it applied
   // before it stopped.
   Mox::Ptr<Veld::Ip6OwnAddrs> ip6OwnAddrs;

   // What the library writes: per producer, then merged.
   Mox::Ptr<Ip::IpInputStatusDir> ipInputStatus;
   Mox::Ptr<Ip::Input::Status> systemIpStatus;  // inputs of ipInputStatus
   Mox::Ptr<Ip::Input::Status> localIpStatus;
   Mox::Ptr<Ip::Status> ipStatus;
   Mox::Ptr<L3::Intf::InputStatusDir> l3InputStatus;
   Mox::Ptr<L3::Intf::Input::StatusDir> systemL3Status;  // inputs of l3InputStatus
   Mox::Ptr<L3::Intf::Input::StatusDir> localL3Status;
   Mox::Ptr<L3::Intf::StatusDir> l3Status;
   Mox::Ptr<Ip6::Ip6InputStatusDir> ip6InputStatus;
   Mox::Ptr<Ip6::Input::Status> systemIp6Status;  // inputs of ip6InputStatus
   Mox::Ptr<Ip6::Input::Status> localIp6Status;
   Mox::Ptr<Ip6::Status> ip6Status;
   // The multicast groups each application wants joined (the agent's own "veld", and the
   // programs' that ask through the control socket), per family.
   Mox::Ptr<Ip6::MulticastGroupsForApplications> ip6MulticastGroups;
   Mox::Ptr<Ip::MulticastGroupsForApplications> ipMulticastGroups;
   Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests> updateIpVrfRequests;
   Mox::Ptr<L3::UpdateIpIntfStatusVrfRequests> updateIp6VrfRequests;
   Mox::Ptr<L3::UpdateIpIntfStatusRequests> updateIpRequests;
   Mox::Ptr<L3::UpdateIpIntfStatusRequests> updateIp6Requests;

   // Placeholder inputs of machines that only hold them.
   Mox::Ptr<Interface::LoopbackIntfStatusDir> loopbackStatus;
   Mox::Ptr<Interface::LoopbackIntfStatusLocalDir> loopbackStatusLocal;
   Mox::Ptr<Interface::IntfStatusPtrDir> intfStatusPtrDir;
   Mox::Ptr<AgentConfig> agentConfig;
   Mox::Ptr<StagesHelper> stagesHelper;
};

}  // namespace VeldAgent
