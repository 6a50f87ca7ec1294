// The state database as this process sees it: a path-addressed tree of directories and
// entities ("kni/ns/default/status", "interface/config/loopback/intf").
#pragma once

#include <string>
#include <string_view>

#include "mox/Dir.h"

namespace Larder {

class EntityManager : public Mox::PtrInterface {
public:
   EntityManager() : root_(Mox::make<Mox::Dir>("")) {}

   Mox::Ptr<Mox::Dir> root() const { return root_; }

   // The entity at `path`, or null.
   Mox::Ptr<Mox::Entity> entity(std::string_view path) const { return root_->entityRef(path); }
   template <class T>
   Mox::Ptr<T> entity(std::string_view path) const {
      return Mox::ptrDynamicCast<T>(entity(path));
   }
   // Publishes `e` at `path`, creating the directories on the way. False when a directory
   // on the way is taken by an entity that is not a directory.
   bool entityIs(std::string_view path, Mox::Ptr<Mox::Entity> const& e);
   // The directory at `path`, created with its parents if absent.
   Mox::Ptr<Mox::Dir> dirIs(std::string_view path);
   void entityDel(std::string_view path);

private:
   Mox::Ptr<Mox::Dir> parentDir(std::string_view path, std::string_view* leaf, bool create);
   Mox::Ptr<Mox::Dir> root_;
};

// "kni/ns/%s/status" with the namespace filled in.
std::string formatPath(char const* pattern, std::string_view arg);

}  // namespace Larder
