#include "runtime/request.h"

#include <algorithm>
#include <cerrno>

#include "runtime/thread.h"
#include "vesk/VeskJob.h"

namespace vesk {

namespace {

struct Current {
  const RequestLimits* limits = nullptr;
};

const RequestLimits*& CurrentLimits() { return OfThisThread<Current>().limits; }

CancelToken* CurrentToken() {
  const RequestLimits* const current = CurrentLimits();
  return current == nullptr ? nullptr : current->cancel;
}

}  // namespace

// Looked at once it is linked: who calls the parent off in between tells its listeners afterwards.
CancelToken::CancelToken(CancelToken* parent) : parent_(parent) {
  if (parent_ == nullptr) return;
  parent_->Link(*this);
  if (parent_->Cancelled()) cancelled_.store(true, std::memory_order_release);
}

CancelToken::~CancelToken() {
  if (parent_ != nullptr) parent_->Unlink(*this);
}

void CancelToken::Cancel() {
  cancelled_.store(true, std::memory_order_release);
  const MutexLock guard(mutex_);
  for (CancelListener* one = listeners_; one != nullptr; one = one->next_) one->OnCancel();
}

void CancelToken::Link(CancelListener& listener) {
  const MutexLock guard(mutex_);
  listener.next_ = listeners_;
  listeners_ = &listener;
}

void CancelToken::Unlink(const CancelListener& listener) {
  const MutexLock guard(mutex_);
  CancelListener** link = &listeners_;
  while (*link != &listener) link = &(*link)->next_;
  *link = listener.next_;
}

void CancelToken::Wait(VeskJob& job, Clock& clock, Clock::Time deadline) {
  class Waiting final : public CancelListener {
   public:
    explicit Waiting(VeskJob& job) : job_(job) {}

   private:
    void OnCancel() override { job_.WakeWaiters(); }

    VeskJob& job_;
  };

  Waiting self(job);
  Link(self);
  job.WaitUntilDone(clock, deadline, &cancelled_);
  Unlink(self);
}

RequestScope::RequestScope(const RequestLimits& limits) : limits_(limits), outer_(CurrentLimits()) {
  if (outer_ != nullptr) {
    limits_.deadline = std::min(limits_.deadline, outer_->deadline);
    if (limits_.cancel == nullptr) limits_.cancel = outer_->cancel;
  }
  const bool unlimited = limits_.deadline == Clock::kNever && limits_.cancel == nullptr;
  CurrentLimits() = unlimited ? nullptr : &limits_;
}

RequestScope::~RequestScope() { CurrentLimits() = outer_; }

const RequestLimits* RequestScope::Current() { return CurrentLimits(); }

int RequestScope::Exceeded(Clock& clock) {
  const RequestLimits* const current = CurrentLimits();
  if (current == nullptr) return 0;
  if (current->cancel != nullptr && current->cancel->Cancelled()) return ECANCELED;
  return clock.Now() >= current->deadline ? ETIMEDOUT : 0;
}

int RequestScope::Wait(Condition& condition, Mutex& mutex, Clock& clock, Clock::Time until) {
  if (const int error = Exceeded(clock)) return error;
  const RequestLimits* const current = CurrentLimits();
  clock.WaitUntil(condition, mutex,
                  current == nullptr ? until : std::min(until, current->deadline));
  return 0;
}

WakeOnCancel::WakeOnCancel(Mutex& mutex, Condition& condition)
    : mutex_(mutex), condition_(condition), token_(CurrentToken()) {
  if (token_ != nullptr) token_->Link(*this);
}

WakeOnCancel::~WakeOnCancel() {
  if (token_ != nullptr) token_->Unlink(*this);
}

void WakeOnCancel::OnCancel() {
  const MutexLock guard(mutex_);
  condition_.WakeAll();
}

}  // namespace vesk
