// The agent's control socket: a Unix stream socket (mode 0600) in the run directory. A
// client sends one request line ("show interfaces") and reads the answer, a JSON document,
// until the agent closes the connection. Connections are served by the event loop; a
// request line longer than 4 KiB is refused.
//
// A request that the stream handler takes (a subscription) keeps its connection open: the
// handler's answer is the first line, push() sends more, and when the client goes the
// `ended` callback is told. What a subscriber sends after its request is ignored.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "agent/EventLoop.h"
#include "linux/Fd.h"

namespace VeldAgent {

class ControlServer {
public:
   using Handler = std::function<std::string(std::string const& request)>;

   // The first line of a stream for `request` on connection `stream`, or nullopt when the
   // request is not a stream's.
   using StreamHandler =
       std::function<std::optional<std::string>(std::string const& request, int stream)>;

   ControlServer(EventLoop& loop, Handler handler);
   ~ControlServer();
   void streamHandlerIs(StreamHandler handler, std::function<void(int stream)> ended) {
      stream_ = std::move(handler);
      ended_ = std::move(ended);
   }
   // Queues `text` on a stream; false when the stream is gone.
   bool push(int stream, std::string const& text);
   // Listens at `path`; EADDRINUSE when an agent answers there already. 0 or an errno.
   int listenAt(std::string const& path);

private:
   struct Connection {
      Konet::Fd fd;
      std::string in, out;
      size_t sent = 0;
      bool streaming = false;
   };
   void flush(int fd, Connection& c);
   void accept();
   void serve(int fd, uint32_t events);
   void close(int fd);

   EventLoop& loop_;
   Handler handler_;
   StreamHandler stream_;
   std::function<void(int)> ended_;
   Konet::Fd listener_;
   std::string path_;
   std::map<int, std::unique_ptr<Connection>> connections_;
};

// The client side: sends `request` to the agent at `path` and returns its answer in *out.
// 0 or an errno.
int controlRequest(std::string const& path, std::string const& request, std::string* out);

}  // namespace VeldAgent
