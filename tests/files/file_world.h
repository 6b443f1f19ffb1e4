// A file system with all that it stands on, over a store that does what the test says.

#ifndef TESTS_FILES_FILE_WORLD_H_
#define TESTS_FILES_FILE_WORLD_H_

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "files/file_handle.h"
#include "files/file_system.h"
#include "runtime/backend_memory.h"
#include "runtime/backend_threads.h"
#include "runtime/decorator_faults.h"
#include "runtime/decorator_retry.h"
#include "runtime/dispatcher.h"
#include "runtime/name_operation.h"
#include "runtime/reaper.h"
#include "runtime/request.h"
#include "runtime/settings.h"
#include "runtime/store.h"
#include "runtime/transfer.h"
#include "tests/support/allocation.h"
#include "tests/support/jobs.h"
#include "tests/support/keeping_logger.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskEnv.h"
#include "vesk/VeskThreadPool.h"

namespace vesk_test {

constexpr std::chrono::seconds kPatience(10);  // with what other threads do

// A set of operations: any of `operations`, on any name when that is empty, transfers that touch
// [from, to).
struct Which {
  Which(vesk::FaultOperations which_operations = vesk::kFaultAll, std::string which_name = {},
        std::uint64_t begin = 0, std::uint64_t end = std::numeric_limits<std::uint64_t>::max())
      : operations(which_operations), name(std::move(which_name)), from(begin), to(end) {}

  vesk::FaultOperations operations;
  std::string name;
  std::uint64_t from;
  std::uint64_t to;
};

// In front of a store. The first rule that matches an operation has it.
//   Threads  any
class ScriptedStore final : public vesk::Decorator {
 public:
  explicit ScriptedStore(vesk::VeskBackend& inner) : Decorator(inner) {}

  // Operations end in `error`, the next `times` of them or all, and do not take place.
  void Fail(const Which& which, int error, int times = std::numeric_limits<int>::max()) {
    const vesk::MutexLock guard(mutex_);
    rules_.push_back({which, error, times});
  }

  // The next `times` operations take place, and end in `error` all the same.
  void FailAfterwards(const Which& which, int error, int times) {
    const vesk::MutexLock guard(mutex_);
    rules_.push_back({which, error, times, true});
  }

  // Operations do not begin until Heal.
  void Hold(const Which& which, int times = std::numeric_limits<int>::max()) {
    const vesk::MutexLock guard(mutex_);
    rules_.push_back({which, 0, times});
  }

  // Operations take place at once; their ends are not told until ReleaseEnds or Heal.
  void HoldEnds(const Which& which) {
    const vesk::MutexLock guard(mutex_);
    rules_.push_back({which, 0, std::numeric_limits<int>::max(), true});
  }

  // Tells the ends held now; later ones are held again.
  void ReleaseEnds() {
    std::vector<std::pair<vesk::VeskJob*, int>> ends;
    {
      const vesk::MutexLock guard(mutex_);
      ends.swap(ends_);
    }
    for (const auto& [job, result] : ends) End(job, result);
  }

  // What the store says of files is changed before anybody hears of it; for ever.
  void Describe(std::function<void(const std::string& name, vesk::FileInfo& info)> describe) {
    const vesk::MutexLock guard(mutex_);
    describe_ = std::move(describe);
  }

  // `meet` is called at each such operation by the thread that starts it, before any rule has its
  // say; for ever.
  //   Before   nothing has come yet
  void Meet(const Which& which, std::function<void()> meet) { meeting_ = {which, std::move(meet)}; }

  // Every rule is forgotten; what was held takes place, in the order in which it came.
  void Heal() {
    vesk::JobQueue held;
    {
      const vesk::MutexLock guard(mutex_);
      rules_.clear();
      afterwards_.clear();
      held.Take(held_);
      held_count_ = 0;
    }
    if (!held.Empty()) inner().Start(held);
    ReleaseEnds();
  }

  // What is held ends in `error` and does not take place.
  void EndHeld(int error) {
    vesk::JobQueue held;
    {
      const vesk::MutexLock guard(mutex_);
      held.Take(held_);
      held_count_ = 0;
    }
    while (!held.Empty()) End(held.Pop(), error);
  }

  // Ends or carries out what was held at first and is held now: the job after `older` others.
  void EndOne(int older, int error) {
    vesk::VeskJob* chosen = nullptr;
    {
      const vesk::MutexLock guard(mutex_);
      vesk::JobQueue rest;
      for (; !held_.Empty(); --older) {
        vesk::VeskJob* const job = held_.Pop();
        if (older == 0) {
          chosen = job;
        } else {
          rest.Push(job);
        }
      }
      held_.Take(rest);
      if (chosen != nullptr) --held_count_;
    }
    if (chosen == nullptr) {
      ADD_FAILURE() << "so many are not held";
    } else if (error != 0) {
      End(chosen, error);
    } else {
      StartInner(chosen);
    }
  }

  // Returns when so many are held; fails the test after a while.
  void AwaitHeld(std::size_t count) {
    const auto watchdog = std::chrono::steady_clock::now() + kPatience;
    const vesk::MutexLock guard(mutex_);
    while (held_count_ + ends_.size() < count && std::chrono::steady_clock::now() < watchdog) {
      changed_.WaitUntil(mutex_, watchdog);
    }
    EXPECT_GE(held_count_ + ends_.size(), count) << "operations have not arrived";
  }

  // Operations, and ends.
  std::size_t held() const {
    const vesk::MutexLock guard(mutex_);
    return held_count_ + ends_.size();
  }

  // To the job held longest: whoever waits for it has one.
  int HeldReferences() const {
    const vesk::MutexLock guard(mutex_);
    return held_.Empty() ? 0 : held_.First()->GetRefCount();
  }

  // Operations of these kinds that have come, whatever became of them.
  std::uint64_t Count(vesk::FaultOperations operations) const {
    const vesk::MutexLock guard(mutex_);
    std::uint64_t sum = 0;
    for (const auto& [operation, count] : counts_) {
      if ((operation & operations) != 0) sum += count;
    }
    return sum;
  }

  // Batches that have come with more than nothing in them.
  std::uint64_t batches() const {
    const vesk::MutexLock guard(mutex_);
    return batches_;
  }

  // While one lives, what the calling thread starts meets no rule and is not counted.
  class Aside {
   public:
    Aside() { aside_ = true; }
    ~Aside() { aside_ = false; }
    Aside(const Aside&) = delete;
    Aside& operator=(const Aside&) = delete;
  };

  void Start(vesk::JobQueue& jobs) override {
    if (aside_) return inner().Start(jobs);
    vesk::JobQueue passing;
    {
      const vesk::MutexLock guard(mutex_);
      ++batches_;
    }
    while (!jobs.Empty()) {
      vesk::VeskJob* const job = jobs.Pop();
      if (Passes(job)) passing.Push(job);
    }
    if (!passing.Empty()) inner().Start(passing);
  }
  void Run(vesk::VeskJob* job) override {
    if (aside_ || Passes(job)) inner().Run(job);
  }
  bool Withdraw(vesk::VeskJob* /*job*/) override { return false; }
  void CancelAll(int error) override {
    EndHeld(error);
    inner().CancelAll(error);
    ReleaseEnds();
  }

 private:
  struct Rule {
    Which which;
    int error;  // 0: it is held
    int times;
    bool afterwards = false;  // the operation takes place before that
  };

  static vesk::FaultOperations BitOf(const vesk::VeskJob& job) {
    const vesk::VeskOP& op = job.GetOP();
    if (job.GetType() == vesk::JOB_TYPE_IO) {
      return op.GetOpcode() == vesk::OPCODE_WRITE ? vesk::kFaultWrite : vesk::kFaultRead;
    }
    switch (op.GetOpcode()) {
      case vesk::OPCODE_STAT: return vesk::kFaultStat;
      case vesk::OPCODE_OPEN: return vesk::kFaultOpen;
      case vesk::OPCODE_CREATE: return vesk::kFaultCreate;
      case vesk::OPCODE_TRUNCATE: return vesk::kFaultTruncate;
      case vesk::OPCODE_SYNC: return vesk::kFaultSync;
      case vesk::OPCODE_RENAME: return vesk::kFaultRename;
      case vesk::OPCODE_REMOVE: return vesk::kFaultRemove;
      default: return vesk::kFaultNextData;
    }
  }

  static bool Matches(const Which& which, const vesk::VeskJob& job) {
    if ((which.operations & BitOf(job)) == 0) return false;
    if (!which.name.empty() && job.GetOP().GetString(0) != which.name) return false;
    if (job.GetType() != vesk::JOB_TYPE_IO) return true;
    const vesk::Transfer transfer(job.GetOP());
    return transfer.offset < which.to && which.from < transfer.offset + transfer.length;
  }

  // False: the job is held, or has ended.
  bool Passes(vesk::VeskJob* job) {
    if (meeting_.second && Matches(meeting_.first, *job)) meeting_.second();
    const SparedAllocations spared;
    int error = 0;
    {
      const vesk::MutexLock guard(mutex_);
      ++counts_[BitOf(*job)];
      Rule* rule = nullptr;
      for (Rule& one : rules_) {
        if (rule == nullptr && one.times > 0 && Matches(one.which, *job)) rule = &one;
      }
      if (rule == nullptr) return true;
      --rule->times;
      error = rule->error;
      if (rule->afterwards) {
        afterwards_[job] = error;
        return true;
      }
      if (error == 0) {
        held_.Push(job);
        ++held_count_;
      }
    }
    changed_.WakeAll();
    if (error != 0) End(job, error);
    return false;
  }

  void JobEnded(vesk::VeskJob* job, int result) override {
    {
      const SparedAllocations spared;
      const vesk::MutexLock guard(mutex_);
      if (describe_ && result == 0 && BitOf(*job) == vesk::kFaultStat) {
        const vesk::NameOperation stat(job->GetOP());
        describe_(stat.name, stat.ResultAs<vesk::FileInfo>());
      }
      const auto rule = afterwards_.find(job);
      if (rule != afterwards_.end()) {
        const int error = rule->second;
        afterwards_.erase(rule);
        if (error == 0) {
          ends_.emplace_back(job, result);
          changed_.WakeAll();
          return;
        }
        result = error;
      }
    }
    End(job, result);
  }

  void StartInner(vesk::VeskJob* job) {
    vesk::JobQueue one;
    one.Push(job);
    inner().Start(one);
  }

  inline static thread_local bool aside_ = false;

  std::pair<Which, std::function<void()>> meeting_;

  mutable vesk::Mutex mutex_;
  vesk::Condition changed_;
  std::vector<Rule> rules_ VESK_GUARDED_BY(mutex_);
  vesk::JobQueue held_ VESK_GUARDED_BY(mutex_);
  std::size_t held_count_ VESK_GUARDED_BY(mutex_) = 0;
  // Errors of operations under way that end otherwise than they went; 0: their ends are held.
  std::map<vesk::VeskJob*, int> afterwards_ VESK_GUARDED_BY(mutex_);
  std::vector<std::pair<vesk::VeskJob*, int>> ends_ VESK_GUARDED_BY(mutex_);  // with their results
  std::function<void(const std::string&, vesk::FileInfo&)> describe_ VESK_GUARDED_BY(mutex_);
  std::map<vesk::FaultOperations, std::uint64_t> counts_ VESK_GUARDED_BY(mutex_);
  std::uint64_t batches_ VESK_GUARDED_BY(mutex_) = 0;
};

// Keeps the lines of the levels Dump and Error, for any threads.
class LineLogger final : public KeepingLogger {
 public:
  // Lines of that operation, "Dump" or "Error", which hold `text`.
  std::size_t Count(const std::string& operation, const std::string& text) const {
    const vesk::MutexLock guard(mutex_);
    std::size_t count = 0;
    for (const auto& [level, line] : lines_) {
      if (level == operation && line.find(text) != std::string::npos) ++count;
    }
    return count;
  }

  // Of all levels.
  std::uint64_t lines() const { return count_; }

 private:
  void Keep(const char* operation, const vesk::LogSite& /*site*/, const char* format,
            va_list arguments) override __attribute__((format(printf, 4, 0))) {
    const SparedAllocations spared;  // a logger ends in return only
    ++count_;
    const std::string level = operation;
    if (level != "Dump" && level != "Error") return;
    char text[1024];
    std::vsnprintf(text, sizeof text, format, arguments);
    const vesk::MutexLock guard(mutex_);
    lines_.emplace_back(level, text);
  }

  std::atomic<std::uint64_t> count_{0};
  mutable vesk::Mutex mutex_;
  std::vector<std::pair<std::string, std::string>> lines_ VESK_GUARDED_BY(mutex_);
};

// By default: blocks of 64 bytes, no read-ahead, no thread in the background, files in memory,
// failed write-backs kept and tried again after a few milliseconds. Change `options` and `settings`
// before the first file is opened.
class FileWorld {
 public:
  static constexpr unsigned int kBlock = 64;

  enum class Kind {
    kMemory,         // files are names in memory
    kMemoryNoRetry,  // and a failed write-back is not tried again by the runtime
    kDisk,           // names are paths
  };

  explicit FileWorld(Kind kind = Kind::kMemory, vesk::Clock& clock = vesk::Clock::System())
      : clock_(clock), backend_(NewBackend(kind)), script(*backend_) {
    settings.refresh_interval = 60;
    settings.retry_first_delay_ms = 1;
    settings.retry_longest_delay_ms = 5;
    options.block_size = kBlock;
    options.memory = std::uint64_t{1024} * kBlock;
    options.read_ahead = 0;
    options.background = false;
    if (kind != Kind::kMemoryNoRetry) {
      retry = std::make_unique<vesk::RetryDecorator>(script, settings, clock, 1);
      retry->OnWriteFailure(
          [this](const vesk::WriteFailure& failure) { reaper_.WriteFails(failure); });
    }
    vesk::VeskBackend& top = retry != nullptr ? static_cast<vesk::VeskBackend&>(*retry) : script;
    bundler_ = std::make_unique<vesk::VeskBundler>(top, clock);
    bundler_->dispatcher().OnEnd([this](const std::string& name) { reaper_.JobEnded(name); });
    store_ = std::make_unique<vesk::Store>(*bundler_);
    vesk::gEnv = &env_;
  }

  // The store is well again, so that whatever a failed test has left comes to its end; what does
  // not is ended.
  ~FileWorld() {
    script.Heal();
    const vesk::RequestScope scope(In(kPatience));
    handles_.clear();
    files_.reset();
    EXPECT_TRUE(dispatcher().Shutdown(clock_.Now(), clock_.Now() + kPatience)) << "jobs are stuck";
    bundler_.reset();
    vesk::gEnv = nullptr;
  }
  FileWorld(const FileWorld&) = delete;
  FileWorld& operator=(const FileWorld&) = delete;

  vesk::FileSystem& files() {
    if (files_ == nullptr) {
      files_ = std::make_unique<vesk::FileSystem>(services(), *store_, options);
    }
    return *files_;
  }
  vesk::Services services() { return {*bundler_, clock_, &reaper_, retry.get()}; }
  vesk::Store& store() { return *store_; }
  vesk::Dispatcher& dispatcher() { return bundler_->dispatcher(); }

  static vesk::OpenOptions Writing(bool create = true) {
    vesk::OpenOptions open;
    open.write = true;
    open.create = create;
    return open;
  }

  // The handle lives as long as this object.
  vesk::FileHandle& Open(const std::string& name, const vesk::OpenOptions& open = Writing()) {
    std::unique_ptr<vesk::FileHandle> handle;
    const vesk::Status status = files().Open(name, open, &handle);
    if (!status.ok()) throw std::runtime_error(status.Message());
    handles_.push_back(std::move(handle));
    return *handles_.back();
  }

  // Destroys the handles.
  void CloseAll() {
    const vesk::RequestScope scope(In(kPatience));
    handles_.clear();
  }

  // Up to `length` bytes from `offset` on, as the handle reads them.
  static std::string Read(vesk::FileHandle& file, std::uint64_t offset, std::size_t length,
                          int expected_error = 0) {
    std::string bytes(length, '?');
    std::size_t moved = 0;
    const vesk::Status status = file.ReadAt(bytes.data(), length, offset, &moved);
    EXPECT_EQ(status.error(), expected_error) << status.Message();
    return bytes.substr(0, moved);
  }
  static void Write(vesk::FileHandle& file, const std::string& bytes, std::uint64_t offset,
                    int expected_error = 0) {
    const vesk::Status status = file.WriteAt(bytes.data(), bytes.size(), offset);
    EXPECT_EQ(status.error(), expected_error) << status.Message();
  }

  static std::string Content(std::size_t length, unsigned int salt = 0) {
    std::string content(length, '\0');
    for (std::size_t i = 0; i < length; ++i) content[i] = static_cast<char>(i * 7 + i / 253 + salt);
    return content;
  }

  // Past the cache and every rule, as another program would.
  void Put(const std::string& name, const std::string& bytes) {
    const ScriptedStore::Aside aside;
    const int error = store_->Create(name, 0644);
    EXPECT_TRUE(error == 0 || error == EEXIST) << error;
    EXPECT_EQ(store_->Truncate(name, 0), 0);
    std::string copy = bytes;
    const JobHolder job(NewWrite(name, copy.data(), static_cast<unsigned int>(copy.size()), 0));
    bundler_->SubmitJob(job.get());
    bundler_->WaitForJob(job.get(), nullptr, "Put");
    EXPECT_EQ(job->GetReturnValue(), 0);
  }
  std::string Stored(const std::string& name) {
    const ScriptedStore::Aside aside;
    vesk::FileInfo info;
    if (store_->Stat(name, &info) != 0) return "(no file)";
    std::string bytes(info.size, '?');
    unsigned int count = 0;
    if (bytes.empty()) return bytes;
    const JobHolder job(
        NewRead(name, bytes.data(), static_cast<unsigned int>(bytes.size()), 0, &count));
    bundler_->SubmitJob(job.get());
    bundler_->WaitForJob(job.get(), nullptr, "Stored");
    EXPECT_EQ(job->GetReturnValue(), 0);
    return bytes.substr(0, count);
  }
  bool RemoveStored(const std::string& name) {
    const ScriptedStore::Aside aside;
    return store_->Remove(name) == 0;
  }

  // Limits of a request that begins now.
  vesk::RequestLimits In(vesk::Clock::Duration time) { return {clock_.Now() + time, nullptr}; }

  // True as soon as `condition` is; false after a while.
  template <typename Condition>
  static bool Await(const Condition& condition) {
    const auto watchdog = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
      if (std::chrono::steady_clock::now() >= watchdog) return false;
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
  }

  vesk::Settings settings;
  vesk::FileSystemOptions options;
  LineLogger logger;

 private:
  static std::unique_ptr<vesk::VeskBackend> NewBackend(Kind kind) {
    if (kind == Kind::kDisk) {
      return std::make_unique<vesk::ThreadsBackend>(vesk::ThreadsBackend::Options());
    }
    return std::make_unique<vesk::MemoryBackend>();
  }

  vesk::Clock& clock_;
  const std::unique_ptr<vesk::VeskBackend> backend_;

 public:
  ScriptedStore script;
  std::unique_ptr<vesk::RetryDecorator> retry;  // null: kMemoryNoRetry

 private:
  vesk::VeskThreadPool pool_;
  vesk::VeskEnv env_{&pool_, &logger, &settings};
  vesk::Reaper reaper_{pool_, 1};
  std::unique_ptr<vesk::VeskBundler> bundler_;
  std::unique_ptr<vesk::Store> store_;
  std::unique_ptr<vesk::FileSystem> files_;
  std::vector<std::unique_ptr<vesk::FileHandle>> handles_;
};

}  // namespace vesk_test

#endif  // TESTS_FILES_FILE_WORLD_H_
