#include "runtime/decorator_retry.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <new>

#include "runtime/name_operation.h"
#include "runtime/settings.h"
#include "runtime/transfer.h"
#include "runtime/transient.h"
#include "vesk/VeskJob.h"

namespace vesk {

namespace {

using std::chrono::milliseconds;

// How many parked writes a job that recovers brings forward. Several, so that a store that is back
// is soon busy: each of them brings others forward in its turn. Few, and only when a job that had
// failed is done for good, so that a store that fails again is not hammered: early tries are at
// most 8 for each such job, and none while the store takes nothing. What fails again waits longer
// than before and lets the others pass. Writes that never failed count for nothing: beside one
// broken file they succeed all the time.
constexpr unsigned kBroughtForward = 8;

bool IsWrite(const VeskJob& job) {
  return job.GetType() == JOB_TYPE_IO && job.GetOP().GetOpcode() == OPCODE_WRITE;
}

bool IsSync(const VeskJob& job) {
  return job.GetType() == JOB_TYPE_NAME && job.GetOP().GetOpcode() == OPCODE_SYNC;
}

const std::string& NameOf(const VeskJob& job) { return job.GetOP().GetString(0); }

// A null name stands for all.
bool IsWriteOf(const VeskJob& job, const std::string* name) {
  return IsWrite(job) && (name == nullptr || NameOf(job) == *name);
}

template <typename T>
T Value(const std::atomic<T>& setting) {
  return setting.load(std::memory_order_relaxed);
}

}  // namespace

RetryDecorator::RetryDecorator(VeskBackend& inner, const Settings& settings, Clock& clock,
                               std::uint64_t seed)
    : Decorator(inner),
      settings_(settings),
      clock_(clock),
      random_(seed),
      delay_(clock, [this](JobQueue& due) { Retry(due); }) {}

// ---- a try has ended; whoever calls End has done with this object, which may be gone then ----

void RetryDecorator::JobEnded(VeskJob* job, int result) {
  if (result == 0 || result == RC_EOF) {
    Succeed(job, result);
  } else {
    Fail(job, result);
  }
}

void RetryDecorator::Succeed(VeskJob* job, int result) {
  bool last_of_name = false;
  {
    const MutexLock guard(mutex_);
    if (Find(job) != nullptr) {
      Forget(job);
      ++CountsOf(*job).recovered;
      last_of_name = IsWrite(*job) && !AnyFails(NameOf(*job));
      BringForward();
    }
  }
  if (last_of_name && on_recovered_) on_recovered_(NameOf(*job));
  End(job, result);
}

void RetryDecorator::Fail(VeskJob* job, int error) {
  bool keep = false;
  bool news = false;
  unsigned tries = 1;
  {
    const MutexLock guard(mutex_);
    const Failing* const failing = Note(job, error, &news);
    keep = Keeps(*job, failing);
    if (failing != nullptr) tries = failing->tries;
  }
  // Before the job is parked: from then on it may end, and be freed, at any moment.
  if (keep && news && IsWrite(*job)) Tell(*job, error, tries, false);
  if (keep && Park(job)) return;
  GiveUp(job, error);
}

// Null: there is no memory for it.
RetryDecorator::Failing* RetryDecorator::Note(VeskJob* job, int error, bool* news) {
  Failing* failing = Find(job);
  *news = failing == nullptr || failing->error != error;
  const Clock::Time now = clock_.Now();
  if (failing != nullptr) {
    ++failing->tries;
  } else {
    try {
      failing = &failing_[job];
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
    failing->since = now;
    if (IsWrite(*job)) {
      ++parked_jobs_;
      parked_bytes_ += Transfer(job->GetOP()).length;
    }
  }
  failing->error = error;
  failing->latest = now;
  if (IsWrite(*job) && abandoned_.count(NameOf(*job)) != 0) failing->discarded = true;
  return failing;
}

RetryDecorator::Failing RetryDecorator::Forget(VeskJob* job) {
  const auto place = failing_.find(job);
  if (place == failing_.end()) return {};
  const Failing failing = place->second;
  failing_.erase(place);
  if (IsWrite(*job)) {
    --parked_jobs_;
    parked_bytes_ -= Transfer(job->GetOP()).length;
  }
  return failing;
}

RetryDecorator::Failing* RetryDecorator::Find(const VeskJob* job) {
  const auto place = failing_.find(job);
  return place == failing_.end() ? nullptr : &place->second;
}

bool RetryDecorator::Keeps(const VeskJob& job, const Failing* failing) {
  if (cancelled_ != 0) return false;
  if (failing == nullptr) {  // tries that are not counted would not end
    return IsWrite(job) && abandoned_.count(NameOf(job)) == 0;
  }
  if (IsWrite(job)) return !failing->discarded && WithinLimits(*failing);
  return IsTransient(failing->error) && !IsSync(job) &&
         failing->tries < Value(settings_.retry_read_attempts);
}

// The failing write is counted among the others already.
bool RetryDecorator::WithinLimits(const Failing& failing) {
  const std::uint64_t jobs = Value(settings_.retry_parked_jobs);
  const std::uint64_t bytes = Value(settings_.retry_parked_bytes);
  const milliseconds age(Value(settings_.retry_parked_age_ms));
  return (jobs == 0 || parked_jobs_ <= jobs) && (bytes == 0 || parked_bytes_ <= bytes) &&
         (age.count() == 0 || clock_.Now() - failing.since < age);
}

// False: it may not wait here any more. Asked again, since the mutex was given up, and under the
// same hold of it as the queue is filled: CancelAll and Discard would not find the job otherwise.
bool RetryDecorator::Park(VeskJob* job) {
  const MutexLock guard(mutex_);
  const Failing* const failing = Find(job);
  if (!Keeps(*job, failing)) return false;
  delay_.Add(job, NextTry(*job, failing));
  return true;
}

// A write has its last try when it reaches the age limit.
Clock::Time RetryDecorator::NextTry(const VeskJob& job, const Failing* failing) {
  if (failing == nullptr) return clock_.Now() + BackOff(1);
  const Clock::Time next = clock_.Now() + BackOff(failing->tries);
  const milliseconds age(Value(settings_.retry_parked_age_ms));
  return IsWrite(job) && age.count() != 0 ? std::min(next, failing->since + age) : next;
}

// Exponential, with "equal jitter": half of the delay is fixed, the other half random, so that jobs
// which failed together do not come back together (M. Brooker, "Exponential Backoff And Jitter",
// 2015).
Clock::Duration RetryDecorator::BackOff(unsigned tries) {
  const std::int64_t longest = Value(settings_.retry_longest_delay_ms);
  std::int64_t delay = Value(settings_.retry_first_delay_ms);
  for (unsigned i = 1; i < tries && delay < longest; ++i) delay *= 2;
  const std::chrono::duration<double, std::milli> jittered(
      static_cast<double>(std::min(delay, longest)) * (0.5 + 0.5 * random_.Fraction()));
  return std::chrono::duration_cast<Clock::Duration>(jittered);
}

void RetryDecorator::GiveUp(VeskJob* job, int error) {
  Failing failing;
  {
    const MutexLock guard(mutex_);
    failing = Forget(job);
    Counts& counts = CountsOf(*job);
    if (failing.discarded) {
      ++counts.discarded;
    } else if (IsWrite(*job) || failing.tries > 1) {
      ++counts.given_up;
    }
  }
  if (IsWrite(*job)) Tell(*job, error, failing.tries, true);
  End(job, error);
}

void RetryDecorator::Tell(const VeskJob& job, int error, unsigned attempts, bool given_up) const {
  if (!on_failure_) return;
  const Transfer write(job.GetOP());
  on_failure_(
      {write.name, write.offset, write.length, error, IsTransient(error), attempts, given_up});
}

// ---- parked jobs leave ----

// Through the delay queue's thread: jobs may end inside Start, and each end may bring others
// forward, so that starting them here could go as deep as there are jobs.
void RetryDecorator::BringForward() {
  if (brought_forward_) return;  // those first: others would only take their place
  JobQueue next;
  delay_.Take(IsWrite, next, kBroughtForward);
  brought_forward_ = !next.Empty();
  const Clock::Time now = clock_.Now();
  while (!next.Empty()) delay_.Add(next.Pop(), now);
}

void RetryDecorator::Retry(JobQueue& due) {
  JobQueue batch;
  {
    const MutexLock guard(mutex_);
    brought_forward_ = false;
    while (!due.Empty()) {
      ++CountsOf(*due.First()).retried;
      batch.Push(due.Pop());
    }
  }
  inner().Start(batch);
}

// An owner that took back a job that is being tried again could end it without this object, and
// leave its record to the next job at that address. The mutex is held so that the job's first try
// does not fail in between; stores take it while they hold none of theirs.
bool RetryDecorator::Withdraw(VeskJob* job) {
  const MutexLock guard(mutex_);
  return Find(job) == nullptr && inner().Withdraw(job);
}

void RetryDecorator::Abandon(const std::string& name) {
  {
    const MutexLock guard(mutex_);
    abandoned_.insert(name);
  }
  Discard(name);
}

void RetryDecorator::KeepAgain(const std::string& name) {
  const MutexLock guard(mutex_);
  abandoned_.erase(abandoned_.find(name));
}

std::size_t RetryDecorator::DiscardIf(const std::string* name) {
  std::size_t count = 0;
  JobQueue parked;
  {
    const MutexLock guard(mutex_);
    for (auto& [job, failing] : failing_) {
      if (!IsWriteOf(*job, name) || failing.discarded) continue;
      failing.discarded = true;
      ++count;
    }
    delay_.Take([name](const VeskJob& job) { return IsWriteOf(job, name); }, parked);
  }
  while (!parked.Empty()) {
    VeskJob* const job = parked.Pop();
    int error = EIO;  // of a write without a record
    {
      const MutexLock guard(mutex_);
      const Failing* const failing = Find(job);
      if (failing == nullptr) {
        ++count;
      } else {
        error = failing->error;
      }
    }
    GiveUp(job, error);
  }
  return count;
}

void RetryDecorator::CancelAll(int error) {
  JobQueue parked;
  {
    const MutexLock guard(mutex_);
    cancelled_ = error;
    delay_.Take([](const VeskJob& /*job*/) { return true; }, parked);
  }
  while (!parked.Empty()) GiveUp(parked.Pop(), error);
  inner().CancelAll(error);
}

// ---- what it has ----

bool RetryDecorator::AnyFails(const std::string& name) const {
  return std::any_of(failing_.begin(), failing_.end(),
                     [&name](const auto& entry) { return IsWriteOf(*entry.first, &name); });
}

RetryDecorator::Parked RetryDecorator::Sum(const std::string* name) const {
  const MutexLock guard(mutex_);
  const Clock::Time now = clock_.Now();
  Parked sum;
  Clock::Time latest{};
  for (const auto& [job, failing] : failing_) {
    if (!IsWriteOf(*job, name)) continue;
    ++sum.jobs;
    sum.bytes += Transfer(job->GetOP()).length;
    sum.age = std::max(sum.age, now - failing.since);
    if (failing.latest < latest) continue;
    latest = failing.latest;
    sum.error = failing.error;
  }
  return sum;
}

RetryDecorator::Counts& RetryDecorator::CountsOf(const VeskJob& job) {
  return IsWrite(job) ? totals_.writes : totals_.others;
}

RetryDecorator::Totals RetryDecorator::GetTotals() const {
  const MutexLock guard(mutex_);
  return totals_;
}

}  // namespace vesk
