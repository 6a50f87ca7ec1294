#include "agent/ControlRequest.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <utility>

namespace VeldAgent {

namespace {

constexpr std::array<std::pair<ShowWhat, char const*>, 5> kShowNames{{
    {ShowWhat::interfaces, "interfaces"},
    {ShowWhat::vrfs, "vrfs"},
    {ShowWhat::backlog, "backlog"},
    {ShowWhat::config, "config"},
    {ShowWhat::ip6Enable, "ip6-enable"},
}};

constexpr std::array<std::pair<RequestKind, char const*>, 3> kRequestNames{{
    {RequestKind::show, "show"},
    {RequestKind::ip6Enable, "ip6-enable"},
    {RequestKind::ip6EnableWithdraw, "ip6-enable-withdraw"},
}};

using Json = nlohmann::json;

std::string typeOf(Json const& v) {
   std::string name = v.type_name();
   return (name[0] == 'a' || name[0] == 'o' ? "an " : "a ") + name;
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

// {"name": ..., "interfaces": [...]}
void parseIp6Enable(Json const& value, ControlRequest* r, std::vector<DocError>* errors) {
   std::string const at = "/ip6-enable";
   auto refuse = [&](std::string pointer, std::string message) {
      errors->push_back({std::move(pointer), std::move(message)});
   };
   if (!value.is_object()) {
      return refuse(at,
                    "an IPv6 enable request is an object with \"name\" and \"interfaces\", "
                    "not " +
                        typeOf(value));
   }
   for (auto it = value.begin(); it != value.end(); ++it) {
      if (it.key() != "name" && it.key() != "interfaces") {
         return refuse(
             at + "/" + pointerToken(it.key()),
             "unknown member " + quotedForMessage(it.key()) + " (known: name, interfaces)");
      }
   }
   if (!value.contains("name") || !value.contains("interfaces")) {
      return refuse(at, std::string("an IPv6 enable request needs \"") +
                            (value.contains("name") ? "interfaces" : "name") + "\"");
   }
   std::string why;
   auto name = programName(value.at("name"), &why);
   if (!name) return refuse(at + "/name", why);
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
      auto id = Konet::IntfId::parse(text, &why);
      if (!id) return refuse(place, why);
      if (std::find(intfs.begin(), intfs.end(), *id) != intfs.end()) {
         return refuse(place, quotedForMessage(text) + " is given twice");
      }
      intfs.push_back(*id);
   }
   *r = ControlRequest::ip6Enable(*name, std::move(intfs));
}

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
   auto refuse = [&](std::string pointer, std::string message) {
      out.errors.push_back({std::move(pointer), std::move(message)});
      return out;
   };
   if (!doc->is_object() || doc->size() != 1) {
      return refuse("", "a request is an object with one member, such as {\"show\": \"vrfs\"}");
   }
   auto member = doc->begin();
   auto const& key = member.key();
   auto const& value = member.value();
   if (key == "ip6-enable") {
      ControlRequest r;
      parseIp6Enable(value, &r, &out.errors);
      if (out.errors.empty()) out.request = std::move(r);
      return out;
   }
   if (key == "ip6-enable-withdraw") {
      std::string why;
      auto name = programName(value, &why);
      if (!name) return refuse("/ip6-enable-withdraw", why);
      out.request = ControlRequest::ip6EnableWithdraw(*name);
      return out;
   }
   if (key != "show") {
      return refuse(std::string("/").append(pointerToken(key)),
                    "unknown request " + quotedForMessage(key) +
                        " (known: show, ip6-enable, ip6-enable-withdraw)");
   }
   std::optional<ShowWhat> what;
   if (value.is_string()) what = showWhatFromName(value.get_ref<std::string const&>());
   if (!what) {
      return refuse("/show",
                    "shows one of interfaces, vrfs, backlog, config, ip6-enable; not " +
                        (value.is_string() ? quotedForMessage(value.get_ref<std::string const&>())
                                           : typeOf(value)));
   }
   out.request = ControlRequest{*what};
   return out;
}

std::string controlRequestText(ControlRequest const& request) {
   switch (request.kind) {
      case RequestKind::ip6Enable: {
         Json intfs = Json::array();
         for (auto const& i : request.interfaces)
            intfs.push_back(i.name());
         return dumpJson(Json{{"ip6-enable", {{"name", request.program}, {"interfaces", intfs}}}});
      }
      case RequestKind::ip6EnableWithdraw:
         return dumpJson(Json{{"ip6-enable-withdraw", request.program}});
      case RequestKind::show:
         break;
   }
   return dumpJson(Json{{"show", showWhatName(request.show)}});
}

}  // namespace VeldAgent
