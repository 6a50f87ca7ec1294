#include "mox/Dir.h"

namespace Mox {

Dir::~Dir() {
   for (auto& [_, e] : entries_) {
      if (e && e->parent() == this) e->parentIs(nullptr);
   }
}

Ptr<Entity> Dir::entry(Name const& name) const {
   auto const* e = entries_.find(name);
   return e ? *e : Ptr<Entity>();
}

void Dir::entryIs(Name const& name, Ptr<Entity> const& e) {
   if (!e) {
      entryDel(name);
      return;
   }
   auto* slot = entries_.find(name);
   if (slot && *slot == e) return;
   if (slot && (*slot)->parent() == this) (*slot)->parentIs(nullptr);
   e->parentIs(this);
   entries_.assign(name, e);
   notify(&NotifieeConst::onEntry, name);
}

Ptr<Dir> Dir::dirIs(Name const& name) {
   if (auto existing = entry(name)) return ptrDynamicCast<Dir>(existing);
   auto d = make<Dir>(name);
   entryIs(name, d);
   return d;
}

void Dir::entryDel(Name const& name) {
   auto* slot = entries_.find(name);
   if (!slot) return;
   Ptr<Entity> gone = *slot;
   entries_.erase(name);
   if (gone->parent() == this) gone->parentIs(nullptr);
   notify(&NotifieeConst::onEntry, name);
}

void Dir::entryDelAll() {
   for (auto const& name : entries_.keys())
      entryDel(name);
}

Ptr<Entity> Dir::entityRef(std::string_view path) const {
   while (!path.empty() && path.front() == '/')
      path.remove_prefix(1);
   while (!path.empty() && path.back() == '/')
      path.remove_suffix(1);
   if (path.empty()) return Ptr<Entity>(const_cast<Dir*>(this));
   auto slash = path.find('/');
   auto head = path.substr(0, slash);
   auto e = entry(Name(head));
   if (!e || slash == std::string_view::npos) return e;
   auto const* d = dynamic_cast<Dir const*>(e.ptr());
   return d ? d->entityRef(path.substr(slash + 1)) : Ptr<Entity>();
}

}  // namespace Mox
