#include "vesk/VeskJob.h"

namespace vesk {

VeskJob::VeskJob(int type, VeskOP* op) : type_(type), op_(op) {}

void VeskJob::RefCountDec(VeskJob* job) {
  // Release and acquire: what every holder did to the job happens before it is freed.
  if (job->references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete job;
}

bool VeskJob::Claim() {
  int expected = JOB_STATE_SUBMITTED;
  return state_.compare_exchange_strong(expected, JOB_STATE_RUNNING, std::memory_order_acq_rel);
}

void VeskJob::Publish(int return_value) {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    return_value_ = return_value;
    state_.store(JOB_STATE_DONE, std::memory_order_release);
  }
  ended_.notify_all();
}

void VeskJob::WaitUntilDone() {
  std::unique_lock<std::mutex> guard(mutex_);
  ended_.wait(guard, [this] { return GetJobState() == JOB_STATE_DONE; });
}

}  // namespace vesk
