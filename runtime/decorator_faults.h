// Makes a store fail, by rules that can be repeated.

#ifndef RUNTIME_DECORATOR_FAULTS_H_
#define RUNTIME_DECORATOR_FAULTS_H_

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "runtime/backend.h"
#include "runtime/clock.h"
#include "runtime/delay_queue.h"
#include "runtime/random.h"
#include "vesk/VeskMutex.h"

namespace vesk {

// Sets of operations, as bits.
using FaultOperations = unsigned;
constexpr FaultOperations kFaultRead = 1;
constexpr FaultOperations kFaultWrite = 2;
constexpr FaultOperations kFaultStat = 4;
constexpr FaultOperations kFaultOpen = 8;
constexpr FaultOperations kFaultCreate = 16;
constexpr FaultOperations kFaultTruncate = 32;
constexpr FaultOperations kFaultNextData = 64;
constexpr FaultOperations kFaultSync = 128;
constexpr FaultOperations kFaultRename = 256;
constexpr FaultOperations kFaultRemove = 512;
constexpr FaultOperations kFaultSetPermissions = 1024;
constexpr FaultOperations kFaultTransfers = kFaultRead | kFaultWrite;
constexpr FaultOperations kFaultAll = ~0u;  // also those without a bit of their own

// One way to fail. Operations that match it are counted as they arrive; those that fault are chosen
// by their number, or by chance, until the rule has recovered, which is for good.
struct FaultRule {
  enum class Effect {
    kError,  // ends with `error`, without reaching the store
    kShort,  // a read obtains fewer bytes than there are, at least one: a single byte stays whole
    kNever,  // held, without reaching the store, until the rule has recovered by `lasts`, faults
             // are switched off, or CancelAll
  };
  enum class When { kAlways, kNth, kEvery, kChance };

  // What matches.
  FaultOperations operations = kFaultAll;
  std::string name =
      "*";  // a pattern of fnmatch(3), whose '*' covers '/' too; either of a Rename's

  // Which of those fault.
  std::uint64_t after = 0;  // so many pass first, uncounted
  When when = When::kAlways;
  std::uint64_t number = 1;  // of kNth, which faults once; of kEvery; counted from 1
  double chance = 1;         // of kChance, from 0 to 1
  std::uint64_t seed = 1;    // of kChance and kShort

  // When it has recovered.
  std::uint64_t times = 0;  // after so many faults; 0: no limit
  Clock::Duration lasts{};  // so long after the first fault; zero: no limit

  // What comes of a fault.
  Effect effect = Effect::kError;
  int error = 0;  // of kError: a positive errno value
};

// Rules are asked in their order; the first one that lets a job fault has it, and later ones do not
// see it, as if each rule were a decorator of its own.
//   Owns     the jobs it holds
//   Before   every job has ended when it is destroyed
//   Ends in  for a job, besides the above: ENOMEM, when there is no memory to note a short read
//   Threads  any. The same jobs in the same order meet the same faults
class FaultsDecorator final : public Decorator {
 public:
  struct Counts {
    std::uint64_t matched = 0;  // jobs that the rule was asked about and that match it
    std::uint64_t faulted = 0;
  };

  //   Before   kShort is for reads alone: a write that ends well is whole
  //   Ends in  std::system_error when the thread cannot be started
  FaultsDecorator(VeskBackend& inner, const std::vector<FaultRule>& rules, Clock& clock);

  // Off: jobs pass, and no rule counts them; those that are held go down now. On again: every rule
  // goes on where it stood. It is on at first.
  void SetOn(bool on);

  // One for each rule, in their order.
  std::vector<Counts> GetCounts() const;

  void Start(JobQueue& jobs) override;
  void Run(VeskJob* job) override;

  // Back from here it would be counted twice.
  bool Withdraw(VeskJob* /*job*/) override { return false; }

  void CancelAll(int error) override;

 private:
  struct Rule : FaultRule {
    explicit Rule(const FaultRule& rule) : FaultRule(rule), random(rule.seed) {}

    Random random;
    Counts counts;
    std::optional<Clock::Time> first_fault;
  };

  void JobEnded(VeskJob* job, int result) override;
  bool Passes(VeskJob* job);
  int Judge(VeskJob* job, bool* held) VESK_REQUIRES(mutex_);
  bool Faults(Rule& rule) VESK_REQUIRES(mutex_);
  bool Recovered(const Rule& rule) VESK_REQUIRES(mutex_);

  Clock& clock_;
  mutable Mutex mutex_;  // taken before the delay queue's
  std::vector<Rule> rules_ VESK_GUARDED_BY(mutex_);
  std::map<const VeskJob*, double> short_ VESK_GUARDED_BY(mutex_);  // the part that a read obtains
  bool on_ VESK_GUARDED_BY(mutex_) = true;
  int cancelled_ VESK_GUARDED_BY(mutex_) = 0;  // CancelAll's error
  DelayQueue held_;                            // last, so that its thread ends first
};

}  // namespace vesk

#endif  // RUNTIME_DECORATOR_FAULTS_H_
