#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <utility>

#include "replica/model/Slabs.h"

namespace kestrowan::replica::model {

/// An optional value that copies share until one of them is changed: whatever is reached through a
/// copy that is not const is its own first. It costs one pointer. Copies may be used by several
/// threads at once.
template <class T>
class Shared {
 public:
  Shared() = default;
  Shared(std::nullopt_t) {}
  Shared(T value) : node_(new Node(std::move(value))) {}
  Shared(std::optional<T> value) {
    if (value) node_ = new Node(*std::move(value));
  }
  Shared(const Shared& other) noexcept : node_(other.node_) {
    if (node_) node_->owners.fetch_add(1, std::memory_order_relaxed);
  }
  Shared(Shared&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
  Shared& operator=(Shared other) noexcept {
    std::swap(node_, other.node_);
    return *this;
  }
  ~Shared() {
    if (node_ && node_->owners.fetch_sub(1, std::memory_order_acq_rel) == 1) delete node_;
  }

  explicit operator bool() const { return node_ != nullptr; }
  bool has_value() const { return node_ != nullptr; }
  const T& operator*() const { return *node_; }
  const T* operator->() const { return node_; }
  T& operator*() { return own(); }
  T* operator->() { return &own(); }
  operator std::optional<T>() const {
    return node_ ? std::optional<T>(static_cast<const T&>(*node_)) : std::nullopt;
  }
  void reset() { *this = Shared(); }

  /// Becomes a copy of `other` if the values are the same, so that they are kept once.
  void share(const Shared& other) {
    if (node_ != other.node_ && *this == other) *this = other;
  }
  bool isSameAs(const Shared& other) const { return node_ == other.node_; }

  friend bool operator==(const Shared& a, const Shared& b) {
    if (a.node_ == b.node_) return true;
    return a.node_ && b.node_ && static_cast<const T&>(*a.node_) == static_cast<const T&>(*b.node_);
  }

 private:
  /// Derived, so that the count takes the room that is left at the end of the value.
  struct Node : T, InSlabs {
    static_assert(alignof(T) <= Slabs::kAlignment);

    explicit Node(T value) : T(std::move(value)) {}
    std::atomic<std::uint32_t> owners = 1;
  };

  T& own() {
    if (node_->owners.load(std::memory_order_acquire) != 1)
      *this = Shared(T(static_cast<const T&>(*node_)));
    return *node_;
  }

  Node* node_ = nullptr;
};

}  // namespace kestrowan::replica::model
