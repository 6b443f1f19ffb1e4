#include "simulation/world.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "runtime/dispatcher.h"
#include "simulation/inspector.h"

namespace vesk_simulation {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using vesk::RequestLimits;
using vesk::RequestScope;
using vesk::Status;

constexpr unsigned kAnyNumber = 1'000'000;
constexpr std::array<unsigned, 8> kPoints = {0, 1, 3, 8, 30, kAnyNumber, kAnyNumber, kAnyNumber};
constexpr std::array<int, 4> kErrors = {EIO, ENOSPC, ETIMEDOUT, EAGAIN};

// Longest that anything may take once nothing fails any more.
constexpr vesk::Clock::Duration kPatience = std::chrono::minutes(10);
constexpr unsigned kRounds = 400'000;

unsigned PointsOf(const Step& step) { return kPoints[step.c % kPoints.size()]; }

std::string NameOf(std::size_t index) { return std::string(1, static_cast<char>('a' + index)); }

}  // namespace

void Totals::Add(const Totals& other) {
  runs += other.runs;
  steps += other.steps;
  requests += other.requests;
  failed_requests += other.failed_requests;
  jobs += other.jobs;
  failed_jobs += other.failed_jobs;
  torn_jobs += other.torn_jobs;
  lost_ends += other.lost_ends;
  no_memory += other.no_memory;
  cancels += other.cancels;
  crashes += other.crashes;
  broken += other.broken;
  verified += other.verified;
  seconds += other.seconds;
}

std::string ToText(const Totals& totals) {
  std::ostringstream text;
  text << totals.runs << " runs, " << totals.steps << " steps, " << totals.requests << " requests ("
       << totals.failed_requests << " ended in an error), " << totals.jobs
       << " jobs; faults: " << totals.failed_jobs << " jobs failed, " << totals.torn_jobs
       << " in part, " << totals.lost_ends << " took place and failed, " << totals.no_memory
       << " allocations failed, " << totals.cancels << " requests called off, " << totals.crashes
       << " crashes; " << totals.broken << " files put out of service; " << totals.verified
       << " bytes verified; " << static_cast<std::uint64_t>(totals.seconds / 3600)
       << " simulated hours";
  return text.str();
}

class World::SimulatedClock final : public vesk::Clock {
 public:
  explicit SimulatedClock(Fibers& fibers) : fibers_(fibers) {}

  Time Now() override { return fibers_.now; }
  void WaitUntil(vesk::Condition& condition, vesk::Mutex& mutex, Time until) override
      VESK_REQUIRES(mutex) {
    condition.WaitUntil(mutex, until);
  }

 private:
  Fibers& fibers_;
};

World* World::current = nullptr;

// ---- a machine ----

World::Machine::Machine(const Shape& shape, vesk::Clock& clock,
                        std::map<std::string, std::shared_ptr<SimulatedStore::File>> stored)
    : env{&pool, &logger, &settings}, store(shape.withdraws != 0, static_cast<Lie>(shape.lies)) {
  store.Restore(std::move(stored));
  settings.refresh_interval = static_cast<int>(shape.refresh);
  settings.retry_first_delay_ms = 1;
  settings.retry_longest_delay_ms = 20;
  vesk::gEnv = &env;
  if (shape.reaper != 0) reaper = std::make_unique<vesk::Reaper>(pool, 1);
  if (shape.retry != 0) {
    retry = std::make_unique<vesk::RetryDecorator>(store, settings, clock, shape.chance);
    retry->OnWriteFailure([this](const vesk::WriteFailure& failure) {
      if (reaper != nullptr) reaper->WriteFails(failure);
    });
  }
  vesk::VeskBackend& top = retry != nullptr ? static_cast<vesk::VeskBackend&>(*retry) : store;
  bundler = std::make_unique<vesk::VeskBundler>(top, clock);
  if (reaper != nullptr) {
    bundler->dispatcher().OnEnd([this](const std::string& name) { reaper->JobEnded(name); });
  }
  names = std::make_unique<vesk::Store>(*bundler);

  vesk::FileSystemOptions options;
  options.memory = shape.memory;
  options.block_size = shape.block_size;
  options.read_ahead = shape.read_ahead;
  options.dirty_soft = shape.dirty_soft;
  options.dirty_hard = shape.dirty_hard;
  options.dirty_age = milliseconds(shape.dirty_age_ms);
  options.when_unknown =
      shape.fail_unknown != 0 ? vesk::UnknownPolicy::kFail : vesk::UnknownPolicy::kServe;
  options.background = shape.background != 0;
  files = std::make_unique<vesk::FileSystem>(
      vesk::Services{*bundler, clock, reaper.get(), retry.get()}, *names, options);
}

World::Machine::~Machine() {
  files.reset();
  names.reset();
  bundler.reset();
  retry.reset();
  reaper.reset();
  vesk::gEnv = nullptr;
}

// ---- the run ----

World::World(const Scenario& scenario, const FailingPlan& plan)
    : scenario_(scenario), plan_(plan), clock_(std::make_unique<SimulatedClock>(fibers_)) {
  current = this;
  fibers_.now = Fibers::Time(std::chrono::hours(1));
  vesk_test::CountAllocationsIf([] { return Fibers::MayFail(); });
}

World::~World() {
  // Where something is stuck it is left as it is: fibers are inside.
  if (machine_ != nullptr) (void)machine_.release();
  for (const std::unique_ptr<Client>& client : clients_) (void)client->handle.release();
  current = nullptr;
}

std::int64_t World::wall() const {
  if (wall_stands_) return wall_stood_;
  return wall_offset_ + std::chrono::duration_cast<seconds>(fibers_.now.time_since_epoch()).count();
}

std::string World::Run() {
  ++totals_.runs;
  const Shape& shape = scenario_.shape;
  std::map<std::string, std::shared_ptr<SimulatedStore::File>> stored;
  for (std::size_t i = 0; i < std::max(shape.files, 1u); ++i) {
    std::string bytes(std::min<std::uint64_t>(shape.size, Model::kMostBytes / 2), '\0');
    for (std::size_t k = 0; k < bytes.size(); ++k) {
      bytes[k] = static_cast<char>(1 + (k * 7 + i * 13 + shape.chance) % 255);
    }
    files_.push_back(std::make_unique<File>(File{NameOf(i), 100 + i, Model(bytes)}));
    auto file = std::make_shared<SimulatedStore::File>();
    file->inode = 100 + i;
    file->bytes = file->durable = bytes;
    stored[NameOf(i)] = std::move(file);
  }
  for (std::size_t i = 0; i < std::max(shape.clients, 1u); ++i) {
    clients_.push_back(std::make_unique<Client>());
    clients_.back()->file = files_[i % files_.size()].get();
  }
  Start(std::move(stored));
  // A store that answers too late cannot tell whether its file has changed.
  if (shape.fail_unknown != 0 && shape.refresh != 0) troubled_ = true;
  if (plan_.nth > 0) FailAllocation(plan_.nth, plan_.for_ever);
  const Fibers::Time begin = fibers_.now;
  for (const Step& step : scenario_.steps) {
    if (!failure_.empty()) break;
    idle_step_ = !Perform(step);
    if (shape.eager != 0) RunAll();
    ++totals_.steps;
    CheckInvariants();
    if (on_step) on_step(step, *this);
  }
  if (failure_.empty()) Finish();
  totals_.seconds +=
      std::chrono::duration_cast<std::chrono::duration<double>>(fibers_.now - begin).count();
  for (const std::unique_ptr<File>& file : files_) totals_.verified += file->model.verified();
  return failure_;
}

void World::Fail(const std::string& what) {
  if (failure_.empty() && !ending_) failure_ = what;
}

void World::Start(std::map<std::string, std::shared_ptr<SimulatedStore::File>> stored) {
  Await([&] { machine_ = std::make_unique<Machine>(scenario_.shape, *clock_, std::move(stored)); },
        "the start");
  for (const std::unique_ptr<Client>& client : clients_) {
    Await([&] { Open(*client); }, "the opening of a file");
  }
}

// Files and runtime end; clients are idle and have closed.
void World::Stop() {
  Await(
      [this] {
        const RequestScope scope({fibers_.now + seconds(1), nullptr});
        for (const std::unique_ptr<Client>& client : clients_) client->handle.reset();
        machine_->files.reset();
        machine_->bundler->dispatcher().Shutdown(fibers_.now, fibers_.now + seconds(1));
        const SimulatedStore::Counts& counts = machine_->store.counts();
        totals_.jobs += counts.jobs;
        totals_.failed_jobs += counts.failed;
        totals_.torn_jobs += counts.torn;
        totals_.lost_ends += counts.failed_behind;
        machine_.reset();
      },
      "the end");
}

// Runs what belongs to the product: there an allocation may fail.
template <typename Work>
auto World::Calling(const Work& work) {
  class MayFail {
   public:
    MayFail() { Fibers::MayFail() = true; }
    ~MayFail() { Fibers::MayFail() = false; }
    MayFail(const MayFail&) = delete;
    MayFail& operator=(const MayFail&) = delete;
  };
  const MayFail scope;
  return work();
}

// Everything runs, nothing fails, and time goes by where all wait for it.
void World::Settle(const std::function<bool()>& reached, const char* what) {
  const Fibers::Time watchdog = fibers_.now + kPatience;
  for (unsigned round = 0; round < kRounds && fibers_.now <= watchdog; ++round) {
    if (reached() || !failure_.empty()) return;
    const std::vector<Fibers::Id> runnable = fibers_.Runnable();
    if (!runnable.empty()) {
      for (const Fibers::Id id : runnable) {
        if (fibers_.CanRun(id)) fibers_.Run(id, kAnyNumber);
      }
    } else if (machine_ != nullptr && machine_->store.waiting() > 0) {
      StartEnd(0, Ending::kWell, 0);
    } else if (fibers_.NextTime() != Fibers::kNever) {
      fibers_.now = std::max(fibers_.now, fibers_.NextTime());
    } else {
      break;
    }
  }
  ending_ = false;
  Fail(std::string(what) + " does not come, though nothing fails any more:\n" + Describe());
}

void World::Await(std::function<void()> work, const char* what) {
  const Fibers::Id id = fibers_.Start(std::move(work), what);
  Settle([this, id] { return fibers_.Ended(id); }, what);
}

bool World::Idle() const {
  return std::all_of(clients_.begin(), clients_.end(),
                     [](const std::unique_ptr<Client>& client) { return client->fiber == 0; });
}

void World::Finish() {
  FailAllocation(0, false);
  Settle([this] { return Idle(); }, "the end of a request");
  for (const std::unique_ptr<Client>& client : clients_) {
    if (!failure_.empty() || client->handle == nullptr || client->file->lost) continue;
    Await(
        [&] {
          int error = 1;
          for (int tries = 0; tries < 4 && error != 0; ++tries) {
            const Model::Tick begin = client->file->model.BeginSync();
            error = client->handle->Sync().error();
            if (error == 0) client->file->model.EndSync(begin);
            if (client->handle->Broken()) Note(*client);
            if (client->file->lost) return;
          }
          if (error != 0) Fail("a sync ends in error " + std::to_string(error) + " for ever");
        },
        "the last sync");
  }
  for (const std::unique_ptr<File>& file : files_) {
    if (!failure_.empty()) return;
    const SimulatedStore::File* const stored = &machine_->store.Find(file->inode);
    std::string wrong = file->model.CheckAfterCrash(stored->durable);
    if (wrong.empty() && !file->lost) wrong = file->model.CheckNow(stored->bytes);
    if (!wrong.empty()) Fail("after the last sync of '" + file->name + "' " + wrong);
  }
  for (const std::unique_ptr<Client>& client : clients_) {
    if (!failure_.empty() || client->handle == nullptr || client->file->lost) continue;
    Await(
        [&] {
          std::string bytes(Model::kMostBytes + 1, '?');
          std::size_t moved = 0;
          Status status = client->handle->ReadAt(bytes.data(), bytes.size(), 0, &moved);
          if (!status.ok()) return Fail("the last read: " + status.Message());
          std::string stored = machine_->store.Find(client->file->inode).bytes;
          // A file whose last bytes were given up keeps its size.
          if (client->file->discarded && moved > stored.size()) stored.resize(moved, '\0');
          if (bytes.substr(0, moved) != stored) {
            Fail("the last read differs from the store: " + std::to_string(moved) + " bytes, " +
                 std::to_string(stored.size()) + " in the store");
          }
          for (int tries = 0; tries < 3; ++tries) {
            status = client->handle->Close();
            if (status.ok()) return;
          }
          Fail("the last close: " + status.Message());
        },
        "the last close");
  }
  const bool lost = std::any_of(files_.begin(), files_.end(),
                                [](const std::unique_ptr<File>& file) { return file->lost; });
  if (!lost && failure_.empty()) {
    Settle([this] { return machine_->store.waiting() == 0; }, "the end of the jobs");
    if (!machine_->files->GetFiles().empty()) Fail("a file is open after the last close");
    if (machine_->files->memory_used() != 0) {
      Fail(std::to_string(machine_->files->memory_used()) +
           " bytes of memory after the last close");
    }
  }
  if (failure_.empty()) Stop();
}

void World::CheckInvariants() {
  if (!failure_.empty() || machine_ == nullptr) return;
  if (machine_->files->memory_used() > scenario_.shape.memory) {
    Fail("more memory is used than there may be: " +
         std::to_string(machine_->files->memory_used()));
  }
  const bool lost = std::any_of(files_.begin(), files_.end(),
                                [](const std::unique_ptr<File>& file) { return file->lost; });
  if (!lost && !machine_->store.overlap().empty()) Fail(machine_->store.overlap());
  const std::string wrong = Inspector::Check(*machine_->files, Idle(), ends_);
  if (!wrong.empty()) Fail(wrong);
}

std::string World::Describe() const {
  std::string text = fibers_.Describe();
  for (std::size_t i = 0; i < clients_.size(); ++i) {
    if (clients_[i]->fiber != 0) {
      text += "  client " + std::to_string(i) + ": " + clients_[i]->doing + "\n";
    }
  }
  if (machine_ != nullptr) {
    text += "  jobs in the store: " + std::to_string(machine_->store.waiting()) + "\n";
    if (machine_->files != nullptr) text += Inspector::Describe(*machine_->files);
  }
  return text;
}

// ---- steps ----

// False: there was nothing to do.
bool World::Perform(const Step& step) {
  Client& client = *clients_[step.who % clients_.size()];
  switch (step.what) {
    case Do::kRun: {
      const std::vector<Fibers::Id> runnable = fibers_.Runnable();
      if (runnable.empty()) return false;
      fibers_.Run(runnable[step.who % runnable.size()], PointsOf(step));
      return true;
    }
    case Do::kEnd: return EndJob(step);
    case Do::kAdvance: {
      constexpr std::array<std::int64_t, 4> kTimes = {1, 30, 1000, 70'000};
      fibers_.now += milliseconds(kTimes[step.a % kTimes.size()]);
      return true;
    }
    case Do::kWall: JumpWall(step); return true;
    case Do::kCancel: return Cancel(client);
    case Do::kFailAllocation: FailAllocation(1 + step.a % 64, false); return true;
    case Do::kCrash: Crash(step); return true;
    default: {
      const bool begins = client.fiber == 0;
      if (begins) Begin(client, step);
      if (!fibers_.CanRun(client.fiber)) return begins;
      fibers_.Run(client.fiber, PointsOf(step));
      return true;
    }
  }
}

bool World::Cancel(Client& client) {
  if (client.token == nullptr) return false;
  troubled_ = true;
  ++totals_.cancels;
  // To its end, or the token may be gone.
  Await(
      [&client] {
        if (client.token != nullptr) client.token->Cancel();
      },
      "a cancel");
  return true;
}

// nth 0: none fails any more.
void World::FailAllocation(long nth, bool for_ever) {
  if (failing_ != nullptr && failing_->Fired()) {
    reached_ = true;
    ++totals_.no_memory;
  }
  failing_.reset();
  if (nth == 0) return;
  no_memory_ = troubled_ = true;
  failing_ = std::make_unique<vesk_test::FailingAllocation>(nth, for_ever);
}

// Everything runs that can.
void World::RunAll() {
  for (unsigned round = 0; round < kRounds; ++round) {
    const std::vector<Fibers::Id> runnable = fibers_.Runnable();
    if (runnable.empty()) return;
    for (const Fibers::Id id : runnable) {
      if (fibers_.CanRun(id)) fibers_.Run(id, kAnyNumber);
    }
  }
}

bool World::EndJob(const Step& step) {
  const std::size_t waiting = machine_->store.waiting();
  if (waiting == 0 || (scenario_.shape.eager != 0 && step.who >= waiting)) return false;
  const std::size_t index = step.who % waiting;
  auto how = static_cast<Ending>(step.b % 4);
  ++jobs_ended_;
  if (plan_.nth_job > 0 &&
      (jobs_ended_ == plan_.nth_job || (plan_.jobs_for_ever && jobs_ended_ > plan_.nth_job))) {
    how = Ending::kFails;
    reached_ = true;
  }
  if (how != Ending::kWell) troubled_ = true;
  const int error = kErrors[step.a % kErrors.size()];
  fibers_.Run(StartEnd(index, how, error), PointsOf(step));
  return true;
}

Fibers::Id World::StartEnd(std::size_t index, Ending how, int error) {
  return fibers_.Start(
      [this, index, how, error] {
        ++ends_;
        Calling([&] { machine_->store.EndOne(index, how, error); });
        --ends_;
      },
      "end of a job");
}

void World::JumpWall(const Step& step) {
  constexpr std::array<std::int64_t, 6> kJumps = {-100'000, -1, 1, 2, 61, 1'000'000};
  if (step.b % 4 == 0) {
    wall_stood_ = wall();
    wall_stands_ = !wall_stands_;
  } else {
    wall_offset_ += kJumps[step.a % kJumps.size()];
  }
}

void World::Crash(const Step& step) {
  ++totals_.crashes;
  FailAllocation(0, false);
  vesk::Random random(scenario_.shape.chance + step.a * 1000003ull);
  auto stored = machine_->store.Crash(random);
  for (const std::unique_ptr<File>& file : files_) {
    for (const auto& [name, left] : stored) {
      if (left->inode == file->inode) file->name = name;
    }
    const std::string wrong = file->model.CheckAfterCrash(stored[file->name]->bytes);
    if (!wrong.empty()) return Fail("'" + file->name + "': " + wrong);
  }
  // What runs comes to its end somehow, and nobody looks at what it says. Each round lets a write
  // that waits for room go on by a piece; the last one finds nobody there.
  ending_ = true;
  bool idle = false;
  for (int round = 0; round < 3000 && !idle; ++round) {
    idle = Idle();
    Await([this] { GiveUp(); }, "the end of the jobs at a crash");
    const Fibers::Time until = fibers_.now + milliseconds(200);
    Settle([this, until] { return Idle() || fibers_.now > until; }, "a crash");
  }
  if (!idle) failure_ = "requests do not end, though their store ends every job:\n" + Describe();
  const bool stuck = !failure_.empty();
  if (!stuck) Stop();
  ending_ = false;
  if (!failure_.empty()) return;
  for (const std::unique_ptr<File>& file : files_) {
    file->model.Reset(stored[file->name]->bytes);
    file->lost = file->discarded = file->rename_failed = false;
    file->late.clear();
  }
  Start(std::move(stored));
}

// The store ends every job in an error, and what is dirty is given up.
void World::GiveUp() {
  const RequestScope scope({fibers_.now, nullptr});
  machine_->bundler->dispatcher().Shutdown(fibers_.now, fibers_.now);
  for (const std::unique_ptr<Client>& client : clients_) {
    if (client->handle != nullptr) client->handle->Discard();
  }
}

// ---- requests ----

void World::Begin(Client& client, const Step& step) {
  client.doing = ToText(step);
  ++totals_.requests;
  client.fiber = fibers_.Start(
      [this, &client, step] {
        RequestLimits limits;
        vesk::CancelToken token;
        // A rename that outlasts its request may take place at any time.
        switch (step.what == Do::kRename ? 0 : (step.c >> 4) % 8) {
          case 1: limits.deadline = fibers_.now; break;
          case 2: limits.deadline = fibers_.now + milliseconds(1); break;
          case 3: limits.deadline = fibers_.now + milliseconds(50); break;
          case 4: limits.deadline = fibers_.now + seconds(1); break;
          case 5: limits.deadline = fibers_.now + std::chrono::hours(1); break;
          case 6: limits.cancel = client.token = &token; break;
          default: break;
        }
        if (limits.deadline != vesk::Clock::kNever) troubled_ = true;
        {
          const RequestScope scope(limits);
          Request(client, step);
        }
        client.token = nullptr;
        client.fiber = 0;
      },
      client.doing);
}

void World::Request(Client& client, const Step& step) {
  const std::vector<Model::Id> late = client.file->late;
  client.well = false;
  Carry(client, step);
  // What has begun after a truncation that had no more time has waited for its end.
  const bool waits = step.what == Do::kRead || step.what == Do::kWrite ||
                     step.what == Do::kAppend || step.what == Do::kTruncate;
  if (!waits || !client.well || client.file->lost) return;
  for (const Model::Id id : late) {
    std::vector<Model::Id>& all = client.file->late;
    const auto place = std::find(all.begin(), all.end(), id);
    if (place == all.end()) continue;
    all.erase(place);
    client.file->model.EndTruncate(id, Model::Outcome::kPerhaps);
  }
}

void World::Carry(Client& client, const Step& step) {
  if (step.what == Do::kReopen) return Reopen(client);
  if (client.handle == nullptr) return Open(client);
  vesk::FileHandle& handle = *client.handle;
  switch (step.what) {
    case Do::kRead: return Read(client, step);
    case Do::kWrite: return Write(client, step);
    case Do::kAppend: return Append(client, step);
    case Do::kTruncate: return Truncate(client, step);
    case Do::kFlush: (void)Judge(client, Calling([&] { return handle.Flush(); })); return;
    case Do::kSync: return Sync(client);
    case Do::kDiscard: return Discard(client);
    case Do::kAdvise:
      Calling([&] { handle.Advise(static_cast<vesk::Advice>(step.b % 5), step.a, step.b); });
      return;
    case Do::kStats: return Stats(client);
    case Do::kRename: return Rename(client);
    case Do::kSyncAll:
      (void)Judge(client, Calling([&] { return machine_->files->SyncAll(); }));
      return;
    default: Calling([&] { machine_->files->Tend(); });
  }
}

// True: it has ended well. An error has a cause.
bool World::Judge(Client& client, const Status& status) {
  if (on_end) on_end(client.file->name + ": " + client.doing + ": " + status.Message());
  if (client.handle != nullptr && client.handle->Broken()) Note(client);
  client.well = status.ok();
  if (status.ok()) return true;
  ++totals_.failed_requests;
  if (!troubled_) Fail("an error without a cause: " + status.Message());
  return false;
}

void World::Note(Client& client) {
  const bool unnamed =
      client.file->renaming || client.file->rename_failed;  // for want of an answer
  if (!no_memory_ && !unnamed) Fail("the file is out of service, though memory did not run out");
  if (!client.file->lost) ++totals_.broken;
  client.file->lost = true;
}

void World::Read(Client& client, const Step& step) {
  Model& model = client.file->model;
  const std::uint64_t offset = step.a % 900;
  const std::size_t length = step.b < 230 ? 1 + step.b % 40 : step.b * 3;
  std::string bytes(length, '?');
  std::size_t moved = 0;
  const Model::Tick begin = model.BeginRead();
  const bool ok = Judge(
      client, Calling([&] { return client.handle->ReadAt(bytes.data(), length, offset, &moved); }));
  if (client.file->lost) return model.FailRead(begin);
  const std::string wrong =
      model.EndRead(begin, offset, ok ? length : moved, bytes.substr(0, moved));
  if (!wrong.empty()) Fail("'" + client.file->name + "': " + wrong);
}

std::string Contents(std::uint32_t* salt, std::size_t length) {
  std::string bytes(length, '\0');
  ++*salt;
  for (std::size_t i = 0; i < length; ++i) {
    bytes[i] = static_cast<char>(1 + (*salt * 37 + i) % 255);
  }
  return bytes;
}

void World::Write(Client& client, const Step& step) {
  Model& model = client.file->model;
  const std::uint64_t offset = step.a % 900;
  const std::size_t length = step.b < 230 ? 1 + step.b % 40 : step.b;
  const std::string bytes = Contents(&contents_, length);
  std::size_t moved = 0;
  const Model::Id id = model.BeginWrite(offset, bytes);
  const bool ok =
      Judge(client,
            Calling([&] { return client.handle->WriteAt(bytes.data(), length, offset, &moved); }));
  if (client.file->lost) return;
  if (ok && moved != length) Fail("a write that ended well has written " + std::to_string(moved));
  model.EndWrite(id, moved);
}

void World::Append(Client& client, const Step& step) {
  Model& model = client.file->model;
  const std::string bytes = Contents(&contents_, 1 + step.b % 40);
  if (client.handle->Size() > Model::kMostBytes - 250) return;
  const Model::Id id = model.BeginAppend(bytes);
  std::uint64_t offset = 0;
  const bool ok = Judge(
      client, Calling([&] { return client.handle->Append(bytes.data(), bytes.size(), &offset); }));
  if (client.file->lost) return;
  if (!ok) return model.FailAppend(id);
  const std::string wrong = model.EndAppend(id, offset);
  if (!wrong.empty()) Fail("'" + client.file->name + "': " + wrong);
}

void World::Truncate(Client& client, const Step& step) {
  Model& model = client.file->model;
  const std::uint64_t size = step.a % 900;
  const Model::Id id = model.BeginTruncate(size);
  const Status status = Calling([&] { return client.handle->Truncate(size); });
  const bool ok = Judge(client, status);
  if (client.file->lost) return;
  const bool limits = status.error() == ETIMEDOUT || status.error() == ECANCELED;
  if (limits) client.file->late.push_back(id);
  model.EndTruncate(id, ok       ? Model::Outcome::kDone
                        : limits ? Model::Outcome::kPerhapsLater
                                 : Model::Outcome::kPerhaps);
}

void World::Sync(Client& client) {
  File& file = *client.file;
  const Model::Tick begin = file.model.BeginSync();
  if (!Judge(client, Calling([&] { return client.handle->Sync(); })) || file.lost) return;
  file.model.EndSync(begin);
  const std::string wrong = file.model.CheckAfterCrash(machine_->store.Find(file.inode).durable);
  if (!wrong.empty()) Fail("'" + file.name + "' is not stored by a sync: " + wrong);
}

void World::Open(Client& client) {
  File& file = *client.file;
  vesk::OpenOptions options;
  options.write = true;
  const bool first = std::none_of(clients_.begin(), clients_.end(), [&](const auto& other) {
    return other->file == client.file && other->handle != nullptr;
  });
  if (file.lost && !first) return;
  const Status status =
      Calling([&] { return machine_->files->Open(file.name, options, &client.handle); });
  (void)Judge(client, status);
}

void World::Reopen(Client& client) {
  if (client.handle == nullptr) return Open(client);
  if (!Judge(client, Calling([&] { return client.handle->Close(); }))) return;
  client.handle.reset();
  Open(client);
}

void World::Discard(Client& client) {
  troubled_ = client.file->discarded = true;
  client.file->model.Discard();
  Calling([&] { client.handle->Discard(); });
  client.file->model.Discard();
}

// One at a time; whoever opens the file meanwhile may miss it.
void World::Rename(Client& client) {
  File& file = *client.file;
  troubled_ = true;
  if (std::exchange(file.renaming, true)) return;
  const std::string from = file.name;
  const std::string to = from.size() == 1 ? from + "2" : from.substr(0, 1);
  const bool ok = Judge(client, Calling([&] { return machine_->files->Rename(from, to); }));
  const bool renamed = machine_->store.Has(to);
  if (renamed) file.name = to;
  file.renaming = false;
  file.rename_failed |= !ok;
  if (ok && !renamed) Fail("a rename has not taken place");
}

void World::Stats(Client& client) {
  const vesk::FileStats stats = client.handle->GetStats();
  if (stats.cached < stats.in_flight) Fail("more is in flight than cached");
  if (client.file->lost) return;
  const std::string wrong = client.file->model.CheckSize(client.handle->Size());
  if (!wrong.empty()) Fail("'" + client.file->name + "': " + wrong);
}

}  // namespace vesk_simulation

// The time of day, in front of the system library's.
extern "C" std::time_t time(std::time_t* where) noexcept {
  const vesk_simulation::World* const world = vesk_simulation::World::current;
  const std::time_t now = world == nullptr ? 0 : static_cast<std::time_t>(world->wall());
  if (where != nullptr) *where = now;
  return now;
}
