// Programs' multicast groups: one application per program in each family's directory of
// applications, changed by the control socket's requests; and what the interfaces' published
// statuses list.
#include <algorithm>
#include <map>
#include <set>

#include "agent/Agent.h"
#include "mox/Trace.h"

namespace VeldAgent {

namespace {

Mox::TraceHandle th("VeldAgent");
using Json = nlohmann::json;

// The program's groups on intf in one family become exactly `wanted`.
template <class Groups, class Addr>
void groupsOnIntfAre(Groups& dir, Mox::String const& program, Konet::IntfId const& intf,
                     std::vector<Addr> const& wanted) {
   auto app = dir.application(program);
   if (!app && wanted.empty()) return;
   if (!app) app = dir.applicationIs(program);
   for (auto const& info : app->multicastAddrOf(intf)) {
      if (std::find(wanted.begin(), wanted.end(), info.addr) == wanted.end())
         app->multicastAddrDel(info);
   }
   for (auto const& g : wanted)
      app->multicastAddrIs({intf, g});
}

template <class Status>
void listGroups(Status const& status, std::map<std::pair<std::string, std::string>, Json>* out) {
   for (auto const& [intf, s] : status.intfIterator()) {
      for (auto const& [g, info] : s->mcaddrIterator()) {
         Json apps = Json::array();
         for (auto const& a : info.applications())
            apps.push_back(a.string());
         (*out)[{intf.name(), g.toString()}] =
             Json{{"interface", intf.name()}, {"group", g.toString()}, {"applications", apps}};
      }
   }
}

}  // namespace

void Agent::multicastRequestIs(std::string const& program, Konet::IntfId const& intf,
                               std::vector<Konet::IpGenAddr> const& groups) {
   MOX_TRACE_FN(th, program << " " << intf);
   std::vector<Konet::IpAddr> v4;
   std::vector<Konet::Ip6Addr> v6;
   for (auto const& g : groups) {
      if (g.isV4()) v4.push_back(g.v4());
      if (g.isV6()) v6.push_back(g.v6());
   }
   Mox::String const name(program);
   groupsOnIntfAre(*e_.ipMulticastGroups, name, intf, v4);
   groupsOnIntfAre(*e_.ip6MulticastGroups, name, intf, v6);
   Mox::logMessage(
       Mox::LogSeverity::notice, "VELD-MULTICAST",
       program + " wants " + std::to_string(groups.size()) + " multicast groups on " + intf.name());
}

// The application goes from both families' directories; the library takes it out of every
// group it was in.
bool Agent::multicastRequestDel(std::string const& program) {
   MOX_TRACE_FN(th, program);
   Mox::String const name(program);
   bool had = e_.ipMulticastGroups->application(name) || e_.ip6MulticastGroups->application(name);
   if (!had) return false;
   e_.ipMulticastGroups->applicationDel(name);
   e_.ip6MulticastGroups->applicationDel(name);
   Mox::logMessage(Mox::LogSeverity::notice, "VELD-MULTICAST",
                   program + " withdrew its multicast groups");
   return true;
}

Json Agent::showMulticast() const {
   std::map<std::pair<std::string, std::string>, Json> groups;
   listGroups(*e_.ipStatus, &groups);
   listGroups(*e_.ip6Status, &groups);
   Json list = Json::array();
   for (auto& [key, j] : groups)
      list.push_back(std::move(j));
   return Json{{"groups", list}};
}

}  // namespace VeldAgent
