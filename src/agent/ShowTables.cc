#include "agent/ShowTables.h"

#include <algorithm>

namespace VeldAgent {

using Json = nlohmann::json;

std::string Table::render() const {
   std::vector<size_t> width;
   for (auto const& r : rows_) {
      if (width.size() < r.size()) width.resize(r.size(), 0);
      for (size_t i = 0; i < r.size(); ++i)
         width[i] = std::max(width[i], r[i].size());
   }
   std::string out;
   auto line = [&](std::vector<std::string> const& r) {
      std::string l;
      for (size_t i = 0; i < r.size(); ++i) {
         l += r[i];
         if (i + 1 < r.size()) l += std::string(width[i] - r[i].size() + 2, ' ');
      }
      out += l + "\n";
   };
   for (size_t n = 0; n < rows_.size(); ++n) {
      line(rows_[n]);
      if (n == 0) {
         std::vector<std::string> rule;
         for (size_t i = 0; i < rows_[0].size(); ++i)
            rule.push_back(std::string(width[i], '-'));
         line(rule);
      }
   }
   return out;
}

namespace {

std::string join(Json const& list, char const* sep = " ") {
   std::string out;
   for (auto const& a : list)
      out += (out.empty() ? "" : sep) + a.get<std::string>();
   return out;
}

std::string orDash(std::string s) { return s.empty() ? "-" : s; }

// The configured IPv4 settings that differ from their defaults, beyond the addresses.
std::string settings(Json const& i) {
   if (!i.contains("configured") || !i.at("routed").get<bool>()) return "";
   auto const& c = i.at("configured");
   std::vector<std::string> parts;
   if (int mss = c.value("mssIngress", 0)) parts.push_back("mss in " + std::to_string(mss));
   if (int mss = c.value("mssEgress", 0)) parts.push_back("mss out " + std::to_string(mss));
   if (c.value("directedBroadcast", false)) parts.push_back("directed broadcast");
   if (!c.value("attachedRoutes", true)) parts.push_back("no attached routes");
   std::string out;
   for (auto const& p : parts)
      out += (out.empty() ? "" : ", ") + p;
   return out;
}

// Where the primary address comes from: "configured", "dhcp, 3580 s left", "dhcp, pending",
// "borrowed from Loopback0".
std::string sourceOf(Json const& i) {
   if (!i.contains("addressSource")) return "";
   auto const& src = i.at("addressSource");
   auto source = src.value("source", "");
   if (source == "unnumbered") return "borrowed from " + src.value("lender", "");
   if (source != "dhcp") return source;
   if (src.value("pending", true)) return "dhcp, pending";
   return "dhcp, " + std::to_string(src.value("leaseSecondsLeft", 0)) + " s left";
}

// The IPv6 column: global addresses, then the link-local and DAD-failed ones marked; an
// interface a program asked IPv6 for and that has no status yet says so.
std::string ipv6(Json const& i) {
   auto const* st = i.contains("ipv6") ? &i.at("ipv6") : nullptr;
   if (!st || st->is_null()) {
      return i.value("ipv6EnableRequested", false) ? "(requested)" : "";
   }
   std::string out = join(st->at("addresses"));
   auto more = [&](char const* label, Json const& list) {
      if (list.empty()) return;
      out += std::string(out.empty() ? "" : " ") + label + " " + join(list, ",");
   };
   more("link-local", st->at("linkLocal"));
   more("DAD failed", st->at("dadFailed"));
   return out;
}

template <class C>
Json sortedTexts(C const& c) {
   std::vector<std::string> texts;
   for (auto const& a : c)
      texts.push_back(a.toString());
   std::sort(texts.begin(), texts.end());
   return Json(texts);
}

}  // namespace

Json ip6StatusJson(Ip6::IntfStatus const& status) {
   std::vector<Konet::Ip6AddrWithMask> global, linkLocal;
   for (auto const& a : status.addrIterator())
      (a.addr().isLinkLocal() ? linkLocal : global).push_back(a);
   return Json{{"vrf", status.vrf().name()},
               {"addresses", sortedTexts(global)},
               {"linkLocal", sortedTexts(linkLocal)},
               {"dadFailed", sortedTexts(status.dadFailedAddrIterator())}};
}

std::string renderInterfaces(Json const& answer) {
   // The IPv6 column is there when some interface has something to show in it.
   bool anyIpv6 = false;
   for (auto const& i : answer.at("interfaces"))
      anyIpv6 = anyIpv6 || !ipv6(i).empty();
   std::vector<std::string> header{"Interface", "VRF",         "L3 VRF", "Device",
                                   "Namespace", "Link",        "MTU",    "Primary",
                                   "Source",    "Secondaries", "Kernel"};
   if (anyIpv6) header.push_back("IPv6");
   header.push_back("Settings");
   Table t(header);
   for (auto const& i : answer.at("interfaces")) {
      std::string primary, secondaries, kernel;
      auto const& st = i.at("status");
      if (!i.at("routed").get<bool>()) {
         primary = "(unrouted)";
      } else if (st.is_null()) {
         primary = "(none)";
      } else {
         primary = orDash(st.at("address").get<std::string>());
         secondaries = join(st.at("secondaries"));
         if (!st.at("virtualAddress").get<std::string>().empty()) {
            secondaries += std::string(secondaries.empty() ? "" : " ") + "virtual " +
                           st.at("virtualAddress").get<std::string>();
         }
      }
      // The kernel column says whether the kernel holds exactly what is published.
      std::vector<std::string> held, published;
      for (auto const& a : i.at("kernel"))
         held.push_back(a.get<std::string>());
      if (!st.is_null()) {
         if (!st.at("address").get<std::string>().empty()) {
            published.push_back(st.at("address").get<std::string>());
         }
         for (auto const& a : st.at("secondaries"))
            published.push_back(a.get<std::string>());
         if (!st.at("virtualAddress").get<std::string>().empty()) {
            published.push_back(st.at("virtualAddress").get<std::string>());
         }
         for (auto const& a : st.at("virtualSecondaries"))
            published.push_back(a.get<std::string>());
      }
      std::sort(held.begin(), held.end());
      std::sort(published.begin(), published.end());
      // ... and that the published primary is the kernel's primary of its subnet, which
      // source address selection uses, not a secondary.
      bool primaryDemoted = false;
      if (!st.is_null() && i.contains("kernelSecondaries")) {
         for (auto const& a : i.at("kernelSecondaries"))
            primaryDemoted = primaryDemoted || a == st.at("address");
      }
      if (!i.at("deviceFound").get<bool>()) {
         kernel = "no device";
      } else if (primaryDemoted) {
         kernel = "primary " + st.at("address").get<std::string>() + " is a kernel secondary";
      } else if (held == published) {
         kernel = held.empty() ? "no address" : "in sync";
      } else {
         kernel = "holds " + join(i.at("kernel"), ",");
      }
      // The L3 status's VRF: where the rest of the system sees the interface.
      auto const l3Vrf = i.value("l3Vrf", Json());
      std::vector<std::string> row{i.at("interface").get<std::string>(),
                                   i.at("vrf").get<std::string>(),
                                   l3Vrf.is_string() ? l3Vrf.get<std::string>() : "-",
                                   i.at("device").get<std::string>(),
                                   orDash(i.at("namespace").get<std::string>()),
                                   i.at("operUp").get<bool>() ? "up" : "down",
                                   std::to_string(i.at("mtu").get<int>()),
                                   primary,
                                   orDash(sourceOf(i)),
                                   orDash(secondaries),
                                   kernel};
      if (anyIpv6) row.push_back(orDash(ipv6(i)));
      row.push_back(orDash(settings(i)));
      t.row(std::move(row));
   }
   return t.render();
}

std::string renderVrfs(Json const& answer) {
   Table t({"VRF", "Id", "Namespace", "State", "IPv4 routing", "IPv6 routing", "Interfaces"});
   for (auto const& v : answer.at("vrfs")) {
      t.row({v.at("vrf").get<std::string>(), std::to_string(v.at("vrfId").get<int>()),
             v.at("namespace").get<std::string>(), v.at("state").get<std::string>(),
             v.at("ipv4Routing").get<bool>() ? "enabled" : "disabled",
             v.at("ipv6Routing").get<bool>() ? "enabled" : "disabled",
             std::to_string(v.at("interfaces").get<int>())});
   }
   return t.render();
}

std::string renderBacklog(Json const& answer) {
   Table t({"VRF", "Machine", "Pending", "Runs", "Items", "Errors", "Empty"});
   for (auto const& b : answer.at("backlog")) {
      t.row({b.at("vrf").get<std::string>(), b.at("machine").get<std::string>(),
             std::to_string(b.at("pending").get<int>()), std::to_string(b.at("runs").get<int>()),
             std::to_string(b.at("itemsProcessed").get<int>()),
             std::to_string(b.at("errors").get<int>()), b.at("empty").get<bool>() ? "yes" : "no"});
   }
   std::string out = t.render();
   out += "\nConverged: " + std::string(answer.at("converged").get<bool>() ? "yes" : "no");
   out += "   Device moves: " + std::to_string(answer.at("deviceMoves").get<int>());
   if (!answer.at("missingDevices").empty()) {
      out += "   Missing devices: " + join(answer.at("missingDevices"), ", ");
   }
   return out + "\n";
}

std::string renderConfig(Json const& answer) {
   std::string out = "Configuration file: " + answer.at("file").get<std::string>() + "\n";
   out += "In force: " + std::to_string(answer.at("vrfs").get<int>()) + " VRFs, " +
          std::to_string(answer.at("interfaces").get<int>()) + " interfaces\n";
   out += "Reloads: " + std::to_string(answer.at("reloads").get<int>());
   if (!answer.at("lastReloadRefused").get<bool>()) return out + "\n";
   out += "; the last one was refused, the configuration in force stays:\n";
   for (auto const& e : answer.at("refusedErrors"))
      out += "  " + e.get<std::string>() + "\n";
   return out;
}

std::string renderRoutingAgents(Json const& answer) {
   Table t({"VRF", "Daemon", "State", "Qualified", "Running"});
   for (auto const& a : answer.at("routingAgents")) {
      t.row({a.at("vrf").get<std::string>(), a.at("agent").get<std::string>(),
             a.at("state").get<std::string>(), a.at("qualified").get<bool>() ? "yes" : "no",
             a.at("running").get<bool>() ? "yes" : "no"});
   }
   return t.render() + "Switchover: " + (answer.at("switchover").get<bool>() ? "done" : "none") +
          "\n";
}

std::string renderNexthops(Json const& answer) {
   Table t({"VRF", "Client", "Nexthop", "Covering prefix", "Via"});
   for (auto const& n : answer.at("nexthops")) {
      std::string via;
      if (n.at("resolved").get<bool>()) {
         for (auto const& v : n.at("vias")) {
            auto gw = v.at("gateway").get<std::string>();
            auto dev = v.at("device").get<std::string>();
            std::string one = gw.empty() ? "directly connected" : gw;
            if (!dev.empty()) one += ", " + dev;
            via += (via.empty() ? "" : "; ") + one;
         }
      }
      t.row({n.at("vrf").get<std::string>(), n.at("client").get<std::string>(),
             n.at("nexthop").get<std::string>(),
             n.at("resolved").get<bool>() ? n.at("prefix").get<std::string>()
                                          : "unresolved: " + n.at("reason").get<std::string>(),
             orDash(via)});
   }
   return t.render();
}

std::string renderIp6Enable(Json const& answer) {
   Table t({"Program", "Interfaces"});
   for (auto const& r : answer.at("requests"))
      t.row({r.at("program").get<std::string>(), orDash(join(r.at("interfaces")))});
   return t.render() + "\nIPv6 enabled on: " + orDash(join(answer.at("enabled"))) + "\n";
}

std::string renderMulticast(Json const& answer) {
   Table t({"Interface", "Group", "Applications"});
   for (auto const& g : answer.at("groups")) {
      t.row({g.at("interface").get<std::string>(), g.at("group").get<std::string>(),
             join(g.at("applications"), ", ")});
   }
   return t.render();
}

std::string renderAnswer(ShowWhat what, Json const& answer) {
   try {
      switch (what) {
         case ShowWhat::interfaces:
            return renderInterfaces(answer);
         case ShowWhat::vrfs:
            return renderVrfs(answer);
         case ShowWhat::backlog:
            return renderBacklog(answer);
         case ShowWhat::config:
            return renderConfig(answer);
         case ShowWhat::routingAgents:
            return renderRoutingAgents(answer);
         case ShowWhat::nexthops:
            return renderNexthops(answer);
         case ShowWhat::ip6Enable:
            return renderIp6Enable(answer);
         case ShowWhat::multicast:
            return renderMulticast(answer);
      }
   } catch (Json::exception const&) {
   }
   return "";
}

}  // namespace VeldAgent
