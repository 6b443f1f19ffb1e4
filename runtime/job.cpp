#include "runtime/clock.h"
#include "vesk/VeskJob.h"

namespace vesk {

VeskJob::VeskJob(int type, VeskOP* op) : type_(type), op_(op) {}

void VeskJob::RefCountDec(VeskJob* job) {
  // Release and acquire: what every holder did to the job happens before it is freed.
  if (job->references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete job;
}

void VeskJob::Publish(int return_value) {
  {
    const MutexLock guard(mutex_);
    return_value_ = return_value;
    state_.store(JOB_STATE_DONE, std::memory_order_release);
  }
  ended_.WakeAll();
}

void VeskJob::WaitUntilDone() {
  const MutexLock guard(mutex_);
  while (GetJobState() != JOB_STATE_DONE) ended_.Wait(mutex_);
}

bool VeskJob::WaitUntilDone(Clock& clock, std::chrono::steady_clock::time_point deadline,
                            const std::atomic<bool>* cancelled) {
  const MutexLock guard(mutex_);
  while (GetJobState() != JOB_STATE_DONE) {
    if (cancelled != nullptr && cancelled->load(std::memory_order_acquire)) return false;
    if (clock.Now() >= deadline) return false;
    clock.WaitUntil(ended_, mutex_, deadline);
  }
  return true;
}

void VeskJob::WakeWaiters() {
  { const MutexLock guard(mutex_); }  // a waiter has looked and sleeps, or has yet to look
  ended_.WakeAll();
}

}  // namespace vesk
