#include "runtime/request.h"

#include <algorithm>
#include <cerrno>

#include "vesk/VeskJob.h"

namespace vesk {

void CancelToken::Cancel() {
  cancelled_.store(true, std::memory_order_release);
  const MutexLock guard(mutex_);
  for (const Waiting* waiting = waiting_; waiting != nullptr; waiting = waiting->next) {
    waiting->job.WakeWaiters();
  }
}

void CancelToken::Wait(VeskJob& job, Clock& clock, Clock::Time deadline) {
  Waiting self{job, nullptr};
  {
    const MutexLock guard(mutex_);
    self.next = waiting_;
    waiting_ = &self;
  }
  job.WaitUntilDone(clock, deadline, &cancelled_);
  const MutexLock guard(mutex_);
  Waiting** link = &waiting_;
  while (*link != &self) link = &(*link)->next;
  *link = self.next;
}

namespace {

thread_local const RequestLimits* current = nullptr;

}  // namespace

RequestScope::RequestScope(const RequestLimits& limits) : limits_(limits), outer_(current) {
  if (outer_ != nullptr) {
    limits_.deadline = std::min(limits_.deadline, outer_->deadline);
    if (limits_.cancel == nullptr) limits_.cancel = outer_->cancel;
  }
  const bool unlimited = limits_.deadline == Clock::kNever && limits_.cancel == nullptr;
  current = unlimited ? nullptr : &limits_;
}

RequestScope::~RequestScope() { current = outer_; }

const RequestLimits* RequestScope::Current() { return current; }

int RequestScope::Exceeded(Clock& clock) {
  if (current == nullptr) return 0;
  if (current->cancel != nullptr && current->cancel->Cancelled()) return ECANCELED;
  return clock.Now() >= current->deadline ? ETIMEDOUT : 0;
}

}  // namespace vesk
