#include "tests/support/allocation.h"

#include <atomic>
#include <cstdlib>
#include <new>
#include <utility>

namespace vesk_test {

namespace {

std::atomic<long> live{0};
thread_local long countdown = 0;  // 0: none is to fail
thread_local bool fired = false;
thread_local bool all_later = false;
thread_local bool spared = false;
bool (*is_counted)() = nullptr;
std::function<void(void*, std::size_t)> watcher;

void* Allocate(std::size_t bytes) noexcept {
  const bool counts = !spared && (is_counted == nullptr || is_counted());
  if (countdown > 0 && counts && --countdown == 0) {
    fired = true;
    if (all_later) countdown = 1;
    return nullptr;
  }
  void* const memory = std::malloc(bytes == 0 ? 1 : bytes);
  if (memory == nullptr) return nullptr;
  ++live;
  if (watcher) watcher(memory, bytes);
  return memory;
}

void Free(void* memory) noexcept {
  if (memory != nullptr) --live;
  std::free(memory);
}

}  // namespace

long LiveAllocations() { return live; }

FailingAllocation::FailingAllocation(long nth, bool and_all_later) {
  fired = false;
  all_later = and_all_later;
  countdown = nth;
}
FailingAllocation::~FailingAllocation() { countdown = 0; }
bool FailingAllocation::Fired() const { return fired; }

SparedAllocations::SparedAllocations(bool are_spared)
    : before_(std::exchange(spared, are_spared)) {}
SparedAllocations::~SparedAllocations() { spared = before_; }

void CountAllocationsIf(bool (*counts)()) { is_counted = counts; }

AllocationWatch::AllocationWatch(std::function<void(void*, std::size_t)> watch) {
  watcher = std::move(watch);
}
AllocationWatch::~AllocationWatch() { watcher = nullptr; }

}  // namespace vesk_test

void* operator new(std::size_t bytes) {
  void* const memory = vesk_test::Allocate(bytes);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}
void* operator new[](std::size_t bytes) { return operator new(bytes); }
void* operator new(std::size_t bytes, const std::nothrow_t& /*tag*/) noexcept {
  return vesk_test::Allocate(bytes);
}
void* operator new[](std::size_t bytes, const std::nothrow_t& /*tag*/) noexcept {
  return vesk_test::Allocate(bytes);
}
void operator delete(void* memory) noexcept { vesk_test::Free(memory); }
void operator delete[](void* memory) noexcept { vesk_test::Free(memory); }
void operator delete(void* memory, std::size_t /*bytes*/) noexcept { vesk_test::Free(memory); }
void operator delete[](void* memory, std::size_t /*bytes*/) noexcept { vesk_test::Free(memory); }
void operator delete(void* memory, const std::nothrow_t& /*tag*/) noexcept {
  vesk_test::Free(memory);
}
void operator delete[](void* memory, const std::nothrow_t& /*tag*/) noexcept {
  vesk_test::Free(memory);
}
