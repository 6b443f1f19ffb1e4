// What the file-access layer costs, as ratios to what could not be cheaper, all in one run.
//
//     files_bench [GROUP]...      groups: cost hit cold first bytes threads write; none: all

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <numeric>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "bench/harness.h"
#include "files/file_system.h"
#include "runtime/random.h"
#include "runtime/runtime.h"
#include "vesk/VeskLock.h"

namespace vesk_bench {
namespace {

// ---- what a thread asks of the process, counted ----

struct Asked {
  long allocations = 0;
  long locks = 0;
};
thread_local Asked asked;

// The C library's function behind one that this program puts in front of it.
template <typename Function>
class Real {
 public:
  explicit constexpr Real(const char* name) : name_(name) {}

  Function* get() {
    Function* known = known_.load(std::memory_order_relaxed);
    if (known == nullptr) {
      known = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name_));
      if (known == nullptr) std::abort();
      known_.store(known, std::memory_order_relaxed);
    }
    return known;
  }

 private:
  const char* const name_;
  std::atomic<Function*> known_{nullptr};
};

Real<void*(std::size_t)> real_malloc("malloc");
Real<void*(std::size_t, std::size_t)> real_calloc("calloc");
Real<void*(void*, std::size_t)> real_realloc("realloc");
Real<void*(std::size_t, std::size_t)> real_aligned_alloc("aligned_alloc");
Real<int(void**, std::size_t, std::size_t)> real_posix_memalign("posix_memalign");
Real<int(pthread_mutex_t*)> real_mutex_lock("pthread_mutex_lock");
Real<int(pthread_mutex_t*)> real_mutex_trylock("pthread_mutex_trylock");
Real<int(pthread_rwlock_t*)> real_rwlock_rdlock("pthread_rwlock_rdlock");
Real<int(pthread_rwlock_t*)> real_rwlock_wrlock("pthread_rwlock_wrlock");

}  // namespace
}  // namespace vesk_bench

// operator new ends in malloc, std::mutex in pthread_mutex_lock.
extern "C" {

void* malloc(std::size_t bytes) noexcept {
  ++vesk_bench::asked.allocations;
  return vesk_bench::real_malloc.get()(bytes);
}
void* calloc(std::size_t count, std::size_t bytes) noexcept {
  ++vesk_bench::asked.allocations;
  return vesk_bench::real_calloc.get()(count, bytes);
}
void* realloc(void* memory, std::size_t bytes) noexcept {
  ++vesk_bench::asked.allocations;
  return vesk_bench::real_realloc.get()(memory, bytes);
}
void* aligned_alloc(std::size_t alignment, std::size_t bytes) noexcept {
  ++vesk_bench::asked.allocations;
  return vesk_bench::real_aligned_alloc.get()(alignment, bytes);
}
int posix_memalign(void** memory, std::size_t alignment, std::size_t bytes) noexcept {
  ++vesk_bench::asked.allocations;
  return vesk_bench::real_posix_memalign.get()(memory, alignment, bytes);
}
int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  ++vesk_bench::asked.locks;
  return vesk_bench::real_mutex_lock.get()(mutex);
}
int pthread_mutex_trylock(pthread_mutex_t* mutex) noexcept {
  ++vesk_bench::asked.locks;
  return vesk_bench::real_mutex_trylock.get()(mutex);
}
int pthread_rwlock_rdlock(pthread_rwlock_t* lock) noexcept {
  ++vesk_bench::asked.locks;
  return vesk_bench::real_rwlock_rdlock.get()(lock);
}
int pthread_rwlock_wrlock(pthread_rwlock_t* lock) noexcept {
  ++vesk_bench::asked.locks;
  return vesk_bench::real_rwlock_wrlock.get()(lock);
}

}  // extern "C"

namespace vesk_bench {
namespace {

[[noreturn]] void Die(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

[[noreturn]] void Wrong(const std::string& what) { throw std::runtime_error(what); }

void Check(const vesk::Status& status) {
  if (!status.ok()) Wrong(status.Message());
}

struct Counted {
  Asked asked;
  long system_calls = 0;
  int error = 0;  // not 0: this system does not let system calls be counted
};

// Runs a piece of work in a thread whose every system call stops and waits for the watcher, which
// counts it and lets it go on.
//   Threads  used by one thread, once
class SystemCallWatch {
 public:
  // `before` runs in the same thread, uncounted: it makes what a thread needs once.
  Counted Count(const std::function<void()>& before, const std::function<void()>& work) {
    std::thread worker([&] { Work(before, work); });
    while (listener_.load() == kNone) usleep(1000);
    if (listener_.load() >= 0) Watch(listener_.load());
    worker.join();
    return counted_;
  }

 private:
  static constexpr int kNone = -2;

  void Work(const std::function<void()>& before, const std::function<void()>& work) {
    sock_filter all = {};
    all.code = BPF_RET | BPF_K;
    all.k = SECCOMP_RET_USER_NOTIF;
    sock_fprog program = {1, &all};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return Refused();
    const long listener =
        syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program);
    if (listener < 0) return Refused();
    listener_ = static_cast<int>(listener);
    try {
      before();
      const Asked asked_before = asked;
      const unsigned long taken_before = vesk::VeskLock::TakenByThisThread();
      counting_ = true;
      work();
      counting_ = false;
      counted_.asked.allocations = asked.allocations - asked_before.allocations;
      counted_.asked.locks = asked.locks - asked_before.locks +
                             static_cast<long>(vesk::VeskLock::TakenByThisThread() - taken_before);
    } catch (const std::exception& failure) {
      counting_ = false;
      std::fprintf(stderr, "files_bench: %s\n", failure.what());
      counted_.error = EIO;
    }
  }

  void Refused() {
    counted_.error = errno;
    listener_ = -1;
  }

  // Until the thread is gone: nobody else could let its last system calls go on.
  void Watch(int listener) {
    for (;;) {
      pollfd ready = {listener, POLLIN, 0};
      if (poll(&ready, 1, -1) < 0 && errno != EINTR) Die("cannot watch system calls");
      if ((ready.revents & POLLIN) != 0) {
        LetGoOn(listener);
      } else if ((ready.revents & POLLHUP) != 0) {
        break;
      }
    }
    close(listener);
  }

  void LetGoOn(int listener) {
    seccomp_notif call = {};
    if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &call) != 0) return;
    if (counting_) ++counted_.system_calls;
    seccomp_notif_resp answer = {};
    answer.id = call.id;
    answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    (void)ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
  }

  Counted counted_;
  std::atomic<int> listener_{kNone};
  std::atomic<bool> counting_{false};
};

// ---- measuring ----

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const std::size_t middle = values.size() / 2;
  return values.size() % 2 == 1 ? values[middle] : (values[middle - 1] + values[middle]) / 2;
}

using Ways = std::vector<std::function<double()>>;

// What several ways to do the same took, in nanoseconds for one of them, round by round.
class Rounds {
 public:
  // Each of `ways` does it `count` times and returns the seconds that it took. They take turns, so
  // that what else the machine does meets all of them.
  Rounds(const Ways& ways, long count, int rounds) : times_(ways.size()) {
    for (int round = 0; round < rounds; ++round) {
      for (std::size_t i = 0; i < ways.size(); ++i) {
        times_[i].push_back(ways[i]() * 1e9 / static_cast<double>(count));
      }
    }
  }

  double Time(std::size_t way) const { return Median(times_[way]); }

  // The median of each round's own ratio.
  double Ratio(std::size_t way, std::size_t to) const {
    std::vector<double> ratios;
    for (std::size_t round = 0; round < times_[way].size(); ++round) {
      ratios.push_back(times_[way][round] / times_[to][round]);
    }
    return Median(std::move(ratios));
  }

 private:
  std::vector<std::vector<double>> times_;
};

template <typename Work>
std::function<double()> Timed(Work work) {
  return [work] { return Seconds(work); };
}

// ---- files and what reads them ----

constexpr std::size_t kPage = 4096;  // bytes of a request
constexpr unsigned int kBlock = 64u << 10;
constexpr std::size_t kFileSize = 64u << 20;
constexpr double kMiB = 1 << 20;

// A file in the page cache, removed at the end. Each page begins with its own offset.
class CachedFile {
 public:
  explicit CachedFile(std::size_t size) {
    fd_ = mkstemp(name_.data());
    if (fd_ < 0) Die("cannot make a file in /tmp");
    std::vector<unsigned char> piece(1u << 20, 'x');
    for (std::size_t at = 0; at < size; at += piece.size()) {
      for (std::size_t page = 0; page < piece.size(); page += kPage) {
        const std::uint64_t offset = at + page;
        std::memcpy(piece.data() + page, &offset, sizeof offset);
      }
      if (write(fd_, piece.data(), std::min(piece.size(), size - at)) < 0) {
        Die("cannot write to /tmp");
      }
    }
  }
  ~CachedFile() {
    close(fd_);
    unlink(name_.c_str());
  }
  CachedFile(const CachedFile&) = delete;
  CachedFile& operator=(const CachedFile&) = delete;

  // A hole of this length from the start on.
  void Empty(std::uint64_t size) const {
    if (ftruncate(fd_, 0) != 0 || ftruncate(fd_, static_cast<off_t>(size)) != 0) Die("ftruncate");
  }

  int fd() const { return fd_; }
  const std::string& name() const { return name_; }

 private:
  std::string name_ = "/tmp/vesk-bench-XXXXXX";
  int fd_;
};

struct World {
  explicit World(const std::string& store) : settings(With(store)), runtime(*settings) {}

  static std::unique_ptr<vesk::Settings> With(const std::string& store) {
    auto made = std::make_unique<vesk::Settings>();
    made->store = store;
    made->refresh_interval = 3600;  // no block grows old while it is measured
    return made;
  }

  const std::unique_ptr<vesk::Settings> settings;
  vesk::VeskRuntime runtime;
};

vesk::FileSystemOptions Shape(unsigned int block, unsigned int ahead) {
  vesk::FileSystemOptions options;
  options.block_size = block;
  options.read_ahead = ahead;
  return options;
}

// A file with nothing of it in memory yet.
struct Cold {
  Cold(World& world, const std::string& name, const vesk::FileSystemOptions& options,
       const vesk::OpenOptions& open = {})
      : files(world.runtime.services(), world.runtime.store(), options) {
    Check(files.Open(name, open, &file));
  }

  vesk::FileSystem files;
  std::unique_ptr<vesk::FileHandle> file;  // last, so that it closes first
};

void ReadWhole(vesk::FileHandle& file, unsigned char* to, std::size_t length, std::uint64_t at) {
  std::size_t moved = 0;
  const vesk::Status status = file.ReadAt(to, length, at, &moved);
  if (!status.ok() || moved != length) Wrong("a read failed: " + status.Message());
}

void ExpectStamp(const unsigned char* page, std::uint64_t offset) {
  std::uint64_t stamp = 0;
  std::memcpy(&stamp, page, sizeof stamp);
  if (stamp != offset) Wrong("wrong bytes at offset " + std::to_string(offset));
}

// One page after the other; each has to be the right one.
void ReadThrough(vesk::FileHandle& file, std::uint64_t begin, std::uint64_t end) {
  unsigned char page[kPage];
  for (std::uint64_t at = begin; at < end; at += kPage) {
    ReadWhole(file, page, kPage, at);
    ExpectStamp(page, at);
  }
}

double Ratio(std::uint64_t of, std::uint64_t to) {
  return static_cast<double>(of) / static_cast<double>(to);
}

// Keeps the compiler from leaving out a copy that nobody looks at.
void Use(const void* memory) { asm volatile("" : : "r"(memory) : "memory"); }

// As much plain memory as so many blocks have, in pieces as they are.
class PlainBlocks {
 public:
  explicit PlainBlocks(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      blocks_.push_back(std::make_unique<unsigned char[]>(kBlock));
    }
  }

  unsigned char* At(std::uint64_t offset) const {
    return blocks_[offset / kBlock].get() + offset % kBlock;
  }

 private:
  std::vector<std::unique_ptr<unsigned char[]>> blocks_;
};

// Read afresh at each copy: the length of a request is not known when the program is compiled.
volatile std::size_t copied = kPage;

// ---- which pages a hit is for ----

constexpr std::uint64_t kPagesPerBlock = kBlock / kPage;
constexpr std::uint64_t kFew = 4;
constexpr std::uint64_t kMany = 128;

// Which page of a file a random number stands for.
std::uint64_t AmongFew(std::uint64_t random) { return random % (kFew * kPagesPerBlock); }
std::uint64_t AmongMany(std::uint64_t random) { return random % (kMany * kPagesPerBlock); }

// As many pages as few blocks have, one in every other of the many: the processor's caches hold
// them as well, so that what is more than among few is not theirs.
std::uint64_t Spread(std::uint64_t random) {
  const std::uint64_t i = AmongFew(random);
  return i * (kMany / (kFew * kPagesPerBlock)) * kPagesPerBlock + i % kPagesPerBlock;
}

// ---- what a hit asks for ----

bool CostOfHit(const CachedFile& /*file*/) {
  constexpr long kHits = 100000;
  const CachedFile file(kFew * kBlock);
  std::printf("What %ld hits of 4 KiB over 4 blocks ask for\n", kHits);
  World world("posix");
  vesk::FileSystemOptions options = Shape(kBlock, 4);
  options.background = false;  // with nobody else there each lock is free
  Cold cold(world, file.name(), options);
  ReadThrough(*cold.file, 0, kFew * kBlock);
  const std::uint64_t misses = cold.file->GetStats().misses;
  std::vector<unsigned char> to(kPage);
  const auto one_of_each = [&] {
    Use(std::make_unique<int>(1).get());
    vesk::Mutex mutex;
    const vesk::MutexLock guard(mutex);
    vesk::VeskLock lock;
    const vesk::Holding<vesk::VeskLock> held(lock);
    (void)syscall(SYS_getppid);
  };
  const auto hits = [&] {
    vesk::Random random(1);
    for (long i = 0; i < kHits; ++i) {
      ReadWhole(*cold.file, to.data(), kPage, AmongFew(random.Next()) * kPage);
    }
  };
  const Counted known = SystemCallWatch().Count(one_of_each, one_of_each);
  if (known.error != 0) {
    std::printf("NOT CHECKED: system calls cannot be counted here: %s\n",
                std::generic_category().message(known.error).c_str());
    return false;
  }
  if (known.system_calls != 1 || known.asked.allocations != 1 || known.asked.locks != 2) {
    Wrong("an allocation, a lock of either kind and a system call are not counted as one of each");
  }
  const Counted counted = SystemCallWatch().Count(hits, hits);
  if (counted.error != 0) Wrong("the hits to be counted failed");
  if (cold.file->GetStats().misses != misses) Wrong("what was to be a hit was a miss");
  const auto per_hit = [&](long count) { return static_cast<double>(count) / kHits; };
  const auto calls = static_cast<double>(counted.system_calls);
  const auto allocations = static_cast<double>(counted.asked.allocations);
  bool held = AtMost("system calls", calls, 0, "in all, stopped and counted one by one");
  held &= AtMost("allocations", allocations, 0, "in all: malloc and its like");
  held &= AtMost("locks a hit", per_hit(counted.asked.locks), 1,
                 "pthread mutexes and rwlocks, and VeskLocks");
  return held;
}

// ---- the speed of a hit ----

bool SpeedOfHit(const CachedFile& many_blocks) {
  constexpr long kTimes = 100000;
  const CachedFile few_blocks(kFew * kBlock);
  World world("posix");
  Cold many(world, many_blocks.name(), Shape(kBlock, 4));
  std::unique_ptr<vesk::FileHandle> few;
  Check(many.files.Open(few_blocks.name(), {}, &few));
  ReadThrough(*few, 0, kFew * kBlock);
  ReadThrough(*many.file, 0, kMany * kBlock);
  const std::uint64_t misses = many.files.GetStats().misses;
  const PlainBlocks plain(kMany);
  std::vector<unsigned char> memory(kPage + 64);
  std::uint64_t seed = 1;  // the same for all in a round, counted up by the last one
  // A copy is a third slower where source and target lie differently in the processor's lines, so
  // each round has another place of them.
  const auto to = [&] { return memory.data() + seed % 4 * 16; };

  const auto pages = [&](auto page, auto one) {
    return Timed([&seed, page, one] {
      vesk::Random random(seed);
      for (long i = 0; i < kTimes; ++i) one(page(random.Next()) * kPage);
    });
  };
  const auto hit = [&](vesk::FileHandle& file) {
    return [&](std::uint64_t at) { ReadWhole(file, to(), kPage, at); };
  };
  const auto copy = [&](std::uint64_t at) {
    std::memcpy(to(), plain.At(at), copied);
    Use(to());
  };
  const auto system = [&](std::uint64_t at) {
    if (pread(few_blocks.fd(), to(), kPage, static_cast<off_t>(at)) < 0) Die("pread");
  };
  const auto next_seed = [&] {
    ++seed;
    return 0.0;
  };
  enum { kHitFew, kCopyFew, kSystemFew, kHitSpread, kCopySpread, kHitMany, kCopyMany };
  Ways ways;  // in this order
  ways.push_back(pages(AmongFew, hit(*few)));
  ways.push_back(pages(AmongFew, copy));
  ways.push_back(pages(AmongFew, system));
  ways.push_back(pages(Spread, hit(*many.file)));
  ways.push_back(pages(Spread, copy));
  ways.push_back(pages(AmongMany, hit(*many.file)));
  ways.push_back(pages(AmongMany, copy));
  ways.push_back(next_seed);
  const Rounds rounds(ways, kTimes, 25);
  if (many.files.GetStats().misses != misses) Wrong("what was to be a hit was a miss");
  std::printf("Hits of 4 KiB at random, blocks of 64 KiB\n");
  Tell("4 blocks: hit", rounds.Time(kHitFew), "ns");
  Tell("4 blocks: memcpy", rounds.Time(kCopyFew), "ns");
  Tell("4 blocks: pread from the page cache", rounds.Time(kSystemFew), "ns");
  Tell("64 pages all over 128 blocks: hit", rounds.Time(kHitSpread), "ns");
  Tell("64 pages all over 128 blocks: memcpy", rounds.Time(kCopySpread), "ns");
  Tell("128 blocks: hit", rounds.Time(kHitMany), "ns");
  Tell("128 blocks: memcpy", rounds.Time(kCopyMany), "ns");
  Tell("memcpy alone, 128 blocks / 4 blocks", rounds.Ratio(kCopyMany, kCopyFew), "");
  Tell("hit, 128 blocks / 4 blocks", rounds.Ratio(kHitMany, kHitFew), "");
  bool held = AtMost("hit / memcpy", rounds.Ratio(kHitFew, kCopyFew), 2.2, "4 blocks");
  held &= AtLeast("pread / hit", rounds.Ratio(kSystemFew, kHitFew), 3.5, "4 blocks");
  held &= AtMost("hit / memcpy", rounds.Ratio(kHitMany, kCopyMany), 2 * 2.2, "128 blocks");
  held &= AtMost("hit, 128 blocks / 4 blocks", rounds.Ratio(kHitSpread, kHitFew), 2,
                 "64 pages in either");
  return held;
}

// ---- cold files at a slow store ----

constexpr char kSlowStore[] = "memory,latency=2ms";

// So that the memory store has the file's bytes, which it takes from the disk at first use.
void Load(World& world, const CachedFile& file) {
  Cold once(world, file.name(), Shape(4u << 20, 8));
  ReadThrough(*once.file, 0, kFileSize);
}

bool ColdSequential(const CachedFile& file) {
  constexpr double kLatency = 0.002;
  World world(kSlowStore);
  Load(world, file);
  std::printf("A cold file of 64 MiB read in order, 4 KiB at a time; 2 ms a request\n");
  bool held = true;
  for (const unsigned int ahead : {4u, 16u}) {
    std::vector<double> seconds;
    vesk::FileStats stats;
    for (int round = 0; round < 5; ++round) {
      Cold cold(world, file.name(), Shape(kBlock, ahead));
      seconds.push_back(Seconds([&] { ReadThrough(*cold.file, 0, kFileSize); }));
      stats = cold.file->GetStats();
    }
    const double reached = kFileSize / Median(seconds);
    const double possible = ahead * kBlock / kLatency;
    const std::string how = std::to_string(ahead) + " blocks of 64 KiB ahead";
    Tell("reached", reached / kMiB, "MiB/s");
    Tell("blocks ahead x block size / latency", possible / kMiB, "MiB/s");
    held &= AtLeast("reached / possible", reached / possible, 0.8, how.c_str());
    held &= AtMost("bytes fetched / returned", Ratio(stats.fetched, stats.returned), 1, "in order");
  }
  return held;
}

struct FirstRead {
  const char* name;
  unsigned int block;
  unsigned int ahead;
  std::size_t request;
};

// The first MiB at a store of so many milliseconds a request, in latencies.
bool FirstMiBAt(const CachedFile& file, int latency_ms, int rounds) {
  World world("memory,latency=" + std::to_string(latency_ms) + "ms");
  Load(world, file);
  std::printf("The first MiB of a cold file; %d ms a request\n", latency_ms);
  std::vector<unsigned char> memory(1u << 20);
  bool held = true;
  const vesk::FileSystemOptions usual;
  for (const FirstRead& read :
       {FirstRead{"64 KiB x 16, 4 KiB a read", kBlock, 16, kPage},
        FirstRead{"64 KiB x 16, one read", kBlock, 16, memory.size()},
        FirstRead{"default options, 4 KiB a read", usual.block_size, usual.read_ahead, kPage},
        FirstRead{"default options, one read", usual.block_size, usual.read_ahead,
                  memory.size()}}) {
    std::vector<double> latencies;
    for (int round = 0; round < rounds; ++round) {
      Cold cold(world, file.name(), Shape(read.block, read.ahead));
      const double seconds = Seconds([&] {
        for (std::size_t at = 0; at < memory.size(); at += read.request) {
          ReadWhole(*cold.file, memory.data() + at, read.request, at);
        }
      });
      for (std::size_t at = 0; at < memory.size(); at += kPage) ExpectStamp(&memory[at], at);
      latencies.push_back(seconds * 1000 / latency_ms);
    }
    held &= AtMost("first MiB, in latencies", Median(std::move(latencies)), 2.5, read.name);
  }
  return held;
}

bool FirstMiB(const CachedFile& file) {
  bool held = FirstMiBAt(file, 20, 5);
  held &= FirstMiBAt(file, 2, 15);
  return held;
}

// ---- bytes fetched for bytes returned ----

// 4000 reads all over a file of 1 GiB, no page twice.
vesk::FileStats ReadAtRandom(World& world, const std::string& name,
                             const vesk::FileSystemOptions& options, std::uint64_t shift) {
  constexpr std::uint64_t kPages = (std::uint64_t{1} << 30) / kPage;
  std::vector<std::uint64_t> pages(kPages - 1);
  std::iota(pages.begin(), pages.end(), 0);
  vesk::Random random(7);
  Cold cold(world, name, options);
  std::vector<unsigned char> to(kPage);
  for (std::size_t i = 0; i < 4000; ++i) {
    std::swap(pages[i], pages[i + random.Next() % (pages.size() - i)]);
    ReadWhole(*cold.file, to.data(), kPage, pages[i] * kPage + shift);
  }
  return cold.file->GetStats();
}

bool BytesFetched(const CachedFile& file) {
  World world("posix");
  const CachedFile hole(0);
  hole.Empty(std::uint64_t{1} << 30);
  std::printf("Bytes fetched / bytes returned, store without latency\n");
  bool held = true;
  const std::pair<const char*, vesk::FileSystemOptions> shapes[] = {
      {"64 KiB x 16", Shape(kBlock, 16)}, {"default options", vesk::FileSystemOptions()}};
  for (const auto& [how, options] : shapes) {
    Cold cold(world, file.name(), options);
    ReadThrough(*cold.file, 0, kFileSize);
    const vesk::FileStats in_order = cold.file->GetStats();
    const vesk::FileStats aligned = ReadAtRandom(world, hole.name(), options, 0);
    const vesk::FileStats shifted = ReadAtRandom(world, hole.name(), options, 1234);
    held &= AtMost("64 MiB in order", Ratio(in_order.fetched, in_order.returned), 1, how);
    held &= AtMost("4 KiB at random in 1 GiB", Ratio(aligned.fetched, aligned.returned), 1.1, how);
    Tell("the same, 1234 bytes into each page", Ratio(shifted.fetched, shifted.returned), "");
  }
  return held;
}

// ---- several threads ----

// Seconds until each of so many threads has called `one` with `times` offsets of its own share.
template <typename One>
double InThreads(unsigned int threads, std::uint64_t share, long times, One one) {
  std::atomic<bool> go{false};
  std::vector<std::thread> all;
  for (unsigned int t = 0; t < threads; ++t) {
    all.emplace_back([&, t] {
      vesk::Random random(t + 1);
      std::vector<unsigned char> to(kPage);
      while (!go) std::this_thread::yield();
      for (long i = 0; i < times; ++i) {
        one(t, to.data(), t * share + random.Next() % (share / kPage) * kPage);
      }
    });
  }
  return Seconds([&] {
    go = true;
    for (std::thread& thread : all) thread.join();
  });
}

bool Threads(const CachedFile& file) {
  constexpr long kTimes = 50000;
  constexpr unsigned int kMost = 4;
  constexpr std::uint64_t kShare = 1u << 20;
  World world("posix");
  Cold cold(world, file.name(), Shape(kBlock, 4));
  std::vector<std::unique_ptr<vesk::FileHandle>> handles(kMost);
  for (auto& handle : handles) Check(cold.files.Open(file.name(), {}, &handle));
  // Side by side, as these readers would have come to it.
  for (std::uint64_t at = 0; at < kShare; at += kBlock) {
    for (unsigned int t = 0; t < kMost; ++t) {
      ReadThrough(*handles[t], t * kShare + at, t * kShare + at + kBlock);
    }
  }
  const PlainBlocks plain(kMost * kShare / kBlock);
  std::atomic<bool> failed{false};
  const auto hit = [&](unsigned int t, unsigned char* to, std::uint64_t at) {
    std::size_t moved = 0;
    const vesk::Status status = handles[t]->ReadAt(to, kPage, at, &moved);
    if (!status.ok() || moved != kPage) failed = true;
  };
  const auto hit_same = [&](unsigned int t, unsigned char* to, std::uint64_t at) {
    hit(t, to, at % kShare);
  };
  const auto copy = [&](unsigned int /*t*/, unsigned char* to, std::uint64_t at) {
    std::memcpy(to, plain.At(at), copied);
    Use(to);
  };
  const auto run = [&](unsigned int threads, auto one) {
    return [=] { return InThreads(threads, kShare, kTimes, one); };
  };
  const Rounds rounds({run(1, hit), run(2, hit), run(4, hit), run(1, hit_same), run(2, hit_same),
                       run(4, hit_same), run(1, copy), run(2, copy), run(4, copy)},
                      kTimes, 15);
  if (failed) Wrong("a read in a thread failed");
  std::printf(
      "Hits of 4 KiB from several threads in one file of %llu streams: all their requests\n"
      "in the time of one thread's, told, not judged (2.0 is what two cores can)\n",
      static_cast<unsigned long long>(cold.file->GetStats().streams));
  Tell("2 threads, each its own MiB", 2 / rounds.Ratio(1, 0), "");
  Tell("4 threads, each its own MiB", 4 / rounds.Ratio(2, 0), "");
  Tell("2 threads, all in one MiB", 2 / rounds.Ratio(4, 3), "");
  Tell("4 threads, all in one MiB", 4 / rounds.Ratio(5, 3), "");
  Tell("2 threads, memcpy", 2 / rounds.Ratio(7, 6), "");
  Tell("4 threads, memcpy", 4 / rounds.Ratio(8, 6), "");
  return true;
}

// ---- writing ----

constexpr std::uint64_t kWritten = 16u << 20;

// Calls `write_page` for each page of 16 MiB, as often as told; the seconds of the last time.
template <typename WritePage>
double WriteTimes(int times, WritePage write_page) {
  double seconds = 0;
  for (int i = 0; i < times; ++i) {
    seconds = Seconds([&] {
      for (std::uint64_t at = 0; at < kWritten; at += kPage) write_page(at);
    });
  }
  return seconds;
}

bool Write(const CachedFile& /*file*/) {
  World world("posix,retry");
  const CachedFile target(0);
  const std::vector<unsigned char> from(kPage, 'w');
  vesk::FileSystemOptions options = Shape(kBlock, 4);
  options.dirty_age = std::chrono::hours(1);
  std::vector<double> kept;  // MiB of a new file that were not in the store at its end
  const auto cache = [&](int times) {
    return [&, times] {
      target.Empty(0);
      vesk::OpenOptions open;
      open.write = true;
      Cold cold(world, target.name(), options, open);
      const double seconds = WriteTimes(times, [&](std::uint64_t at) {
        const vesk::Status status = cold.file->WriteAt(from.data(), kPage, at);
        if (!status.ok()) Check(status);
      });
      const vesk::FileStats stats = cold.file->GetStats();
      if (stats.throttled != 0) Wrong("the limits for unsaved bytes have slowed the writer down");
      if (times == 1) kept.push_back(static_cast<double>(stats.dirty) / kMiB);
      cold.file->Discard();
      Check(cold.file->Close());
      return seconds;
    };
  };
  const auto copy = [&](int times) {
    return [&, times] {
      std::vector<std::unique_ptr<unsigned char[]>> blocks(kWritten / kBlock);
      return WriteTimes(times, [&](std::uint64_t at) {
        std::unique_ptr<unsigned char[]>& block = blocks[at / kBlock];
        if (block == nullptr) block.reset(new unsigned char[kBlock]);
        std::memcpy(block.get() + at % kBlock, from.data(), copied);
        Use(block.get());
      });
    };
  };
  const auto system = [&](int times) {
    return [&, times] {
      target.Empty(0);
      return WriteTimes(times, [&](std::uint64_t at) {
        if (pwrite(target.fd(), from.data(), kPage, static_cast<off_t>(at)) < 0) Die("pwrite");
      });
    };
  };
  const Rounds rounds({cache(1), copy(1), system(1), cache(2), copy(2), system(2)},
                      kWritten / kPage, 9);
  std::printf("16 MiB written in order, 4 KiB at a time, blocks of 64 KiB: told, not judged\n");
  Tell("new file: not in the store at its end", Median(std::move(kept)), "MiB");
  Tell("new file: into the cache", rounds.Time(0), "ns");
  Tell("new file: memcpy to new memory", rounds.Time(1), "ns");
  Tell("new file: pwrite", rounds.Time(2), "ns");
  Tell("new file: cache / memcpy", rounds.Ratio(0, 1), "");
  Tell("new file: pwrite / cache", rounds.Ratio(2, 0), "");
  Tell("once more: into the cache", rounds.Time(3), "ns");
  Tell("once more: memcpy", rounds.Time(4), "ns");
  Tell("once more: pwrite", rounds.Time(5), "ns");
  Tell("once more: cache / memcpy", rounds.Ratio(3, 4), "");
  Tell("once more: pwrite / cache", rounds.Ratio(5, 3), "");
  return true;
}

// ---- all of it ----

struct Group {
  const char* name;
  bool (*run)(const CachedFile& file);
};

constexpr Group kGroups[] = {
    {"cost", CostOfHit},     {"hit", SpeedOfHit},  {"cold", ColdSequential}, {"first", FirstMiB},
    {"bytes", BytesFetched}, {"threads", Threads}, {"write", Write},
};

// Which groups to run; throws at a name that is none.
std::vector<Group> Wanted(int argc, char** argv) {
  if (argc < 2) return {std::begin(kGroups), std::end(kGroups)};
  std::vector<Group> wanted;
  for (int i = 1; i < argc; ++i) {
    const std::string name = argv[i];
    const Group* const found = std::find_if(std::begin(kGroups), std::end(kGroups),
                                            [&](const Group& group) { return name == group.name; });
    if (found == std::end(kGroups)) {
      Wrong("no group '" + name + "'; there are cost hit cold first bytes threads write");
    }
    wanted.push_back(*found);
  }
  return wanted;
}

void PrintMachine() {
  utsname name = {};
  uname(&name);
  std::printf("%s %s, %ld cores, %s\n", name.sysname, name.release, sysconf(_SC_NPROCESSORS_ONLN),
              __VERSION__);
}

int Main(int argc, char** argv) {
#ifndef NDEBUG
  std::fprintf(stderr, "files_bench: a debug build is never a result: use the preset release\n");
  return 2;
#endif
  const std::vector<Group> wanted = Wanted(argc, argv);
  PrintMachine();
  const CachedFile file(kFileSize);
  bool held = true;
  for (const Group& group : wanted) {
    std::printf("\n");
    held &= group.run(file);
    std::fflush(stdout);
  }
  std::printf("\n%s\n", held ? "Every limit is kept." : "A limit is not kept, see NO above.");
  return held ? 0 : 1;
}

}  // namespace
}  // namespace vesk_bench

int main(int argc, char** argv) {
  try {
    return vesk_bench::Main(argc, argv);
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "files_bench: %s\n", failure.what());
    return 2;
  }
}
