#pragma once

#include <unistd.h>

#include <utility>

namespace kestrowan {

/// Owner of one POSIX file descriptor, closed on destruction. Not thread-safe.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(std::exchange(other.fd_, -1));
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { reset(); }

  /// The descriptor, or -1 when there is none; still owned by this object.
  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

  /// Gives the descriptor to the caller, who closes it from now on.
  int release() { return std::exchange(fd_, -1); }

  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace kestrowan
