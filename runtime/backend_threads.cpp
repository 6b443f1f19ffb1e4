#include "runtime/backend_threads.h"

#include <utility>

#include "vesk/VeskJob.h"

namespace vesk {

ThreadsBackend::ThreadsBackend(const Options& options)
    : ThreadsBackend(options.threads, std::make_shared<PosixFiles>(options.files)) {}

ThreadsBackend::ThreadsBackend(std::size_t threads, std::shared_ptr<PosixFiles> files)
    : files_(std::move(files)) {
  try {
    threads_.reserve(threads);
    for (std::size_t i = 0; i < threads; ++i) threads_.emplace_back([this] { Work(); });
  } catch (...) {
    EndThreads();
    throw;
  }
}

ThreadsBackend::~ThreadsBackend() { EndThreads(); }

void ThreadsBackend::EndThreads() {
  {
    const MutexLock guard(mutex_);
    ending_ = true;
  }
  work_.WakeAll();
  for (std::thread& thread : threads_) thread.join();
}

void ThreadsBackend::Start(JobQueue& jobs) {
  JobQueue to_queue;
  if (Cancelled()) to_queue.Take(jobs);
  while (!jobs.Empty()) {
    VeskJob* const job = jobs.Pop();
    int result = 0;
    if (files_->TryPerform(*job, &result)) {
      End(job, result);
    } else {
      to_queue.Push(job);
    }
  }
  if (to_queue.Empty()) return;
  int cancelled = 0;
  {
    const MutexLock guard(mutex_);
    cancelled = cancelled_;
    if (cancelled == 0) queue_.Take(to_queue);
  }
  while (!to_queue.Empty()) End(to_queue.Pop(), cancelled);
  work_.WakeAll();
}

bool ThreadsBackend::Cancelled() {
  const MutexLock guard(mutex_);
  return cancelled_ != 0;
}

void ThreadsBackend::Run(VeskJob* job) { End(job, files_->Perform(*job)); }

bool ThreadsBackend::Withdraw(VeskJob* job) {
  const MutexLock guard(mutex_);
  if (!queue_.Holds(job)) return false;
  queue_.Remove(job);
  return true;
}

void ThreadsBackend::CancelAll(int error) {
  JobQueue queued;
  {
    const MutexLock guard(mutex_);
    cancelled_ = error;
    queued.Take(queue_);
  }
  while (!queued.Empty()) End(queued.Pop(), error);
}

void ThreadsBackend::Work() {
  MutexLock guard(mutex_);
  for (;;) {
    while (!ending_ && queue_.Empty()) work_.Wait(mutex_);
    if (queue_.Empty()) return;
    VeskJob* const job = queue_.Pop();
    guard.Unlock();
    Run(job);
    guard.Lock();
  }
}

}  // namespace vesk
