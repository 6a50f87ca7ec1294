#include "agent/ControlRequest.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

namespace VeldAgent {

namespace {

constexpr std::array<std::pair<ShowWhat, char const*>, 6> kShowNames{{
    {ShowWhat::interfaces, "interfaces"},
    {ShowWhat::vrfs, "vrfs"},
    {ShowWhat::backlog, "backlog"},
    {ShowWhat::config, "config"},
    {ShowWhat::routingAgents, "routing-agents"},
    {ShowWhat::nexthops, "nexthops"},
}};

// A client's name: what a person would type, short enough for a trace.
char const* clientNameProblem(std::string const& name) {
   if (name.empty() || name.size() > 64) return "a client name has 1 to 64 characters";
   for (char ch : name) {
      if (!std::isalnum(static_cast<unsigned char>(ch)) && ch != '-' && ch != '_' && ch != '.')
         return "a client name has letters, digits and -_. only";
   }
   return nullptr;
}

std::string showNames() {
   std::string names;
   for (auto const& [w, name] : kShowNames)
      names += (names.empty() ? "" : ", ") + std::string(name);
   return names;
}

}  // namespace

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
   auto refuse = [&](std::string pointer, std::string message) {
      out.errors.push_back({std::move(pointer), std::move(message)});
      out.request.reset();
      return out;
   };
   auto typeOf = [](nlohmann::json const& v) { return std::string("a ") + v.type_name(); };
   if (!doc->is_object() || doc->empty()) {
      return refuse("", "a request is an object with one member, such as {\"show\": \"vrfs\"}");
   }
   ControlRequest r;
   if (doc->contains("show")) {
      auto const& value = (*doc)["show"];
      std::optional<ShowWhat> what;
      if (value.is_string()) what = showWhatFromName(value.get_ref<std::string const&>());
      if (!what) {
         return refuse(
             "/show", "shows one of " + showNames() + "; not " +
                          (value.is_string() ? quotedForMessage(value.get_ref<std::string const&>())
                                             : typeOf(value)));
      }
      r.show = *what;
      for (auto it = doc->begin(); it != doc->end(); ++it) {
         if (it.key() == "show") continue;
         if (it.key() != "vrf" || r.show != ShowWhat::nexthops) {
            return refuse(std::string("/").append(pointerToken(it.key())),
                          "unknown member " + quotedForMessage(it.key()) +
                              (r.show == ShowWhat::nexthops ? " (known: vrf)" : ""));
         }
         if (!it.value().is_string() || it.value().get_ref<std::string const&>().empty()) {
            return refuse("/vrf",
                          "a VRF name, not " + (it.value().is_string() ? std::string("an empty one")
                                                                       : typeOf(it.value())));
         }
         r.vrf = it.value().get_ref<std::string const&>();
      }
      out.request = r;
      return out;
   }
   if (doc->size() != 1) {
      return refuse("", "a request is an object with one member, such as {\"show\": \"vrfs\"}");
   }
   auto member = doc->begin();
   auto const& key = member.key();
   auto const& value = member.value();
   if (key == "switchover") {
      if (!value.is_boolean()) return refuse("/switchover", "is true or false, not " + typeOf(value));
      out.request = switchoverRequest(value.get<bool>());
      return out;
   }
   if (key == "subscribe") {
      if (!value.is_string()) return refuse("/subscribe", "a client name, not " + typeOf(value));
      r.client = value.get_ref<std::string const&>();
      if (char const* why = clientNameProblem(r.client)) return refuse("/subscribe", why);
      r.subscribe = true;
      out.request = r;
      return out;
   }
   if (key == "nexthops") {
      if (!value.is_object()) return refuse("/nexthops", "an object, not " + typeOf(value));
      for (auto it = value.begin(); it != value.end(); ++it) {
         auto p = "/nexthops/" + pointerToken(it.key());
         auto const& v = it.value();
         if (it.key() == "client" || it.key() == "vrf") {
            if (!v.is_string()) return refuse(p, "a name, not " + typeOf(v));
            auto const& name = v.get_ref<std::string const&>();
            if (it.key() == "client") {
               if (char const* why = clientNameProblem(name)) return refuse(p, why);
               r.client = name;
            } else {
               if (name.empty() || name.size() > 100)
                  return refuse(p, "a VRF name has 1 to 100 bytes");
               r.vrf = name;
            }
         } else if (it.key() == "set") {
            if (!v.is_array()) return refuse(p, "an array of addresses, not " + typeOf(v));
            r.nexthops.emplace();
            for (size_t i = 0; i < v.size(); ++i) {
               auto ip = p + "/" + std::to_string(i);
               if (!v[i].is_string()) return refuse(ip, "an address, not " + typeOf(v[i]));
               auto a = Konet::IpGenAddr::parse(v[i].get_ref<std::string const&>());
               if (!a) {
                  return refuse(ip, quotedForMessage(v[i].get_ref<std::string const&>()) +
                                        " is not an IPv4 or IPv6 address");
               }
               if (std::find(r.nexthops->begin(), r.nexthops->end(), *a) != r.nexthops->end())
                  return refuse(ip, quotedForMessage(a->toString()) + " is listed twice");
               r.nexthops->push_back(*a);
            }
         } else {
            return refuse(
                p, "unknown member " + quotedForMessage(it.key()) + " (known: client, vrf, set)");
         }
      }
      if (r.client.empty()) return refuse("/nexthops", "names its client (\"client\")");
      if (r.vrf.empty()) return refuse("/nexthops", "names its VRF (\"vrf\")");
      if (!r.nexthops) return refuse("/nexthops", "gives the client's nexthops (\"set\")");
      out.request = r;
      return out;
   }
   return refuse(
       std::string("/").append(pointerToken(key)),
       "unknown request " + quotedForMessage(key) +
                     " (known: show, switchover, nexthops, subscribe)");
}

std::string controlRequestText(ControlRequest const& request) {
   if (request.switchover) return dumpJson(nlohmann::json{{"switchover", *request.switchover}});
   if (request.subscribe) return dumpJson(nlohmann::json{{"subscribe", request.client}});
   if (request.nexthops) {
      auto set = nlohmann::json::array();
      for (auto const& a : *request.nexthops)
         set.push_back(a.toString());
      return dumpJson(nlohmann::json{
          {"nexthops", {{"client", request.client}, {"vrf", request.vrf}, {"set", set}}}});
   }
   nlohmann::json j{{"show", showWhatName(request.show)}};
   if (!request.vrf.empty()) j["vrf"] = request.vrf;
   return dumpJson(j);
}

}  // namespace VeldAgent
