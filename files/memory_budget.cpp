#include "files/memory_budget.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "runtime/request.h"

namespace vesk {

namespace {

// Between two calls for writing out while a request waits: a write may have failed meanwhile.
constexpr Clock::Duration kAgain = std::chrono::milliseconds(100);

}  // namespace

int MemoryBudget::Reservation::Reserve(std::uint64_t bytes) {
  if (TryReserve(bytes)) return 0;
  Reset();  // two that wait for more while they hold some could wait for each other
  const int error = budget_.Take(bytes);
  if (error == 0) bytes_ = bytes;
  return error;
}

bool MemoryBudget::Reservation::TryReserve(std::uint64_t bytes) {
  if (bytes <= bytes_) return true;
  if (!budget_.TryTake(bytes - bytes_)) return false;
  bytes_ = bytes;
  return true;
}

void MemoryBudget::Reservation::TakeUpTo(std::uint64_t bytes) {
  std::uint64_t ignored = 0;
  for (; bytes > 0 && budget_.waiting_.load() == 0; bytes /= 2) {
    const bool taken =
        budget_.TryTake(bytes) || (budget_.EvictFor(bytes, &ignored) && budget_.TryTake(bytes));
    if (!taken) continue;
    bytes_ += bytes;
    return;
  }
}

// More than was reserved must not happen; if it does, the sums are to show it.
void MemoryBudget::Reservation::Use(std::uint64_t bytes) {
  const std::uint64_t covered = std::min(bytes, bytes_);
  bytes_ -= covered;
  budget_.NotePeak(budget_.used_.fetch_add(bytes - covered) + bytes - covered);
}

void MemoryBudget::Reservation::Reset() {
  if (bytes_ > 0) budget_.Release(bytes_);
  bytes_ = 0;
}

void MemoryBudget::Add(Source& source) {
  const MutexLock guard(mutex_);
  source.key_ = Stamp();
  by_age_.emplace(source.key_, &source);
}

void MemoryBudget::Lower(Source& source, std::uint64_t stamp) {
  const MutexLock guard(mutex_);
  if (source.evicting_) {
    source.lower_ = std::min(source.lower_, stamp);
    return;
  }
  auto node = by_age_.extract({source.key_, &source});
  source.key_ = std::min(source.key_, stamp);
  node.value().first = source.key_;
  by_age_.insert(std::move(node));
}

void MemoryBudget::Remove(Source& source) {
  const MutexLock guard(mutex_);
  while (source.evicting_) changed_.Wait(mutex_);
  by_age_.erase({source.key_, &source});
}

// A thread that waits counts itself before it looks; whoever releases memory looks at the count
// afterwards. So one of the two sees the other.
void MemoryBudget::Release(std::uint64_t bytes) {
  used_.fetch_sub(bytes);
  Changed();
}

void MemoryBudget::Wake() {
  const MutexLock guard(mutex_);
  ++changes_;
  changed_.WakeAll();
}

void MemoryBudget::NotePeak(std::uint64_t used) {
  std::uint64_t peak = peak_.load(std::memory_order_relaxed);
  while (used > peak && !peak_.compare_exchange_weak(peak, used, std::memory_order_relaxed)) {
  }
}

bool MemoryBudget::TryTake(std::uint64_t bytes) {
  if (waiting_.load() > 0) return false;  // those who came before
  std::uint64_t used = used_.load();
  do {
    if (bytes > limit_ || used > limit_ - bytes) return false;
  } while (!used_.compare_exchange_weak(used, used + bytes));
  NotePeak(used + bytes);
  stamp_.fetch_add(1, std::memory_order_relaxed);
  return true;
}

int MemoryBudget::Take(std::uint64_t bytes) {
  if (bytes > limit_) return ENOMEM;
  const WakeOnCancel wake(mutex_, changed_);
  MutexLock guard(mutex_);
  Waiting self;
  Waiting** link = &first_;
  while (*link != nullptr) link = &(*link)->next;
  *link = &self;
  waiting_.fetch_add(1);

  int error = 0;
  while (error == 0) {
    if (first_ == &self) {
      std::uint64_t used = used_.load();
      bool taken = false;
      while (!taken && used <= limit_ - bytes) {
        taken = used_.compare_exchange_weak(used, used + bytes);
      }
      if (taken) {
        NotePeak(used + bytes);
        break;
      }
      const std::uint64_t changes = changes_;
      std::uint64_t own = 0;
      guard.Unlock();
      const bool freed = EvictFor(bytes, &own);
      if (!freed && on_short_) on_short_();
      guard.Lock();
      if (changes_ != changes + own) {
        error = RequestScope::Exceeded(clock_);
        continue;
      }
    }
    error = RequestScope::Wait(changed_, mutex_, clock_, clock_.Now() + kAgain);
  }
  link = &first_;
  while (*link != &self) link = &(*link)->next;
  *link = self.next;
  waiting_.fetch_sub(1);
  stamp_.fetch_add(1, std::memory_order_relaxed);
  changed_.WakeAll();
  return error;
}

// True: `bytes` were free for a moment. Each source may be asked in vain twice: its key may be out
// of date, and what it has may be busy.
// `*changes` grows by as much as `changes_` because of this call.
bool MemoryBudget::EvictFor(std::uint64_t bytes, std::uint64_t* changes) {
  if (bytes > limit_) return false;
  MutexLock guard(mutex_);
  for (std::size_t in_vain = 0; in_vain <= 2 * by_age_.size();) {
    const std::uint64_t used = used_.load();
    if (used <= limit_ - bytes) return true;
    if (by_age_.empty()) return false;
    auto node = by_age_.extract(by_age_.begin());
    Source& source = *node.value().second;
    const std::uint64_t newest = by_age_.empty() ? kNoBlock : by_age_.begin()->first;
    source.evicting_ = true;
    guard.Unlock();
    const Source::Left left = source.Evict(used - (limit_ - bytes), newest);
    guard.Lock();
    source.evicting_ = false;
    if (left.freed == 0) ++in_vain;
    source.key_ = left.oldest != kNoBlock ? left.oldest : (stamp_.fetch_add(1) + 1) * kTicks;
    source.key_ = std::min(source.key_, std::exchange(source.lower_, kNoBlock));
    node.value().first = source.key_;
    by_age_.insert(std::move(node));
    ++changes_;  // whoever looked meanwhile did not see the source
    ++*changes;
    changed_.WakeAll();
  }
  return false;
}

}  // namespace vesk
