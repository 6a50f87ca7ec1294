#include "agent/ControlRequest.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

namespace VeldAgent {

namespace {

using Json = nlohmann::json;

constexpr std::array<std::pair<ShowWhat, char const*>, 8> kShowNames{{
    {ShowWhat::interfaces, "interfaces"},
    {ShowWhat::vrfs, "vrfs"},
    {ShowWhat::backlog, "backlog"},
    {ShowWhat::config, "config"},
    {ShowWhat::routingAgents, "routing-agents"},
    {ShowWhat::nexthops, "nexthops"},
    {ShowWhat::ip6Enable, "ip6-enable"},
    {ShowWhat::multicast, "multicast"},
}};

constexpr std::array<std::pair<RequestKind, char const*>, 8> kRequestNames{{
    {RequestKind::show, "show"},
    {RequestKind::switchover, "switchover"},
    {RequestKind::nexthops, "nexthops"},
    {RequestKind::subscribe, "subscribe"},
    {RequestKind::ip6Enable, "ip6-enable"},
    {RequestKind::ip6EnableWithdraw, "ip6-enable-withdraw"},
    {RequestKind::multicast, "multicast"},
    {RequestKind::multicastWithdraw, "multicast-withdraw"},
}};

template <class Table>
std::string namesOf(Table const& table) {
   std::string names;
   for (auto const& [k, name] : table)
      names += (names.empty() ? "" : ", ") + std::string(name);
   return names;
}

std::string typeOf(Json const& v) {
   std::string name = v.type_name();
   return (name[0] == 'a' || name[0] == 'o' ? "an " : "a ") + name;
}

// A request's place: "/ip6-enable/interfaces/2".
std::string placeOf(std::string const& parent, std::string const& key) {
   return parent + "/" + pointerToken(key);
}

// A program's name, or why it is not one.
std::optional<std::string> programName(Json const& v, std::string* why) {
   if (!v.is_string()) {
      *why = "a program's name is a string, not " + typeOf(v);
      return std::nullopt;
   }
   auto const& s = v.get_ref<std::string const&>();
   bool ok = !s.empty() && s.size() <= kMaxProgramNameBytes;
   for (char c : s)
      ok = ok && (std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '-' || c == '.');
   if (!ok) {
      *why = quotedForMessage(s) + " is not a program's name (1 to " +
             std::to_string(kMaxProgramNameBytes) + " letters, digits and \"_-.\")";
      return std::nullopt;
   }
   return s;
}

// Each reader fills `r` or names the first fault at its place.
class RequestReader {
public:
   explicit RequestReader(std::vector<DocError>* errors) : errors_(errors) {}

   bool refuse(std::string place, std::string message) {
      errors_->push_back({std::move(place), std::move(message)});
      return false;
   }

   // {"show": "nexthops", "vrf": "red"}; only nexthops takes a VRF.
   bool show(Json const& doc, ControlRequest* r) {
      auto const& value = doc["show"];
      std::optional<ShowWhat> what;
      if (value.is_string()) what = showWhatFromName(value.get_ref<std::string const&>());
      if (!what) {
         return refuse(
             "/show", "shows one of " + namesOf(kShowNames) + "; not " +
                          (value.is_string() ? quotedForMessage(value.get_ref<std::string const&>())
                                             : typeOf(value)));
      }
      r->show = *what;
      for (auto it = doc.begin(); it != doc.end(); ++it) {
         if (it.key() == "show") continue;
         if (it.key() != "vrf" || r->show != ShowWhat::nexthops) {
            return refuse(placeOf("", it.key()),
                          "unknown member " + quotedForMessage(it.key()) +
                              (r->show == ShowWhat::nexthops ? " (known: vrf)" : ""));
         }
         if (!it.value().is_string() || it.value().get_ref<std::string const&>().empty()) {
            return refuse("/vrf",
                          "a VRF name, not " + (it.value().is_string() ? std::string("an empty one")
                                                                       : typeOf(it.value())));
         }
         r->vrf = it.value().get_ref<std::string const&>();
      }
      return true;
   }

   // {"nexthops": {"client": "bgp", "vrf": "red", "set": ["10.0.0.1"]}}
   bool nexthops(Json const& value, ControlRequest* r) {
      std::string const at = "/nexthops";
      if (!value.is_object()) return refuse(at, "an object, not " + typeOf(value));
      bool set = false;
      for (auto it = value.begin(); it != value.end(); ++it) {
         auto p = placeOf(at, it.key());
         auto const& v = it.value();
         if (it.key() == "client") {
            if (!programNameAt(v, p, &r->program)) return false;
         } else if (it.key() == "vrf") {
            if (!v.is_string()) return refuse(p, "a name, not " + typeOf(v));
            auto const& name = v.get_ref<std::string const&>();
            if (name.empty() || name.size() > 100)
               return refuse(p, "a VRF name has 1 to 100 bytes");
            r->vrf = name;
         } else if (it.key() == "set") {
            if (!v.is_array()) return refuse(p, "an array of addresses, not " + typeOf(v));
            set = true;
            for (size_t i = 0; i < v.size(); ++i) {
               auto ip = p + "/" + std::to_string(i);
               if (!v[i].is_string()) return refuse(ip, "an address, not " + typeOf(v[i]));
               auto a = Konet::IpGenAddr::parse(v[i].get_ref<std::string const&>());
               if (!a) {
                  return refuse(ip, quotedForMessage(v[i].get_ref<std::string const&>()) +
                                        " is not an IPv4 or IPv6 address");
               }
               if (std::find(r->nexthops.begin(), r->nexthops.end(), *a) != r->nexthops.end())
                  return refuse(ip, quotedForMessage(a->toString()) + " is listed twice");
               r->nexthops.push_back(*a);
            }
         } else {
            return refuse(
                p, "unknown member " + quotedForMessage(it.key()) + " (known: client, vrf, set)");
         }
      }
      if (r->program.empty()) return refuse(at, "names its client (\"client\")");
      if (r->vrf.empty()) return refuse(at, "names its VRF (\"vrf\")");
      if (!set) return refuse(at, "gives the client's nexthops (\"set\")");
      r->kind = RequestKind::nexthops;
      return true;
   }

   // {"ip6-enable": {"name": ..., "interfaces": [...]}}
   bool ip6Enable(Json const& value, ControlRequest* r) {
      std::string const at = "/ip6-enable";
      if (!value.is_object()) {
         return refuse(at,
                       "an IPv6 enable request is an object with \"name\" and \"interfaces\", "
                       "not " +
                           typeOf(value));
      }
      for (auto it = value.begin(); it != value.end(); ++it) {
         if (it.key() != "name" && it.key() != "interfaces") {
            return refuse(placeOf(at, it.key()), "unknown member " + quotedForMessage(it.key()) +
                                                     " (known: name, interfaces)");
         }
      }
      if (!value.contains("name") || !value.contains("interfaces")) {
         return refuse(at, std::string("an IPv6 enable request needs \"") +
                               (value.contains("name") ? "interfaces" : "name") + "\"");
      }
      std::string name;
      if (!programNameAt(value.at("name"), at + "/name", &name)) return false;
      auto const& list = value.at("interfaces");
      if (!list.is_array()) {
         return refuse(at + "/interfaces", "a list of interfaces, not " + typeOf(list));
      }
      std::vector<Konet::IntfId> intfs;
      for (size_t i = 0; i < list.size(); ++i) {
         std::string place = at + "/interfaces/" + std::to_string(i);
         auto const& v = list[i];
         if (!v.is_string()) return refuse(place, "an interface is a string, not " + typeOf(v));
         auto const& text = v.get_ref<std::string const&>();
         std::string why;
         auto id = Konet::IntfId::parse(text, &why);
         if (!id) return refuse(place, why);
         if (std::find(intfs.begin(), intfs.end(), *id) != intfs.end()) {
            return refuse(place, quotedForMessage(text) + " is given twice");
         }
         intfs.push_back(*id);
      }
      *r = ControlRequest::ip6Enable(std::move(name), std::move(intfs));
      return true;
   }

   // {"multicast": {"name": ..., "interface": ..., "groups": [...]}}
   bool multicast(Json const& value, ControlRequest* r) {
      std::string const at = "/multicast";
      if (!value.is_object()) {
         return refuse(at,
                       "a multicast request is an object with \"name\", \"interface\" and "
                       "\"groups\", not " +
                           typeOf(value));
      }
      for (auto it = value.begin(); it != value.end(); ++it) {
         if (it.key() != "name" && it.key() != "interface" && it.key() != "groups") {
            return refuse(placeOf(at, it.key()), "unknown member " + quotedForMessage(it.key()) +
                                                     " (known: name, interface, groups)");
         }
      }
      for (char const* needed : {"name", "interface", "groups"}) {
         if (!value.contains(needed))
            return refuse(at, std::string("a multicast request needs \"") + needed + "\"");
      }
      std::string name;
      if (!programNameAt(value.at("name"), at + "/name", &name)) return false;
      if (name == "veld") {
         return refuse(at + "/name", "\"veld\" is the agent's own application");
      }
      auto const& intfText = value.at("interface");
      if (!intfText.is_string()) {
         return refuse(at + "/interface", "an interface is a string, not " + typeOf(intfText));
      }
      std::string why;
      auto intf = Konet::IntfId::parse(intfText.get_ref<std::string const&>(), &why);
      if (!intf) return refuse(at + "/interface", why);
      auto const& list = value.at("groups");
      if (!list.is_array()) {
         return refuse(at + "/groups", "a list of multicast groups, not " + typeOf(list));
      }
      std::vector<Konet::IpGenAddr> groups;
      for (size_t i = 0; i < list.size(); ++i) {
         std::string place = at + "/groups/" + std::to_string(i);
         auto const& v = list[i];
         if (!v.is_string()) return refuse(place, "a group is an address, not " + typeOf(v));
         auto const& text = v.get_ref<std::string const&>();
         auto a = Konet::IpGenAddr::parse(text);
         if (!a || !a->isMulticast()) {
            return refuse(place,
                          quotedForMessage(text) + " is not an IPv4 or IPv6 multicast address");
         }
         if (std::find(groups.begin(), groups.end(), *a) != groups.end()) {
            return refuse(place, quotedForMessage(text) + " is given twice");
         }
         groups.push_back(*a);
      }
      *r = ControlRequest::multicast(std::move(name), std::move(*intf), std::move(groups));
      return true;
   }

   bool programNameAt(Json const& v, std::string const& place, std::string* out) {
      std::string why;
      auto name = programName(v, &why);
      if (!name) return refuse(place, why);
      *out = std::move(*name);
      return true;
   }

private:
   std::vector<DocError>* errors_;
};

}  // namespace

char const* requestKindName(RequestKind kind) {
   for (auto const& [k, name] : kRequestNames) {
      if (k == kind) return name;
   }
   return "?";
}

char const* showWhatName(ShowWhat what) {
   for (auto const& [w, name] : kShowNames) {
      if (w == what) return name;
   }
   return "?";
}

std::optional<ShowWhat> showWhatFromName(std::string_view name) {
   for (auto const& [w, n] : kShowNames) {
      if (name == n) return w;
   }
   return std::nullopt;
}

ParsedRequest parseControlRequest(std::string_view line) {
   ParsedRequest out;
   auto doc = readJson(line, kMaxRequestBytes, &out.errors);
   if (!doc) return out;
   RequestReader read(&out.errors);
   ControlRequest r;
   auto done = [&](bool ok) {
      if (ok) out.request = std::move(r);
      return out;
   };
   if (!doc->is_object() || doc->empty()) {
      read.refuse("", "a request is an object with one member, such as {\"show\": \"vrfs\"}");
      return out;
   }
   // A show may name a VRF beside it; every other request is the object's one member.
   if (doc->contains("show")) return done(read.show(*doc, &r));
   if (doc->size() != 1) {
      read.refuse("", "a request is an object with one member, such as {\"show\": \"vrfs\"}");
      return out;
   }
   auto member = doc->begin();
   auto const& key = member.key();
   auto const& value = member.value();
   auto const at = placeOf("", key);
   if (key == "switchover") {
      if (!value.is_boolean())
         return done(read.refuse(at, "is true or false, not " + typeOf(value)));
      r = ControlRequest::switchoverTo(value.get<bool>());
      return done(true);
   }
   if (key == "subscribe") {
      r.kind = RequestKind::subscribe;
      return done(read.programNameAt(value, at, &r.program));
   }
   if (key == "nexthops") return done(read.nexthops(value, &r));
   if (key == "ip6-enable") return done(read.ip6Enable(value, &r));
   if (key == "ip6-enable-withdraw") {
      r.kind = RequestKind::ip6EnableWithdraw;
      return done(read.programNameAt(value, at, &r.program));
   }
   if (key == "multicast") return done(read.multicast(value, &r));
   if (key == "multicast-withdraw") {
      r.kind = RequestKind::multicastWithdraw;
      return done(read.programNameAt(value, at, &r.program));
   }
   read.refuse(
       at, "unknown request " + quotedForMessage(key) + " (known: " + namesOf(kRequestNames) + ")");
   return out;
}

std::string controlRequestText(ControlRequest const& request) {
   switch (request.kind) {
      case RequestKind::switchover:
         return dumpJson(Json{{"switchover", request.switchover}});
      case RequestKind::subscribe:
         return dumpJson(Json{{"subscribe", request.program}});
      case RequestKind::nexthops: {
         Json set = Json::array();
         for (auto const& a : request.nexthops)
            set.push_back(a.toString());
         return dumpJson(
             Json{{"nexthops", {{"client", request.program}, {"vrf", request.vrf}, {"set", set}}}});
      }
      case RequestKind::ip6Enable: {
         Json intfs = Json::array();
         for (auto const& i : request.interfaces)
            intfs.push_back(i.name());
         return dumpJson(Json{{"ip6-enable", {{"name", request.program}, {"interfaces", intfs}}}});
      }
      case RequestKind::ip6EnableWithdraw:
         return dumpJson(Json{{"ip6-enable-withdraw", request.program}});
      case RequestKind::multicast: {
         Json groups = Json::array();
         for (auto const& g : request.groups)
            groups.push_back(g.toString());
         auto intf = request.interfaces.empty() ? std::string() : request.interfaces[0].name();
         return dumpJson(Json{
             {"multicast", {{"name", request.program}, {"interface", intf}, {"groups", groups}}}});
      }
      case RequestKind::multicastWithdraw:
         return dumpJson(Json{{"multicast-withdraw", request.program}});
      case RequestKind::show:
         break;
   }
   Json j{{"show", showWhatName(request.show)}};
   if (!request.vrf.empty()) j["vrf"] = request.vrf;
   return dumpJson(j);
}

}  // namespace VeldAgent
