// Entities: named objects with value, pointer and keyed-collection attributes whose changes
// are delivered to reactors.
//
// Each entity type declares its accessors by name (x(), xIs(v), xDel(), x(key), ...) and its
// own NotifieeConst with one virtual onX() per attribute (onX(key) for a collection). The
// setters here do the common part: store only a real change, then deliver it. A collection
// delivers onX(key) once per changed key, deletions included (the handler finds the key
// gone).
//
//    class Port : public Mox::Entity {
//    public:
//       class NotifieeConst : public Mox::EntityNotifiee<Port> {
//       public:
//          virtual void onSpeed() {}
//       };
//       uint32_t speed() const { return speed_; }
//       void speedIs(uint32_t v) { setAttr(speed_, v, &NotifieeConst::onSpeed); }
//    private:
//       uint32_t speed_ = 0;
//    };
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "mox/Notifiee.h"

namespace Mox {

using AttrId = uint32_t;
constexpr AttrId kNoAttrId = 0;

class Entity : public Notifier {
public:
   // Every entity type E declares `class NotifieeConst : public EntityNotifiee<E>`; the
   // reactors of an E are always E::NotifieeConst, which is what lets notify() call them
   // without a type check.
   class NotifieeConst : public NotifieeBase {
   public:
      // Reflective form: an attribute changed by name, for generic tools.
      virtual void onRawAttribute(AttrId) {}
   };

   Entity() = default;
   Entity(Entity const&) = default;

   // Where this entity is placed: its parent and the attribute under which it sits.
   Entity const* parent() const { return parent_; }
   AttrId parentAttrId() const { return parentAttrId_; }
   void parentIs(Entity const* parent) { parent_ = parent; }
   void parentAttrIdIs(AttrId id) { parentAttrId_ = id; }

protected:
   // Delivers a change to every reactor of this entity, whose reactors are all N's.
   template <class N, class... A, class... Args>
   void notify(void (N::*fn)(A...), Args const&... args) const {
      notifyEach<N>([&](N* n) { (n->*fn)(args...); });
   }

   // Stores v and delivers fn, unless nothing changed.
   template <class T, class V, class N>
   bool setAttr(T& field, V&& v, void (N::*fn)()) {
      if (field == v) return false;
      field = std::forward<V>(v);
      notify(fn);
      return true;
   }

   // Keyed collections (Mox::HashMap, Mox::HashSet, std::map): each helper stores a real
   // change only, then delivers fn(key) once.
   template <class M, class K, class V, class N, class A>
   bool setMember(M& map, K const& k, V&& v, void (N::*fn)(A)) {
      if (!map.assign(k, std::forward<V>(v))) return false;
      notify(fn, k);
      return true;
   }
   template <class S, class K, class N, class A>
   bool insertMember(S& set, K const& k, void (N::*fn)(A)) {
      if (!set.insert(k)) return false;
      notify(fn, k);
      return true;
   }
   template <class M, class K, class N, class A>
   bool delMember(M& map, K const& k, void (N::*fn)(A)) {
      if (!map.erase(k)) return false;
      notify(fn, k);
      return true;
   }
   template <class M, class N, class A>
   void delAllMembers(M& map, void (N::*fn)(A)) {
      for (auto const& k : map.keys())
         delMember(map, k, fn);
   }
   // Instantiating collections: the member for k, created as E(k, args...) and placed under
   // this entity when absent.
   template <class E, class M, class K, class N, class A, class... Args>
   Ptr<E> instantiateMember(M& map, K const& k, AttrId attr, void (N::*fn)(A), Args&&... args) {
      if (auto* p = map.find(k)) return *p;
      auto e = make<E>(k, std::forward<Args>(args)...);
      adopt(e.ptr(), attr);
      map.emplace(k, e);
      notify(fn, k);
      return e;
   }
   // Places a child created by this entity under attribute `attr`.
   void adopt(Entity* child, AttrId attr) const {
      child->parentIs(this);
      child->parentAttrIdIs(attr);
   }

private:
   Entity const* parent_ = nullptr;  // not owning: the parent owns us
   AttrId parentAttrId_ = kNoAttrId;
};

// Base of an entity type's NotifieeConst: attaches to that type only.
template <class E>
class EntityNotifiee : public Entity::NotifieeConst {
protected:
   EntityNotifiee() = default;

public:
   Ptr<E const> notifier() const { return Ptr<E const>(static_cast<E const*>(notifierBase())); }
   E const* notifierRaw() const { return static_cast<E const*>(notifierBase()); }
   void notifierIs(Ptr<E const> const& n) { notifierBaseIs(n.ptr()); }
   void notifierIs(E const* n) { notifierBaseIs(n); }
};

}  // namespace Mox
