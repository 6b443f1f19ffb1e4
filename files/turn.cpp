#include "files/turn.h"

#include "runtime/request.h"

namespace vesk {

int Turn::Pass() {
  const WakeOnCancel wake(mutex_, changed_);
  const MutexLock guard(mutex_);
  int error = 0;
  ++passing_;
  while (error == 0 && owner_.load(std::memory_order_relaxed) != nullptr) {
    error = RequestScope::Wait(changed_, mutex_, clock_);
  }
  if (--passing_ == 0) changed_.WakeAll();
  return error;
}

int Turn::Take(const void* who) {
  const WakeOnCancel wake(mutex_, changed_);
  const MutexLock guard(mutex_);
  Waiting self;
  Enqueue(&self);
  int error = 0;
  while (error == 0 &&
         (owner_.load(std::memory_order_relaxed) != nullptr || first_ != &self || passing_ > 0)) {
    error = RequestScope::Wait(changed_, mutex_, clock_);
  }
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
