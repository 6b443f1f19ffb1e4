// The whole runtime as a program brings it up.

#include "runtime/runtime.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
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
