#pragma once

#include <cerrno>
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/foundation/NSError.h"

namespace kestrowan::mount {

/// The open files, or folders, of one mount, by the numbers under which the kernel knows them. Kept
/// here because the kernel may end a mount without releasing what it had open. Usable from every
/// thread.
template <typename T>
class Handles {
 public:
  /// The number of `handle`, which the kernel gives back with each request.
  std::uint64_t add(std::shared_ptr<T> handle) {
    const auto number = reinterpret_cast<std::uint64_t>(handle.get());
    std::lock_guard lock(mutex_);
    handles_.emplace(number, std::move(handle));
    return number;
  }

  /// Throws EBADF of `NSPOSIXErrorDomain` for a number that has been taken, which the kernel does
  /// not use any more.
  std::shared_ptr<T> at(std::uint64_t number) {
    std::lock_guard lock(mutex_);
    const auto found = handles_.find(number);
    if (found == handles_.end()) throw posixError(EBADF);
    return found->second;
  }

  /// Null when it has been taken already.
  std::shared_ptr<T> take(std::uint64_t number) {
    std::lock_guard lock(mutex_);
    auto node = handles_.extract(number);
    return node.empty() ? nullptr : std::move(node.mapped());
  }

  std::vector<std::shared_ptr<T>> takeAll() {
    std::vector<std::shared_ptr<T>> all;
    std::lock_guard lock(mutex_);
    all.reserve(handles_.size());
    for (auto& [number, handle] : handles_) all.push_back(std::move(handle));
    handles_.clear();
    return all;
  }

 private:
  std::mutex mutex_;
  std::unordered_map<std::uint64_t, std::shared_ptr<T>> handles_;
};

}  // namespace kestrowan::mount
