// The agent's control socket: a Unix stream socket (mode 0600) in the run directory. A
// client sends one request line ("show interfaces") and reads the answer, a JSON document,
// until the agent closes the connection. Connections are served by the event loop; a
// request line longer than 4 KiB is refused.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "agent/EventLoop.h"
#include "linux/Fd.h"

namespace VeldAgent {

class ControlServer {
public:
   using Handler = std::function<std::string(std::string const& request)>;

   ControlServer(EventLoop& loop, Handler handler);
   ~ControlServer();
   // Listens at `path`; EADDRINUSE when an agent answers there already. 0 or an errno.
   int listenAt(std::string const& path);

private:
   struct Connection {
      Konet::Fd fd;
      std::string in, out;
      size_t sent = 0;
   };
   void accept();
   void serve(int fd, uint32_t events);
   void close(int fd);

   EventLoop& loop_;
   Handler handler_;
   Konet::Fd listener_;
   std::string path_;
   std::map<int, std::unique_ptr<Connection>> connections_;
};

// The client side: sends `request` to the agent at `path` and returns its answer in *out.
// 0 or an errno.
int controlRequest(std::string const& path, std::string const& request, std::string* out);

}  // namespace VeldAgent
