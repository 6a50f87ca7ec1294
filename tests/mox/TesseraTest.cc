#include "mox/Tessera.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

using Mox::make;
using Table = Tessera::Table<int, std::string>;
using View = Tessera::TesseraMap<int, std::string>;

TEST(Tessera, ReadOnlyViewRefusesEveryMutationWithItsText) {
   auto table = make<Table>("kni/ip");
   table->set(1, "a");
   auto view = View::readOnly(table);
   auto refused = [](auto op) -> std::string {
      try {
         op();
      } catch (Cinder::NoPermissionException const& e) {
         return e.what();
      }
      return "accepted";
   };
   EXPECT_EQ(refused([&] { view.set(2, "b"); }), "write to read-only Tessera table");
   EXPECT_EQ(refused([&] { view.remove(1); }), "remove to read-only Tessera table");
   EXPECT_EQ(refused([&] { view.cleanup(); }), "cleanup to read-only Tessera table");
   EXPECT_EQ(refused([&] { view.validateFiles(); }), "validateFiles to read-only Tessera table");
   EXPECT_EQ(refused([&] { view.validate(); }), "validate to read-only Tessera table");
   EXPECT_EQ(view.size(), 1u);
   EXPECT_EQ(view.get(1), "a");

   auto writer = View::writable(table);
   writer.set(2, "b");
   writer.remove(1);
   EXPECT_EQ(view.get(2), "b");
   EXPECT_EQ(view.find(1), nullptr);
}

TEST(Tessera, UnmountedViewIsAnEmptyPlaceholder) {
   View view;
   EXPECT_TRUE(view.isDummy());
   EXPECT_EQ(view.size(), 0u);
   EXPECT_EQ(view.get(3), "");
   EXPECT_EQ(view.begin(), view.end());
}

TEST(Tessera, ChangesAreDeliveredPerKey) {
   auto table = make<Table>("t");
   struct Watch : Table::NotifieeConst {
      std::vector<int> keys;
      void onEntry(int const& k) override { keys.push_back(k); }
   };
   auto w = make<Watch>();
   w->notifierIs(table);
   table->set(1, "a");
   table->set(1, "a");  // unchanged: silent
   table->set(2, "b");
   table->remove(1);
   table->remove(1);
   table->cleanup();
   EXPECT_EQ(w->keys, (std::vector<int>{1, 2, 1, 2}));
}

TEST(Tessera, CorruptionIsRaisedByIterationAndReportedToAFile) {
   auto dir = std::filesystem::temp_directory_path() / ("tessera-test-" + std::to_string(getpid()));
   Tessera::Util::corruptionDirIs(dir.string());
   auto table = make<Table>("kni/ns/default/ip");
   for (int i = 0; i < 10; ++i)
      table->set(i, std::to_string(i));
   table->corruptEntryIs(5);
   auto view = View::readOnly(table);
   std::vector<int> read;
   std::string message;
   try {
      for (auto it = view.begin(); it != view.end(); ++it)
         read.push_back(it.key());
   } catch (Cinder::CorruptionDetectedException const& e) {
      message = e.what();
   }
   EXPECT_EQ(read, (std::vector<int>{0, 1, 2, 3, 4}));
   ASSERT_FALSE(message.empty());
   EXPECT_THROW(view.corruptionDetected(message), Cinder::CorruptionDetectedException);
   std::ifstream report(dir / "kni_ns_default_ip.corruption");
   std::string text((std::istreambuf_iterator<char>(report)), std::istreambuf_iterator<char>());
   EXPECT_NE(text.find(message), std::string::npos);
   std::filesystem::remove_all(dir);
}

TEST(Larder, PathsFindEntitiesAndMountsLookThemUp) {
   auto mgr = make<Larder::EntityManager>();
   auto table = make<Table>("status");
   struct Holder : Mox::Entity {};
   auto status = make<Holder>();
   EXPECT_TRUE(mgr->entityIs(Larder::formatPath("kni/ns/%s/status", "blue"), status));
   EXPECT_EQ(mgr->entity("kni/ns/blue/status"), status);
   EXPECT_EQ(mgr->entity("/kni/ns/blue/status/"), status);
   EXPECT_EQ(mgr->entity("kni/ns/red/status"), nullptr);
   EXPECT_FALSE(mgr->entityIs("kni/ns/blue/status/deeper", status));  // a leaf is no directory

   MoxTessera::Mount mount(mgr);
   EXPECT_FALSE(mount.doMount("kni/ns/red/status"));
   EXPECT_TRUE(mount.doMount("kni/ns/blue/status"));
   EXPECT_EQ(mount.getEntity<Holder>(), status);
   mgr->entityDel("kni/ns/blue/status");
   EXPECT_EQ(mgr->entity("kni/ns/blue/status"), nullptr);
   EXPECT_EQ(mount.getEntity(), status);  // a mount keeps what it found until unmounted
   mount.doUnmount();
   EXPECT_FALSE(mount.mounted());
}
