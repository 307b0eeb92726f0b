#include "replica/model/Bytes.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <limits>
#include <new>

#include "platform/base/Fatal.h"
#include "replica/model/Slabs.h"

namespace kestrowan::replica::model {

/// What copies share; the bytes follow it.
struct Bytes::Block {
  std::atomic<std::uint32_t> owners;
  std::uint32_t size;
};

Bytes::Bytes(std::string_view bytes) {
  if (bytes.empty()) return;
  if (bytes.size() > std::numeric_limits<std::uint32_t>::max()) fatalError("a name is too long");
  void* memory = InSlabs::operator new(sizeof(Block) + bytes.size());
  block_ = new (memory) Block{1, static_cast<std::uint32_t>(bytes.size())};
  std::memcpy(static_cast<void*>(block_ + 1), bytes.data(), bytes.size());
}

Bytes::Bytes(const Bytes& other) noexcept : block_(other.block_) {
  if (block_) block_->owners.fetch_add(1, std::memory_order_relaxed);
}

Bytes::~Bytes() {
  if (!block_ || block_->owners.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  const std::size_t size = sizeof(Block) + block_->size;
  block_->~Block();
  InSlabs::operator delete(block_, size);
}

std::string_view Bytes::view() const {
  if (!block_) return {};
  return {reinterpret_cast<const char*>(block_ + 1), block_->size};
}

void Bytes::share(const Bytes& other) {
  if (block_ != other.block_ && *this == other) *this = other;
}

}  // namespace kestrowan::replica::model
