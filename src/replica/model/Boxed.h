#pragma once

#include <memory>
#include <optional>
#include <utility>

namespace kestrowan::replica::model {

/// An optional value that costs one pointer while it is absent, for what few items have. Copied
/// with its value.
template <typename T>
class Boxed {
 public:
  Boxed() = default;
  Boxed(std::nullopt_t) {}
  Boxed(T value) : value_(std::make_unique<T>(std::move(value))) {}
  Boxed(const Boxed& other) : value_(other ? std::make_unique<T>(*other) : nullptr) {}
  Boxed(Boxed&&) noexcept = default;
  Boxed& operator=(Boxed other) noexcept {
    value_ = std::move(other.value_);
    return *this;
  }

  explicit operator bool() const { return value_ != nullptr; }
  bool has_value() const { return value_ != nullptr; }
  T& operator*() { return *value_; }
  const T& operator*() const { return *value_; }
  T* operator->() { return value_.get(); }
  const T* operator->() const { return value_.get(); }
  void reset() { value_.reset(); }

  friend bool operator==(const Boxed& a, const Boxed& b) { return a && b ? *a == *b : !a && !b; }

 private:
  std::unique_ptr<T> value_;
};

}  // namespace kestrowan::replica::model
