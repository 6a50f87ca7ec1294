// What the IPv4 and IPv6 interface machines' backlogs share: the order in which a run visits
// the entries, and the counting of failed attempts that ends in giving up.
//
// A run visits each entry at most once, from the bookmark (where the last run ran out of
// time) to the end and round to it. An entry whose kernel work keeps failing is tried on
// every run until maxTries failures in a row, then given up, logged once with the error, the
// interface and the seconds since its first failure; the next change tries it afresh.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "konet/IntfId.h"
#include "konet/NamespaceName.h"
#include "mox/HashMap.h"
#include "mox/Trace.h"
#include "veld/KernelIo.h"

namespace Veld {

template <class Entry>
std::vector<Konet::IntfId> backlogRunOrder(Mox::HashMap<Konet::IntfId, Entry>& list,
                                           std::optional<Konet::IntfId> const& bookmark) {
   std::vector<Konet::IntfId> order;
   order.reserve(list.size());
   auto resume = bookmark ? list.at(*bookmark) : list.begin();
   for (auto it = resume; it != list.end(); ++it)
      order.push_back(it->first);
   for (auto it = list.begin(); it != resume; ++it)
      order.push_back(it->first);
   return order;
}

// Counts a failed attempt (`what`: "write", "setns") of the entry's kernel work; true when it
// is given up now. Entry has intf, lastError, tries and firstFailureTime.
template <class Entry>
bool backlogEntryFailed(Entry& entry, int err, double now, char const* what, uint32_t maxTries,
                        uint64_t& errors, Mox::TraceHandle& th) {
   if (entry.tries == 0) entry.firstFailureTime = now;
   entry.lastError = err;
   ++errors;
   if (++entry.tries < maxTries) return false;
   std::string text = "Abandoned " + std::string(what) +
                      ", error = " + std::to_string(entry.lastError) + " for " + entry.intf.name() +
                      " after " + std::to_string(now - entry.firstFailureTime) + " seconds";
   MOX_TRACE(th, 0, text);
   Mox::logMessage(Mox::LogSeverity::warning, "VELD-PROC-ABANDONED", text);
   entry.tries = 0;
   return true;
}

// The namespace of one backlog run, entered at the run's first entry and held to its end:
// a run visits up to thousands of entries and entering costs a pair of setns calls (and the
// /proc directories opened inside). An entry that finds it cannot be entered counts that as
// its own failure; the next entry tries again.
class BacklogRunNamespace {
public:
   BacklogRunNamespace(KernelIo& io, Konet::NamespaceName const& ns) : io_(io), ns_(ns) {}
   // `caller` names the run in the log line of a failure (nullptr: not logged).
   Konet::ScopedNetNs const& enter(char const* caller) {
      if (!guard_ || !guard_->ok()) {
         guard_.reset();  // back where the run began before trying again
         guard_ = io_.enterNamespace(ns_, caller);
      }
      return *guard_;
   }

private:
   KernelIo& io_;
   Konet::NamespaceName const& ns_;
   std::unique_ptr<Konet::ScopedNetNs> guard_;
};

}  // namespace Veld
