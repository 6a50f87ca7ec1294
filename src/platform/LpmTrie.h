// Longest-prefix match over a routing table: a 16-8-8-... multibit trie, leaf-pushed, whose
// 8-bit nodes are stored compressed as a run bitmap plus the distinct values, read with a
// popcount. Lookup: one read of a 2^16-entry root array, then per further byte of the
// address one node (bitmap word + value); IPv4 is at most 3 reads, IPv6 /48 at most 5.
// Each node keeps its values once per run of equal neighbours, so a /16 holding a handful
// of /24s costs a few words, not 256. Updates expand one node, repaint the slots the prefix
// covers (down into the nodes below them), and compress it again; a node that becomes one
// run folds back into its parent slot. A bulk load keeps nodes expanded until the end.
// The control plane is an open-addressing index (prefix -> route id, 4 bytes a slot) over
// per-route arrays (network and length).
//
// Chosen over the alternatives we measured or sized: a full 2^24 first level costs 64 MiB
// with 32-bit route ids; a one-bit binary trie needs a dependent read per bit; a path-
// compressed binary trie still ~20 reads for IPv4. Figures (bench_nexthop, 1,000,000 IPv4
// and 223,000 IPv6 routes, one core): see the closing comment of bench/bench_nexthop.cc.
#pragma once

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

namespace Routing {

template <class Key, int Bits>
class LpmTrie {
public:
   using RouteId = uint32_t;
   static constexpr RouteId kNoRoute = ~RouteId{0};

   LpmTrie() { clear(); }

   void clear() {
      root_.assign(size_t{1} << kRootBits, 0);
      nodes_.clear();
      freeNodes_.clear();
      nets_.clear();
      lens_.clear();
      freeIds_.clear();
      index_.assign(16, kEmpty);
      routes_ = 0;
   }

   size_t routes() const { return routes_; }

   // The network of a prefix of `len` bits: the key with the host bits cleared.
   static Key mask(Key k, int len) {
      if (len == 0) return 0;
      return k & (~Key{0} << (Bits - len));
   }

   RouteId find(Key net, int len) const {
      size_t m = index_.size() - 1;
      for (size_t i = hashOf(net, len) & m;; i = (i + 1) & m) {
         RouteId id = index_[i];
         if (id == kEmpty) return kNoRoute;
         if (nets_[id] == net && lens_[id] == len) return id;
      }
   }
   Key network(RouteId id) const { return nets_[id]; }
   int length(RouteId id) const { return lens_[id]; }

   // Adds the route (net must have its host bits clear); its id, the existing one if present.
   RouteId insert(Key net, int len) {
      RouteId id = find(net, len);
      if (id != kNoRoute) return id;
      id = newId(net, len);
      paintPrefix(
          net, len, [&](uint32_t v) { return v == 0 || lens_[v - 1] <= len; }, id + 1);
      return id;
   }

   // Removes the route; false when absent. Its slots go to the longest shorter covering route.
   bool erase(Key net, int len) {
      RouteId id = find(net, len);
      if (id == kNoRoute) return false;
      RouteId cover = kNoRoute;
      for (int l = len - 1; l >= 0 && cover == kNoRoute; --l)
         cover = find(mask(net, l), l);
      uint32_t const old = id + 1;
      paintPrefix(
          net, len, [&](uint32_t v) { return v == old; }, cover == kNoRoute ? 0 : cover + 1);
      dropId(id);
      return true;
   }

   // The route of the longest prefix containing `k`, or kNoRoute.
   RouteId lookup(Key k) const {
      uint32_t e = root_[static_cast<size_t>(k >> (Bits - kRootBits))];
      int shift = Bits - kRootBits;
      while (e & kChild) {
         shift -= 8;
         e = nodes_[e & ~kChild].get(static_cast<unsigned>(k >> shift) & 0xff);
      }
      return e - 1;  // 0 (none) wraps to kNoRoute
   }

   // Bulk loading: nodes stay expanded (fast to paint) until endBulk() compresses them.
   // Routes are best added shortest first. lookup() is valid only outside a bulk load.
   void beginBulk() { bulk_ = true; }
   void endBulk() {
      bulk_ = false;
      for (auto& n : nodes_)
         if (n.expanded) n.compress();
   }

   // Bytes held: the root array, the nodes and their values, the index and the per-route arrays.
   size_t memoryBytes() const {
      size_t b = root_.capacity() * sizeof(uint32_t) + nodes_.capacity() * sizeof(Node) +
                 index_.capacity() * sizeof(RouteId) + nets_.capacity() * sizeof(Key) +
                 lens_.capacity() + freeIds_.capacity() * sizeof(RouteId) +
                 freeNodes_.capacity() * sizeof(uint32_t);
      for (auto const& n : nodes_)
         b += n.vals.capacity() * sizeof(uint32_t);
      return b;
   }
   size_t nodes() const { return nodes_.size() - freeNodes_.size(); }

private:
   static constexpr int kRootBits = 16;
   static constexpr uint32_t kChild = 0x80000000u;
   static constexpr RouteId kEmpty = ~RouteId{0};

   // An 8-bit node. Compressed: bit i of `bits` marks slot i as the start of a run, `vals`
   // holds one value per run and `pre[w]` counts the runs started before word w. Expanded:
   // `vals` holds all 256 slots. A value is 0 (no route), route id + 1, or kChild | node.
   struct Node {
      uint64_t bits[4] = {};
      uint16_t pre[4] = {};
      bool expanded = false;
      std::vector<uint32_t> vals;

      uint32_t get(unsigned i) const {
         unsigned w = i >> 6;
         uint64_t m = bits[w] & (~uint64_t{0} >> (63 - (i & 63)));
         return vals[pre[w] + std::popcount(m) - 1];
      }
      void expandInto(uint32_t* out) const {
         unsigned r = 0;
         for (unsigned i = 0; i < 256; ++i) {
            if (i && (bits[i >> 6] >> (i & 63) & 1)) ++r;
            out[i] = vals[r];
         }
      }
      void compressFrom(uint32_t const* slots) {
         std::vector<uint32_t> v;
         v.reserve(8);
         std::memset(bits, 0, sizeof bits);
         for (unsigned i = 0; i < 256; ++i) {
            if (i == 0 || slots[i] != slots[i - 1]) {
               bits[i >> 6] |= uint64_t{1} << (i & 63);
               v.push_back(slots[i]);
            }
         }
         uint16_t c = 0;
         for (int w = 0; w < 4; ++w) {
            pre[w] = c;
            c = static_cast<uint16_t>(c + std::popcount(bits[w]));
         }
         v.shrink_to_fit();
         vals = std::move(v);
         expanded = false;
      }
      void compress() {
         std::array<uint32_t, 256> tmp;
         std::memcpy(tmp.data(), vals.data(), sizeof tmp);
         compressFrom(tmp.data());
      }
      // True (and the value in *v) when all 256 slots hold the same leaf.
      bool uniform(uint32_t* v) const {
         if (expanded) {
            for (unsigned i = 1; i < 256; ++i)
               if (vals[i] != vals[0]) return false;
         } else if (vals.size() != 1) {
            return false;
         }
         *v = vals[0];
         return !(*v & kChild);
      }
   };

   static size_t hashOf(Key net, int len) {
      uint64_t x = static_cast<uint64_t>(net);
      if constexpr (Bits > 64) x ^= static_cast<uint64_t>(net >> 64) * 0x9e3779b97f4a7c15ULL;
      x ^= static_cast<uint64_t>(len) << 56 | static_cast<uint64_t>(len);
      x ^= x >> 33;
      x *= 0xff51afd7ed558ccdULL;
      x ^= x >> 33;
      x *= 0xc4ceb9fe1a85ec53ULL;
      x ^= x >> 33;
      return static_cast<size_t>(x);
   }

   RouteId newId(Key net, int len) {
      RouteId id;
      if (!freeIds_.empty()) {
         id = freeIds_.back();
         freeIds_.pop_back();
         nets_[id] = net;
         lens_[id] = static_cast<uint8_t>(len);
      } else {
         id = static_cast<RouteId>(nets_.size());
         nets_.push_back(net);
         lens_.push_back(static_cast<uint8_t>(len));
      }
      ++routes_;
      if ((routes_ + 1) * 2 > index_.size()) rehash(index_.size() * 2);
      indexPut(id);
      return id;
   }
   void indexPut(RouteId id) {
      size_t m = index_.size() - 1;
      size_t i = hashOf(nets_[id], lens_[id]) & m;
      while (index_[i] != kEmpty)
         i = (i + 1) & m;
      index_[i] = id;
   }
   void rehash(size_t size) {
      index_.assign(size, kEmpty);
      std::vector<bool> dead(nets_.size(), false);
      for (RouteId f : freeIds_)
         dead[f] = true;
      for (RouteId id = 0; id < nets_.size(); ++id)
         if (!dead[id]) indexPut(id);
   }
   void dropId(RouteId id) {
      // Linear probing: delete by shifting back the entries that probed past the hole.
      size_t m = index_.size() - 1;
      size_t i = hashOf(nets_[id], lens_[id]) & m;
      while (index_[i] != id)
         i = (i + 1) & m;
      for (size_t j = (i + 1) & m; index_[j] != kEmpty; j = (j + 1) & m) {
         size_t home = hashOf(nets_[index_[j]], lens_[index_[j]]) & m;
         if (((j - home) & m) >= ((j - i) & m)) {
            index_[i] = index_[j];
            i = j;
         }
      }
      index_[i] = kEmpty;
      freeIds_.push_back(id);
      --routes_;
   }

   uint32_t newNode(uint32_t fill) {
      uint32_t n;
      if (!freeNodes_.empty()) {
         n = freeNodes_.back();
         freeNodes_.pop_back();
      } else {
         n = static_cast<uint32_t>(nodes_.size());
         nodes_.emplace_back();
      }
      Node& node = nodes_[n];
      if (bulk_) {
         node.vals.assign(256, fill);
         node.expanded = true;
      } else {
         std::memset(node.bits, 0, sizeof node.bits);
         node.bits[0] = 1;
         std::memset(node.pre, 0, sizeof node.pre);
         node.vals.assign(1, fill);
         node.expanded = false;
      }
      return n | kChild;
   }
   void freeNode(uint32_t n) {
      nodes_[n].vals = {};
      nodes_[n].expanded = false;
      freeNodes_.push_back(n);
   }

   // Runs fn on node n's 256 slots, then stores them back.
   template <class Fn>
   void editNode(uint32_t n, Fn&& fn) {
      if (nodes_[n].expanded) {
         uint32_t* slots = nodes_[n].vals.data();  // the buffer survives nodes_ growing
         fn(slots);
         return;
      }
      std::array<uint32_t, 256> tmp;
      nodes_[n].expandInto(tmp.data());
      fn(tmp.data());
      nodes_[n].compressFrom(tmp.data());
   }

   // Replaces, in the slot and in everything below it, each leaf value v with paint(v) true.
   template <class Pred>
   void paintSlot(uint32_t& slot, Pred const& pred, uint32_t value) {
      if (slot & kChild) {
         uint32_t n = slot & ~kChild;
         editNode(n, [&](uint32_t* s) {
            for (unsigned i = 0; i < 256; ++i)
               paintSlot(s[i], pred, value);
         });
         foldIfUniform(slot);
      } else if (pred(slot)) {
         slot = value;
      }
   }
   void foldIfUniform(uint32_t& slot) {
      if (bulk_) return;  // a bulk load only adds, and checks nothing until it ends
      uint32_t n = slot & ~kChild, v;
      if (nodes_[n].uniform(&v)) {
         freeNode(n);
         slot = v;
      }
   }

   // Paints the slots that prefix (net, len) covers, at the depth where it ends.
   template <class Pred>
   void paintPrefix(Key net, int len, Pred const& pred, uint32_t value) {
      if (len <= kRootBits) {
         size_t first = static_cast<size_t>(net >> (Bits - kRootBits));
         size_t count = size_t{1} << (kRootBits - len);
         for (size_t i = first; i < first + count; ++i)
            paintSlot(root_[i], pred, value);
         return;
      }
      uint32_t& top = root_[static_cast<size_t>(net >> (Bits - kRootBits))];
      paintBelow(top, net, len, Bits - kRootBits, pred, value);
   }
   // `slot` covers the bits above `shift`; the prefix ends below it.
   template <class Pred>
   void paintBelow(uint32_t& slot, Key net, int len, int shift, Pred const& pred, uint32_t value) {
      if (!(slot & kChild)) {
         if (!pred(slot)) return;  // nothing to repaint below a leaf we keep
         uint32_t child = newNode(slot);
         slot = child;
      }
      uint32_t n = slot & ~kChild;
      int const depthBits = Bits - shift;  // bits decided above this node
      int const nodeShift = shift - 8;
      editNode(n, [&](uint32_t* s) {
         unsigned idx = static_cast<unsigned>(net >> nodeShift) & 0xff;
         if (len <= depthBits + 8) {
            unsigned count = 1u << (depthBits + 8 - len);
            for (unsigned i = idx; i < idx + count; ++i)
               paintSlot(s[i], pred, value);
         } else {
            paintBelow(s[idx], net, len, nodeShift, pred, value);
         }
      });
      foldIfUniform(slot);
   }

   std::vector<uint32_t> root_;
   std::vector<Node> nodes_;
   std::vector<uint32_t> freeNodes_;
   std::vector<Key> nets_;
   std::vector<uint8_t> lens_;
   std::vector<RouteId> freeIds_;
   std::vector<RouteId> index_;
   size_t routes_ = 0;
   bool bulk_ = false;
};

using Lpm4 = LpmTrie<uint32_t, 32>;
using Lpm6 = LpmTrie<unsigned __int128, 128>;

}  // namespace Routing
