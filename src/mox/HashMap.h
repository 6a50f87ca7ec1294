// The keyed collection behind every collection attribute: a hash map that iterates in
// insertion order, so that runs are repeatable and a drain can resume at a bookmark.
//
// Members live in a vector in insertion order; an open-addressing index of (member, hash)
// slots finds them. Most maps hold a handful of members (an interface's addresses), and for
// them an index costs more than it saves: up to kLinearMax members (holes included) a lookup
// compares keys along the vector, and the index is built only when the map grows past that.
// Erasing leaves a hole in the vector, so erasing during iteration is safe and never moves
// another member; holes are squeezed out when an insertion rebuilds the index (or finds the
// small vector full). Inserting during iteration may do that, so iterate over keys() when a
// loop body can insert.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace Mox {

template <class K, class V, class Hash = std::hash<K>, class Eq = std::equal_to<K>>
class HashMap {
public:
   using value_type = std::pair<K const, V>;

   template <bool Const>
   class Iter {
      using Map = std::conditional_t<Const, HashMap const, HashMap>;
      using Ref = std::conditional_t<Const, value_type const&, value_type&>;

   public:
      Iter(Map* m, size_t i) : m_(m), i_(i) { skip(); }
      Ref operator*() const { return *m_->nodes_[i_]; }
      auto* operator->() const { return &*m_->nodes_[i_]; }
      Iter& operator++() {
         ++i_;
         skip();
         return *this;
      }
      bool operator==(Iter const& o) const { return i_ == o.i_; }
      size_t position() const { return i_; }

   private:
      void skip() {
         while (i_ < m_->nodes_.size() && !m_->nodes_[i_])
            ++i_;
      }
      Map* m_;
      size_t i_;
   };
   using iterator = Iter<false>;
   using const_iterator = Iter<true>;

   HashMap() = default;

   size_t size() const { return size_; }
   bool empty() const { return size_ == 0; }

   iterator begin() { return iterator(this, 0); }
   iterator end() { return iterator(this, nodes_.size()); }
   const_iterator begin() const { return const_iterator(this, 0); }
   const_iterator end() const { return const_iterator(this, nodes_.size()); }

   V* find(K const& k) {
      uint32_t const node = nodeOf(k);
      return node == kNone ? nullptr : &nodes_[node]->second;
   }
   V const* find(K const& k) const { return const_cast<HashMap*>(this)->find(k); }
   bool contains(K const& k) const { return find(k) != nullptr; }

   // The member after k in iteration order (begin() when k is absent).
   iterator after(K const& k) {
      uint32_t const node = nodeOf(k);
      return node == kNone ? begin() : iterator(this, node + 1);
   }
   iterator at(K const& k) {
      uint32_t const node = nodeOf(k);
      return node == kNone ? end() : iterator(this, node);
   }

   // Inserts (k, v) if k is absent. Returns the member and whether it was inserted.
   template <class... A>
   std::pair<V*, bool> emplace(K const& k, A&&... args) {
      uint32_t h = 0;
      if (slots_.empty()) {
         uint32_t const node = scan(k);
         if (node != kNone) return {&nodes_[node]->second, false};
         if (nodes_.size() >= kLinearMax) rebuild(size_ + 1);
         if (!slots_.empty()) h = hashOf(k);
      } else {
         h = hashOf(k);
         auto const pos = locate(k, h);
         if (pos.node != kNone) return {&nodes_[pos.node]->second, false};
         if ((nodes_.size() + 1) * 5 <= slots_.size() * 3) {
            slots_[pos.freeSlot] = Slot{static_cast<uint32_t>(nodes_.size()), h};
            return {append(k, std::forward<A>(args)...), true};
         }
         rebuild(size_ + 1);
      }
      // Rebuilt (or still small): the new member's slot, if there is an index.
      if (!slots_.empty()) {
         slots_[locate(k, h).freeSlot] = Slot{static_cast<uint32_t>(nodes_.size()), h};
      }
      return {append(k, std::forward<A>(args)...), true};
   }

   // Inserts or assigns; true when the stored value changed.
   template <class U>
   bool assign(K const& k, U&& v) {
      auto const placed = emplace(k, std::forward<U>(v));
      V* p = placed.first;  // not a structured binding: clang 14 cannot name one in requires
      if (placed.second) return true;
      if constexpr (requires { *p == v; }) {
         if (*p == v) return false;
      }
      *p = std::forward<U>(v);
      return true;
   }

   V& operator[](K const& k) { return *emplace(k).first; }

   bool erase(K const& k) {
      uint32_t node;
      if (slots_.empty()) {
         node = scan(k);
         if (node == kNone) return false;
      } else {
         auto pos = locate(k, hashOf(k));
         if (pos.node == kNone) return false;
         slots_[pos.slot].node = kTomb;
         node = pos.node;
      }
      nodes_[node].reset();
      --size_;
      return true;
   }

   void clear() {
      std::vector<std::optional<value_type>>().swap(nodes_);
      std::vector<Slot>().swap(slots_);
      size_ = 0;
   }

   void reserve(size_t n) {
      if (n > kLinearMax && n * 5 > slots_.size() * 3) rebuild(n);
      nodes_.reserve(n);
   }

   // The index's slots (none while the map is small enough to scan).
   size_t indexSlots() const { return slots_.size(); }
   static constexpr size_t kLinearMax = 8;

   std::vector<K> keys() const {
      std::vector<K> out;
      out.reserve(size_);
      for (auto const& kv : *this)
         out.push_back(kv.first);
      return out;
   }

private:
   static constexpr uint32_t kNone = UINT32_MAX;
   static constexpr uint32_t kEmpty = UINT32_MAX;
   static constexpr uint32_t kTomb = UINT32_MAX - 1;
   struct Slot {
      uint32_t node = kEmpty;
      uint32_t hash = 0;
   };
   struct Pos {
      uint32_t node = kNone;  // member index when found
      size_t slot = 0;        // its slot
      size_t freeSlot = 0;    // where to insert when not found
   };

   static uint32_t hashOf(K const& k) {
      uint64_t h = static_cast<uint64_t>(Hash()(k));
      // Spread weak hashes (identity hashes of integers) over the index.
      h *= 0x9E3779B97F4A7C15ull;
      return static_cast<uint32_t>(h >> 32);
   }

   // The member index of k, or kNone.
   uint32_t nodeOf(K const& k) const {
      return slots_.empty() ? scan(k) : locate(k, hashOf(k)).node;
   }

   // A small map's lookup: along the member vector.
   uint32_t scan(K const& k) const {
      for (size_t n = 0; n < nodes_.size(); ++n) {
         if (nodes_[n] && Eq()(nodes_[n]->first, k)) return static_cast<uint32_t>(n);
      }
      return kNone;
   }

   template <class... A>
   V* append(K const& k, A&&... args) {
      nodes_.emplace_back(std::in_place, std::piecewise_construct, std::forward_as_tuple(k),
                          std::forward_as_tuple(std::forward<A>(args)...));
      ++size_;
      return &nodes_.back()->second;
   }

   Pos locate(K const& k, uint32_t h) const {
      Pos pos;
      if (slots_.empty()) return pos;
      size_t mask = slots_.size() - 1;
      bool haveFree = false;
      for (size_t i = h & mask;; i = (i + 1) & mask) {
         Slot const& s = slots_[i];
         if (s.node == kEmpty) {
            if (!haveFree) pos.freeSlot = i;
            return pos;
         }
         if (s.node == kTomb) {
            if (!haveFree) {
               pos.freeSlot = i;
               haveFree = true;
            }
            continue;
         }
         if (s.hash == h && Eq()(nodes_[s.node]->first, k)) {
            pos.node = s.node;
            pos.slot = i;
            return pos;
         }
      }
   }

   // Squeezes holes out of the member vector and re-indexes with room for `want` members and
   // half as many again, so that a growing map rebuilds after a constant share of inserts; a
   // map that fits kLinearMax is left without an index.
   void rebuild(size_t want) {
      want = std::max(want, size_);
      if (nodes_.size() != size_) {
         std::vector<std::optional<value_type>> packed;
         packed.reserve(want);
         for (auto& n : nodes_) {
            if (n) packed.emplace_back(std::in_place, std::move(*n));
         }
         nodes_ = std::move(packed);
      }
      if (want <= kLinearMax) {
         std::vector<Slot>().swap(slots_);
         return;
      }
      size_t cap = 16;
      while (cap * 3 < (want + want / 2) * 5 + 5)
         cap *= 2;
      slots_.assign(cap, Slot{});
      size_t mask = cap - 1;
      for (uint32_t n = 0; n < nodes_.size(); ++n) {
         uint32_t h = hashOf(nodes_[n]->first);
         size_t i = h & mask;
         while (slots_[i].node != kEmpty)
            i = (i + 1) & mask;
         slots_[i] = Slot{n, h};
      }
   }

   std::vector<std::optional<value_type>> nodes_;
   std::vector<Slot> slots_;
   size_t size_ = 0;
};

// The value of k in a map of pointers or values, or a default one when absent.
template <class M, class K>
auto valueOr(M const& map, K const& k) -> std::remove_cvref_t<decltype(*map.find(k))> {
   auto const* v = map.find(k);
   return v ? *v : std::remove_cvref_t<decltype(*map.find(k))>();
}

// A set on the same structure.
template <class K, class Hash = std::hash<K>, class Eq = std::equal_to<K>>
class HashSet {
   struct Unit {
      bool operator==(Unit const&) const { return true; }
   };
   using Map = HashMap<K, Unit, Hash, Eq>;

public:
   class const_iterator {
   public:
      explicit const_iterator(typename Map::const_iterator it) : it_(it) {}
      K const& operator*() const { return it_->first; }
      K const* operator->() const { return &it_->first; }
      const_iterator& operator++() {
         ++it_;
         return *this;
      }
      bool operator==(const_iterator const& o) const { return it_ == o.it_; }

   private:
      typename Map::const_iterator it_;
   };

   size_t size() const { return map_.size(); }
   bool empty() const { return map_.empty(); }
   bool contains(K const& k) const { return map_.contains(k); }
   bool insert(K const& k) { return map_.emplace(k).second; }
   bool erase(K const& k) { return map_.erase(k); }
   void clear() { map_.clear(); }
   void reserve(size_t n) { map_.reserve(n); }
   const_iterator begin() const { return const_iterator(map_.begin()); }
   const_iterator end() const { return const_iterator(map_.end()); }
   std::vector<K> keys() const { return map_.keys(); }
   bool operator==(HashSet const& o) const {
      if (size() != o.size()) return false;
      for (auto const& k : *this) {
         if (!o.contains(k)) return false;
      }
      return true;
   }

private:
   Map map_;
};

}  // namespace Mox
