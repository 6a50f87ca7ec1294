// Programs' requests for IPv6 on interfaces: one entity per program in the directory the
// library merges, changed by the control socket's requests and kept across restarts.
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <set>

#include "agent/Agent.h"
#include "mox/Trace.h"

namespace VeldAgent {

namespace {
Mox::TraceHandle th("VeldAgent");
constexpr size_t kMaxRecordBytes = size_t{4} << 20;
}  // namespace

// A program's request is its own entity in the directory of requests; a new request from
// it changes that entity, so that only the interfaces that differ reach the merge.
void Agent::ip6EnableRequestIs(std::string const& program,
                               std::vector<Konet::IntfId> const& interfaces) {
   MOX_TRACE_FN(th, program);
   auto request = e_.ip6EnableDir->entry<Ip6::Ip6Enable>(program);
   if (!request) {
      request = Mox::make<Ip6::Ip6Enable>();
      e_.ip6EnableDir->entryIs(program, request);
   }
   std::set<Konet::IntfId> const wanted(interfaces.begin(), interfaces.end());
   for (auto const& intf : request->enableIterator().keys()) {
      if (!wanted.count(intf)) request->enableIs(intf, false);
   }
   for (auto const& intf : wanted)
      request->enableIs(intf, true);
   Mox::logMessage(Mox::LogSeverity::notice, "VELD-IP6-ENABLE",
                   program + " asks for IPv6 on " + std::to_string(wanted.size()) + " interfaces");
   recordIp6EnableRequests();
}

// The library leaves the interfaces of a program whose entity goes as they were; a program
// that withdraws takes its interfaces back first, so that they stay enabled only where
// another program asks for them.
bool Agent::ip6EnableRequestDel(std::string const& program) {
   MOX_TRACE_FN(th, program);
   auto request = e_.ip6EnableDir->entry<Ip6::Ip6Enable>(program);
   if (!request) return false;
   for (auto const& intf : request->enableIterator().keys())
      request->enableIs(intf, false);
   e_.ip6EnableDir->entryDel(program);
   Mox::logMessage(Mox::LogSeverity::notice, "VELD-IP6-ENABLE",
                   program + " withdrew its request for IPv6");
   recordIp6EnableRequests();
   return true;
}

// The record is the requests themselves, one request object each, so that the next start
// reads them exactly as the control socket does. Written to a new file renamed over the old
// one, so that a crash mid-write leaves the previous record whole.
void Agent::recordIp6EnableRequests() const {
   if (options_.runDir.empty()) return;
   auto requests = nlohmann::json::array();
   auto const shown = showIp6Enable();
   for (auto const& r : shown.at("requests")) {
      requests.push_back(
          {{"ip6-enable", {{"name", r.at("program")}, {"interfaces", r.at("interfaces")}}}});
   }
   std::string path = ip6EnableRequestsPath(options_.runDir);
   std::string tmp = path + ".new";
   {
      std::ofstream out(tmp, std::ios::trunc);
      out << dumpJson(requests, 1) << "\n";
      out.flush();
      if (!out) {
         Mox::logFailure("VELD-IP6-ENABLE", "cannot write " + tmp, errno);
         return;
      }
   }
   if (std::rename(tmp.c_str(), path.c_str()) != 0) {
      Mox::logFailure("VELD-IP6-ENABLE", "cannot rename " + tmp + " to " + path, errno);
   }
}

// A record that cannot be read is reported and the agent starts without it; a request in it
// that is not one is skipped with its place. The programs can always ask again.
void Agent::restoreIp6EnableRequests() {
   if (options_.runDir.empty()) return;
   std::string path = ip6EnableRequestsPath(options_.runDir);
   if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) return;
   auto unusable = [&](std::string const& why) {
      Mox::logMessage(Mox::LogSeverity::warning, "VELD-IP6-ENABLE",
                      path + " is unusable (" + why + "); the programs' requests start empty");
   };
   std::string text;
   if (auto err = readDocumentFile(path, kMaxRecordBytes, &text)) return unusable(err->toString());
   std::vector<DocError> errors;
   auto doc = readJson(text, kMaxRecordBytes, &errors);
   if (!doc) return unusable(errors.front().toString());
   if (!doc->is_array()) return unusable("(document): not a list of requests");
   for (size_t i = 0; i < doc->size(); ++i) {
      auto parsed = parseControlRequest(dumpJson((*doc)[i]));
      if (!parsed.request || parsed.request->kind != RequestKind::ip6Enable) {
         std::string why = parsed.errors.empty() ? "not an IPv6 enable request"
                                                 : parsed.errors.front().toString();
         Mox::logMessage(Mox::LogSeverity::warning, "VELD-IP6-ENABLE",
                         path + ": /" + std::to_string(i) + ": skipped (" + why + ")");
         continue;
      }
      ip6EnableRequestIs(parsed.request->program, parsed.request->interfaces);
   }
}

}  // namespace VeldAgent
