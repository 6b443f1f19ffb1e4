// What the runtime costs, as ratios to what could not be cheaper, all in one run.

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "bench/harness.h"
#include "runtime/backend_memory.h"
#include "runtime/backend_threads.h"
#include "runtime/decorator_latency.h"
#include "runtime/dispatcher.h"
#include "runtime/logger.h"
#include "tests/support/jobs.h"
#include "tests/support/null_logger.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskEnv.h"
#include "vesk/VeskException.h"
#include "vesk/VeskJob.h"
#include "vesk/VeskLock.h"
#include "vesk/VeskStream.h"
#ifdef VESK_HAVE_URING
#include "runtime/backend_uring.h"
#endif

namespace vesk_bench {
namespace {

using vesk::VeskBundler;
using vesk::VeskJob;
using vesk::VeskLock;
using vesk_test::NewRead;

constexpr std::size_t kFileSize = 64u << 20;

[[noreturn]] void Die(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// A file in the page cache, removed at the end.
class CachedFile {
 public:
  CachedFile() {
    fd_ = mkstemp(name_.data());
    if (fd_ < 0) Die("cannot make a file in /tmp");
    const std::vector<char> content(1u << 20, 'x');
    for (std::size_t at = 0; at < kFileSize; at += content.size()) {
      if (write(fd_, content.data(), content.size()) < 0) Die("cannot write to /tmp");
    }
  }
  ~CachedFile() {
    close(fd_);
    unlink(name_.c_str());
  }
  CachedFile(const CachedFile&) = delete;
  CachedFile& operator=(const CachedFile&) = delete;

  int fd() const { return fd_; }
  const std::string& name() const { return name_; }

 private:
  std::string name_ = "/tmp/vesk-bench-XXXXXX";
  int fd_;
};

struct Holder {
  std::vector<VeskJob*> jobs;
  ~Holder() {
    for (VeskJob* job : jobs) VeskJob::RefCountDec(job);
  }
};

// A miss as the cache meets it: submitted and waited for under the file's lock, on a file that the
// page cache holds, against the pread alone.
bool SyncMiss(const CachedFile& file, unsigned int block) {
  vesk::ThreadsBackend backend({});
  VeskBundler bundler(backend);
  VeskLock lock;
  std::vector<unsigned char> memory(block);
  const unsigned long blocks = kFileSize / block;
  constexpr long kTimes = 20000;
  unsigned int count = 0;
  const auto offset = [&](long i) {
    return static_cast<unsigned long>(i) * 7919 % blocks * block;  // a prime: all over the file
  };
  const auto plain = [&] {
    for (long i = 0; i < kTimes; ++i) {
      if (pread(file.fd(), memory.data(), block, static_cast<off_t>(offset(i))) < 0) Die("pread");
    }
  };
  const auto miss = [&] {
    for (long i = 0; i < kTimes; ++i) {
      VeskJob* const job = NewRead(file.name(), memory.data(), block, offset(i), &count);
      {
        const vesk::Holding<VeskLock> guard(lock);
        bundler.SubmitJob(job);
        bundler.WaitForJob(job, &lock, "Read");
      }
      VeskJob::RefCountDec(job);
    }
  };
  const std::vector<double> best = Compare({{"pread", plain}, {"miss", miss}}, kTimes);
  std::printf("A synchronous miss of %u bytes\n", block);
  Tell("pread", best[0], "ns");
  Tell("submitted, waited for, ended", best[1], "ns");
  return AtMost("miss / pread", best[1] / best[0], 3, "dispatcher and threads backend");
}

// The same through the cache module, which answers each wait with an exception: told, not judged.
void ModuleMiss(const CachedFile& file, unsigned int block) {
  vesk::ThreadsBackend backend({});
  VeskBundler bundler(backend);
  VeskLock lock;
  constexpr long kTimes = 10000;
  std::vector<unsigned char> memory(block);
  const auto plain = [&] {
    for (long i = 0; i < kTimes; ++i) {
      if (pread(file.fd(), memory.data(), block, i % 512 * block) < 0) Die("pread");
    }
  };
  const auto thrown = [&] {
    for (long i = 0; i < kTimes; ++i) {
      try {
        throw vesk::VeskException(vesk::ERR_WAIT);
      } catch (const vesk::VeskException& wait) {
        if (wait.code != vesk::ERR_WAIT) std::abort();
      }
    }
  };
  const auto read = [&] {
    std::unique_ptr<vesk::VeskStream> stream;
    for (long i = 0; i < kTimes; ++i) {
      if (i % 512 == 0) stream = std::make_unique<vesk::VeskStream>(file.name(), &bundler, 0, 0, 0);
      const auto at = static_cast<unsigned long>(i % 512) * block;
      const vesk::Holding<VeskLock> guard(lock);
      for (unsigned int got = 0; got == 0;) {
        try {
          bool eof = false;
          got =
              stream->Read(&lock, memory.data(), at, 64, &eof, kFileSize, 0, block, 2, 0, nullptr);
        } catch (const vesk::VeskException& wait) {
          if (wait.code != vesk::ERR_WAIT) std::abort();
        }
      }
    }
  };
  const std::vector<double> best =
      Compare({{"pread", plain}, {"throw", thrown}, {"read", read}}, kTimes);
  std::printf("The same through VeskStream::Read, %u bytes\n", block);
  Tell("pread", best[0], "ns");
  Tell("an exception thrown and caught in one function", best[1], "ns");
  Tell("missed block: wait, exception, repeat", best[2], "ns");
}

#ifdef VESK_HAVE_URING
bool UringBatch(const CachedFile& file) {
  constexpr std::size_t kBlock = 64u << 10;
  constexpr int kBatch = 16;
  vesk::UringBackend backend({});
  VeskBundler bundler(backend);
  VeskLock lock;
  std::vector<unsigned char> memory(kBatch * kBlock);
  std::vector<unsigned int> counts(kBatch);
  const auto batch = [&] {
    Holder held;
    {
      const vesk::Holding<VeskLock> guard(lock);
      for (unsigned int i = 0; i < kBatch; ++i) {
        held.jobs.push_back(
            NewRead(file.name(), memory.data() + i * kBlock, kBlock, i * kBlock, &counts[i]));
        bundler.SubmitJob(held.jobs.back());
      }
    }
    for (VeskJob* job : held.jobs) job->WaitUntilDone();
  };
  batch();  // opens the file
  const std::uint64_t before = backend.Submissions();
  batch();
  const auto submissions = static_cast<double>(backend.Submissions() - before);
  std::printf("A read-ahead of 16 blocks held back by the lock, io_uring\n");
  return AtMost("submissions", submissions, 1, "system calls that start transfers");
}
#endif

// 16 blocks of 64 KiB in flight at a store that takes 2 ms for each.
bool SlowStore() {
  constexpr std::size_t kBlock = 64u << 10;
  constexpr unsigned int kInFlight = 16;
  constexpr unsigned int kBlocks = 16 * 100;
  constexpr double kLatency = 0.002;
  vesk::MemoryBackend memory_store;
  vesk::LatencyDecorator::Options latency;
  latency.fixed = std::chrono::milliseconds(2);
  vesk::LatencyDecorator store(memory_store, latency, vesk::Clock::System());
  VeskBundler bundler(store);
  VeskJob* const create = vesk::NewNameJob(vesk::OPCODE_CREATE, "f", {}, 0600);
  bundler.SubmitJob(create);
  bundler.WaitForJob(create, nullptr, "Create");
  VeskJob::RefCountDec(create);
  VeskJob* const size = vesk::NewNameJob(vesk::OPCODE_TRUNCATE, "f", {}, kFileSize);
  bundler.SubmitJob(size);
  bundler.WaitForJob(size, nullptr, "Truncate");
  VeskJob::RefCountDec(size);

  std::vector<unsigned char> memory(kInFlight * kBlock);
  std::vector<unsigned int> counts(kInFlight);
  std::vector<VeskJob*> flying(kInFlight, nullptr);
  const double seconds = Seconds([&] {
    for (unsigned int i = 0; i < kBlocks + kInFlight; ++i) {
      VeskJob*& job = flying[i % kInFlight];
      if (job != nullptr) {
        job->WaitUntilDone();
        VeskJob::RefCountDec(job);
        job = nullptr;
      }
      if (i >= kBlocks) continue;
      job = NewRead("f", memory.data() + i % kInFlight * kBlock, kBlock,
                    static_cast<unsigned long>(i) * kBlock % kFileSize, &counts[i % kInFlight]);
      bundler.SubmitJob(job);
    }
  });
  const double reached = kBlocks / seconds;
  const double possible = kInFlight / kLatency;
  std::printf("A store of 2 ms a request, 16 blocks of 64 KiB in flight\n");
  Tell("reached", reached * kBlock / (1 << 20), "MiB/s");
  Tell("16 requests in parallel can", possible * kBlock / (1 << 20), "MiB/s");
  return AtLeast("reached / possible", reached / possible, 0.8, "dispatcher, latency, memory");
}

// A line that is not wanted, against one handed to a logger whose operations are empty.
bool DiscardedLine() {
  vesk::Logger::Options options;
  options.levels = options.ring_levels = vesk::kLogNothing;
  vesk::Logger logger(options);
  vesk_test::NullLogger empty;
  constexpr long kTimes = 2000000;
  const vesk::LogSite site("bench", 1);
  const std::string name = "f";
  const auto log_to = [&](vesk::VeskLogger& to) {
    vesk::VeskLogger* volatile sink = &to;  // a virtual call, as from the cache
    return [sink, &site, &name]() mutable {
      for (long i = 0; i < kTimes; ++i) sink->Debug(site, "%s Eof O:%lld\n", name.c_str(), 7LL);
    };
  };
  const std::vector<double> best =
      Compare({{"empty", log_to(empty)}, {"discarded", log_to(logger)}}, kTimes);
  std::printf("A log line that is discarded\n");
  Tell("virtual call of an empty function", best[0], "ns");
  Tell("discarded line", best[1], "ns");
  return AtMost("discarded - empty", best[1] - best[0], 5, "nanoseconds");
}

void PrintMachine() {
  utsname name = {};
  uname(&name);
  std::printf("%s %s, %ld cores, %s\n\n", name.sysname, name.release, sysconf(_SC_NPROCESSORS_ONLN),
              __VERSION__);
}

int Main() {
#ifndef NDEBUG
  std::fprintf(stderr, "runtime_bench: a debug build is never a result: use the preset release\n");
  return 2;
#endif
  PrintMachine();
  vesk::Logger::Options quiet;
  quiet.levels = vesk::kLogNothing;
  vesk::Logger logger(quiet);
  vesk::VeskSettings settings;
  settings.refresh_interval = 60;
  vesk::VeskEnv env{nullptr, &logger, &settings};
  vesk::gEnv = &env;
  const CachedFile file;
  bool held = SyncMiss(file, 4096);
  held &= SyncMiss(file, 64u << 10);
  ModuleMiss(file, 4096);
#ifdef VESK_HAVE_URING
  if (const int missing = vesk::UringBackend::Probe()) {
    std::printf("io_uring: left out, this kernel has none: %s\n",
                std::generic_category().message(missing).c_str());
  } else {
    held &= UringBatch(file);
  }
#else
  std::printf("io_uring: left out, built without liburing\n");
#endif
  held &= SlowStore();
  held &= DiscardedLine();
  vesk::gEnv = nullptr;
  std::printf("\n%s\n", held ? "Every limit is kept." : "A limit is not kept, see NO above.");
  return held ? 0 : 1;
}

}  // namespace
}  // namespace vesk_bench

int main() {
  try {
    return vesk_bench::Main();
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "runtime_bench: %s\n", failure.what());
    return 2;
  }
}
