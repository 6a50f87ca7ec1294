// The DHCP clients of the interfaces configured with `dhcp`: one udhcpc process per
// interface, run inside the namespace of the interface's VRF, and the Dhclient::Status that
// the library's address selection reads.
//
// The client only reports: its hook script (written to DIR/dhcp/hook) appends each event as
// one line "<event> <ip> <prefix length> <lease seconds>" to DIR/dhcp/<intf>.events, which
// the agent watches with inotify; the agent turns the events into the interface's status:
//    bound, renew            -> the leased address, not pending; recorded in <intf>.lease
//    deconfig, leasefail, nak -> pending (no address); the record goes
//    the lease's time is up   -> pending (no address); the record goes
// A client that has not been bound since it started is asking for the recorded lease again:
// its start-up "deconfig" and failures leave that lease in place until it expires, so that
// neither a restart of the agent nor of the client changes the address.
//
// Each client runs while its interface is on DHCP and its device is in the VRF's namespace.
// One that dies is started again after a back-off (0.5 s doubling to 30 s, reset by a lease);
// one whose interface leaves DHCP is stopped with a release of its lease (udhcpc -R); when
// the agent stops, the clients are killed without releasing, and the lease records stay
// for the next start.
#pragma once

#include <sys/types.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "agent/Config.h"
#include "agent/DeferredWork.h"
#include "agent/Entities.h"
#include "agent/EventLoop.h"
#include "agent/KernelMirrors.h"
#include "agent/VrfNamespaces.h"
#include "linux/Fd.h"

namespace VeldAgent {

class DhcpClients {
public:
   DhcpClients(EventLoop& loop, Entities& entities, KernelMirrors& mirrors, VrfNamespaces& vrfs,
               std::string runDir);
   ~DhcpClients();
   DhcpClients(DhcpClients const&) = delete;
   DhcpClients& operator=(DhcpClients const&) = delete;

   // Writes the hook and watches the event files. 0 or an errno (logged).
   int start();
   // Stops the clients of interfaces that `config` does not have on DHCP (releasing the
   // lease of those that stay), and removes their status.
   void stopUnwanted(Configuration const& config);
   // Then makes the clients and statuses those of `config`'s DHCP interfaces: a new one
   // starts from its recorded lease when it has one that has not expired.
   void sync(Configuration const& config);

   // For `veld show interfaces`: the lease and its seconds left, or null when the interface
   // has no client.
   nlohmann::json show(Konet::IntfId const& intf) const;
   // The running client's process id (0 when there is none).
   pid_t pid(Konet::IntfId const& intf) const;
   std::string dir() const { return runDir_ + "/dhcp"; }

private:
   struct Client;

   void clientIs(Konet::IntfId const& intf, InterfaceSettings const& s);
   void clientDel(Konet::IntfId const& intf, bool release);
   void spawn(Client& c);
   void stopProcess(Client& c, int signal);
   void handleExit(Konet::IntfId const& intf);
   void handleEvents();
   void readEvents(Client& c);
   void handleEvent(Client& c, std::string const& line);
   void leaseIs(Client& c, Konet::IpAddrWithMask addr, int64_t expiry);
   void leaseDel(Client& c, char const* why);
   std::string fileOf(Konet::IntfId const& intf, char const* suffix) const;

   EventLoop& loop_;
   Entities& e_;
   KernelMirrors& mirrors_;
   VrfNamespaces& vrfs_;
   std::string const runDir_;
   Konet::Fd inotify_;
   std::map<Konet::IntfId, std::unique_ptr<Client>> clients_;
};

}  // namespace VeldAgent
