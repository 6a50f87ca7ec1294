// Named namespaces and the namespace guard against the real kernel.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <stdexcept>

#include "linux/NetNs.h"
#include "linux/Netlink.h"
#include "linux/NetlinkLink.h"
#include "tests/linux/KernelFixture.h"

namespace KonetTest {
namespace {

using Konet::NamespaceName;
using Konet::ScopedNetNs;

uint64_t inodeOfNamed(NamespaceName const& ns) {
   struct stat st {};
   if (::stat((std::string(Konet::kNetNsDir) + "/" + ns.name()).c_str(), &st) != 0) return 0;
   return st.st_ino;
}

class NetNsTest : public KernelFixture {};

TEST_F(NetNsTest, CreateEnterAndDeleteNamedNamespace) {
   uint64_t home = currentNetNsInode();
   NamespaceName ns = createNamespace();
   uint64_t named = inodeOfNamed(ns);
   ASSERT_NE(named, 0u);
   EXPECT_NE(named, home);
   EXPECT_EQ(currentNetNsInode(), home) << "creating a namespace must not move the caller";
   EXPECT_EQ(Konet::createNamedNamespace(ns), EEXIST);

   {
      auto saved = Konet::getns();
      ASSERT_TRUE(saved);
      ASSERT_EQ(Konet::setnsByName(ns), 0);
      EXPECT_EQ(currentNetNsInode(), named);
      ASSERT_EQ(Konet::setns(saved.get()), 0);
      EXPECT_EQ(currentNetNsInode(), home);
   }

   // A socket opened "in" the namespace sees that namespace's devices: only lo.
   int error = 0;
   auto nsSock = Konet::createNetlinkSocket(ns, 0, 2, true, 0, &error);
   ASSERT_TRUE(nsSock) << error;
   EXPECT_EQ(currentNetNsInode(), home);
   std::vector<Konet::LinkInfo> links;
   ASSERT_EQ(Konet::dumpLinks(nsSock.get(), &links), 0);
   ASSERT_EQ(links.size(), 1u);
   EXPECT_EQ(links[0].name, "lo");

   ASSERT_EQ(Konet::deleteNamedNamespace(ns), 0);
   EXPECT_EQ(inodeOfNamed(ns), 0u);
   EXPECT_EQ(Konet::deleteNamedNamespace(ns), ENOENT);
   EXPECT_EQ(Konet::setnsByName(ns), ENOENT);
}

TEST_F(NetNsTest, GuardRestoresTheNamespaceOnEveryWayOut) {
   uint64_t home = currentNetNsInode();
   NamespaceName blue = createNamespace();
   NamespaceName red = createNamespace();

   {  // scope end, with a nested guard
      ScopedNetNs inBlue(blue);
      ASSERT_TRUE(inBlue.ok());
      EXPECT_EQ(currentNetNsInode(), inodeOfNamed(blue));
      {
         ScopedNetNs inRed(red);
         ASSERT_TRUE(inRed.ok());
         EXPECT_EQ(currentNetNsInode(), inodeOfNamed(red));
      }
      EXPECT_EQ(currentNetNsInode(), inodeOfNamed(blue));
   }
   EXPECT_EQ(currentNetNsInode(), home);

   // early return
   auto enterAndReturn = [&] {
      ScopedNetNs inBlue(blue);
      if (inBlue.ok()) return currentNetNsInode();
      return uint64_t{0};
   };
   EXPECT_EQ(enterAndReturn(), inodeOfNamed(blue));
   EXPECT_EQ(currentNetNsInode(), home);

   // exception
   EXPECT_THROW(
       {
          ScopedNetNs inRed(red);
          throw std::runtime_error("handler failed");
       },
       std::runtime_error);
   EXPECT_EQ(currentNetNsInode(), home);
}

TEST_F(NetNsTest, GuardStaysForTheDefaultNamesAndWhenEnteringFails) {
   uint64_t home = currentNetNsInode();
   for (char const* name : {"", "default"}) {
      ScopedNetNs stay{NamespaceName(name)};
      EXPECT_TRUE(stay.ok()) << name;
      EXPECT_EQ(currentNetNsInode(), home) << name;
   }

   LogCapture log;
   {
      ScopedNetNs missing(NamespaceName("veldtest-missing"), "setupProcSysNet");
      EXPECT_FALSE(missing.ok());
      EXPECT_EQ(missing.error(), ENOENT);
      EXPECT_EQ(currentNetNsInode(), home);
   }
   EXPECT_EQ(currentNetNsInode(), home);
   EXPECT_TRUE(log.contains("setupProcSysNet: Failed to setns to NS: veldtest-missing"));
}

TEST_F(NetNsTest, UnsafeNamespaceNamesNeverReachRunNetns) {
   LogCapture log;
   for (char const* bad : {"../netns2", "a/b", ".", "..", "sp ace", "default", ""}) {
      NamespaceName ns(bad);
      EXPECT_EQ(Konet::createNamedNamespace(ns), EINVAL) << bad;
      EXPECT_EQ(Konet::setnsByName(ns), EINVAL) << bad;
      EXPECT_EQ(Konet::deleteNamedNamespace(ns), EINVAL) << bad;
   }
   EXPECT_TRUE(log.contains("Refusing namespace name \"../netns2\": contains '/'"));
   EXPECT_THROW(NamespaceName(std::string(151, 'n')), Mox::RangeException);
}

}  // namespace
}  // namespace KonetTest
