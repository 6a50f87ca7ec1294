#include "mox/Larder.h"

namespace Larder {

Mox::Ptr<Mox::Dir> EntityManager::parentDir(std::string_view path, std::string_view* leaf,
                                            bool create) {
   while (!path.empty() && path.front() == '/')
      path.remove_prefix(1);
   while (!path.empty() && path.back() == '/')
      path.remove_suffix(1);
   auto dir = root_;
   for (;;) {
      auto slash = path.find('/');
      if (slash == std::string_view::npos) {
         *leaf = path;
         return dir;
      }
      auto head = Mox::Name(path.substr(0, slash));
      path.remove_prefix(slash + 1);
      auto next = create ? dir->dirIs(head) : dir->entry<Mox::Dir>(head);
      if (!next) return nullptr;
      dir = next;
   }
}

bool EntityManager::entityIs(std::string_view path, Mox::Ptr<Mox::Entity> const& e) {
   std::string_view leaf;
   auto dir = parentDir(path, &leaf, true);
   if (!dir || leaf.empty()) return false;
   dir->entryIs(Mox::Name(leaf), e);
   return true;
}

Mox::Ptr<Mox::Dir> EntityManager::dirIs(std::string_view path) {
   std::string_view leaf;
   auto dir = parentDir(path, &leaf, true);
   if (!dir) return nullptr;
   return leaf.empty() ? dir : dir->dirIs(Mox::Name(leaf));
}

void EntityManager::entityDel(std::string_view path) {
   std::string_view leaf;
   auto dir = parentDir(path, &leaf, false);
   if (dir && !leaf.empty()) dir->entryDel(Mox::Name(leaf));
}

std::string formatPath(char const* pattern, std::string_view arg) {
   std::string out;
   for (char const* p = pattern; *p; ++p) {
      if (p[0] == '%' && p[1] == 's') {
         out.append(arg);
         ++p;
      } else {
         out.push_back(*p);
      }
   }
   return out;
}

}  // namespace Larder
