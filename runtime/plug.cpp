#include "runtime/plug.h"

#include "runtime/dispatcher.h"

namespace vesk {

bool Plug::Withdraw(VeskJob* job) {
  if (!jobs_.Holds(job)) return false;
  jobs_.Remove(job);
  return true;
}

void Plug::StartAll() {
  while (!jobs_.Empty()) {
    Dispatcher* const dispatcher = jobs_.First()->dispatcher_;
    JobQueue batch;
    while (!jobs_.Empty() && jobs_.First()->dispatcher_ == dispatcher) batch.Push(jobs_.Pop());
    dispatcher->Start(batch);
  }
}

}  // namespace vesk
