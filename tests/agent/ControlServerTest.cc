// The control socket on the event loop: a request answered, the socket's mode, one agent
// per socket, a socket left by a dead agent replaced, an oversized request refused.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <atomic>
#include <cstdlib>
#include <thread>

#include "agent/ControlServer.h"

namespace {

using namespace VeldAgent;

class ControlServerTest : public ::testing::Test {
protected:
   void SetUp() override {
      char tmpl[] = "/tmp/veldctl.XXXXXX";
      dir_ = ::mkdtemp(tmpl);
      path_ = dir_ + "/veld.sock";
   }
   void TearDown() override { std::system(("rm -rf '" + dir_ + "'").c_str()); }

   // The client blocks, so it runs beside the loop; the loop runs until the answer is in.
   std::string ask(std::string const& request, int* rc) {
      std::string answer;
      std::atomic<bool> done{false};
      std::thread client([&] {
         *rc = controlRequest(path_, request, &answer);
         done = true;
      });
      loop.runUntil([&] { return done.load(); }, 5.0);
      client.join();
      return answer;
   }

   std::string dir_, path_;
   EventLoop loop;
};

TEST_F(ControlServerTest, AnswersARequestOnAPrivateSocket) {
   ControlServer server(loop, [](std::string const& r) { return "you said " + r + "\n"; });
   ASSERT_EQ(server.listenAt(path_), 0);
   struct stat st {};
   ASSERT_EQ(::stat(path_.c_str(), &st), 0);
   EXPECT_EQ(st.st_mode & 0777, 0600u);
   int rc = -1;
   EXPECT_EQ(ask("show vrfs", &rc), "you said show vrfs\n");
   EXPECT_EQ(rc, 0);
   // A big answer arrives whole.
   ControlServer big(loop, [](std::string const&) { return std::string(1 << 20, 'x'); });
   ASSERT_EQ(big.listenAt(dir_ + "/big.sock"), 0);
   path_ = dir_ + "/big.sock";
   EXPECT_EQ(ask("show interfaces", &rc).size(), size_t{1} << 20);
}

TEST_F(ControlServerTest, OneAgentPerSocketAndStaleSocketsReplaced) {
   {
      ControlServer first(loop, [](std::string const&) { return "first\n"; });
      ASSERT_EQ(first.listenAt(path_), 0);
      ControlServer second(loop, [](std::string const&) { return "second\n"; });
      EXPECT_EQ(second.listenAt(path_), EADDRINUSE);
   }
   // A socket file that nobody answers at, as a killed agent leaves it.
   int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
   sockaddr_un sa{};
   sa.sun_family = AF_UNIX;
   std::snprintf(sa.sun_path, sizeof sa.sun_path, "%s", path_.c_str());
   ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa), 0);
   ::close(fd);
   ControlServer third(loop, [](std::string const&) { return "third\n"; });
   ASSERT_EQ(third.listenAt(path_), 0);
   int rc = -1;
   EXPECT_EQ(ask("x", &rc), "third\n");
}

TEST_F(ControlServerTest, RefusesAnOversizedRequest) {
   ControlServer server(loop, [](std::string const&) { return "answered\n"; });
   ASSERT_EQ(server.listenAt(path_), 0);
   int rc = -1;
   EXPECT_NE(ask(std::string(10000, 'a'), &rc).find("request too long"), std::string::npos);
}

}  // namespace
