#include "veld/LocalInterface.h"

namespace Veld {

namespace {
std::function<bool(Konet::IntfId const&)>& predicate() {
   static std::function<bool(Konet::IntfId const&)> p;
   return p;
}
}  // namespace

bool isLocalInterface(Konet::IntfId const& name) {
   if (auto const& p = predicate()) return p(name);
   return name.name().starts_with("Test");
}

void localInterfacePredicateIs(std::function<bool(Konet::IntfId const&)> p) {
   predicate() = std::move(p);
}

}  // namespace Veld
