#pragma once

#include <compare>
#include <concepts>
#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

namespace kestrowan::replica::model {

/// A byte string that never changes: a name, a version, an identifier. Copies share the bytes, and
/// an empty one has none, so it costs one pointer. Copies may be used by several threads at once.
class Bytes {
 public:
  Bytes() = default;
  Bytes(std::string_view bytes);
  Bytes(const std::string& bytes) : Bytes(std::string_view(bytes)) {}
  Bytes(const char* bytes) : Bytes(std::string_view(bytes)) {}
  Bytes(const Bytes& other) noexcept;
  Bytes(Bytes&& other) noexcept : block_(other.block_) { other.block_ = nullptr; }
  Bytes& operator=(Bytes other) noexcept {
    std::swap(block_, other.block_);
    return *this;
  }
  ~Bytes();

  bool empty() const { return !block_; }
  std::size_t size() const { return view().size(); }
  /// Good as long as this object or a copy of it.
  std::string_view view() const;
  operator std::string_view() const { return view(); }
  operator std::string() const { return std::string(view()); }

  /// Becomes a copy of `other` if the bytes are the same, so that they are kept once.
  void share(const Bytes& other);

  friend bool operator==(const Bytes& a, const Bytes& b) {
    return a.block_ == b.block_ || a.view() == b.view();
  }
  friend std::strong_ordering operator<=>(const Bytes& a, const Bytes& b) {
    return a.view() <=> b.view();
  }
  template <std::convertible_to<std::string_view> Text>
  requires(!std::same_as<Text, Bytes>) friend bool operator==(const Bytes& a, const Text& b) {
    return a.view() == std::string_view(b);
  }
  template <std::convertible_to<std::string_view> Text>
  requires(!std::same_as<Text, Bytes>) friend std::strong_ordering operator<=>(const Bytes& a,
                                                                               const Text& b) {
    return a.view() <=> std::string_view(b);
  }

  friend std::string operator+(std::string a, const Bytes& b) { return std::move(a += b.view()); }
  friend std::ostream& operator<<(std::ostream& out, const Bytes& bytes) {
    return out << bytes.view();
  }

 private:
  struct Block;

  Block* block_ = nullptr;
};

}  // namespace kestrowan::replica::model
