#include "files/turn.h"

#include "runtime/request.h"

namespace vesk {

namespace {

constexpr Clock::Duration kAgain = std::chrono::milliseconds(100);

}  // namespace

// Under the mutex, which is given up while it waits. (The compiler's analysis does not follow
// that.)
template <typename Reached>
int Turn::Await(const Reached& reached) VESK_NO_THREAD_SAFETY_ANALYSIS {
  int error = 0;
  while (error == 0 && !reached()) {
    if (!meanwhile_) {
      error = RequestScope::Wait(changed_, mutex_, clock_);
      continue;
    }
    mutex_.unlock();
    meanwhile_();
    mutex_.lock();
    if (!reached()) error = RequestScope::Wait(changed_, mutex_, clock_, clock_.Now() + kAgain);
  }
  return error;
}

int Turn::Pass() {
  const WakeOnCancel wake(mutex_, changed_);
  const MutexLock guard(mutex_);
  ++passing_;
  const int error = Await([this] { return owner_.load(std::memory_order_relaxed) == nullptr; });
  if (--passing_ == 0) changed_.WakeAll();
  return error;
}

int Turn::Take(const void* who) {
  const WakeOnCancel wake(mutex_, changed_);
  const MutexLock guard(mutex_);
  Waiting self;
  Enqueue(&self);
  const int error = Await([&]() VESK_NO_THREAD_SAFETY_ANALYSIS {
    return owner_.load(std::memory_order_relaxed) == nullptr && first_ == &self && passing_ == 0;
  });
  Dequeue(&self);
  if (error == 0) owner_.store(who, std::memory_order_release);
  return error;  // nobody is woken: the next one has to wait for the owner, or for those who pass
}

void Turn::Give() {
  const MutexLock guard(mutex_);
  owner_.store(nullptr, std::memory_order_release);
  changed_.WakeAll();
}

void Turn::Enqueue(Waiting* waiting) {
  Waiting** link = &first_;
  while (*link != nullptr) link = &(*link)->next;
  *link = waiting;
}

void Turn::Dequeue(const Waiting* waiting) {
  Waiting** link = &first_;
  while (*link != waiting) link = &(*link)->next;
  *link = waiting->next;
}

}  // namespace vesk
