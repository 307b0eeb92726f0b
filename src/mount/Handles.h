#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

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

  /// The kernel uses a number only between `add` and `take`.
  static T& at(std::uint64_t number) { return *reinterpret_cast<T*>(number); }

  /// The same for who may go on with it after `take`; null when it has been taken.
  std::shared_ptr<T> shared(std::uint64_t number) {
    std::lock_guard lock(mutex_);
    const auto found = handles_.find(number);
    return found == handles_.end() ? nullptr : found->second;
  }

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
