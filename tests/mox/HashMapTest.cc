#include "mox/HashMap.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <string>

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
