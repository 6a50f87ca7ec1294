// The trie builder container's configuration (standby) and status (its tries).
#pragma once

#include "mox/Entity.h"
#include "platform/TrieGen.h"

namespace Veld {

class TrieBuilderContainerConfig : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<TrieBuilderContainerConfig> {
   public:
      virtual void onStandbyMode() {}
   };
   explicit TrieBuilderContainerConfig(bool standbyMode) : standbyMode_(standbyMode) {}
   bool standbyMode() const { return standbyMode_; }
   void standbyModeIs(bool v) { setAttr(standbyMode_, v, &NotifieeConst::onStandbyMode); }

private:
   bool standbyMode_;
};

class TrieBuilderContainerStatus : public Mox::Entity {
public:
   class NotifieeConst : public Mox::EntityNotifiee<TrieBuilderContainerStatus> {
   public:
      virtual void onEnabled() {}
      virtual void onTrie4() {}
      virtual void onTrie6() {}
   };
   bool enabled() const { return enabled_; }
   void enabledIs(bool v) { setAttr(enabled_, v, &NotifieeConst::onEnabled); }

   Mox::Ptr<Routing::TrieGen> const& trie4() const { return trie4_; }
   Mox::Ptr<Routing::TrieGen> trie4Is(Mox::Name const& name, Konet::AddressFamily af) {
      return trieIs(trie4_, name, af, &NotifieeConst::onTrie4);
   }
   void trie4Del() { setAttr(trie4_, nullptr, &NotifieeConst::onTrie4); }
   Mox::Ptr<Routing::TrieGen> const& trie6() const { return trie6_; }
   Mox::Ptr<Routing::TrieGen> trie6Is(Mox::Name const& name, Konet::AddressFamily af) {
      return trieIs(trie6_, name, af, &NotifieeConst::onTrie6);
   }
   void trie6Del() { setAttr(trie6_, nullptr, &NotifieeConst::onTrie6); }

private:
   // A new trie each time: an existing one is kept only under the same name and family.
   Mox::Ptr<Routing::TrieGen> trieIs(Mox::Ptr<Routing::TrieGen>& slot, Mox::Name const& name,
                                     Konet::AddressFamily af, void (NotifieeConst::*fn)()) {
      if (slot && slot->name() == name && slot->af() == af) return slot;
      auto t = Mox::make<Routing::TrieGen>(name, af);
      adopt(t.ptr(), 0);
      setAttr(slot, t, fn);
      return t;
   }
   bool enabled_ = false;
   Mox::Ptr<Routing::TrieGen> trie4_;
   Mox::Ptr<Routing::TrieGen> trie6_;
};

Mox::Ptr<TrieBuilderContainerConfig> trieBuilderContainerConfigFactory(bool standbyMode);
Mox::Ptr<TrieBuilderContainerStatus> trieBuilderContainerStatusFactory();

}  // namespace Veld
