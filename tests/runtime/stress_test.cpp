// The engine takes a synchronous read that has already ended when it looks for a broken promise.
// The dispatcher keeps it: shown here with a backend that ends jobs at once, on another core.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "runtime/backend_threads.h"
#include "runtime/job_queue.h"
#include "runtime/log_null.h"
#include "runtime/transfer.h"
#include "tests/support/stub_backend.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskEnv.h"
#include "vesk/VeskException.h"
#include "vesk/VeskJob.h"
#include "vesk/VeskLock.h"
#include "vesk/VeskStream.h"

namespace vesk_test {
namespace {

using vesk::VeskBuffer;
using vesk::VeskJob;
using vesk::VeskLock;
using vesk::VeskStream;

unsigned char FileByte(unsigned long offset) {
  return static_cast<unsigned char>(offset * 7 + offset / 4096);
}

void FillAndEnd(VeskJob* job) {
  const vesk::Transfer transfer(job->GetOP());
  for (std::size_t i = 0; i < transfer.length; ++i) {
    transfer.data[i] = FileByte(transfer.offset + i);
  }
  transfer.StoreCount(transfer.length);
  job->Complete(0);
}

// Ends every job inside Start.
class ImmediateBackend : public StubBackend {
 public:
  void Start(VeskJob* job) override {
    if (job->Claim()) FillAndEnd(job);
  }
  void Run(VeskJob* job) override { FillAndEnd(job); }
};

// A thread that never sleeps ends each job as soon as it sees it.
class SpinningBackend : public StubBackend {
 public:
  SpinningBackend() : thread_([this] { Spin(); }) {}
  ~SpinningBackend() override {
    ending_ = true;
    thread_.join();
  }
  void Start(VeskJob* job) override {
    job->RefCountInc();
    const std::lock_guard<std::mutex> guard(mutex_);
    queue_.Push(job);
  }
  void Run(VeskJob* job) override { FillAndEnd(job); }

 private:
  void Spin() {
    while (!ending_) {
      VeskJob* job = nullptr;
      {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (!queue_.Empty()) job = queue_.Pop();
      }
      if (job == nullptr) {
        std::this_thread::yield();
        continue;
      }
      if (job->Claim()) FillAndEnd(job);
      VeskJob::RefCountDec(job);
    }
  }

  std::atomic<bool> ending_{false};
  std::mutex mutex_;
  vesk::JobQueue queue_;
  std::thread thread_;
};

class StressTest : public ::testing::Test {
 protected:
  static constexpr unsigned int kBlock = 512;
  static constexpr unsigned long kBlocks = 256;  // of a file

  StressTest() {
    settings_.refresh_interval = 60;
    vesk::gEnv = &env_;
  }
  ~StressTest() override { vesk::gEnv = nullptr; }

  struct SharedFile {
    explicit SharedFile(const std::string& name, vesk::VeskBundler* bundler)
        : stream(name, bundler, 0, 0, 0) {}
    VeskLock lock;
    VeskStream stream;
  };

  // Reads one block's worth at `offset`, repeating as a caller does. The code of what went wrong.
  int Read(SharedFile& file, unsigned long offset, unsigned int read_ahead) {
    unsigned char bytes[kBlock];
    const std::lock_guard<VeskLock> guard(file.lock);
    for (;;) {
      try {
        bool eof = false;
        const unsigned int count =
            file.stream.Read(&file.lock, bytes, offset, kBlock, &eof, kBlock * kBlocks, 0, kBlock,
                             4, read_ahead, nullptr);
        if (count == 0) return -1;
        for (unsigned int i = 0; i < count; ++i) {
          if (bytes[i] != FileByte(offset + i)) return -2;
        }
        return 0;
      } catch (const vesk::VeskException& failure) {
        if (failure.code != vesk::ERR_WAIT) return failure.code;
      }
    }
  }

  // Takes every finished block out of the stream, so that reads miss again; busy ones stay. The
  // range starts over at 0: a new last block must not end before its start.
  static void Forget(SharedFile& file) {
    const std::lock_guard<VeskLock> guard(file.lock);
    VeskStream& stream = file.stream;
    stream.IsCacheDirty(true);  // collects what has ended
    stream.last_buffer = nullptr;
    stream.buffers.remove_if([](VeskBuffer* block) {
      const bool idle = block->job == nullptr;
      if (idle) delete block;
      return idle;
    });
    const unsigned long end =
        stream.buffers.empty() ? 0 : stream.buffers.back()->off + stream.buffers.back()->blen;
    stream.curr_off = 0;
    stream.curr_len = static_cast<long>(end);
  }

  static void Close(SharedFile& file) {
    const std::lock_guard<VeskLock> guard(file.lock);
    for (;;) {
      try {
        file.stream.Flush(&file.lock, true, false, false, false);
        return;
      } catch (const vesk::VeskException& failure) {
        ASSERT_EQ(failure.code, vesk::ERR_WAIT);
      }
    }
  }

  static std::uint64_t Misses(const vesk::VeskBundler& bundler) {
    const vesk::DispatcherStats stats = bundler.GetStats();
    const auto waits = stats.waits.find("Read");  // the wait of a synchronous read, and only that
    return waits == stats.waits.end() ? 0 : waits->second.count;
  }

  // Many threads over a few files until `misses` synchronous reads were waited for. The codes of
  // failures.
  std::vector<int> ReadInParallel(vesk::VeskBundler& bundler, const std::string& name,
                                  std::uint64_t misses) {
    constexpr int kThreads = 8;
    constexpr int kFiles = 3;
    std::vector<std::unique_ptr<SharedFile>> files;
    for (int i = 0; i < kFiles; ++i) files.push_back(std::make_unique<SharedFile>(name, &bundler));
    std::mutex mutex;
    std::vector<int> failures;
    std::vector<std::thread> threads;
    for (unsigned int t = 0; t < kThreads; ++t) {
      threads.emplace_back([&, t] {
        unsigned int random = t + 1;
        while (Misses(bundler) < misses) {
          random = random * 1103515245 + 12345;
          SharedFile& file = *files[(random >> 8) % kFiles];
          const unsigned long offset = (random >> 12) % kBlocks * kBlock;
          const int code = Read(file, offset, t % 2 == 0 ? 0 : 2);
          if (code != 0) {
            const std::lock_guard<std::mutex> guard(mutex);
            failures.push_back(code);
            return;
          }
          if (random % 5 == 0) Forget(file);
        }
      });
    }
    for (std::thread& thread : threads) thread.join();
    for (const auto& file : files) {
      Close(*file);
      EXPECT_EQ(file->stream.pending_io, 0u);
    }
    return failures;
  }

  vesk::NullLogger logger_;
  vesk::VeskSettings settings_;
  vesk::VeskEnv env_{nullptr, &logger_, &settings_};
};

constexpr std::uint64_t kMisses = 100000;

// The failure is real: without the lock nothing is held back, and a backend that ends jobs at once
// breaks the engine. If this stops failing, the tests below prove nothing any more.
TEST_F(StressTest, AJobThatEndsInsideSubmitBreaksAReadThatHoldsNoLock) {
  ImmediateBackend backend;
  vesk::VeskBundler bundler(backend);
  VeskStream stream("f", &bundler, 0, 0, 0);
  unsigned char bytes[kBlock];
  bool eof = false;
  try {
    stream.Read(nullptr, bytes, 0, kBlock, &eof, kBlock, 0, kBlock, 4, 0, nullptr);
    FAIL() << "the read returned";
  } catch (const vesk::VeskException& failure) {
    EXPECT_EQ(failure.code, vesk::ERR_ASSERT);
  }
}

TEST_F(StressTest, ABackendThatEndsJobsInsideStartNeverMeetsTheEngine) {
  ImmediateBackend backend;
  vesk::VeskBundler bundler(backend);
  EXPECT_EQ(ReadInParallel(bundler, "f", kMisses), std::vector<int>{});
  EXPECT_GE(Misses(bundler), kMisses);
}

TEST_F(StressTest, ABackendThatEndsJobsOnAnotherCoreNeverMeetsTheEngine) {
  SpinningBackend backend;
  vesk::VeskBundler bundler(backend);
  EXPECT_EQ(ReadInParallel(bundler, "f", kMisses), std::vector<int>{});
  EXPECT_GE(Misses(bundler), kMisses);
}

TEST_F(StressTest, ThreadsOverAFileInMemoryNeverMeetTheEngine) {
  char name[] = "/dev/shm/vesk-stress-XXXXXX";
  const int fd = mkstemp(name);
  ASSERT_GE(fd, 0);
  std::vector<unsigned char> bytes(kBlock * kBlocks);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = FileByte(i);
  ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  close(fd);
  {
    vesk::ThreadsBackend backend({});
    vesk::VeskBundler bundler(backend);
    EXPECT_EQ(ReadInParallel(bundler, name, kMisses), std::vector<int>{});
    EXPECT_GE(Misses(bundler), kMisses);
  }
  unlink(name);
}

}  // namespace
}  // namespace vesk_test
