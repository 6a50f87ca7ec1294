// Names and paths from outside are refused before they reach the file system or the
// kernel. No kernel needed: refusals happen first.
#include <gtest/gtest.h>

#include <string>

#include "linux/ProcSys.h"
#include "linux/SafeName.h"
#include "tests/linux/KernelFixture.h"

namespace KonetTest {
namespace {

using namespace Konet;
using namespace std::string_literals;

TEST(SafeName, DeviceNames) {
   for (std::string good :
        {"eth0", "et1_1", "vlan10", "a", "fifteen-bytes-x", "br-1.2", "all", "default", "lo"}) {
      EXPECT_EQ(deviceNameProblem(good), nullptr) << good;
   }
   for (std::string bad : {""s, "."s, ".."s, "a/b"s, "../etc"s, "eth0:1"s, "sp ace"s, "tab\t"s,
                           "new\nline"s, "nul\0x"s, "sixteen-bytes-xx"s}) {
      EXPECT_NE(deviceNameProblem(bad), nullptr) << escapedName(bad);
   }
}

TEST(SafeName, NamespaceNames) {
   for (std::string good :
        std::vector<std::string>{"ns-blue", "vrf.red", "..x", std::string(150, 'n')}) {
      EXPECT_EQ(namespaceNameProblem(good), nullptr) << good;
   }
   for (std::string bad : {""s, "default"s, "."s, ".."s, "a/b"s, "/abs"s, "sp ace"s, "nul\0x"s,
                           "del\x7f"s, std::string(151, 'n')}) {
      EXPECT_NE(namespaceNameProblem(bad), nullptr) << escapedName(bad);
   }
}

TEST(SafeName, ProcWritesStayUnderProcSysNet) {
   LogCapture log;
   for (std::string bad : {"/etc/passwd"s, "/proc/sys/kernel/hostname"s,
                           "/proc/sys/net/../kernel/hostname"s, "/proc/sys/net/ipv4/../../vm/x"s,
                           "proc/sys/net/ipv4/ip_forward"s, "/proc/sys/net/ipv4/ip\0x"s}) {
      EXPECT_EQ(writeProcSys(bad, "1"), EINVAL) << escapedName(bad);
   }
   std::string dummy;
   EXPECT_EQ(readProcSys("/etc/shadow", &dummy), EINVAL);
   EXPECT_EQ(writeProcSysDev(V6_PROC_CONF, "../../../kernel", "hostname", "x"), EINVAL);
   EXPECT_EQ(writeProcSysDev(V6_PROC_CONF, "eth0", "../../all/forwarding", "1"), EINVAL);
   EXPECT_EQ(writeProcSysDev("/tmp", "eth0", "forwarding", "1"), EINVAL);
   EXPECT_FALSE(setIpv6ProcSysInNetNs("a/b", "forwarding", "1", NamespaceName(), true));
   EXPECT_TRUE(log.contains("Refusing path \"/etc/passwd\": not under /proc/sys/net/"));
   EXPECT_TRUE(log.contains("Refusing device name \"../../../kernel\": contains '/'"));
   EXPECT_TRUE(log.contains("Refusing path \"/proc/sys/net/ipv4/ip\\x00x\": contains NUL"));
}

}  // namespace
}  // namespace KonetTest
