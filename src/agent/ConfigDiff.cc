#include "agent/ConfigDiff.h"

#include <string>

namespace VeldAgent {

namespace {

// Walks two maps in key order: added (only in `after`), removed, changed.
template <class Map, class Key>
void diffMaps(Map const& before, Map const& after, std::vector<Key>* added,
              std::vector<Key>* removed, std::vector<Key>* changed) {
   auto b = before.begin();
   auto a = after.begin();
   while (b != before.end() || a != after.end()) {
      if (a == after.end() || (b != before.end() && b->first < a->first)) {
         removed->push_back(b->first);
         ++b;
      } else if (b == before.end() || a->first < b->first) {
         added->push_back(a->first);
         ++a;
      } else {
         if (!(b->second == a->second)) changed->push_back(a->first);
         ++a;
         ++b;
      }
   }
}

void count(std::string* out, size_t n, char const* what, char const* how) {
   if (!n) return;
   if (!out->empty()) *out += ", ";
   *out += std::to_string(n) + " " + what + (n == 1 ? "" : "s") + " " + how;
}

}  // namespace

ConfigDiff diffConfigurations(Configuration const& before, Configuration const& after) {
   ConfigDiff d;
   d.routingChanged = !(before.routing == after.routing);
   diffMaps(before.vrfs, after.vrfs, &d.vrfsAdded, &d.vrfsRemoved, &d.vrfsChanged);
   diffMaps(before.interfaces, after.interfaces, &d.intfsAdded, &d.intfsRemoved, &d.intfsChanged);
   return d;
}

std::string ConfigDiff::summary() const {
   std::string out;
   if (routingChanged) out = "routing settings changed";
   count(&out, vrfsAdded.size(), "VRF", "added");
   count(&out, vrfsRemoved.size(), "VRF", "removed");
   count(&out, vrfsChanged.size(), "VRF", "changed");
   count(&out, intfsAdded.size(), "interface", "added");
   count(&out, intfsRemoved.size(), "interface", "removed");
   count(&out, intfsChanged.size(), "interface", "changed");
   return out.empty() ? "no change" : out;
}

}  // namespace VeldAgent
