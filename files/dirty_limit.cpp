#include "files/dirty_limit.h"

#include <algorithm>

#include "runtime/request.h"

namespace vesk {

namespace {

// Between two calls for writing out while a writer waits.
constexpr Clock::Duration kAgain = std::chrono::milliseconds(100);

}  // namespace

bool DirtyLimit::Room::TryAdmit(std::uint64_t bytes) {
  if (bytes <= bytes_) return true;
  if (!limit_.Take(bytes - bytes_, limit_.soft_)) return false;
  bytes_ = bytes;
  return true;
}

int DirtyLimit::Room::Admit(std::uint64_t bytes) {
  if (TryAdmit(bytes)) return 0;
  Reset();  // two that wait for more while they hold some could wait for each other
  const int error = limit_.Wait(bytes);
  if (error == 0) bytes_ = bytes;
  return error;
}

void DirtyLimit::Room::Use(std::uint64_t bytes) {
  const std::uint64_t covered = std::min(bytes, bytes_);
  bytes_ -= covered;
  limit_.total_.fetch_add(bytes - covered);
}

void DirtyLimit::Room::Reset() {
  limit_.Sub(bytes_);
  bytes_ = 0;
}

void DirtyLimit::Sub(std::uint64_t bytes) {
  if (bytes == 0) return;
  total_.fetch_sub(bytes);
  if (waiting_.load() == 0) return;  // who waits counts itself before it looks at the total
  const MutexLock guard(mutex_);
  less_.WakeAll();
}

bool DirtyLimit::Take(std::uint64_t bytes, std::uint64_t limit) {
  std::uint64_t total = total_.load();
  do {
    if (total > 0 && (bytes > limit || total > limit - bytes)) return false;
  } while (!total_.compare_exchange_weak(total, total + bytes));
  return true;
}

Clock::Duration DirtyLimit::Pause(std::uint64_t total) const {
  const double above = static_cast<double>(std::clamp(total, soft_, hard_) - soft_);
  const double share = above / static_cast<double>(std::max<std::uint64_t>(hard_ - soft_, 1));
  return std::chrono::duration_cast<Clock::Duration>(kLongestPause * share);
}

int DirtyLimit::Wait(std::uint64_t bytes) {
  if (Take(bytes, soft_)) return 0;
  if (on_pressure_) on_pressure_(false);
  const WakeOnCancel wake(mutex_, less_);
  const Clock::Time begin = clock_.Now();
  const Clock::Time go_on = begin + Pause(total_.load());
  MutexLock guard(mutex_);
  waiting_.fetch_add(1);
  int error = 0;
  bool pressed = false;
  while (error == 0) {
    const bool paused = clock_.Now() >= go_on;
    if (Take(bytes, paused ? hard_ : soft_)) break;
    if (paused && !pressed) {
      pressed = true;
      guard.Unlock();
      if (on_pressure_) on_pressure_(true);
      guard.Lock();
      continue;
    }
    error = RequestScope::Wait(less_, mutex_, clock_, paused ? clock_.Now() + kAgain : go_on);
    pressed = false;  // what others made dirty meanwhile, or has failed, is to be written as well
  }
  waiting_.fetch_sub(1);
  throttled_.fetch_add(1, std::memory_order_relaxed);
  throttled_time_.fetch_add((clock_.Now() - begin).count(), std::memory_order_relaxed);
  return error;
}

}  // namespace vesk
