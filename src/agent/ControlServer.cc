#include "agent/ControlServer.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "agent/ControlRequest.h"

namespace VeldAgent {

namespace {

bool addressOf(std::string const& path, sockaddr_un* sa) {
   std::memset(sa, 0, sizeof *sa);
   sa->sun_family = AF_UNIX;
   if (path.size() >= sizeof sa->sun_path) return false;
   std::memcpy(sa->sun_path, path.c_str(), path.size());
   return true;
}

}  // namespace

ControlServer::ControlServer(EventLoop& loop, Handler handler)
    : loop_(loop), handler_(std::move(handler)) {}

ControlServer::~ControlServer() {
   for (auto& [fd, c] : connections_)
      loop_.remove(fd);
   if (listener_) {
      loop_.remove(listener_.get());
      ::unlink(path_.c_str());
   }
}

int ControlServer::listenAt(std::string const& path) {
   sockaddr_un sa;
   if (!addressOf(path, &sa)) return ENAMETOOLONG;
   // A socket file nobody answers at is left from an agent that died: it is replaced.
   if (Konet::Fd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)); probe) {
      if (::connect(probe.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0) {
         return EADDRINUSE;
      }
   }
   ::unlink(path.c_str());
   Konet::Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
   if (!fd) return errno;
   mode_t old = ::umask(0177);
   int rc = ::bind(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa);
   ::umask(old);
   if (rc != 0) return errno;
   if (::chmod(path.c_str(), 0600) != 0 || ::listen(fd.get(), 16) != 0) return errno;
   if (int err = loop_.add(fd.get(), EPOLLIN, [this](uint32_t) { accept(); })) return err;
   listener_ = std::move(fd);
   path_ = path;
   return 0;
}

void ControlServer::accept() {
   for (;;) {
      int fd = ::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) return;
      auto c = std::make_unique<Connection>();
      c->fd.reset(fd);
      if (loop_.add(fd, EPOLLIN, [this, fd](uint32_t ev) { serve(fd, ev); }) != 0) continue;
      connections_[fd] = std::move(c);
   }
}

void ControlServer::serve(int fd, uint32_t events) {
   auto it = connections_.find(fd);
   if (it == connections_.end()) return;
   auto& c = *it->second;
   if (c.streaming) {
      if (events & (EPOLLHUP | EPOLLERR)) return close(fd);
      if (events & EPOLLIN) {
         char buf[1024];
         ssize_t n;
         while ((n = ::read(fd, buf, sizeof buf)) > 0) {
         }
         if (n == 0 || (n < 0 && errno != EAGAIN)) return close(fd);
      }
      return flush(fd, c);
   }
   if (c.out.empty()) {
      char buf[1024];
      ssize_t n = -1;
      // No more than one request's worth: a client that sends without end is cut off.
      while (c.in.size() <= kMaxRequestBytes && (n = ::read(fd, buf, sizeof buf)) > 0)
         c.in.append(buf, static_cast<size_t>(n));
      if (n == 0 && c.in.find('\n') == std::string::npos && c.in.empty()) return close(fd);
      if (c.in.size() > kMaxRequestBytes) {
         c.out = "{\"error\": \"request too long\"}\n";
      } else if (auto nl = c.in.find('\n'); nl != std::string::npos || n == 0) {
         auto request = c.in.substr(0, nl);
         std::optional<std::string> first;
         if (stream_ && n != 0) first = stream_(request, fd);
         if (first) {
            c.streaming = true;
            c.out = *first;
            c.in.clear();
            return flush(fd, c);
         }
         c.out = handler_(request);
      } else {
         return;  // more to come
      }
      loop_.modify(fd, EPOLLOUT);
   }
   if (!(events & (EPOLLOUT | EPOLLIN))) return close(fd);
   flush(fd, c);
}

void ControlServer::flush(int fd, Connection& c) {
   while (c.sent < c.out.size()) {
      ssize_t n = ::send(fd, c.out.data() + c.sent, c.out.size() - c.sent, MSG_NOSIGNAL);
      if (n < 0) {
         if (errno == EAGAIN) {
            loop_.modify(fd, c.streaming ? EPOLLIN | EPOLLOUT : EPOLLOUT);
            return;
         }
         return close(fd);
      }
      c.sent += static_cast<size_t>(n);
   }
   if (!c.streaming) return close(fd);
   c.out.clear();
   c.sent = 0;
   loop_.modify(fd, EPOLLIN);
}

bool ControlServer::push(int stream, std::string const& text) {
   auto it = connections_.find(stream);
   if (it == connections_.end() || !it->second->streaming) return false;
   auto& c = *it->second;
   // A subscriber that stops reading is cut off rather than buffered without end.
   if (c.out.size() - c.sent > (4u << 20)) {
      close(stream);
      return false;
   }
   c.out += text;
   flush(stream, c);
   return true;
}

void ControlServer::close(int fd) {
   auto it = connections_.find(fd);
   bool streaming = it != connections_.end() && it->second->streaming;
   loop_.remove(fd);
   connections_.erase(fd);
   if (streaming && ended_) ended_(fd);
}

int controlRequest(std::string const& path, std::string const& request, std::string* out) {
   sockaddr_un sa;
   if (!addressOf(path, &sa)) return ENAMETOOLONG;
   Konet::Fd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
   if (!fd) return errno;
   timeval tv{10, 0};
   ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
   if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) return errno;
   std::string line = request + "\n";
   if (::send(fd.get(), line.data(), line.size(), MSG_NOSIGNAL) !=
       static_cast<ssize_t>(line.size())) {
      return errno;
   }
   out->clear();
   char buf[65536];
   ssize_t n;
   while ((n = ::read(fd.get(), buf, sizeof buf)) > 0)
      out->append(buf, static_cast<size_t>(n));
   return n < 0 ? errno : 0;
}

}  // namespace VeldAgent
