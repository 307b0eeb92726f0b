#pragma once

#include <array>
#include <cstddef>
#include <mutex>

namespace kestrowan::replica::model {

/// Memory for small records that live long: items, states, names and versions. Records of one size
/// lie side by side, in blocks that nothing else is in, so what lives only for a moment never comes
/// between them and keeps its pages from the system. A block goes back when its last record does.
/// Usable from every thread.
class Slabs {
 public:
  /// Larger records are allocations of their own. In bytes.
  static constexpr std::size_t kLargest = 256;
  /// Of every record. In bytes.
  static constexpr std::size_t kAlignment = 8;

  Slabs() = default;
  /// All records must have been given back.
  ~Slabs();
  Slabs(const Slabs&) = delete;
  Slabs& operator=(const Slabs&) = delete;

  /// Throws `std::bad_alloc`.
  void* take(std::size_t size);
  /// `size`: the one with which it was taken.
  void giveBack(void* record, std::size_t size) noexcept;
  /// How many blocks there are.
  std::size_t blocks() const;

 private:
  struct Block;
  /// The records of one size.
  struct Pool {
    mutable std::mutex mutex;
    /// The blocks in which there is room.
    Block* first = nullptr;
    std::size_t blocks = 0;
  };

  static void* takeFrom(Pool& pool, std::size_t size);
  static void link(Pool& pool, Block& block);
  static void unlink(Pool& pool, Block& block);

  std::array<Pool, kLargest / kAlignment> pools_;
};

/// A class whose objects are such records when they are made by `new`, in the slabs of the process.
struct InSlabs {
  static void* operator new(std::size_t size);
  static void operator delete(void* record, std::size_t size) noexcept;

  friend bool operator==(const InSlabs&, const InSlabs&) = default;
};

}  // namespace kestrowan::replica::model
