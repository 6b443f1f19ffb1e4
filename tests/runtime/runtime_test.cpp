// The whole runtime as a program brings it up.

#include "runtime/runtime.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "runtime/decorator_retry.h"
#include "tests/support/jobs.h"
#include "tests/support/temporary_directory.h"
#include "vesk/VeskException.h"
#include "vesk/VeskLock.h"
#include "vesk/VeskStream.h"

namespace vesk_test {
namespace {

using vesk::Settings;
using vesk::VeskJob;
using vesk::VeskRuntime;

class RuntimeTest : public ::testing::Test {
 protected:
  RuntimeTest() { settings_.log_stderr = false; }

  std::string Log() const {
    std::ostringstream content;
    content << std::ifstream(directory_ / "log").rdbuf();
    return content.str();
  }

  const TemporaryDirectory directory_;
  const std::string name_ = directory_ / "file";
  Settings settings_;
};

TEST_F(RuntimeTest, IsUpAndDownWithTheEnvironmentSetInBetween) {
  EXPECT_EQ(vesk::gEnv, nullptr);
  {
    VeskRuntime runtime(settings_);
    ASSERT_NE(vesk::gEnv, nullptr);
    EXPECT_EQ(vesk::gEnv->settings, &settings_);
    EXPECT_EQ(vesk::gEnv->logger, &runtime.logger());
    EXPECT_NE(vesk::gEnv->thread_pool, nullptr);
    EXPECT_EQ(runtime.store().Create(name_, 0600), 0);
    vesk::FileInfo info;
    EXPECT_EQ(runtime.store().Stat(name_, &info), 0);
    EXPECT_TRUE(runtime.Stop());
    EXPECT_EQ(runtime.store().Stat(name_, &info), ESHUTDOWN);
  }
  EXPECT_EQ(vesk::gEnv, nullptr);
}

TEST_F(RuntimeTest, RefusesAStoreThatItCannotUnderstand) {
  settings_.store = "posix,retyr";
  try {
    VeskRuntime runtime(settings_);
    FAIL() << "it came up";
  } catch (const std::invalid_argument& refusal) {
    EXPECT_NE(std::string(refusal.what()).find("retry"), std::string::npos) << refusal.what();
  }
  EXPECT_EQ(vesk::gEnv, nullptr);
}

TEST_F(RuntimeTest, RefusesALogFileThatItCannotOpen) {
  settings_.log_file = directory_ / "absent/log";
  EXPECT_ANY_THROW(VeskRuntime runtime(settings_));
  EXPECT_EQ(vesk::gEnv, nullptr);
}

TEST_F(RuntimeTest, ItsReaperCollectsWhatTheCacheLeavesInFlight) {
  std::ofstream(name_) << std::string(64 * 20, 'x');
  settings_.store = "posix";
  VeskRuntime runtime(settings_);

  struct Collected : vesk::CachedFile {
    explicit Collected(vesk::VeskStream& a_stream) : stream(a_stream) {}
    void Reap() override {
      const vesk::Holding<vesk::VeskLock> guard(lock);
      for (vesk::VeskBuffer* block : stream.buffers) {
        if (block->job != nullptr) {
          block->WaitForBuffer(&lock, stream.bundler, stream.name, false, "Reap");
        }
      }
    }
    void WriteFails(const vesk::WriteFailure& /*failure*/) override {}
    vesk::VeskLock lock;
    vesk::VeskStream& stream;
  };
  vesk::VeskStream stream(name_, &runtime.bundler(), 0, 0, 0);
  Collected file(stream);
  runtime.reaper().Add(name_, file);
  {
    const vesk::Holding<vesk::VeskLock> guard(file.lock);
    unsigned char bytes[64];
    bool eof = false;
    unsigned int count = 0;
    while (count == 0) {
      try {
        count = stream.Read(&file.lock, bytes, 0, 64, &eof, 64 * 20, 0, 64, 20, 10, nullptr);
      } catch (const vesk::VeskException& wait) {
        ASSERT_EQ(wait.code, vesk::ERR_WAIT);
      }
    }
  }
  const auto in_flight = [&] {
    const vesk::Holding<vesk::VeskLock> guard(file.lock);
    int jobs = 0;
    for (const vesk::VeskBuffer* block : stream.buffers) jobs += block->job != nullptr ? 1 : 0;
    return jobs;
  };
  const auto watchdog = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (in_flight() > 0 && std::chrono::steady_clock::now() < watchdog) std::this_thread::yield();
  EXPECT_EQ(in_flight(), 0);
  EXPECT_EQ(stream.buffers.size(), 11u);
  runtime.reaper().Remove(file);
}

TEST_F(RuntimeTest, AFailingWriteIsLoggedAndToldToItsFiles) {
  settings_.store = "posix,fault=write:ENOSPC:times=1,retry";
  settings_.log_file = directory_ / "log";
  settings_.log_levels = vesk::kLogError | vesk::kLogInfo;
  settings_.retry_first_delay_ms = 1;
  struct Watcher : vesk::CachedFile {
    void Reap() override {}
    void WriteFails(const vesk::WriteFailure& failure) override { errors.push_back(failure.error); }
    std::vector<int> errors;
  } watcher;
  {
    VeskRuntime runtime(settings_);
    ASSERT_EQ(runtime.store().Create(name_, 0600), 0);
    runtime.reaper().Add(name_, watcher);
    const JobHolder job(NewWrite(name_, "bytes", 5, 0));
    runtime.bundler().SubmitJob(job.get());
    runtime.bundler().WaitForJob(job.get(), nullptr, "Flush");
    EXPECT_EQ(job->GetReturnValue(), 0);
    runtime.reaper().Remove(watcher);
    EXPECT_EQ(runtime.retry()->GetTotals().writes.recovered, 1u);
  }
  EXPECT_EQ(watcher.errors, std::vector<int>{ENOSPC});
  EXPECT_NE(Log().find("fails with errno 28, kept and tried again"), std::string::npos) << Log();
  EXPECT_NE(Log().find("write-backs have recovered"), std::string::npos) << Log();
}

TEST_F(RuntimeTest, AStoreThatNeverAnswersDoesNotHoldItsEndUp) {
  settings_.store = "posix,fault=write:never";
  settings_.shutdown_timeout_ms = 1;
  VeskRuntime runtime(settings_);
  ASSERT_EQ(runtime.store().Create(name_, 0600), 0);
  const JobHolder job(NewWrite(name_, "bytes", 5, 0));
  runtime.bundler().SubmitJob(job.get());
  EXPECT_TRUE(runtime.Stop());
  EXPECT_EQ(job->GetReturnValue(), ESHUTDOWN);
}

// Opening a FIFO that nobody writes to hangs inside the system, as a dead network file system does.
TEST_F(RuntimeTest, AStoreThatHangsInsideTheSystemDoesNotHoldItsEndUp) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  const std::string fifo = directory_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  settings_.store = "posix";
  settings_.shutdown_timeout_ms = 20;
  settings_.log_stderr = true;
  settings_.log_levels = vesk::kLogError;
  EXPECT_EXIT(
      {
        auto runtime = std::make_unique<VeskRuntime>(settings_);
        unsigned char memory[64];
        unsigned int count = 0;
        VeskJob* const job = NewRead(fifo, memory, sizeof memory, 0, &count);
        runtime->bundler().SubmitJob(job);
        const bool all_ended = runtime->Stop();
        runtime.reset();
        _exit(all_ended ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "1 jobs are stuck in the store at the end");
}

TEST_F(RuntimeTest, ParkedWritesEndWithAClearCodeAtTheEnd) {
  settings_.store = "posix,fault=write:EIO,retry";
  settings_.shutdown_timeout_ms = 20;
  settings_.retry_first_delay_ms = 1;
  VeskRuntime runtime(settings_);
  ASSERT_EQ(runtime.store().Create(name_, 0600), 0);
  const JobHolder job(NewWrite(name_, "bytes", 5, 0));
  runtime.bundler().SubmitJob(job.get());
  EXPECT_TRUE(runtime.Stop());
  EXPECT_NE(job->GetReturnValue(), 0);
}

TEST_F(RuntimeTest, LogLevelsChangeWhileItRuns) {
  settings_.log_file = directory_ / "log";
  VeskRuntime runtime(settings_);
  runtime.logger().Info({"test", 1}, "not kept\n");
  settings_.log_levels = vesk::kLogInfo;
  runtime.SettingsChanged();
  runtime.logger().Info({"test", 2}, "kept\n");
  EXPECT_EQ(Log().find("not kept"), std::string::npos);
  EXPECT_NE(Log().find("test:2 kept"), std::string::npos);
}

// Every setting reaches what it is for.
class SettingsReachTest : public RuntimeTest {
 protected:
  static std::size_t EntriesOf(const char* directory) {
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(directory),
                                                  std::filesystem::directory_iterator()));
  }

  // Descriptors that are open on files of the test's directory.
  std::vector<int> OpenFiles() const {
    std::vector<int> open_files;
    for (int fd = 0; fd < 1024; ++fd) {
      std::error_code gone;
      const auto target =
          std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), gone);
      if (!gone && target.string().rfind(directory_ / "", 0) == 0) open_files.push_back(fd);
    }
    return open_files;
  }

  std::size_t Count(const std::string& text) const {
    const std::string log = Log();
    std::size_t count = 0;
    for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
      ++count;
    }
    return count;
  }
};

TEST_F(SettingsReachTest, ThreadsOfStoreAndReaper) {
  settings_.store = "posix";
  const std::size_t before = EntriesOf("/proc/self/task");
  settings_.threads = 7;
  settings_.reaper_threads = 3;
  const VeskRuntime runtime(settings_);
  EXPECT_EQ(EntriesOf("/proc/self/task"), before + 10);
}

TEST_F(SettingsReachTest, DescriptorsKeptOpen) {
  settings_.store = "posix";
  settings_.descriptors = 2;
  VeskRuntime runtime(settings_);
  for (int i = 0; i < 5; ++i) {
    ASSERT_EQ(runtime.store().Create(name_ + std::to_string(i), 0600), 0);
    ASSERT_EQ(runtime.store().Open(name_ + std::to_string(i), vesk::Access::kRead), 0);
  }
  EXPECT_EQ(OpenFiles().size(), 2u);
}

TEST_F(SettingsReachTest, DirectTransfers) {
  std::ofstream(name_) << std::string(8192, 'x');
  settings_.store = "posix";
  settings_.direct = true;
  VeskRuntime runtime(settings_);
  std::vector<char> memory(4096);
  unsigned int count = 0;
  const JobHolder job(NewRead(name_, memory.data(), 4096, 4096, &count));
  runtime.bundler().SubmitJob(job.get());
  runtime.bundler().WaitForJob(job.get(), nullptr, "Read");
  EXPECT_EQ(job->GetReturnValue(), 0);
  EXPECT_EQ(memory, std::vector<char>(4096, 'x'));
  const std::vector<int> open_files = OpenFiles();
  ASSERT_EQ(open_files.size(), 1u);
  EXPECT_NE(fcntl(open_files[0], F_GETFL) & O_DIRECT, 0);
}

TEST_F(SettingsReachTest, LinesAndLevelsKeptInMemory) {
  settings_.log_file = directory_ / "log";
  settings_.log_ring_lines = 3;
  settings_.log_ring_levels = vesk::kLogTrace;
  VeskRuntime runtime(settings_);
  for (int i = 0; i < 10; ++i) runtime.logger().Trace({"test", i}, "kept\n");
  runtime.logger().Info({"test", 20}, "kept\n");
  runtime.logger().DumpRing("asked for");
  EXPECT_EQ(Count(" kept"), 3u);
  settings_.log_ring_levels = vesk::kLogInfo;
  runtime.SettingsChanged();
  runtime.logger().Trace({"test", 21}, "kept\n");
  runtime.logger().Info({"test", 22}, "kept\n");
  runtime.logger().DumpRing("asked for");
  EXPECT_EQ(Count(" kept"), 4u);
}

TEST_F(SettingsReachTest, SizeCountAndFormOfLogFiles) {
  settings_.log_file = directory_ / "log";
  settings_.log_file_size = 4096;
  settings_.log_file_count = 2;
  settings_.log_format = vesk::LogFormat::kJson;
  settings_.log_levels = vesk::kLogInfo;
  {
    VeskRuntime runtime(settings_);
    for (int i = 0; i < 200; ++i) runtime.logger().Info({"test", i}, "line\n");
  }
  EXPECT_TRUE(std::filesystem::exists(directory_ / "log.1"));
  EXPECT_FALSE(std::filesystem::exists(directory_ / "log.2"));
  EXPECT_LE(std::filesystem::file_size(directory_ / "log"), 4096u + 512);
  EXPECT_EQ(Log().front(), '{');
}

TEST_F(RuntimeTest, RequestsHaveTheTimeThatTheSettingSays) {
  VeskRuntime runtime(settings_);
  EXPECT_EQ(runtime.NewLimits().deadline, vesk::Clock::kNever);
  settings_.request_timeout_ms = 60000;
  const vesk::RequestLimits limits = runtime.NewLimits();
  EXPECT_GT(limits.deadline, runtime.clock().Now());
  EXPECT_LE(limits.deadline, runtime.clock().Now() + std::chrono::minutes(1));
}

}  // namespace
}  // namespace vesk_test
