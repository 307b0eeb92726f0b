#include "replica/model/Slabs.h"

#include <cstdint>
#include <new>

#include "platform/base/Fatal.h"

namespace kestrowan::replica::model {

namespace {

/// Bytes of a block, which begins at a multiple of that.
constexpr std::size_t kBlock = 256 * 1024;

/// What a record is while it is free.
struct Free {
  Free* next;
};

std::size_t poolOf(std::size_t size) {
  return size == 0 ? 0 : (size - 1) / Slabs::kAlignment;
}

}  // namespace

/// The records follow it.
struct Slabs::Block {
  Block* previous = nullptr;
  Block* next = nullptr;
  /// Records that were taken before.
  Free* free = nullptr;
  std::uint32_t used = 0;
  /// Where the records begin that were never taken; their pages cost nothing before they are.
  std::uint32_t fresh = sizeof(Block);

  static Block& of(void* record) {
    const auto address = reinterpret_cast<std::uintptr_t>(record);
    return *reinterpret_cast<Block*>(address & ~std::uintptr_t{kBlock - 1});
  }
  static Block& make() { return *new (::operator new (kBlock, std::align_val_t{kBlock})) Block(); }
  static void end(Block* block) { ::operator delete (block, std::align_val_t{kBlock}); }

  bool isFull(std::size_t size) const { return !free && fresh + size > kBlock; }

  void* take(std::size_t size) {
    ++used;
    if (Free* record = free) {
      free = record->next;
      return record;
    }
    void* record = reinterpret_cast<char*>(this) + fresh;
    fresh += static_cast<std::uint32_t>(size);
    return record;
  }
};

Slabs::~Slabs() {
  for (Pool& pool : pools_) {
    Block* last = pool.first;
    if (pool.blocks > 1 || (last && last->used > 0)) fatalError("a record outlives its memory");
    if (last) Block::end(last);
  }
}

void Slabs::link(Pool& pool, Block& block) {
  block.next = pool.first;
  if (pool.first) pool.first->previous = &block;
  pool.first = &block;
}

void Slabs::unlink(Pool& pool, Block& block) {
  if (block.previous) block.previous->next = block.next;
  if (block.next) block.next->previous = block.previous;
  if (pool.first == &block) pool.first = block.next;
  block.previous = block.next = nullptr;
}

void* Slabs::takeFrom(Pool& pool, std::size_t size) {
  const std::lock_guard lock(pool.mutex);
  if (!pool.first) {
    link(pool, Block::make());
    ++pool.blocks;
  }
  Block& block = *pool.first;
  void* record = block.take(size);
  if (block.isFull(size)) unlink(pool, block);
  return record;
}

void* Slabs::take(std::size_t size) {
  if (size > kLargest) return ::operator new(size);
  const std::size_t index = poolOf(size);
  return takeFrom(pools_[index], (index + 1) * kAlignment);
}

void Slabs::giveBack(void* record, std::size_t size) noexcept {
  if (size > kLargest) {
    ::operator delete(record);
    return;
  }
  const std::size_t index = poolOf(size);
  Pool& pool = pools_[index];
  Block& block = Block::of(record);
  Block* empty = nullptr;
  {
    const std::lock_guard lock(pool.mutex);
    if (block.isFull((index + 1) * kAlignment)) link(pool, block);
    block.free = new (record) Free{block.free};
    // The last one with room stays, for the next record.
    const bool isLast = pool.first == &block && !block.next;
    if (--block.used == 0 && !isLast) {
      unlink(pool, block);
      --pool.blocks;
      empty = &block;
    }
  }
  if (empty) Block::end(empty);
}

std::size_t Slabs::blocks() const {
  std::size_t count = 0;
  for (const Pool& pool : pools_) {
    const std::lock_guard lock(pool.mutex);
    count += pool.blocks;
  }
  return count;
}

#ifdef KFP_RECORDS_APART

// The address sanitizer sees the use of a record that is no more only where each is an allocation
// of its own.
void* InSlabs::operator new(std::size_t size) {
  return ::operator new(size);
}

void InSlabs::operator delete(void* record, std::size_t) noexcept {
  ::operator delete(record);
}

#else

namespace {

/// Never destroyed: records may outlive everything else.
Slabs& ofProcess() {
  static auto* const slabs = new Slabs;
  return *slabs;
}

}  // namespace

void* InSlabs::operator new(std::size_t size) {
  return ofProcess().take(size);
}

void InSlabs::operator delete(void* record, std::size_t size) noexcept {
  ofProcess().giveBack(record, size);
}

#endif

}  // namespace kestrowan::replica::model
