#include "support/FailingMemory.h"

#include <malloc.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

namespace kestrowan::test {

namespace {

std::atomic<std::size_t> firstLarge = SIZE_MAX;
std::atomic<std::size_t> held = 0;
/// 0 for no failure to come.
thread_local std::size_t untilFailure = 0;

void failIfDue() {
  if (untilFailure > 0 && --untilFailure == 0) throw std::bad_alloc();
}

void* allocated(std::size_t size) {
  if (size >= firstLarge) throw std::bad_alloc();
  failIfDue();
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (!memory) throw std::bad_alloc();
  held += ::malloc_usable_size(memory);
  return memory;
}

/// Only blocks of small records are aligned, each to its size, which its end does not tell.
void* allocated(std::size_t size, std::align_val_t alignment) {
  failIfDue();
  if (size != static_cast<std::size_t>(alignment)) std::abort();
  void* const memory = std::aligned_alloc(size, size);
  if (!memory) throw std::bad_alloc();
  held += size;
  return memory;
}

void release(void* memory) {
  if (memory) held -= ::malloc_usable_size(memory);
  std::free(memory);
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

std::size_t heldBytes() {
  return held;
}

}  // namespace kestrowan::test

void* operator new(std::size_t size) {
  return kestrowan::test::allocated(size);
}

void* operator new[](std::size_t size) {
  return kestrowan::test::allocated(size);
}

void* operator new(std::size_t size, std::align_val_t alignment) {
  return kestrowan::test::allocated(size, alignment);
}

void operator delete(void* memory) noexcept {
  kestrowan::test::release(memory);
}

void operator delete[](void* memory) noexcept {
  kestrowan::test::release(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
  kestrowan::test::release(memory);
}

void operator delete[](void* memory, std::size_t) noexcept {
  kestrowan::test::release(memory);
}

void operator delete(void* memory, std::align_val_t alignment) noexcept {
  kestrowan::test::held -= static_cast<std::size_t>(alignment);
  std::free(memory);
}
