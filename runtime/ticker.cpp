#include "runtime/ticker.h"

#include <utility>

namespace vesk {

Ticker::Ticker(Clock& clock, Clock::Duration interval, std::function<void()> work)
    : clock_(clock), interval_(interval), work_(std::move(work)), thread_([this] { Run(); }) {}

Ticker::~Ticker() {
  {
    const MutexLock guard(mutex_);
    ending_ = true;
    due_.WakeAll();
  }
  thread_.join();
}

void Ticker::Kick() {
  const MutexLock guard(mutex_);
  kicked_ = true;
  due_.WakeAll();
}

void Ticker::Run() {
  Clock::Time next = clock_.Now() + interval_;
  MutexLock guard(mutex_);
  while (!ending_) {
    if (!kicked_ && clock_.Now() < next) {
      clock_.WaitUntil(due_, mutex_, next);
      continue;
    }
    kicked_ = false;
    guard.Unlock();
    work_();
    next = clock_.Now() + interval_;
    guard.Lock();
  }
}

}  // namespace vesk
