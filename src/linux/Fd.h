// An owned file descriptor, closed when its owner goes.
#pragma once

#include <unistd.h>

#include <utility>

namespace Konet {

class Fd {
public:
   Fd() = default;
   explicit Fd(int fd) : fd_(fd) {}
   ~Fd() { reset(); }
   Fd(Fd&& other) noexcept : fd_(other.release()) {}
   Fd& operator=(Fd&& other) noexcept {
      if (this != &other) reset(other.release());
      return *this;
   }
   Fd(Fd const&) = delete;
   Fd& operator=(Fd const&) = delete;

   int get() const { return fd_; }
   bool valid() const { return fd_ >= 0; }
   explicit operator bool() const { return valid(); }
   // Gives up ownership; the caller closes the descriptor.
   int release() { return std::exchange(fd_, -1); }
   void reset(int fd = -1) {
      if (fd_ >= 0) ::close(fd_);
      fd_ = fd;
   }

private:
   int fd_ = -1;
};

}  // namespace Konet
