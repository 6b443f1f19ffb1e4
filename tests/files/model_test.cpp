// Random requests from several threads at a few files, over every store, with faults and latency,
// in caches of hostile shapes; each answer is compared with a model of the bytes
// (tests/files/model.h).
//
// VESK_MODEL_SECONDS is how long each test runs, about; VESK_MODEL_SEED repeats the choices of a
// run, though not how its threads met.

#include "tests/files/model.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <iostream>
#include <memory>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "files/file_handle.h"
#include "files/file_system.h"
#include "files/options.h"
#include "files/status.h"
#include "runtime/clock.h"
#include "runtime/random.h"
#include "runtime/request.h"
#include "runtime/runtime.h"
#include "runtime/settings.h"
#include "tests/support/temporary_directory.h"
#include "vesk/VeskMutex.h"

namespace vesk_test {
namespace {

using std::chrono::duration;
using std::chrono::milliseconds;
using std::chrono::seconds;
using vesk::Clock;
using vesk::FileHandle;
using vesk::Random;
using vesk::Status;

constexpr std::uint64_t kLongestRequest = 300u << 10;
constexpr Clock::Duration kPatience = seconds(20);  // then something is taken to hang

Clock::Time Now() { return Clock::System().Now(); }

void Pause() { std::this_thread::sleep_for(milliseconds(1)); }

template <typename T>
T OneOf(Random& random, std::initializer_list<T> values) {
  return *(values.begin() + static_cast<std::ptrdiff_t>(Below(random, values.size())));
}

std::uint64_t RunSeed() {
  static const std::uint64_t seed = [] {
    const char* const given = std::getenv("VESK_MODEL_SEED");
    return given != nullptr ? std::strtoull(given, nullptr, 10) : std::random_device{}();
  }();
  return seed;
}

duration<double> TestSeconds() {
  const char* const given = std::getenv("VESK_MODEL_SECONDS");
  return duration<double>(given != nullptr ? std::strtod(given, nullptr) : 0.4);
}

// ---- what is tested ----

struct Store {
  const char* name;
  const char* backend;
  bool direct;
};

struct Trouble {
  const char* name;
  bool latency;
  bool faults;
  bool retry;
};

void PrintTo(const Store& store, std::ostream* out) { *out << store.name; }
void PrintTo(const Trouble& trouble, std::ostream* out) { *out << trouble.name; }

constexpr Store kStores[] = {
    {"Posix", "posix", false},
    {"Uring", "uring", false},
    {"Memory", "memory", false},
    {"Direct", "auto", true},
};

constexpr Trouble kTroubles[] = {
    {"Sound", false, false, false},        {"Slow", true, false, false},
    {"FailingKept", false, true, true},    {"Failing", false, true, false},
    {"SlowFailingKept", true, true, true},
};

std::string StoreText(const Store& store, const Trouble& trouble, Random& random) {
  std::string text = store.backend;
  const auto seed = [&random] { return ":seed=" + std::to_string(Below(random, 1000000)); };
  if (trouble.latency) {
    text += std::string(",latency=") + OneOf(random, {"100us", "1ms", "3ms"});
    if (OneIn(random, 2)) text += ":jitter=2ms" + seed();
    if (OneIn(random, 4)) text += ":bandwidth=50M";
  }
  if (trouble.faults) {
    text += ",fault=write:EIO:chance=0.05" + seed();
    if (OneIn(random, 2)) text += ",fault=write:ENOSPC:every=20";
    text += ",fault=read:EIO:chance=0.03" + seed();
    if (OneIn(random, 2)) text += ",fault=read:short:chance=0.03" + seed();
    text += ",fault=stat+open+truncate+sync+rename:EIO:chance=0.05" + seed();
    if (OneIn(random, 3)) text += ",fault=all:EIO:after=300:for=30ms";
  }
  if (trouble.retry) text += ",retry" + seed();
  return text;
}

// How much the files of a life have and how they are cached.
struct Shape {
  vesk::FileSystemOptions options;
  std::uint64_t capacity = 0;  // of a file's stripes, at most
  std::uint64_t longest = 0;   // request
  unsigned threads = 0;
  unsigned files = 0;
};

Shape AnyShape(const Trouble& trouble, Random& random) {
  Shape shape;
  shape.threads = static_cast<unsigned>(2 + Below(random, 4));
  shape.files = static_cast<unsigned>(1 + Below(random, 3));
  vesk::FileSystemOptions& options = shape.options;
  options.block_size = OneOf(random, {17u, 512u, 512u, 4096u, 4096u, 4096u, 65536u, 65536u});
  if (OneIn(random, 20)) options.block_size = 1;
  const std::uint64_t block = options.block_size;
  options.memory = OneOf<std::uint64_t>(
      random, {2 * block, 3 * block + 1, (2 + Below(random, 40)) * block,
               std::max<std::uint64_t>(2 * block, 4096 + Below(random, 200000)), 4u << 20});
  options.memory = std::min<std::uint64_t>(options.memory, 4u << 20);
  options.read_ahead = OneOf(random, {0u, 1u, 8u, 99u});
  options.dirty_soft = OneOf<std::uint64_t>(
      random, {0, options.memory / 8, options.memory / 2, 64u << 20, 64u << 20, 64u << 20});
  options.dirty_hard = std::max<std::uint64_t>(
      {1, options.dirty_soft,
       OneOf<std::uint64_t>(random, {1, block, options.memory / 2, 128u << 20})});
  options.dirty_age =
      OneOf<Clock::Duration>(random, {milliseconds(1), milliseconds(50), seconds(5)});
  options.when_unknown = OneOf(random, {vesk::UnknownPolicy::kServe, vesk::UnknownPolicy::kFail});
  options.check_patience =
      OneOf<Clock::Duration>(random, {milliseconds(1), seconds(1), seconds(10)});
  // Asked for less time than it takes, a store never tells, and every request fails by that policy.
  if (trouble.latency && options.when_unknown == vesk::UnknownPolicy::kFail) {
    options.check_patience = std::max<Clock::Duration>(options.check_patience, seconds(1));
  }
  options.background = !OneIn(random, 4);
  // A request of many blocks is as many jobs.
  shape.longest = std::min<std::uint64_t>(kLongestRequest, block * (trouble.latency ? 100 : 600));
  shape.capacity = trouble.latency ? 4000 + block * 100 : 20000 + block * 400;
  shape.capacity = std::min<std::uint64_t>(shape.capacity, 1000000);
  return shape;
}

std::string Text(const Shape& shape) {
  const vesk::FileSystemOptions& options = shape.options;
  const auto ms = [](Clock::Duration time) {
    return std::to_string(std::chrono::duration_cast<milliseconds>(time).count()) + "ms";
  };
  std::ostringstream text;
  text << shape.threads << " threads, " << shape.files << " files, block-size "
       << options.block_size << ", memory " << options.memory << ", read-ahead "
       << options.read_ahead << ", dirty-soft " << options.dirty_soft << ", dirty-hard "
       << options.dirty_hard << ", dirty-age " << ms(options.dirty_age) << ", when-unknown "
       << (options.when_unknown == vesk::UnknownPolicy::kFail ? "fail" : "serve")
       << ", check-patience " << ms(options.check_patience) << ", background "
       << options.background;
  return text.str();
}

// ---- what was done ----

struct Done {
  std::uint64_t serial = 0;
  unsigned thread = 0;
  const char* what = "";
  std::size_t file = 0;
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
  std::uint64_t moved = 0;
  int error = -1;  // -1: not ended yet
};

// What one thread has done last.
//   Threads  any
class History {
 public:
  void Begin(const Done& done) {
    const vesk::MutexLock guard(mutex_);
    ring_[count_++ % ring_.size()] = done;
    since_ = Now();
  }
  void End(int error, std::uint64_t moved) {
    const vesk::MutexLock guard(mutex_);
    Done& last = ring_[(count_ - 1) % ring_.size()];
    last.error = error;
    last.moved = moved;
  }
  void List(std::vector<Done>* all) const {
    const vesk::MutexLock guard(mutex_);
    all->insert(all->end(), ring_.begin(),
                ring_.begin() + static_cast<std::ptrdiff_t>(std::min(count_, ring_.size())));
  }
  // How long the request that has not ended has been going on.
  Clock::Duration Busy() const {
    const vesk::MutexLock guard(mutex_);
    const bool busy = count_ > 0 && ring_[(count_ - 1) % ring_.size()].error == -1;
    return busy ? Now() - since_ : Clock::Duration(0);
  }

 private:
  mutable vesk::Mutex mutex_;
  std::array<Done, 256> ring_ VESK_GUARDED_BY(mutex_);
  std::size_t count_ VESK_GUARDED_BY(mutex_) = 0;
  Clock::Time since_ VESK_GUARDED_BY(mutex_){};
};

// Calls `work` every `pause`, from another thread, while it lives.
class Repeating {
 public:
  Repeating(Clock::Duration pause, std::function<void()> work)
      : pause_(pause), work_(std::move(work)), thread_([this] { Repeat(); }) {}
  ~Repeating() {
    {
      const vesk::MutexLock guard(mutex_);
      ending_ = true;
    }
    changed_.WakeAll();
    thread_.join();
  }
  Repeating(const Repeating&) = delete;
  Repeating& operator=(const Repeating&) = delete;

 private:
  void Repeat() {
    vesk::MutexLock guard(mutex_);
    while (!ending_) {
      Clock::System().WaitUntil(changed_, mutex_, Now() + pause_);
      guard.Unlock();
      work_();
      guard.Lock();
    }
  }

  const Clock::Duration pause_;
  const std::function<void()> work_;
  vesk::Mutex mutex_;
  vesk::Condition changed_;
  bool ending_ VESK_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

// ---- one life: a runtime, a file system, some files, and the threads that use them ----

class Life {
 public:
  Life(const Store& store, const Trouble& trouble, std::uint64_t seed, Clock::Time end)
      : store_(store),
        trouble_(trouble),
        seed_(seed),
        end_(end),
        random_(seed),
        shape_(AnyShape(trouble, random_)) {
    PrepareSettings();
    for (unsigned f = 0; f < shape_.files; ++f) MakeFile(f);
    for (unsigned t = 0; t <= shape_.threads; ++t) {
      users_.push_back(std::make_unique<User>(t, random_.Next(), files_.size()));
    }
  }

  void Run() {
    vesk::VeskRuntime runtime(settings_);
    vesk::FileSystem system(runtime.services(), runtime.store(), shape_.options);
    system_ = &system;
    const Repeating watchdog(milliseconds(200), [this] { Look(); });
    std::unique_ptr<Repeating> tending;  // somebody has to
    if (!shape_.options.background) {
      tending = std::make_unique<Repeating>(milliseconds(5), [&system] { system.Tend(); });
    }
    for (const auto& user : users_) OpenAll(*user);
    const std::uint64_t rounds = 1 + Below(random_, 6);
    for (std::uint64_t round = 0; round < rounds && (round == 0 || Now() < end_) && !failed_;
         ++round) {
      RunThreads();
      Quiet();
    }
    if (!failed_) CloseAndCompare();
    for (const auto& user : users_) user->Drop();
  }

  std::uint64_t requests() const { return progress_; }
  std::string failure() const {
    const vesk::MutexLock guard(mutex_);
    return failure_;
  }

 private:
  struct File {
    explicit File(std::uint64_t capacity, unsigned threads, Random& random)
        : model(capacity, threads, random) {}

    ModelFile model;
    std::vector<std::string> names;    // the quiet user renames the first two at any time
    std::atomic<bool> appends{false};  // in this round; there is no gap then
  };

  struct Opened {
    std::unique_ptr<FileHandle> handle;
    bool write = false;
  };

  // A thread that uses the files; the last one works alone, in quiet moments.
  struct User {
    User(unsigned user_index, std::uint64_t seed, std::size_t files)
        : index(user_index), random(seed), opened(files), read_at(files), write_at(files) {}

    void Drop() {
      for (auto& of_file : opened) of_file.clear();
    }

    const unsigned index;
    Random random;
    std::vector<std::vector<Opened>> opened;  // by file
    std::vector<std::uint64_t> read_at;       // where a sequential reader goes on
    std::vector<std::uint64_t> write_at;      // end of the last write
    std::uint64_t pieces = 0;
    History history;
  };

  static constexpr std::size_t kStay = 2;  // from here on names are not renamed

  static const std::string& AnyName(Random& random, const File& file, std::size_t from) {
    return file.names[from + Below(random, file.names.size() - from)];
  }

  User& quiet_user() { return *users_.back(); }

  // ---- setting up ----

  void PrepareSettings() {
    settings_.store = StoreText(store_, trouble_, random_);
    settings_.direct = store_.direct;
    settings_.threads = static_cast<unsigned>(1 + Below(random_, 4));
    settings_.descriptors = OneOf(random_, {1u, 2u, 64u});
    settings_.refresh_interval = OneOf(random_, {0, 1, 30});
    settings_.retry_first_delay_ms = OneOf(random_, {1, 5});
    settings_.retry_longest_delay_ms = 20;
    settings_.retry_read_attempts = OneOf(random_, {1u, 5u, 50u});
    settings_.shutdown_timeout_ms = 20000;
  }

  // A file of some bytes, with names of all kinds.
  void MakeFile(unsigned index) {
    const std::uint64_t most = shape_.capacity;
    files_.push_back(
        std::make_unique<File>(most / 4 + Below(random_, most * 3 / 4), shape_.threads, random_));
    File& file = *files_.back();
    const std::string name = "f" + std::to_string(index);
    const std::string path = directory_ / name;
    std::uint64_t size = 0;
    if (!OneIn(random_, 3)) size = Below(random_, file.model.capacity() + 1);
    const std::vector<unsigned char> bytes = file.model.Fill(size);
    WriteFile(path, bytes);
    namespace fs = std::filesystem;
    fs::create_hard_link(path, path + ".link");
    fs::create_hard_link(path, path + ".anchor");
    fs::create_symlink(name + ".anchor", path + ".symlink");
    file.names = {path, path + ".link", path + ".anchor", path + ".symlink",
                  directory_ / ("./" + name + ".anchor")};
  }

  static void WriteFile(const std::string& path, const std::vector<unsigned char>& bytes) {
    std::FILE* const out = std::fopen(path.c_str(), "wb");
    if (out == nullptr) throw std::runtime_error("cannot make " + path);
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), out) == bytes.size();
    if (std::fclose(out) != 0 || !written) throw std::runtime_error("cannot write " + path);
  }

  // ---- failing ----

  std::string Context() const {
    return "seed " + std::to_string(RunSeed()) + " (life " + std::to_string(seed_) + "), store " +
           settings_.store + (store_.direct ? " direct" : "") + ", refresh-interval " +
           std::to_string(settings_.refresh_interval) + ", retry-read-attempts " +
           std::to_string(settings_.retry_read_attempts) + ", " + Text(shape_);
  }

  void AppendDone(const Done& done, std::ostringstream* text) const {
    *text << "\n  #" << done.serial << " thread " << done.thread << ' ' << done.what << " file "
          << done.file << " [" << done.offset << ", " << done.offset + done.length << ")";
    if (done.error == -1) {
      *text << " going on";
    } else {
      *text << " moved " << done.moved << " error " << done.error;
    }
  }

  // The latest requests, and the latest that concern the byte `where` of `file`.
  std::string LatestDone(std::size_t file, std::uint64_t where) const {
    std::vector<Done> all;
    for (const auto& user : users_) user->history.List(&all);
    std::sort(all.begin(), all.end(),
              [](const Done& a, const Done& b) { return a.serial < b.serial; });
    std::ostringstream text;
    text << "\n the last requests";
    for (std::size_t i = all.size() - std::min<std::size_t>(all.size(), 15); i < all.size(); ++i) {
      AppendDone(all[i], &text);
    }
    all.erase(std::remove_if(all.begin(), all.end(),
                             [&](const Done& done) {
                               const bool there =
                                   done.length == 0 ||
                                   (done.offset <= where && where < done.offset + done.length);
                               return done.file != file || !there;
                             }),
              all.end());
    text << "\n those of byte " << where << " of file " << file << ", or of the whole file";
    for (std::size_t i = all.size() - std::min<std::size_t>(all.size(), 40); i < all.size(); ++i) {
      AppendDone(all[i], &text);
    }
    return text.str();
  }

  void Fail(const std::string& what, std::size_t file = 0, std::uint64_t where = 0) {
    const vesk::MutexLock guard(mutex_);
    if (failed_) return;
    failure_ = what + "\n " + Context() + LatestDone(file, where);
    failed_ = true;
  }

  void FailAt(const User& user, const char* what, std::size_t file, std::uint64_t where,
              const std::string& why) {
    Fail("thread " + std::to_string(user.index) + ", " + what + " of file " + std::to_string(file) +
             ", at " + std::to_string(where) + ": " + why,
         file, where);
  }

  // The watchdog's.
  void Look() {
    const std::uint64_t progress = progress_;
    if (progress != seen_progress_) seen_at_ = Now();
    seen_progress_ = progress;
    bool hangs = Now() - seen_at_ > kPatience;
    for (const auto& user : users_) hangs = hangs || user->history.Busy() > 3 * kPatience;
    if (!hangs) return;
    std::cerr << "A request hangs.\n " << Context() << LatestDone(0, 0);
    for (const auto& user : users_) {
      std::vector<Done> all;
      user->history.List(&all);
      std::ostringstream text;
      for (const Done& done : all) {
        if (done.error == -1) AppendDone(done, &text);
      }
      std::cerr << text.str();
    }
    std::cerr << std::endl;
    std::thread([this] { PrintFiles(); }).detach();  // which may hang as well
    std::this_thread::sleep_for(seconds(3));
    std::abort();
  }

  void PrintFiles() const {
    std::cerr << " memory " << system_->memory_used() << ", at most " << system_->memory_peak()
              << std::endl;
    for (const vesk::FileStats& stats : system_->GetFiles()) {
      std::cerr << " " << stats.name << ": size " << stats.size << " cached " << stats.cached
                << " dirty " << stats.dirty << " in flight " << stats.in_flight << " parked "
                << stats.parked << " last error " << stats.last_error << " streams "
                << stats.streams << " turns " << stats.turns << " throttled " << stats.throttled
                << " freshness " << static_cast<int>(stats.freshness) << std::endl;
    }
  }

  // ---- requests ----

  bool IsAllowed(int error, bool limited) const {
    if (error == 0) return true;
    if (error == ETIMEDOUT) return limited;
    if (error == ESTALE) {
      return shape_.options.when_unknown == vesk::UnknownPolicy::kFail &&
             (trouble_.faults || limited || shape_.options.check_patience < seconds(1));
    }
    return trouble_.faults && (error == EIO || error == ENOSPC);
  }

  // Makes one request, which `Do` is, and notes it.
  template <typename Do>
  Status Request(User& user, Done done, const FileHandle* handle, bool limited,
                 const std::uint64_t* moved, const Do& request) {
    done.serial = ++serial_;
    done.thread = user.index;
    user.history.Begin(done);
    vesk::RequestLimits limits;
    if (limited) limits.deadline = Now() + std::chrono::microseconds(Below(user.random, 5000));
    Status status;
    {
      const vesk::RequestScope scope(limits);
      status = request();
    }
    user.history.End(status.error(), moved != nullptr ? *moved : 0);
    ++progress_;
    if (!IsAllowed(status.error(), limited)) {
      FailAt(user, done.what, done.file, done.offset, "the unexpected error " + status.Message());
    }
    if (limited && Now() - limits.deadline > kPatience / 4) {
      FailAt(user, done.what, done.file, done.offset, "it went on long after its deadline");
    }
    if (handle != nullptr && handle->Broken()) {
      FailAt(user, done.what, done.file, done.offset, "the file is broken");
    }
    return status;
  }

  // Repeats what may fail, until it has succeeded; false: something else is wrong.
  template <typename Do>
  bool Insist(const User& user, const char* what, const Do& request) {
    const Clock::Time end = Now() + kPatience;
    while (!failed_) {
      if (request().ok()) return !failed_;
      if (Now() > end) FailAt(user, what, 0, 0, "it never succeeds");
      Pause();
    }
    return false;
  }

  // 1 to 5 parts of the bytes, some of them empty.
  static std::vector<struct iovec> Parts(Random& random, unsigned char* bytes, std::size_t length) {
    std::vector<std::size_t> cuts{0, length};
    for (std::uint64_t i = Below(random, 5); i > 0; --i) cuts.push_back(Below(random, length + 1));
    std::sort(cuts.begin(), cuts.end());
    std::vector<struct iovec> parts;
    for (std::size_t i = 1; i < cuts.size(); ++i) {
      parts.push_back({bytes + cuts[i - 1], cuts[i] - cuts[i - 1]});
    }
    return parts;
  }

  Opened& AnyOpened(User& user, std::size_t f, bool write) {
    std::vector<Opened>& all = user.opened[f];
    Opened& any = all[Below(user.random, all.size())];
    return write && !any.write ? all.front() : any;
  }

  // One try; `*moved` bytes of it are right.
  Status TryRead(User& user, std::size_t f, std::uint64_t offset, std::size_t length, bool limited,
                 std::vector<unsigned char>* bytes, std::size_t* moved) {
    const ModelFile& model = files_[f]->model;
    const ModelFile::Before before = model.BeginRead(offset, length);
    FileHandle& handle = *AnyOpened(user, f, false).handle;
    bytes->assign(length, 0xa5);
    std::vector<struct iovec> parts;
    if (OneIn(user.random, 4)) parts = Parts(user.random, bytes->data(), length);
    const auto read = [&] {
      if (parts.empty()) return handle.ReadAt(bytes->data(), length, offset, moved);
      return handle.ReadAt(parts.data(), static_cast<int>(parts.size()), offset, moved);
    };
    const Done done{0, 0, "ReadAt", f, offset, length};
    const Status status = Request(user, done, &handle, limited, moved, read);
    if (*moved > length) {
      FailAt(user, "ReadAt", f, offset, "moved " + std::to_string(*moved));
      *moved = 0;
      return status;
    }
    std::uint64_t where = 0;
    const std::string wrong =
        model.CheckRead(before, offset, length, bytes->data(), *moved, status.ok(), &where);
    if (!wrong.empty()) FailAt(user, "ReadAt", f, where, wrong);
    return status;
  }

  void Read(User& user, std::size_t f, std::uint64_t offset, std::size_t length) {
    std::vector<unsigned char> bytes;
    for (int tries = 0; tries < 3 && length > 0; ++tries) {
      std::size_t moved = 0;
      const Status status =
          TryRead(user, f, offset, length, OneIn(user.random, 30), &bytes, &moved);
      if (status.ok() || failed_) return;
      offset += moved;
      length -= moved;
    }
  }

  // All of it, whatever fails meanwhile.
  std::vector<unsigned char> ReadAll(User& user, std::size_t f, std::uint64_t offset,
                                     std::uint64_t length) {
    std::vector<unsigned char> all;
    std::vector<unsigned char> bytes;
    std::size_t moved = 1;
    while (all.size() < length && moved > 0 && !failed_) {
      const auto rest = std::min<std::uint64_t>(shape_.longest, length - all.size());
      (void)Insist(user, "ReadAt", [&] {
        const Status status = TryRead(user, f, offset + all.size(), rest, false, &bytes, &moved);
        all.insert(all.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(moved));
        return moved > 0 ? Status() : status;
      });
    }
    all.resize(length);
    return all;
  }

  // One try, of the thread's own bytes.
  Status TryWrite(User& user, std::size_t f, std::uint64_t offset, std::size_t length, bool limited,
                  std::size_t* moved) {
    ModelFile& model = files_[f]->model;
    FileHandle& handle = *AnyOpened(user, f, true).handle;
    std::vector<unsigned char> bytes(length);
    model.BeginWrite(offset, length, bytes.data());
    std::vector<struct iovec> parts;
    if (OneIn(user.random, 4)) parts = Parts(user.random, bytes.data(), length);
    const auto write = [&] {
      if (parts.empty()) return handle.WriteAt(bytes.data(), length, offset, moved);
      return handle.WriteAt(parts.data(), static_cast<int>(parts.size()), offset, moved);
    };
    const Done done{0, 0, "WriteAt", f, offset, length};
    const Status status = Request(user, done, &handle, limited, moved, write);
    if (*moved > length || (status.ok() && *moved != length)) {
      FailAt(user, "WriteAt", f, offset, "moved " + std::to_string(*moved));
      *moved = length;
    }
    model.EndWrite(offset, length, *moved);
    return status;
  }

  void Write(User& user, std::size_t f, std::uint64_t offset, std::size_t length) {
    bool limited = OneIn(user.random, 30);
    user.write_at[f] = offset + length;
    (void)Insist(user, "WriteAt", [&] {
      std::size_t moved = 0;
      const Status status = TryWrite(user, f, offset, length, limited, &moved);
      limited = false;
      offset += moved;
      length -= moved;
      if (!status.ok() && OneIn(user.random, 2)) Read(user, f, offset, length);
      return status;
    });
  }

  void Append(User& user, std::size_t f, std::size_t length) {
    ModelFile& model = files_[f]->model;
    ModelFile::Piece piece{(std::uint64_t{user.index} << 20) + ++user.pieces, length};
    const std::vector<unsigned char> bytes = model.BeginAppend(piece.key, length);
    FileHandle& handle = *AnyOpened(user, f, true).handle;
    const Status status = Request(
        user, {0, 0, "Append", f, model.least_size(), length}, &handle, OneIn(user.random, 30),
        &piece.offset, [&] { return handle.Append(bytes.data(), length, &piece.offset); });
    if (status.ok()) {
      model.EndAppend(piece);
    } else {
      model.FailAppend(piece);
    }
  }

  // What has been stored can be seen by everybody else.
  void CheckStored(User& user, std::size_t f, const char* what) {
    if (store_.direct) return;  // looking would put pages into the system's cache
    const ModelFile::Stripe* const stripe = AnyStripe(user, f);
    if (stripe == nullptr) return;
    const std::uint64_t length = std::min<std::uint64_t>(stripe->end - stripe->begin, 8000);
    const std::uint64_t offset =
        stripe->begin + Below(user.random, stripe->end - stripe->begin - length + 1);
    const ModelFile& model = files_[f]->model;
    ModelFile::Before before = model.BeginRead(offset, length);
    std::vector<unsigned char> bytes(length);  // beyond the end of the store's file are holes
    const int file = open(files_[f]->names[kStay].c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0 || pread(file, bytes.data(), length, static_cast<off_t>(offset)) < 0) {
      FailAt(user, what, f, offset, "the store's file cannot be read");
    }
    if (file >= 0) close(file);
    before.size = 0;
    const std::uint64_t size = model.least_size();
    const std::uint64_t there = size <= offset ? 0 : std::min(length, size - offset);
    std::uint64_t where = 0;
    const std::string wrong =
        model.CheckRead(before, offset, length, bytes.data(), there, true, &where);
    if (!wrong.empty()) FailAt(user, what, f, where, "in the store: " + wrong);
  }

  void Flush(User& user, std::size_t f) {
    FileHandle& handle = *AnyOpened(user, f, false).handle;
    (void)Request(user, {0, 0, "Flush", f}, &handle, OneIn(user.random, 30), nullptr,
                  [&] { return handle.Flush(); });
  }

  void Sync(User& user, std::size_t f) {
    FileHandle& handle = *AnyOpened(user, f, false).handle;
    const Status status = Request(user, {0, 0, "Sync", f}, &handle, OneIn(user.random, 30), nullptr,
                                  [&] { return handle.Sync(); });
    if (status.ok()) CheckStored(user, f, "Sync");
  }

  void CheckSize(User& user, std::size_t f) {
    const ModelFile& model = files_[f]->model;
    const std::uint64_t least = model.least_size();
    const std::uint64_t size = AnyOpened(user, f, false).handle->Size();
    const std::uint64_t most = model.most_size();
    if (least <= size && size <= most) return;
    FailAt(user, "Size", f, size,
           "it is not from " + std::to_string(least) + " to " + std::to_string(most));
  }

  void Advise(User& user, std::size_t f) {
    using vesk::Advice;
    const Advice advice = OneOf(
        user.random, {Advice::kNormal, Advice::kSequential, Advice::kRandom, Advice::kWillNeed,
                      Advice::kWillNeed, Advice::kDontNeed, Advice::kDontNeed});
    const std::uint64_t offset = Below(user.random, files_[f]->model.capacity() + 5000);
    const std::uint64_t length = AnyLength(user.random, shape_.longest * 4);
    FileHandle& handle = *AnyOpened(user, f, false).handle;
    (void)Request(user, {0, 0, "Advise", f, offset, length}, &handle, false, nullptr,
                  [&]() -> Status {
                    handle.Advise(advice, offset, length);
                    return {};
                  });
  }

  void CheckStats(User& user, std::size_t f) {
    const vesk::FileStats stats = AnyOpened(user, f, false).handle->GetStats();
    const std::uint64_t memory = shape_.options.memory;
    if (stats.cached > memory || stats.in_flight > memory || stats.dirty > memory) {
      FailAt(user, "GetStats", f, 0,
             "more than the memory: cached " + std::to_string(stats.cached) + ", in flight " +
                 std::to_string(stats.in_flight) + ", dirty " + std::to_string(stats.dirty));
    }
    if (system_->memory_used() > memory) Fail("memory: more is used than there is");
    (void)system_->GetStats();  // each file at another moment, so their sum may be more
    (void)system_->GetFiles();
  }

  void OpenOne(User& user, std::size_t f, bool write) {
    const File& file = *files_[f];
    Opened opened;
    opened.write = write;
    vesk::OpenOptions options;
    options.write = write;
    options.create = write && OneIn(user.random, 2);
    const bool is_quiet = user.index == quiet_user().index;
    const std::string& name = AnyName(user.random, file, is_quiet ? 0 : kStay);
    const bool there = Insist(user, "Open", [&] {
      return Request(user, {0, 0, "Open", f}, nullptr, false, nullptr,
                     [&] { return system_->Open(name, options, &opened.handle); });
    });
    if (there) user.opened[f].push_back(std::move(opened));
  }

  void OpenAll(User& user) {
    for (std::size_t f = 0; f < files_.size(); ++f) {
      OpenOne(user, f, true);
      if (OneIn(user.random, 2)) OpenOne(user, f, OneIn(user.random, 2));
    }
  }

  // The first one stays, so that there is always one to write with.
  void Reopen(User& user, std::size_t f) {
    std::vector<Opened>& all = user.opened[f];
    const bool only = all.size() == 1;
    Opened old = std::move(all.back());
    all.pop_back();
    const bool closes = !OneIn(user.random, 4);  // else the destructor does
    for (int tries = 0; closes && tries < 3; ++tries) {
      const Status status = Request(user, {0, 0, "Close", f}, old.handle.get(), false, nullptr,
                                    [&] { return old.handle->Close(); });
      if (!status.ok()) continue;
      if (store_.backend != std::string("memory")) CheckStored(user, f, "Close");
      break;
    }
    if (OneIn(user.random, 2)) old.handle.reset();
    OpenOne(user, f, only || OneIn(user.random, 2));
  }

  // ---- which request ----

  const ModelFile::Stripe* AnyStripe(User& user, std::size_t f) const {
    const auto& stripes = files_[f]->model.stripes();
    for (int tries = 0; tries < 20; ++tries) {
      const ModelFile::Stripe& stripe = stripes[Below(user.random, stripes.size())];
      if (stripe.owner == user.index) return &stripe;
    }
    return nullptr;
  }

  void AnyWrite(User& user, std::size_t f) {
    const ModelFile::Stripe* stripe = AnyStripe(user, f);
    if (stripe == nullptr) return;
    std::uint64_t offset = stripe->begin + Below(user.random, stripe->end - stripe->begin);
    if (OneIn(user.random, 3)) {  // goes on where it ended, if that is its own
      for (const ModelFile::Stripe& own : files_[f]->model.stripes()) {
        const std::uint64_t at = user.write_at[f];
        if (own.owner != user.index || at < own.begin || at >= own.end) continue;
        stripe = &own;
        offset = at;
      }
    }
    const std::uint64_t most = std::min(shape_.longest, stripe->end - offset);
    Write(user, f, offset, OneIn(user.random, 3) ? most : AnyLength(user.random, most));
  }

  void AnyRead(User& user, std::size_t f) {
    const ModelFile& model = files_[f]->model;
    const std::uint64_t length = AnyLength(user.random, shape_.longest);
    const std::uint64_t size = model.most_size();
    std::uint64_t offset = Below(user.random, size + 100);
    switch (Below(user.random, 3)) {
      case 0: offset = user.read_at[f] < size ? user.read_at[f] : 0; break;
      case 1: offset = user.write_at[f] - std::min(user.write_at[f], length / 2); break;
      default: break;
    }
    Read(user, f, offset, length);
    user.read_at[f] = offset + length;
  }

  void AnyRequest(User& user) {
    const std::size_t f = Below(user.random, files_.size());
    const std::uint64_t what = Below(user.random, 100);
    if (what < 45) {
      AnyRead(user, f);
    } else if (what < 70) {
      AnyWrite(user, f);
    } else if (what < 76) {
      if (files_[f]->appends) Append(user, f, AnyLength(user.random, shape_.longest / 4 + 1));
    } else if (what < 81) {
      Flush(user, f);
    } else if (what < 84) {
      Sync(user, f);
    } else if (what < 88) {
      CheckSize(user, f);
    } else if (what < 93) {
      Advise(user, f);
    } else if (what < 95) {
      Reopen(user, f);
    } else if (what < 98) {
      CheckStats(user, f);
    } else {
      system_->Tend();
    }
  }

  void RunThreads() {
    for (const auto& file : files_) {
      file->appends = file->model.quiet_size() >= file->model.capacity();
    }
    const Clock::Time end = Now() + milliseconds(20 + Below(random_, 150));
    const std::uint64_t requests = 20 + Below(random_, 500);
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < shape_.threads; ++t) {
      threads.emplace_back([this, t, end, requests] {
        User& user = *users_[t];
        for (std::uint64_t i = 0; i < requests && !failed_ && Now() < end; ++i) AnyRequest(user);
      });
    }
    while (OneIn(random_, 3) && Now() < end) Rename(Below(random_, files_.size()));
    for (std::thread& thread : threads) thread.join();
  }

  // ---- quiet moments ----

  void Quiet() {
    for (std::size_t f = 0; f < files_.size() && !failed_; ++f) Settle(f);
    for (std::size_t f = 0; f < files_.size() && !failed_; ++f) {
      if (!OneIn(random_, 3)) CheckContent(f);
      if (OneIn(random_, 4)) Rename(f);
      if (OneIn(random_, 2)) Truncate(f);
      if (OneIn(random_, 4)) QuietAppend(f);
    }
    if (OneIn(random_, 5) && !failed_) SyncAll();
    if (OneIn(random_, 4) && !failed_) DropAll();
    if (OneIn(random_, 3) && !failed_) {
      CloseAndCompare();
      for (const auto& user : users_) OpenAll(*user);
    }
    CheckMemory();
  }

  void Settle(std::size_t f) {
    const std::uint64_t size = quiet_user().opened[f].front().handle->Size();
    const std::string wrong =
        files_[f]->model.Settle(size, [&](std::uint64_t offset, std::uint64_t length) {
          return ReadAll(quiet_user(), f, offset, length);
        });
    if (!wrong.empty()) FailAt(quiet_user(), "Append", f, files_[f]->model.quiet_size(), wrong);
  }

  void CheckContent(std::size_t f) {
    (void)ReadAll(quiet_user(), f, 0, files_[f]->model.quiet_size());
    CheckSize(quiet_user(), f);
  }

  void CheckMemory() {
    if (system_->memory_peak() <= shape_.options.memory) return;
    Fail("memory: " + std::to_string(system_->memory_peak()) + " bytes at most so far");
  }

  void Truncate(std::size_t f) {
    User& user = quiet_user();
    File& file = *files_[f];
    const std::uint64_t capacity = file.model.capacity();
    std::uint64_t size = Below(random_, capacity + 1);
    if (OneIn(random_, 3)) size = capacity + Below(random_, 5000);
    if (OneIn(random_, 20)) size = capacity + Below(random_, 500000);
    if (OneIn(random_, 10)) size = 0;
    const bool done = Insist(user, "Truncate", [&] {
      FileHandle& handle = *AnyOpened(user, f, true).handle;
      return Request(user, {0, 0, "Truncate", f, size}, &handle, false, nullptr,
                     [&] { return handle.Truncate(size); });
    });
    if (!done) return;
    file.model.Truncate(size);
    CheckSize(user, f);
    if (OneIn(random_, 2)) CheckContent(f);
  }

  // To a name that nothing has, or one that another file has, which goes.
  void Rename(std::size_t f) {
    std::string& name = files_[f]->names[Below(random_, kStay)];
    const std::string to = directory_ / ("renamed" + std::to_string(++renames_));
    if (OneIn(random_, 2)) WriteFile(to, std::vector<unsigned char>(1000, 0xee));
    const bool done = Insist(quiet_user(), "Rename", [&] {
      return Request(quiet_user(), {0, 0, "Rename", f}, nullptr, false, nullptr,
                     [&] { return system_->Rename(name, to); });
    });
    if (!done) return;
    if (std::filesystem::exists(name) || !std::filesystem::exists(to)) {
      FailAt(quiet_user(), "Rename", f, 0, "the store's file has another name");
    }
    name = to;
  }

  // Where the file ends among the stripes: nobody else writes there now.
  void QuietAppend(std::size_t f) {
    User& user = quiet_user();
    ModelFile& model = files_[f]->model;
    const std::uint64_t room = model.capacity() - std::min(model.capacity(), model.quiet_size());
    if (room == 0) return;
    const std::uint64_t length = AnyLength(random_, std::min(room, shape_.longest));
    std::vector<unsigned char> bytes(length);
    std::uint64_t done = 0;
    (void)Insist(user, "Append", [&] {
      const std::uint64_t at = model.least_size();
      model.BeginWrite(at, length - done, bytes.data());
      FileHandle& handle = *AnyOpened(user, f, true).handle;
      std::uint64_t offset = at;
      Status status = Request(user, {0, 0, "Append", f, at, length - done}, &handle, false, &offset,
                              [&] { return handle.Append(bytes.data(), length - done, &offset); });
      const std::uint64_t taken = handle.Size() - at;
      if (taken > length - done || (status.ok() && (taken != length - done || offset != at))) {
        FailAt(user, "Append", f, at,
               "the file grows by " + std::to_string(taken) + " from " + std::to_string(offset) +
                   " on");
        return status;
      }
      model.EndWrite(at, length - done, taken);
      done += taken;
      return done == length ? Status() : status;
    });
    if (!failed_) Settle(f);
  }

  void SyncAll() {
    (void)Insist(quiet_user(), "SyncAll", [&] {
      return Request(quiet_user(), {0, 0, "SyncAll"}, nullptr, false, nullptr,
                     [&] { return system_->SyncAll(); });
    });
  }

  // Nobody asks how the handles end; the bytes are kept all the same.
  void DropAll() {
    for (const auto& user : users_) user->Drop();
    for (const auto& user : users_) OpenAll(*user);
    for (std::size_t f = 0; f < files_.size() && !failed_; ++f) {
      CheckSize(quiet_user(), f);
      if (OneIn(random_, 2)) CheckContent(f);
    }
  }

  void CloseAndCompare() {
    const bool memory = store_.backend == std::string("memory");
    if (memory || OneIn(random_, 2)) {
      for (std::size_t f = 0; f < files_.size() && !failed_; ++f) SyncFile(f);
    }
    bool compared = memory;
    for (const auto& user : users_) {
      for (std::size_t f = 0; f < files_.size(); ++f) {
        CloseFile(*user, f);
        if (!compared && !failed_ && f + 1 == files_.size()) {
          for (std::size_t each = 0; each < files_.size(); ++each) Compare(each);
          compared = true;
        }
      }
    }
    if (failed_) return;
    for (std::size_t f = 0; f < files_.size(); ++f) Compare(f);
    CheckNothingIsLeft();
  }

  void SyncFile(std::size_t f) {
    User& user = quiet_user();
    (void)Insist(user, "Sync", [&] {
      FileHandle& handle = *AnyOpened(user, f, false).handle;
      return Request(user, {0, 0, "Sync", f}, &handle, false, nullptr,
                     [&] { return handle.Sync(); });
    });
  }

  void CloseFile(User& user, std::size_t f) {
    for (Opened& opened : user.opened[f]) {
      (void)Insist(user, "Close", [&] {
        return Request(user, {0, 0, "Close", f}, opened.handle.get(), false, nullptr,
                       [&] { return opened.handle->Close(); });
      });
    }
    user.opened[f].clear();
  }

  // The store's file, past everything that is tested.
  void Compare(std::size_t f) {
    const File& file = *files_[f];
    const std::string& name = AnyName(random_, file, 0);
    std::FILE* const in = std::fopen(name.c_str(), "rb");
    if (in == nullptr) return FailAt(quiet_user(), "store", f, 0, name + " is not there");
    std::vector<unsigned char> bytes(file.model.quiet_size() + 1);
    const std::size_t count = std::fread(bytes.data(), 1, bytes.size(), in);
    std::fclose(in);
    const std::uint64_t least = std::min<std::uint64_t>(count, file.model.quiet_size());
    for (std::uint64_t at = 0; at < least; ++at) {
      if (bytes[at] == file.model.At(at)) continue;
      return FailAt(
          quiet_user(), "store", f, at,
          "byte " + std::to_string(bytes[at]) + " instead of " + std::to_string(file.model.At(at)));
    }
    if (count == file.model.quiet_size()) return;
    FailAt(quiet_user(), "store", f, count,
           "the size is " + std::to_string(count) + " or more instead of " +
               std::to_string(file.model.quiet_size()));
  }

  void CheckNothingIsLeft() {
    const vesk::FileStats stats = system_->GetStats();
    std::ostringstream left;
    if (stats.size != 0) left << " size " << stats.size;
    if (stats.cached != 0) left << " cached " << stats.cached;
    if (stats.dirty != 0) left << " dirty " << stats.dirty;
    if (stats.in_flight != 0) left << " in flight " << stats.in_flight;
    if (stats.parked != 0) left << " parked " << stats.parked;
    if (stats.streams != 0) left << " streams " << stats.streams;
    if (stats.oldest_dirty != Clock::Duration(0)) left << " oldest dirty";
    if (system_->memory_used() != 0) left << " memory " << system_->memory_used();
    for (const vesk::FileStats& file : system_->GetFiles()) left << " file " << file.name;
    if (!left.str().empty()) Fail("after everything is closed there is still" + left.str());
  }

  const Store& store_;
  const Trouble& trouble_;
  const std::uint64_t seed_;
  const Clock::Time end_;
  Random random_;
  const Shape shape_;
  const TemporaryDirectory directory_;
  vesk::Settings settings_;
  std::vector<std::unique_ptr<File>> files_;
  std::vector<std::unique_ptr<User>> users_;
  vesk::FileSystem* system_ = nullptr;
  std::uint64_t renames_ = 0;

  std::atomic<std::uint64_t> serial_{0};
  std::atomic<std::uint64_t> progress_{0};
  std::uint64_t seen_progress_ = 0;  // the watchdog's
  Clock::Time seen_at_ = Now();

  std::atomic<bool> failed_{false};
  mutable vesk::Mutex mutex_;
  std::string failure_ VESK_GUARDED_BY(mutex_);
};

// ---- the tests ----

using Case = std::tuple<Store, Trouble>;

class ModelTest : public ::testing::TestWithParam<Case> {};

// Nothing, or why the store is not to be had here.
std::string WhyNot(const Store& store) {
  vesk::Settings settings;
  settings.store = store.backend;
  try {
    const vesk::VeskRuntime runtime(settings);
    return "";
  } catch (const std::invalid_argument& refusal) {
    return refusal.what();
  }
}

TEST_P(ModelTest, ThreadsReadWhatWasWrittenAndTheStoreHasItInTheEnd) {
  const auto& [store, trouble] = GetParam();
  const std::string why_not = WhyNot(store);
  if (!why_not.empty()) GTEST_SKIP() << why_not;
  std::cout << "VESK_MODEL_SEED=" << RunSeed() << std::endl;
  const Clock::Time end = Now() + std::chrono::duration_cast<Clock::Duration>(TestSeconds());
  const char* const name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
  Random random(RunSeed() + std::hash<std::string>{}(name));  // other shapes for each test
  std::uint64_t requests = 0;
  std::uint64_t lives = 0;
  do {
    Life life(store, trouble, random.Next(), end);
    life.Run();
    if (!life.failure().empty()) FAIL() << life.failure();
    requests += life.requests();
    ++lives;
  } while (Now() < end);
  std::cout << requests << " requests in " << lives << " lives" << std::endl;
}

INSTANTIATE_TEST_SUITE_P(Stores, ModelTest,
                         ::testing::Combine(::testing::ValuesIn(kStores),
                                            ::testing::ValuesIn(kTroubles)),
                         [](const ::testing::TestParamInfo<Case>& instance) {
                           return std::string(std::get<0>(instance.param).name) +
                                  std::get<1>(instance.param).name;
                         });

}  // namespace
}  // namespace vesk_test
