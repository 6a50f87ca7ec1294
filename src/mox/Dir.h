// Directories: named containers of entities, as mounted from the state database.
#pragma once

#include <string_view>

#include "mox/Entity.h"
#include "mox/HashMap.h"
#include "mox/Name.h"

namespace Mox {

class Dir : public Entity {
public:
   class NotifieeConst : public EntityNotifiee<Dir> {
   public:
      // An entry was added, replaced or removed (then entry(name) is null).
      virtual void onEntry(Name const&) {}
   };

   using Entries = HashMap<Name, Ptr<Entity>>;

   explicit Dir(Name name = Name()) : name_(std::move(name)) {}
   ~Dir() override;

   Name const& name() const { return name_; }

   Ptr<Entity> entry(Name const& name) const;
   template <class T>
   Ptr<T> entry(Name const& name) const {
      return ptrDynamicCast<T>(entry(name));
   }
   // Places `e` under `name` (replacing what was there) and makes this its parent.
   void entryIs(Name const& name, Ptr<Entity> const& e);
   // The directory under `name`, created if absent; null if the name holds something else.
   Ptr<Dir> dirIs(Name const& name);
   void entryDel(Name const& name);
   void entryDelAll();
   size_t entries() const { return entries_.size(); }

   Entries& entryIterator() { return entries_; }
   Entries const& entryIteratorConst() const { return entries_; }

   // The entity at a relative path ("a/b/c"), or null.
   Ptr<Entity> entityRef(std::string_view path) const;

private:
   Name name_;
   Entries entries_;
};

}  // namespace Mox
