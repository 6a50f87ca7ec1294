// Reading and checking the configuration document.
//
// Our implementation, in order:
//  1. refuse a document too large or nested too deep to be a configuration;
//  2. parse it, refusing a key given twice in one object (the parser would keep the last);
//  3. walk it against the schema, refusing unknown keys and wrong types, and checking each
//     name and address where it enters;
//  4. check the rules between places: a VRF's namespace used once, a device carried by one
//     interface, an interface in a configured VRF, an address used once per VRF, no subnet
//     on two interfaces of one VRF.
// Every problem is reported with its place; the configuration is usable only without any.
// Steps 1 and 2 are the JSON reader's (agent/JsonRead.h).
#include <algorithm>
#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "agent/Config.h"
#include "agent/JsonRead.h"
#include "linux/SafeName.h"
#include "veld/vrf/RibVrfCabinet.h"

namespace VeldAgent {

using Json = nlohmann::json;

namespace {

std::string at(std::string const& pointer, std::string_view token) {
   return pointer + "/" + pointerToken(token);
}

std::string inQuotes(std::string_view s) {
   std::string out = "\"";
   for (char c : s) {
      auto u = static_cast<unsigned char>(c);
      if (u < 0x20 || u == 0x7f) {
         char buf[8];
         std::snprintf(buf, sizeof buf, "\\x%02x", u);
         out += buf;
      } else {
         out += c;
      }
   }
   return out + "\"";
}

char const* typeName(Json const& v) {
   switch (v.type()) {
      case Json::value_t::object:
         return "an object";
      case Json::value_t::array:
         return "an array";
      case Json::value_t::string:
         return "a string";
      case Json::value_t::boolean:
         return "a boolean";
      case Json::value_t::null:
         return "null";
      default:
         return "a number";
   }
}

// The schema walk: each getter checks one place and records what is wrong with it.
// An interface's global address is a unicast address outside the link-local, loopback and
// unspecified ones; its link-local address is one of fe80::/10.
char const* ipv6GlobalProblem(Konet::Ip6Addr const& a) {
   if (a.isZero()) return "is the unspecified address";
   if (a.isMulticast()) return "is a multicast address";
   if (a.isLoopback()) return "is the loopback address";
   if (a.isLinkLocal()) return "is a link-local address (give it as linkLocal)";
   return nullptr;
}

class Checker {
public:
   std::vector<DocError> errors;

   void error(std::string pointer, std::string message) {
      errors.push_back({std::move(pointer), std::move(message)});
   }

   bool isObject(Json const& v, std::string const& p) {
      if (v.is_object()) return true;
      error(p, std::string("must be an object, not ") + typeName(v));
      return false;
   }

   void knownKeys(Json const& obj, std::string const& p, std::vector<char const*> const& known) {
      for (auto it = obj.begin(); it != obj.end(); ++it) {
         bool ok = false;
         for (auto* k : known)
            ok = ok || it.key() == k;
         if (ok) continue;
         std::string list;
         for (auto* k : known)
            list += std::string(list.empty() ? "" : ", ") + k;
         error(at(p, it.key()),
               "unknown setting " + inQuotes(it.key()) + " (known here: " + list + ")");
      }
   }

   template <class F>
   void optional(Json const& obj, std::string const& p, char const* key, F&& read) {
      auto it = obj.find(key);
      if (it != obj.end()) read(*it, at(p, key));
   }

   void boolean(Json const& obj, std::string const& p, char const* key, bool* out) {
      optional(obj, p, key, [&](Json const& v, std::string const& vp) {
         if (v.is_boolean()) {
            *out = v.get<bool>();
         } else {
            error(vp, std::string("must be true or false, not ") + typeName(v));
         }
      });
   }

   std::optional<std::string> string(Json const& v, std::string const& p) {
      if (v.is_string()) return v.get<std::string>();
      error(p, std::string("must be a string, not ") + typeName(v));
      return std::nullopt;
   }

   std::optional<Konet::IpAddrWithMask> ipv4(Json const& v, std::string const& p) {
      auto text = string(v, p);
      if (!text) return std::nullopt;
      std::string why;
      auto a = Konet::IpAddrWithMask::parse(*text, &why);
      if (!a) {
         error(p, inQuotes(*text) + " is not an IPv4 address with a prefix length (" + why + ")");
         return std::nullopt;
      }
      // Where a rule is left to us: an interface address is a unicast host address on a
      // subnet of its own (not /0), and not the subnet's network or broadcast address
      // unless the subnet is a point-to-point /31 or a /32.
      uint32_t value = a->addr().value();
      if (a->len() == 0) {
         error(p, inQuotes(*text) + ": an interface address needs a prefix length from 1 to 32");
      } else if (value == 0 || (value >> 28) == 0xe || (value >> 28) == 0xf ||
                 (value >> 24) == 127) {
         error(p, inQuotes(*text) + " is not a unicast host address");
      } else if (a->len() < 31 &&
                 (a->addr() == a->subnet().network() || a->addr() == a->broadcast())) {
         error(p, inQuotes(*text) + " is the network or broadcast address of its subnet");
      } else {
         return a;
      }
      return std::nullopt;
   }

   std::optional<Konet::Ip6AddrWithMask> ipv6(Json const& v, std::string const& p) {
      auto text = string(v, p);
      if (!text) return std::nullopt;
      std::string why;
      auto a = Konet::Ip6AddrWithMask::parse(*text, &why);
      if (!a) {
         error(p, inQuotes(*text) + " is not an IPv6 address with a prefix length (" + why + ")");
         return std::nullopt;
      }
      if (a->len() == 0) {
         error(p, inQuotes(*text) + ": an interface address needs a prefix length from 1 to 128");
         return std::nullopt;
      }
      return a;
   }

   // A nexthop: an address of either family, not a prefix.
   std::optional<Konet::IpGenAddr> nexthop(Json const& v, std::string const& p) {
      auto text = string(v, p);
      if (!text) return std::nullopt;
      std::string why;
      auto a = Konet::IpGenAddr::parse(*text, &why);
      if (!a) {
         error(p, inQuotes(*text) + " is not an IPv4 or IPv6 address" +
                      (why.empty() ? std::string() : " (" + why + ")"));
         return std::nullopt;
      }
      return a;
   }

   std::optional<Konet::Ip6AddrWithMask> ipv6Global(Json const& v, std::string const& p) {
      auto a = ipv6(v, p);
      if (!a) return a;
      if (char const* why = ipv6GlobalProblem(a->addr())) {
         error(p, inQuotes(a->toString()) + " " + why);
         return std::nullopt;
      }
      return a;
   }

   template <class T, class Read>
   void list(Json const& obj, std::string const& p, char const* key, std::set<T>* out, Read read) {
      optional(obj, p, key, [&](Json const& v, std::string const& vp) {
         if (!v.is_array()) {
            error(vp, std::string("must be an array, not ") + typeName(v));
            return;
         }
         for (size_t i = 0; i < v.size(); ++i) {
            auto ip = vp + "/" + std::to_string(i);
            auto a = (this->*read)(v[i], ip);
            if (a && !out->insert(*a).second)
               error(ip, inQuotes(a->toString()) + " is listed twice");
         }
      });
   }

   void mss(Json const& obj, std::string const& p, char const* key, uint16_t* out) {
      optional(obj, p, key, [&](Json const& v, std::string const& vp) {
         if (!v.is_number_integer() || v.get<int64_t>() < 64 || v.get<int64_t>() > 65495) {
            error(vp, "must be a whole number of bytes from 64 to 65495");
            return;
         }
         *out = static_cast<uint16_t>(v.get<int64_t>());
      });
   }
};

std::optional<Urpf::UrpfMode> urpfMode(std::string_view s) {
   for (auto const& [mode, name] : moxEnumNames(Urpf::UrpfMode{})) {
      if (name == s) return mode;
   }
   return std::nullopt;
}

void readUrpf(Checker& c, Json const& v, std::string const& p, Urpf::UrpfConfig* out) {
   auto readMode = [&](Json const& m, std::string const& mp) {
      auto text = c.string(m, mp);
      if (!text) return;
      if (auto mode = urpfMode(*text)) {
         out->mode = *mode;
      } else {
         c.error(mp,
                 inQuotes(*text) + " is not a uRPF mode (disable, loose, strict, strictDefault)");
      }
   };
   if (v.is_string()) {
      readMode(v, p);
      return;
   }
   if (!v.is_object()) {
      c.error(p, std::string("must be a uRPF mode or an object, not ") + typeName(v));
      return;
   }
   c.knownKeys(v, p, {"mode", "allowDefaultRoute"});
   c.optional(v, p, "mode", readMode);
   c.boolean(v, p, "allowDefaultRoute", &out->allowDefaultRoute);
}

void readIpv4(Checker& c, Json const& v, std::string const& p, Ipv4Settings* out) {
   if (!c.isObject(v, p)) return;
   c.knownKeys(v, p,
               {"address", "secondaries", "virtualAddress", "virtualSecondaries", "proxyArp",
                "localProxyArp", "gratuitousArpAccept", "forwarding", "urpf", "noArp", "mss",
                "directedBroadcast", "attachedRoutes", "dhcp", "unnumbered"});
   c.optional(v, p, "address",
              [&](Json const& a, std::string const& ap) { out->address = c.ipv4(a, ap); });
   c.list(v, p, "secondaries", &out->secondaries, &Checker::ipv4);
   c.optional(v, p, "virtualAddress",
              [&](Json const& a, std::string const& ap) { out->virtualAddress = c.ipv4(a, ap); });
   c.list(v, p, "virtualSecondaries", &out->virtualSecondaries, &Checker::ipv4);
   c.boolean(v, p, "proxyArp", &out->proxyArp);
   c.boolean(v, p, "localProxyArp", &out->localProxyArp);
   c.boolean(v, p, "gratuitousArpAccept", &out->gratuitousArpAccept);
   c.boolean(v, p, "forwarding", &out->forwarding);
   c.optional(v, p, "urpf",
              [&](Json const& u, std::string const& up) { readUrpf(c, u, up, &out->urpf); });
   c.optional(v, p, "noArp", [&](Json const& n, std::string const& np) {
      if (!n.is_boolean()) {
         c.error(np, std::string("must be true or false, not ") + typeName(n));
         return;
      }
      out->noArp = n.get<bool>() ? Ip::TristateBool::isTrue : Ip::TristateBool::isFalse;
   });
   c.optional(v, p, "mss", [&](Json const& m, std::string const& mp) {
      if (!c.isObject(m, mp)) return;
      c.knownKeys(m, mp, {"ingress", "egress"});
      c.mss(m, mp, "ingress", &out->mssIngress);
      c.mss(m, mp, "egress", &out->mssEgress);
   });
   c.boolean(v, p, "directedBroadcast", &out->directedBroadcast);
   c.boolean(v, p, "attachedRoutes", &out->attachedRoutes);
   c.boolean(v, p, "dhcp", &out->dhcp);
   c.optional(v, p, "unnumbered", [&](Json const& u, std::string const& up) {
      auto text = c.string(u, up);
      if (!text) return;
      std::string why;
      out->unnumbered = Konet::IntfId::parse(*text, &why);
      if (!out->unnumbered) c.error(up, why);
   });

   bool hasStatic = out->address || !out->secondaries.empty();
   if (out->dhcp && hasStatic) {
      c.error(at(p, "dhcp"), "an address from DHCP and a configured address exclude each other");
   }
   if (out->unnumbered && hasStatic) {
      c.error(at(p, "unnumbered"),
              "an unnumbered interface borrows its address and has none of its own");
   }
   if (out->dhcp && out->unnumbered) {
      c.error(at(p, "unnumbered"), "an interface is either unnumbered or a DHCP client");
   }
   if (!out->address && !out->secondaries.empty()) {
      c.error(at(p, "secondaries"), "secondary addresses need a primary address");
   }
   if (!out->virtualAddress && !out->virtualSecondaries.empty()) {
      c.error(at(p, "virtualSecondaries"), "virtual secondary addresses need a virtual address");
   }
}

void readIpv6(Checker& c, Json const& v, std::string const& p, Ipv6Settings* out) {
   if (!c.isObject(v, p)) return;
   c.knownKeys(v, p,
               {"enable", "addresses", "linkLocal", "acceptDad", "enhancedDad", "nsInterval",
                "nsSource", "acceptRaDefaultRouter", "slaac"});
   c.boolean(v, p, "enable", &out->enable);
   c.list(v, p, "addresses", &out->addresses, &Checker::ipv6Global);
   c.optional(v, p, "linkLocal", [&](Json const& a, std::string const& ap) {
      auto ll = c.ipv6(a, ap);
      if (!ll) return;
      if (!ll->addr().isLinkLocal()) {
         c.error(ap, inQuotes(ll->toString()) + " is not a link-local address (fe80::/10)");
      } else {
         out->linkLocal = ll;
      }
   });
   c.optional(v, p, "acceptDad", [&](Json const& a, std::string const& ap) {
      auto text = c.string(a, ap);
      if (!text) return;
      static std::map<std::string, Ip6::AcceptDadMode> const modes{
          {"default", Ip6::AcceptDadMode::dadDefault},
          {"disabled", Ip6::AcceptDadMode::dadDisabled},
          {"enabled", Ip6::AcceptDadMode::dadEnabled},
          {"strict", Ip6::AcceptDadMode::dadStrict}};
      auto m = modes.find(*text);
      if (m == modes.end()) {
         c.error(ap, inQuotes(*text) + " is not one of \"default\", \"disabled\", \"enabled\", " +
                         "\"strict\"");
      } else {
         out->acceptDad = m->second;
      }
   });
   c.optional(v, p, "enhancedDad", [&](Json const& n, std::string const& np) {
      if (!n.is_boolean()) {
         c.error(np, std::string("must be true or false, not ") + typeName(n));
         return;
      }
      out->enhancedDad = n.get<bool>() ? Ip::TristateBool::isTrue : Ip::TristateBool::isFalse;
   });
   c.optional(v, p, "nsInterval", [&](Json const& n, std::string const& np) {
      if (!n.is_number_integer() || n.get<int64_t>() < 1 || n.get<int64_t>() > 3600000) {
         c.error(np, "must be a number of milliseconds from 1 to 3600000");
         return;
      }
      out->nsInterval = static_cast<uint32_t>(n.get<int64_t>());
   });
   c.optional(v, p, "nsSource", [&](Json const& a, std::string const& ap) {
      auto text = c.string(a, ap);
      if (!text) return;
      std::string why;
      auto addr = Konet::Ip6Addr::parse(*text, &why);
      if (!addr) {
         c.error(ap, inQuotes(*text) + " is not an IPv6 address (" + why + ")");
      } else if (addr->isZero() || addr->isMulticast()) {
         c.error(ap, inQuotes(*text) + " is not a unicast address");
      } else {
         out->nsSource = addr;
      }
   });
   c.boolean(v, p, "acceptRaDefaultRouter", &out->acceptRaDefaultRouter);
   c.boolean(v, p, "slaac", &out->slaac);
}

void readInterface(Checker& c, Json const& v, std::string const& p, InterfaceSettings* out) {
   if (!c.isObject(v, p)) return;
   c.knownKeys(v, p, {"device", "routed", "vrf", "ipv4", "ipv6"});
   auto device = v.find("device");
   if (device == v.end()) {
      c.error(at(p, "device"), "missing: the kernel device that carries the interface");
   } else if (auto name = c.string(*device, at(p, "device"))) {
      if (char const* why = Konet::deviceNameProblem(*name)) {
         c.error(at(p, "device"), inQuotes(*name) + " is not a usable device name: " + why);
      } else {
         out->device = *name;
      }
   }
   c.boolean(v, p, "routed", &out->routed);
   c.optional(v, p, "vrf", [&](Json const& n, std::string const& np) {
      auto name = c.string(n, np);
      if (!name) return;
      if (name->empty() || name->size() > L3::VrfName::maxLength) {
         c.error(np, "a VRF name has 1 to 100 characters");
      } else {
         out->vrf = L3::VrfName(*name);
      }
   });
   c.optional(v, p, "ipv4",
              [&](Json const& a, std::string const& ap) { readIpv4(c, a, ap, &out->ipv4); });
   c.optional(v, p, "ipv6",
              [&](Json const& a, std::string const& ap) { readIpv6(c, a, ap, &out->ipv6); });
}

// A VRF name as the agent uses it in namespace names and tables.
char const* vrfNameProblem(std::string_view name) {
   if (name.empty() || name.size() > L3::VrfName::maxLength)
      return "a VRF name has 1 to 100 characters";
   for (char c : name) {
      bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                c == '_' || c == '-' || c == '.';
      if (!ok) return "a VRF name has only letters, digits and \"_-.\"";
   }
   return nullptr;
}

void readVrf(Checker& c, Json const& v, std::string const& p, bool isDefault, VrfSettings* out) {
   if (!c.isObject(v, p)) return;
   c.knownKeys(v, p, {"ipv4Routing", "ipv6Routing", "namespace", "routingAgents", "nexthops"});
   c.list(v, p, "nexthops", &out->nexthops, &Checker::nexthop);
   c.boolean(v, p, "ipv4Routing", &out->ipv4Routing);
   c.boolean(v, p, "ipv6Routing", &out->ipv6Routing);
   c.optional(v, p, "namespace", [&](Json const& n, std::string const& np) {
      auto name = c.string(n, np);
      if (!name) return;
      if (isDefault) {
         c.error(np, "the default VRF is the agent's own namespace and names none");
      } else if (char const* why = Konet::namespaceNameProblem(*name)) {
         c.error(np, inQuotes(*name) + " is not a usable namespace name: " + why);
      } else {
         out->netNs = *name;
      }
   });
   c.optional(v, p, "routingAgents", [&](Json const& a, std::string const& ap) {
      if (!a.is_array()) return c.error(ap, std::string("must be an array, not ") + typeName(a));
      for (size_t i = 0; i < a.size(); ++i) {
         auto ip = at(ap, std::to_string(i));
         auto name = c.string(a[i], ip);
         if (!name) continue;
         if (!Veld::RibVrfCabinet::isAgentName(*name)) {
            std::string known;
            for (auto k : Veld::RibVrfCabinet::kAgentNames)
               known.append(known.empty() ? "" : ", ").append(k);
            c.error(ip, "unknown routing agent " + inQuotes(*name) + " (known: " + known + ")");
         } else if (!out->routingAgents.insert(*name).second) {
            c.error(ip, "routing agent " + inQuotes(*name) + " is named twice");
         }
      }
   });
}

void readRouting(Checker& c, Json const& v, std::string const& p, RoutingSettings* out) {
   if (!c.isObject(v, p)) return;
   c.knownKeys(v, p, {"tcpReset", "udpUnreachable", "sendRedirects", "ipv6EnhancedDad"});
   c.boolean(v, p, "ipv6EnhancedDad", &out->ipv6EnhancedDad);
   c.boolean(v, p, "tcpReset", &out->tcpReset);
   c.boolean(v, p, "udpUnreachable", &out->udpUnreachable);
   c.boolean(v, p, "sendRedirects", &out->sendRedirects);
}

// IPv6 between interfaces: an address once per VRF, and a prefix on one interface of a VRF.
void checkIpv6Across(Checker& c, Configuration const& config) {
   struct Owner {
      Konet::IntfId intf;
      std::string place;
   };
   std::map<std::pair<L3::VrfName, Konet::Ip6Addr>, Owner> addrs;
   std::vector<std::tuple<L3::VrfName, Konet::Ip6Prefix, Owner>> prefixes;
   for (auto const& [id, s] : config.interfaces) {
      std::string p = at(at(at("/interfaces", id.name()), "ipv6"), "addresses");
      size_t i = 0;
      for (auto const& a : s.ipv6.addresses) {
         Owner owner{id, p + "/" + std::to_string(i++)};
         auto [it, fresh] = addrs.emplace(std::pair(s.vrf, a.addr()), owner);
         if (!fresh) {
            c.error(owner.place, "address " + a.addr().toString() + " is already configured at " +
                                     it->second.place);
            continue;
         }
         prefixes.emplace_back(s.vrf, a.subnet(), owner);
      }
   }
   // Prefixes either nest or are apart: in (VRF, prefix) order every prefix that overlaps one
   // follows it within its range.
   std::sort(prefixes.begin(), prefixes.end(), [](auto const& x, auto const& y) {
      return std::tie(std::get<0>(x), std::get<1>(x)) < std::tie(std::get<0>(y), std::get<1>(y));
   });
   for (size_t i = 0; i < prefixes.size(); ++i) {
      auto const& [vrf, outer, owner] = prefixes[i];
      for (size_t j = i + 1; j < prefixes.size(); ++j) {
         auto const& [vrf2, inner, owner2] = prefixes[j];
         if (vrf2 != vrf || !outer.contains(inner.network())) break;
         if (owner2.intf == owner.intf) continue;
         c.error(owner2.place, "prefix " + inner.toString() + " overlaps prefix " +
                                   outer.toString() + " of " + owner.place);
         break;
      }
   }
}

// The rules between places.
void checkAcross(Checker& c, Configuration const& config) {
   std::map<std::string, L3::VrfName> namespaces;
   for (auto const& [vrf, s] : config.vrfs) {
      if (s.netNs.empty()) continue;
      auto [it, fresh] = namespaces.emplace(s.netNs, vrf);
      if (!fresh) {
         c.error(at(at("/vrfs", vrf.name()), "namespace"),
                 inQuotes(s.netNs) + " is already the namespace of VRF " + it->second.name());
      }
   }
   std::map<std::string, Konet::IntfId> devices;
   // Per VRF: each address, and each subnet, with the interface that has it.
   struct Owner {
      Konet::IntfId intf;
      std::string place;
   };
   std::map<std::pair<L3::VrfName, uint32_t>, Owner> addrs;
   struct Subnet {
      L3::VrfName vrf;
      uint32_t net;
      uint8_t len;
      Owner owner;
   };
   std::vector<Subnet> subnets;
   for (auto const& [id, s] : config.interfaces) {
      std::string p = at("/interfaces", id.name());
      if (!s.device.empty()) {
         auto [it, fresh] = devices.emplace(s.device, id);
         if (!fresh) {
            c.error(at(p, "device"), "device " + inQuotes(s.device) +
                                         " already carries interface " + it->second.name());
         }
      }
      if (!config.vrfs.count(s.vrf)) {
         c.error(at(p, "vrf"), "VRF " + inQuotes(s.vrf.name()) + " is not configured under /vrfs");
      }
      if (s.ipv4.unnumbered) {
         // One level of borrowing: a lender has an address of its own, and a borrower lends
         // to nobody.
         std::string up = at(at(p, "ipv4"), "unnumbered");
         auto lender = config.interfaces.find(*s.ipv4.unnumbered);
         if (lender == config.interfaces.end()) {
            c.error(up, "interface " + inQuotes(s.ipv4.unnumbered->name()) + " is not configured");
         } else if (lender->first == id) {
            c.error(up, "an interface cannot borrow its own address");
         } else if (lender->second.ipv4.unnumbered) {
            c.error(up, "interface " + inQuotes(lender->first.name()) +
                            " is unnumbered itself and has no address to lend");
         }
         for (auto const& [other, o] : config.interfaces) {
            if (other == id || !o.ipv4.unnumbered || !(*o.ipv4.unnumbered == id)) continue;
            c.error(up, "an interface that lends its address (to " + inQuotes(other.name()) +
                            ") cannot borrow one");
            break;
         }
      }
      std::vector<std::pair<Konet::IpAddrWithMask, std::string>> own;
      std::string ip = at(p, "ipv4");
      if (s.ipv4.address) own.emplace_back(*s.ipv4.address, at(ip, "address"));
      size_t i = 0;
      for (auto const& a : s.ipv4.secondaries)
         own.emplace_back(a, at(ip, "secondaries") + "/" + std::to_string(i++));
      if (s.ipv4.virtualAddress) own.emplace_back(*s.ipv4.virtualAddress, at(ip, "virtualAddress"));
      i = 0;
      for (auto const& a : s.ipv4.virtualSecondaries)
         own.emplace_back(a, at(ip, "virtualSecondaries") + "/" + std::to_string(i++));
      for (auto const& [a, place] : own) {
         auto [it, fresh] = addrs.emplace(std::pair(s.vrf, a.addr().value()), Owner{id, place});
         if (!fresh) {
            c.error(place, "address " + a.addr().toString() + " is already configured at " +
                               it->second.place);
            continue;
         }
         subnets.push_back({s.vrf, a.subnet().network().value(), a.len(), Owner{id, place}});
      }
   }
   checkIpv6Across(c, config);
   // A subnet belongs to one interface of a VRF. Subnets either nest or are apart, so in
   // (VRF, network, length) order every subnet that overlaps one follows it within its range.
   std::sort(subnets.begin(), subnets.end(), [](Subnet const& x, Subnet const& y) {
      return std::tie(x.vrf, x.net, x.len) < std::tie(y.vrf, y.net, y.len);
   });
   for (size_t i = 0; i < subnets.size(); ++i) {
      auto const& outer = subnets[i];
      uint32_t last = outer.net | ~(~uint32_t{0} << (32 - outer.len));
      for (size_t j = i + 1; j < subnets.size(); ++j) {
         auto const& inner = subnets[j];
         if (inner.vrf != outer.vrf || inner.net > last) break;
         if (inner.owner.intf == outer.owner.intf) continue;
         c.error(inner.owner.place, "subnet " + Konet::IpAddr(inner.net).toString() + "/" +
                                        std::to_string(inner.len) + " overlaps subnet " +
                                        Konet::IpAddr(outer.net).toString() + "/" +
                                        std::to_string(outer.len) + " of " + outer.owner.place);
         break;
      }
   }
}

void checkDocument(Json const& doc, LoadResult* result) {
   Checker c;
   c.errors = std::move(result->errors);
   Configuration config;
   config.vrfs[L3::VrfName::defaultVrf()] = VrfSettings{};
   if (c.isObject(doc, "")) {
      c.knownKeys(doc, "", {"routing", "vrfs", "interfaces"});
      c.optional(doc, "", "routing", [&](Json const& v, std::string const& p) {
         readRouting(c, v, p, &config.routing);
      });
      c.optional(doc, "", "vrfs", [&](Json const& v, std::string const& p) {
         if (!c.isObject(v, p)) return;
         for (auto it = v.begin(); it != v.end(); ++it) {
            auto vp = at(p, it.key());
            if (char const* why = vrfNameProblem(it.key())) {
               c.error(vp, inQuotes(it.key()) + ": " + why);
               continue;
            }
            L3::VrfName name(it.key());
            readVrf(c, *it, vp, name.isDefault(), &config.vrfs[name]);
         }
      });
      c.optional(doc, "", "interfaces", [&](Json const& v, std::string const& p) {
         if (!c.isObject(v, p)) return;
         for (auto it = v.begin(); it != v.end(); ++it) {
            auto ip = at(p, it.key());
            std::string why;
            auto id = Konet::IntfId::parse(it.key(), &why);
            if (!id) {
               c.error(ip, why);
               continue;
            }
            readInterface(c, *it, ip, &config.interfaces[*id]);
         }
      });
   }
   checkAcross(c, config);
   result->errors = std::move(c.errors);
   if (result->errors.empty()) result->config = std::move(config);
}

}  // namespace

LoadResult parseConfiguration(std::string_view text) {
   LoadResult result;
   auto doc = readJson(text, kMaxConfigBytes, &result.errors);
   if (!doc) return result;
   try {
      checkDocument(*doc, &result);
   } catch (nlohmann::json::exception const& e) {
      // The walk checks each value's type before it reads it: this is a fault of ours, and
      // the fuzzer looks for this text.
      result.config.reset();
      result.errors.push_back({"", std::string(kCheckFault) + e.what()});
   }
   return result;
}

LoadResult loadConfigurationFile(std::string const& path) {
   std::string text;
   if (auto refused = readDocumentFile(path, kMaxConfigBytes, &text)) {
      LoadResult r;
      r.errors.push_back(std::move(*refused));
      return r;
   }
   return parseConfiguration(text);
}

}  // namespace VeldAgent
