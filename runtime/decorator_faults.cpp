#include "runtime/decorator_faults.h"

#include <fnmatch.h>

#include <cerrno>
#include <new>

#include "runtime/name_operation.h"
#include "runtime/transfer.h"
#include "vesk/VeskJob.h"

namespace vesk {

namespace {

bool IsName(const VeskJob& job) { return job.GetType() == JOB_TYPE_NAME; }

// 0: an operation without a bit of its own.
FaultOperations OperationOf(const VeskJob& job) {
  const unsigned int code = job.GetOP().GetOpcode();
  if (!IsName(job)) return code == OPCODE_WRITE ? kFaultWrite : kFaultRead;
  switch (code) {
    case OPCODE_STAT: return kFaultStat;
    case OPCODE_OPEN: return kFaultOpen;
    case OPCODE_CREATE: return kFaultCreate;
    case OPCODE_TRUNCATE: return kFaultTruncate;
    case OPCODE_NEXT_DATA: return kFaultNextData;
    case OPCODE_SYNC: return kFaultSync;
    case OPCODE_RENAME: return kFaultRename;
    case OPCODE_REMOVE: return kFaultRemove;
    case OPCODE_SET_PERMISSIONS: return kFaultSetPermissions;
    default: return 0;
  }
}

bool NameMatches(const FaultRule& rule, const VeskJob& job) {
  const auto matches = [&rule](const std::string& name) {
    return fnmatch(rule.name.c_str(), name.c_str(), 0) == 0;
  };
  const VeskOP& op = job.GetOP();
  if (matches(op.GetString(0))) return true;
  return IsName(job) && op.GetOpcode() == OPCODE_RENAME && matches(NameOperation(op).other);
}

bool Matches(const FaultRule& rule, const VeskJob& job) {
  if (rule.operations != kFaultAll && (rule.operations & OperationOf(job)) == 0) return false;
  return NameMatches(rule, job);
}

// Leaves one byte or more, since none at all would be the end of the file.
void Shorten(const Transfer& read, double part) {
  const std::size_t moved = read.Moved();
  if (moved < 2) return;
  read.StoreCount(1 + static_cast<std::size_t>(static_cast<double>(moved - 1) * part));
}

}  // namespace

FaultsDecorator::FaultsDecorator(VeskBackend& inner, const std::vector<FaultRule>& rules,
                                 Clock& clock)
    : Decorator(inner),
      clock_(clock),
      rules_(rules.begin(), rules.end()),
      held_(clock, [this](JobQueue& due) { this->inner().Start(due); }) {}

void FaultsDecorator::SetOn(bool on) {
  JobQueue freed;
  {
    const MutexLock guard(mutex_);
    on_ = on;
    if (!on) held_.Take([](const VeskJob& /*job*/) { return true; }, freed);
  }
  if (!freed.Empty()) inner().Start(freed);
}

std::vector<FaultsDecorator::Counts> FaultsDecorator::GetCounts() const {
  const MutexLock guard(mutex_);
  std::vector<Counts> counts;
  for (const Rule& rule : rules_) counts.push_back(rule.counts);
  return counts;
}

// ---- jobs ----

void FaultsDecorator::Start(JobQueue& jobs) {
  JobQueue passing;
  while (!jobs.Empty()) {
    VeskJob* const job = jobs.Pop();
    if (Passes(job)) passing.Push(job);
  }
  if (!passing.Empty()) inner().Start(passing);
}

void FaultsDecorator::Run(VeskJob* job) {
  if (Passes(job)) inner().Run(job);
}

// False: it has ended, or is held.
bool FaultsDecorator::Passes(VeskJob* job) {
  int error = 0;
  bool held = false;
  {
    const MutexLock guard(mutex_);
    try {
      error = Judge(job, &held);
    } catch (const std::bad_alloc&) {
      error = ENOMEM;
    }
  }
  if (error != 0) End(job, error);
  return error == 0 && !held;
}

// What the job ends with; 0: it does not, because it passes or is held.
int FaultsDecorator::Judge(VeskJob* job, bool* held) {
  if (cancelled_ != 0) return cancelled_;
  if (!on_) return 0;
  for (Rule& rule : rules_) {
    if (!Matches(rule, *job) || !Faults(rule)) continue;
    switch (rule.effect) {
      case FaultRule::Effect::kError: return rule.error;
      case FaultRule::Effect::kShort: short_.emplace(job, rule.random.Fraction()); return 0;
      case FaultRule::Effect::kNever:
        *held = true;  // from here on it may leave at any moment
        held_.Add(job, rule.lasts == Clock::Duration::zero() ? Clock::kNever
                                                             : *rule.first_fault + rule.lasts);
        return 0;
    }
  }
  return 0;
}

bool FaultsDecorator::Faults(Rule& rule) {
  ++rule.counts.matched;
  if (rule.counts.matched <= rule.after || Recovered(rule)) return false;
  const std::uint64_t number = rule.counts.matched - rule.after;
  bool faults = true;
  switch (rule.when) {
    case FaultRule::When::kAlways: break;
    case FaultRule::When::kNth: faults = number == rule.number; break;
    case FaultRule::When::kEvery: faults = number % rule.number == 0; break;
    case FaultRule::When::kChance: faults = rule.random.Fraction() < rule.chance; break;
  }
  if (!faults) return false;
  ++rule.counts.faulted;
  if (!rule.first_fault) rule.first_fault = clock_.Now();
  return true;
}

bool FaultsDecorator::Recovered(const Rule& rule) {
  if (rule.times != 0 && rule.counts.faulted >= rule.times) return true;
  return rule.lasts != Clock::Duration::zero() && rule.first_fault &&
         clock_.Now() - *rule.first_fault >= rule.lasts;
}

void FaultsDecorator::JobEnded(VeskJob* job, int result) {
  std::optional<double> part;
  {
    const MutexLock guard(mutex_);
    const auto place = short_.find(job);
    if (place != short_.end()) {
      part = place->second;
      short_.erase(place);
    }
  }
  if (part && result == 0) Shorten(Transfer(job->GetOP()), *part);
  End(job, result);
}

void FaultsDecorator::CancelAll(int error) {
  JobQueue held;
  {
    const MutexLock guard(mutex_);
    cancelled_ = error;
    held_.Take([](const VeskJob& /*job*/) { return true; }, held);
  }
  while (!held.Empty()) End(held.Pop(), error);
  inner().CancelAll(error);
}

}  // namespace vesk
