#include "runtime/dispatcher.h"

#include <pthread.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "runtime/plug.h"
#include "runtime/request.h"
#include "runtime/transfer.h"
#include "vesk/VeskJob.h"
#include "vesk/VeskLock.h"
#include "vesk/VeskStream.h"  // a read is counted off its stream: the one look upwards

namespace vesk {

namespace {

void CountOff(VeskStream& stream) {
  pthread_mutex_lock(&stream.stream_mutex);
  --stream.pending_io;
  pthread_mutex_unlock(&stream.stream_mutex);
}

std::uint64_t Nanoseconds(Clock::Duration time) {
  using std::chrono::duration_cast;
  return static_cast<std::uint64_t>(duration_cast<std::chrono::nanoseconds>(time).count());
}

}  // namespace

Dispatcher::Dispatcher(VeskBackend& backend, Clock& clock) : backend_(backend), clock_(clock) {
  backend.ReportEndsTo(*this);
}

Dispatcher::~Dispatcher() { Shutdown(Clock::kNever, Clock::kNever); }

void Dispatcher::Submit(VeskJob* job) {
  job->RefCountInc();
  job->dispatcher_ = this;
  job->submitted_ = clock_.Now();
  {
    const MutexLock guard(mutex_);
    max_depth_ = std::max(max_depth_, ++depth_);
  }
  job->state_.store(JOB_STATE_SUBMITTED, std::memory_order_release);
  Plug& plug = Plug::OfThisThread();
  plug.Add(job);
  if (!Plug::HoldsBack()) plug.Release();
}

// No analysis: the lock is the caller's, held again when this returns.
void Dispatcher::Wait(VeskJob* job, VeskLock* lock,
                      const char* tag) VESK_NO_THREAD_SAFETY_ANALYSIS {
  const Clock::Time begin = clock_.Now();
  const RequestLimits* const limits = RequestScope::Current();
  Plug& plug = Plug::OfThisThread();
  // Taken out under the lock, before the rest of the plug starts.
  const bool run_here = limits == nullptr && (plug.Withdraw(job) || backend_.Withdraw(job));
  if (lock != nullptr) lock->unlock();
  plug.Release();
  if (run_here) Run(job);
  if (limits == nullptr) {
    job->WaitUntilDone();
  } else if (limits->cancel == nullptr) {
    job->WaitUntilDone(clock_, limits->deadline, nullptr);
  } else {
    limits->cancel->Wait(*job, clock_, limits->deadline);
  }
  if (lock != nullptr) lock->lock();
  Record(tag, clock_.Now() - begin, job->GetJobState() != JOB_STATE_DONE);
}

void Dispatcher::Start(JobQueue& jobs) {
  if (Closed()) {
    EndAll(jobs, ESHUTDOWN);
    return;
  }
  batches_.fetch_add(1, std::memory_order_relaxed);
  backend_.Start(jobs);
}

void Dispatcher::Run(VeskJob* job) {
  job->run_by_waiter_ = true;
  if (Closed()) {
    JobEnded(job, ESHUTDOWN);
  } else {
    backend_.Run(job);
  }
}

bool Dispatcher::Closed() const {
  const MutexLock guard(mutex_);
  return closed_;
}

void Dispatcher::EndAll(JobQueue& jobs, int result) {
  while (!jobs.Empty()) JobEnded(jobs.Pop(), result);
}

// The order is the promise: count stored (by the backend), `pending_io` lowered, end published. The
// block may be reaped, and its stream deleted, the instant the end can be seen.
void Dispatcher::JobEnded(VeskJob* job, int result) {
  if (job->owner_stream != nullptr) CountOff(*job->owner_stream);
  Record(*job, result);
  job->Publish(result);
  // A waiter that ran the job itself repeats its request at once and collects the end.
  const bool to_collect = job->GetType() == JOB_TYPE_IO && !job->run_by_waiter_;
  if (told_ && to_collect) told_(job->GetOP().GetString(0));
  VeskJob::RefCountDec(job);

  const MutexLock guard(mutex_);
  if (--depth_ == 0) idle_.WakeAll();
}

bool Dispatcher::Shutdown(Clock::Time deadline, Clock::Time last) {
  Plug::OfThisThread().Release();
  {
    const MutexLock guard(mutex_);
    closed_ = true;
    while (depth_ > 0 && clock_.Now() < deadline) clock_.WaitUntil(idle_, mutex_, deadline);
    if (depth_ == 0) return true;
  }
  backend_.CancelAll(ESHUTDOWN);
  const MutexLock guard(mutex_);
  while (depth_ > 0 && clock_.Now() < last) clock_.WaitUntil(idle_, mutex_, last);
  return depth_ == 0;
}

void Dispatcher::Record(const VeskJob& job, int result) {
  const bool is_transfer = job.GetType() == JOB_TYPE_IO;
  const bool is_write = is_transfer && job.GetOP().GetOpcode() == OPCODE_WRITE;
  KindStats& kind = !is_transfer ? names_ : is_write ? writes_ : reads_;
  if (result != 0 && result != RC_EOF) kind.failed.fetch_add(1, std::memory_order_relaxed);
  if (is_transfer && result == 0) kind.size.Record(Transfer(job.GetOP()).Moved());
  kind.latency.Record(Nanoseconds(clock_.Now() - job.submitted_));
}

void Dispatcher::Record(const char* tag, Clock::Duration time, bool given_up) {
  const MutexLock guard(mutex_);
  auto place = tags_.begin();
  while (place + 1 != tags_.end() && place->tag[0] != '\0' &&
         std::strncmp(place->tag.data(), tag, place->tag.size() - 1) != 0) {
    ++place;
  }
  if (place + 1 == tags_.end()) tag = "(others)";
  if (place->tag[0] == '\0') std::strncpy(place->tag.data(), tag, place->tag.size() - 1);
  ++place->waits.count;
  if (given_up) ++place->waits.given_up;
  place->waits.nanoseconds += Nanoseconds(time);
}

DispatcherStats::Jobs Dispatcher::Summary(const KindStats& kind) {
  const auto distribution = [](const Histogram& values) {
    return Distribution{values.Percentile(0.5), values.Percentile(0.99), values.Max()};
  };
  return {kind.latency.Count(), kind.failed.load(std::memory_order_relaxed), kind.size.Sum(),
          distribution(kind.size), distribution(kind.latency)};
}

DispatcherStats Dispatcher::GetStats() const {
  DispatcherStats stats;
  stats.reads = Summary(reads_);
  stats.writes = Summary(writes_);
  stats.names = Summary(names_);
  stats.batches = batches_.load(std::memory_order_relaxed);
  const MutexLock guard(mutex_);
  stats.depth = depth_;
  stats.max_depth = max_depth_;
  for (const TagStats& tag : tags_) {
    if (tag.tag[0] != '\0') stats.waits[tag.tag.data()] = tag.waits;
  }
  return stats;
}

}  // namespace vesk
