#include "support/FailingMemory.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace kestrowan::test {

namespace {

std::atomic<std::size_t> firstLarge = SIZE_MAX;
/// 0 for no failure to come.
thread_local std::size_t untilFailure = 0;

void* allocated(std::size_t size) {
  if (size >= firstLarge) throw std::bad_alloc();
  if (untilFailure > 0 && --untilFailure == 0) throw std::bad_alloc();
  if (void* const memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}

}  // namespace

NoLargeMemory::NoLargeMemory(std::size_t bytes) {
  firstLarge = bytes;
}

NoLargeMemory::~NoLargeMemory() {
  firstLarge = SIZE_MAX;
}

OneFailure::OneFailure(std::size_t number) {
  untilFailure = number;
}

OneFailure::~OneFailure() {
  untilFailure = 0;
}

bool OneFailure::happened() const {
  return untilFailure == 0;
}

}  // namespace kestrowan::test

void* operator new(std::size_t size) {
  return kestrowan::test::allocated(size);
}

void* operator new[](std::size_t size) {
  return kestrowan::test::allocated(size);
}

void operator delete(void* memory) noexcept {
  std::free(memory);
}

void operator delete[](void* memory) noexcept {
  std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
