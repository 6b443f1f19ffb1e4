#include <pthread.h>

#include "runtime/backend.h"
#include "runtime/plug.h"
#include "runtime/transfer.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskJob.h"
#include "vesk/VeskLock.h"
#include "vesk/VeskStream.h"  // a read is counted off its stream: the one look upwards

namespace vesk {

Plug& Plug::OfThisThread() {
  thread_local Plug plug;
  return plug;
}

void Plug::Add(VeskJob* job) {
  job->RefCountInc();
  jobs_.Push(job);
}

void Plug::Release() {
  while (!jobs_.Empty()) {
    VeskJob* const job = jobs_.Pop();
    job->bundler_->Start(job);
    VeskJob::RefCountDec(job);
  }
}

namespace {

void CountOff(VeskStream& stream) {
  pthread_mutex_lock(&stream.stream_mutex);
  --stream.pending_io;
  pthread_mutex_unlock(&stream.stream_mutex);
}

}  // namespace

// The order is the promise: count stored (by the backend), `pending_io` lowered, end published. The
// block may be reaped, and its stream deleted, the instant the end can be seen.
void VeskJob::Complete(int return_value) {
  if (owner_stream != nullptr) CountOff(*owner_stream);
  VeskBundler* const bundler = bundler_;
  bundler->JobEnds(*this, return_value);
  Publish(return_value);
  RefCountDec(this);
  bundler->JobGone();
}

VeskBundler::VeskBundler(VeskBackend& backend) : backend_(backend) {}

VeskBundler::~VeskBundler() {
  Plug::OfThisThread().Release();
  std::unique_lock<std::mutex> guard(mutex_);
  idle_.wait(guard, [this] { return in_flight_ == 0; });
}

void VeskBundler::SubmitJob(VeskJob* job) {
  job->RefCountInc();
  job->bundler_ = this;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    ++in_flight_;
  }
  job->state_.store(JOB_STATE_SUBMITTED, std::memory_order_release);
  Plug& plug = Plug::OfThisThread();
  if (plug.HoldsBack()) {
    plug.Add(job);
  } else {
    Start(job);
  }
}

void VeskBundler::WaitForJob(VeskJob* job, VeskLock* lock, const char* tag) {
  const auto begin = std::chrono::steady_clock::now();
  // Claimed under the lock: from here on no other thread can start it, and the release of the plug
  // below passes over it.
  const bool run_here = job->Claim();
  if (lock != nullptr) lock->unlock();
  Plug::OfThisThread().Release();
  if (run_here) {
    backend_.Run(job);
  } else {
    job->WaitUntilDone();
  }
  if (lock != nullptr) lock->lock();
  const auto time = std::chrono::steady_clock::now() - begin;

  const std::lock_guard<std::mutex> guard(mutex_);
  DispatcherStats::Waits& waits = stats_.waits[tag];
  ++waits.count;
  waits.time += time;
}

DispatcherStats VeskBundler::GetStats() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return stats_;
}

void VeskBundler::Start(VeskJob* job) {
  // Claimed already: the thread that waits for it runs it, and the queue is spared the detour.
  if (job->GetJobState() == JOB_STATE_SUBMITTED) backend_.Start(job);
}

void VeskBundler::JobEnds(const VeskJob& job, int return_value) {
  const Transfer transfer(job.GetOP());
  const std::lock_guard<std::mutex> guard(mutex_);
  DispatcherStats::Transfers& kind = transfer.is_write ? stats_.writes : stats_.reads;
  ++kind.jobs;
  if (return_value == 0) kind.bytes += transfer.Moved();
  if (return_value != 0 && return_value != RC_EOF) ++kind.failed;
}

void VeskBundler::JobGone() {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (--in_flight_ == 0) idle_.notify_all();
}

}  // namespace vesk
