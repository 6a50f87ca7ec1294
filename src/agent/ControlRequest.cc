#include "agent/ControlRequest.h"

#include <array>
#include <utility>

namespace VeldAgent {

namespace {

constexpr std::array<std::pair<ShowWhat, char const*>, 5> kShowNames{{
    {ShowWhat::interfaces, "interfaces"},
    {ShowWhat::vrfs, "vrfs"},
    {ShowWhat::backlog, "backlog"},
    {ShowWhat::config, "config"},
    {ShowWhat::routingAgents, "routing-agents"},
}};

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
      return out;
   };
   if (!doc->is_object() || doc->size() != 1) {
      return refuse("", "a request is an object with one member, such as {\"show\": \"vrfs\"}");
   }
   auto member = doc->begin();
   auto const& key = member.key();
   auto const& value = member.value();
   if (key == "switchover") {
      if (!value.is_boolean()) {
         return refuse("/switchover", std::string("is true or false, not a ") + value.type_name());
      }
      out.request = switchoverRequest(value.get<bool>());
      return out;
   }
   if (key != "show") {
      return refuse(std::string("/").append(pointerToken(key)),
                    "unknown request " + quotedForMessage(key) + " (known: show, switchover)");
   }
   std::optional<ShowWhat> what;
   if (value.is_string()) what = showWhatFromName(value.get_ref<std::string const&>());
   if (!what) {
      return refuse("/show",
                    "shows one of interfaces, vrfs, backlog, config, routing-agents; not " +
                        (value.is_string() ? quotedForMessage(value.get_ref<std::string const&>())
                                           : std::string("a ") + value.type_name()));
   }
   out.request = showRequest(*what);
   return out;
}

std::string controlRequestText(ControlRequest const& request) {
   if (request.switchover) return dumpJson(nlohmann::json{{"switchover", *request.switchover}});
   return dumpJson(nlohmann::json{{"show", showWhatName(request.show)}});
}

}  // namespace VeldAgent
