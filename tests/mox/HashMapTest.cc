#include "mox/HashMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <vector>

using Mox::HashMap;

TEST(HashMap, IteratesInInsertionOrderAndKeepsItAcrossErase) {
   HashMap<std::string, int> m;
   for (auto k : {"e", "b", "d", "a", "c"})
      m.emplace(k, 0);
   m.erase("d");
   m.emplace("f", 0);
   std::string order;
   for (auto& [k, v] : m)
      order += k;
   EXPECT_EQ(order, "ebacf");
   m.erase("e");
   m.emplace("e", 0);  // re-inserted: now last
   order.clear();
   for (auto& [k, v] : m)
      order += k;
   EXPECT_EQ(order, "bacfe");
}

TEST(HashMap, EraseDuringIterationIsSafe) {
   HashMap<int, int> m;
   for (int i = 0; i < 100; ++i)
      m.emplace(i, i);
   int visited = 0;
   for (auto it = m.begin(); it != m.end(); ++it) {
      ++visited;
      m.erase(it->first);
      m.erase(it->first + 1);  // a member not visited yet
   }
   EXPECT_EQ(visited, 50);
   EXPECT_TRUE(m.empty());
}

TEST(HashMap, AfterResumesBehindABookmark) {
   HashMap<int, int> m;
   for (int i : {5, 1, 9, 3})
      m.emplace(i, 0);
   EXPECT_EQ(m.after(1)->first, 9);
   EXPECT_EQ(m.after(3), m.end());
   EXPECT_EQ(m.after(42)->first, 5);  // an unknown bookmark starts over
}

TEST(HashMap, AssignReportsRealChangesOnly) {
   HashMap<int, std::string> m;
   EXPECT_TRUE(m.assign(1, "a"));
   EXPECT_FALSE(m.assign(1, "a"));
   EXPECT_TRUE(m.assign(1, "b"));
   EXPECT_EQ(*m.find(1), "b");
}

TEST(HashMap, AgreesWithAReferenceMapUnderRandomChurn) {
   HashMap<uint32_t, uint32_t> m;
   std::map<uint32_t, uint32_t> ref;
   std::vector<uint32_t> order;  // the reference for insertion order
   std::mt19937 rng(7);
   for (int step = 0; step < 200000; ++step) {
      uint32_t k = rng() % 5000;
      switch (rng() % 3) {
         case 0:
         case 1:
            if (m.emplace(k, step).second) order.push_back(k);
            ref.emplace(k, step);
            break;
         case 2:
            m.erase(k);
            if (ref.erase(k)) order.erase(std::find(order.begin(), order.end(), k));
            break;
      }
   }
   ASSERT_EQ(m.size(), ref.size());
   for (auto& [k, v] : ref)
      ASSERT_EQ(*m.find(k), v);
   EXPECT_EQ(m.keys(), order);
}

// A map of up to kLinearMax members has no index; past that it builds one, and a map that
// shrinks back drops it at the next rebuild. Lookups, order and bookmarks hold across both.
TEST(HashMap, SmallMapsScanAndGrowIntoAnIndexAndBack) {
   constexpr int kSmall = static_cast<int>(HashMap<int, int>::kLinearMax);
   HashMap<int, int> m;
   for (int i = 0; i < kSmall; ++i)
      m.emplace(i * 7, i);
   EXPECT_EQ(m.indexSlots(), 0u);
   EXPECT_EQ(*m.find(7), 1);
   EXPECT_EQ(m.after(7)->first, 14);
   EXPECT_EQ(m.at(14)->second, 2);
   EXPECT_FALSE(m.emplace(7, 99).second);  // present: not replaced
   EXPECT_EQ(*m.find(7), 1);

   m.emplace(1000, 100);  // one more: indexed now
   EXPECT_GT(m.indexSlots(), 0u);
   for (int i = 0; i < kSmall; ++i)
      ASSERT_EQ(*m.find(i * 7), i);
   EXPECT_EQ(*m.find(1000), 100);
   EXPECT_EQ(m.after(7 * (kSmall - 1))->first, 1000);
   EXPECT_EQ(m.keys().front(), 0);

   // Erase all but two; the next insertion that rebuilds finds a small map and drops the
   // index, keeping the order of those left.
   for (int i = 1; i < kSmall - 1; ++i)
      EXPECT_TRUE(m.erase(i * 7));
   EXPECT_EQ(m.size(), 3u);
   for (int k = 2000; m.indexSlots() != 0; ++k) {
      ASSERT_LT(k, 3000) << "the index is never dropped";
      m.emplace(k, 0);
      m.erase(k);
   }
   EXPECT_EQ(m.keys(), (std::vector<int>{0, 7 * (kSmall - 1), 1000}));
   EXPECT_EQ(*m.find(1000), 100);
   EXPECT_EQ(m.find(7), nullptr);
   EXPECT_FALSE(m.erase(7));
   EXPECT_EQ(m.after(0)->first, 7 * (kSmall - 1));
}

// Erasing in a full small map leaves holes; an insertion squeezes them out instead of
// indexing, and iteration skips them before that.
TEST(HashMap, HolesInASmallMapAreSqueezedOnInsert) {
   constexpr int kSmall = static_cast<int>(HashMap<std::string, int>::kLinearMax);
   HashMap<std::string, int> m;
   for (int i = 0; i < kSmall; ++i)
      m.emplace(std::to_string(i), i);
   m.erase("0");
   m.erase("3");
   int sum = 0;
   for (auto& [k, v] : m)
      sum += v;
   EXPECT_EQ(sum, kSmall * (kSmall - 1) / 2 - 3);
   EXPECT_TRUE(m.emplace("x", 0).second);
   EXPECT_EQ(m.indexSlots(), 0u);
   EXPECT_EQ(m.size(), static_cast<size_t>(kSmall - 1));
   EXPECT_EQ(m.keys().front(), "1");
   EXPECT_EQ(m.keys().back(), "x");
   m.clear();
   EXPECT_TRUE(m.empty());
   EXPECT_EQ(m.begin(), m.end());
   EXPECT_TRUE(m.emplace("y", 1).second);
   EXPECT_EQ(*m.find("y"), 1);
}

// Churn over few keys crosses the small-map bound both ways many times.
TEST(HashMap, AgreesWithAReferenceMapAroundTheSmallMapBound) {
   HashMap<std::string, int> m;
   std::map<std::string, int> ref;
   std::vector<std::string> order;
   std::mt19937 rng(11);
   for (int step = 0; step < 50000; ++step) {
      auto k = std::to_string(rng() % 14);
      if (rng() % 2) {
         if (m.emplace(k, step).second) order.push_back(k);
         ref.emplace(k, step);
      } else {
         m.erase(k);
         if (ref.erase(k)) order.erase(std::find(order.begin(), order.end(), k));
      }
      ASSERT_EQ(m.size(), ref.size());
      if (step % 97 == 0) {
         for (auto& [rk, v] : ref)
            ASSERT_EQ(*m.find(rk), v);
         ASSERT_EQ(m.keys(), order);
      }
   }
}

TEST(HashSet, InsertEraseAndEquality) {
   Mox::HashSet<int> a, b;
   EXPECT_TRUE(a.insert(1));
   EXPECT_FALSE(a.insert(1));
   a.insert(2);
   b.insert(2);
   b.insert(1);
   EXPECT_EQ(a, b);
   EXPECT_TRUE(a.erase(1));
   EXPECT_FALSE(a.erase(1));
   EXPECT_FALSE(a == b);
}
