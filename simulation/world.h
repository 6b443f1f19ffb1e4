// One simulated run: clients, the file-access layer, the runtime below it, a store, and time.

#ifndef SIMULATION_WORLD_H_
#define SIMULATION_WORLD_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "files/file_handle.h"
#include "files/file_system.h"
#include "runtime/clock.h"
#include "runtime/decorator_retry.h"
#include "runtime/random.h"
#include "runtime/reaper.h"
#include "runtime/request.h"
#include "runtime/settings.h"
#include "runtime/store.h"
#include "simulation/fibers.h"
#include "simulation/model.h"
#include "simulation/scenario.h"
#include "simulation/store.h"
#include "tests/support/allocation.h"
#include "tests/support/null_logger.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskEnv.h"
#include "vesk/VeskThreadPool.h"

namespace vesk_simulation {

// What runs have done, to be added up.
struct Totals {
  std::uint64_t runs = 0;
  std::uint64_t steps = 0;
  std::uint64_t requests = 0;
  std::uint64_t failed_requests = 0;
  std::uint64_t jobs = 0;
  std::uint64_t failed_jobs = 0;  // did not take place
  std::uint64_t torn_jobs = 0;    // in part
  std::uint64_t lost_ends = 0;    // took place, and failed
  std::uint64_t no_memory = 0;
  std::uint64_t cancels = 0;
  std::uint64_t crashes = 0;
  std::uint64_t broken = 0;    // files that a failed allocation has put out of service
  std::uint64_t verified = 0;  // bytes compared
  double seconds = 0;          // simulated
  void Add(const Totals& other);
};
std::string ToText(const Totals& totals);

// Allocations that fail, other than by steps: the `nth` of the run's, and from there on all or one.
struct FailingPlan {
  long nth = 0;  // 0: none
  bool for_ever = false;
  long nth_job = 0;
  bool jobs_for_ever = false;
};

class World {
 public:
  explicit World(const Scenario& scenario, const FailingPlan& plan = {});
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  // Performs the steps, then lets everything come to its end. Nothing, or what is wrong.
  std::string Run();

  const Totals& totals() const { return totals_; }

  // There was nothing to do in the last step.
  bool idle_step() const { return idle_step_; }

  // The plan's allocation or job has been asked for.
  bool reached() const { return reached_; }

  // Told of each request that has ended, and after each step.
  std::function<void(const std::string& text)> on_end;
  std::function<void(const Step& step, const World& world)> on_step;
  std::string Describe() const;

  // What `time` says.
  std::int64_t wall() const;
  static World* current;

 private:
  struct File {
    std::string name;
    std::uint64_t inode;
    Model model;
    bool lost = false;       // of no more use until it is opened anew: a check has failed
    bool discarded = false;  // bytes were given up
    bool renaming = false;
    bool rename_failed = false;
    std::vector<Model::Id> late{};  // truncations that have outlasted their requests
  };
  struct Client {
    File* file = nullptr;
    std::unique_ptr<vesk::FileHandle> handle;
    Fibers::Id fiber = 0;  // 0: idle
    vesk::CancelToken* token = nullptr;
    std::string doing;
    bool well = false;  // how its last request has ended
  };
  class SimulatedClock;

  // Everything that a crash of the machine takes away.
  struct Machine {
    Machine(const Shape& shape, vesk::Clock& clock,
            std::map<std::string, std::shared_ptr<SimulatedStore::File>> stored);
    ~Machine();

    vesk_test::NullLogger logger;
    vesk::Settings settings;
    vesk::VeskThreadPool pool;
    vesk::VeskEnv env;
    SimulatedStore store;
    std::unique_ptr<vesk::Reaper> reaper;
    std::unique_ptr<vesk::RetryDecorator> retry;
    std::unique_ptr<vesk::VeskBundler> bundler;
    std::unique_ptr<vesk::Store> names;
    std::unique_ptr<vesk::FileSystem> files;
  };

  bool Perform(const Step& step);
  bool Cancel(Client& client);
  void FailAllocation(long nth, bool for_ever);
  void RunAll();
  void Begin(Client& client, const Step& step);
  void Request(Client& client, const Step& step);
  void Carry(Client& client, const Step& step);
  void Read(Client& client, const Step& step);
  void Write(Client& client, const Step& step);
  void Append(Client& client, const Step& step);
  void Truncate(Client& client, const Step& step);
  void Sync(Client& client);
  void Reopen(Client& client);
  void Discard(Client& client);
  void Stats(Client& client);
  void Rename(Client& client);
  void Open(Client& client);
  bool Judge(Client& client, const vesk::Status& status);
  void Note(Client& client);

  bool EndJob(const Step& step);
  Fibers::Id StartEnd(std::size_t index, Ending how, int error);
  void JumpWall(const Step& step);
  void Crash(const Step& step);
  void GiveUp();

  void Start(std::map<std::string, std::shared_ptr<SimulatedStore::File>> stored);
  void Stop();
  void Settle(const std::function<bool()>& reached, const char* what);
  void Await(std::function<void()> work, const char* what);
  bool Idle() const;
  void Finish();
  void CheckInvariants();
  void Fail(const std::string& what);
  template <typename Work>
  auto Calling(const Work& work);

  const Scenario& scenario_;
  const FailingPlan plan_;
  Totals totals_;
  std::string failure_;
  bool reached_ = false;
  bool idle_step_ = false;
  bool troubled_ = false;  // something was made to fail: errors have a cause
  bool no_memory_ = false;
  bool ending_ = false;
  long jobs_ended_ = 0;
  std::uint64_t ends_ = 0;  // of jobs, that are being told

  Fibers fibers_;
  std::unique_ptr<SimulatedClock> clock_;
  std::int64_t wall_offset_ = 1'000'000;
  bool wall_stands_ = false;
  std::int64_t wall_stood_ = 0;
  std::vector<std::unique_ptr<File>> files_;
  std::unique_ptr<Machine> machine_;
  std::vector<std::unique_ptr<Client>> clients_;
  std::unique_ptr<vesk_test::FailingAllocation> failing_;
  std::uint32_t contents_ = 0;
};

}  // namespace vesk_simulation

#endif  // SIMULATION_WORLD_H_
