// Global operator new of the tests: counts, fails on demand, and can be watched.

#ifndef TESTS_SUPPORT_ALLOCATION_H_
#define TESTS_SUPPORT_ALLOCATION_H_

#include <cstddef>
#include <functional>

namespace vesk_test {

// Allocations by operator new (all forms) that have not been deleted.
long LiveAllocations();

// While one exists, the `nth` allocation of this thread from its construction on (1 is the next
// one) fails: the throwing forms throw std::bad_alloc, the others return null. One at a time.
//   and_all_later   those after it fail as well
class FailingAllocation {
 public:
  explicit FailingAllocation(long nth, bool and_all_later = false);
  ~FailingAllocation();
  FailingAllocation(const FailingAllocation&) = delete;
  FailingAllocation& operator=(const FailingAllocation&) = delete;

  // True when the allocation that was to fail has been asked for.
  bool Fired() const;
};

// While one exists, allocations of this thread are spared (neither fail nor count), or with `false`
// no longer spared. They nest.
class SparedAllocations {
 public:
  explicit SparedAllocations(bool are_spared = true);
  ~SparedAllocations();
  SparedAllocations(const SparedAllocations&) = delete;
  SparedAllocations& operator=(const SparedAllocations&) = delete;

 private:
  const bool before_;
};

// Only allocations that are made while `counts` says true are counted and fail. Null: all.
void CountAllocationsIf(bool (*counts)());

// While one exists, `watch` is called with each new allocation, before its owner sees it. `watch`
// allocates nothing itself. One at a time.
class AllocationWatch {
 public:
  explicit AllocationWatch(std::function<void(void* memory, std::size_t bytes)> watch);
  ~AllocationWatch();
  AllocationWatch(const AllocationWatch&) = delete;
  AllocationWatch& operator=(const AllocationWatch&) = delete;
};

}  // namespace vesk_test

#endif  // TESTS_SUPPORT_ALLOCATION_H_
