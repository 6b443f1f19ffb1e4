// Who looks at which file, and when: no wake-up is lost, and nothing is looked at for nothing.

#include "runtime/reaper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "runtime/dispatcher.h"
#include "tests/support/allocation.h"
#include "tests/support/jobs.h"
#include "tests/support/stub_backend.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskLock.h"

namespace vesk_test {
namespace {

using vesk::MutexLock;
using vesk::Reaper;
using vesk::VeskThreadPool;

// Counts the looks at it.
class CountedFile : public vesk::CachedFile {
 public:
  virtual ~CountedFile() = default;

  void Reap() override {
    if (on_reap) on_reap();
    const MutexLock guard(mutex_);
    ++looks_;
    changed_.WakeAll();
  }
  void WriteFails(const vesk::WriteFailure& failure) override { failures.push_back(failure.error); }

  // The looks so far, once there are that many or a bounded while has passed.
  int Looks(int at_least) {
    const auto watchdog = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    const MutexLock guard(mutex_);
    while (looks_ < at_least && std::chrono::steady_clock::now() < watchdog) {
      changed_.WaitUntil(mutex_, watchdog);
    }
    return looks_;
  }

  std::function<void()> on_reap;
  std::vector<int> failures;

 private:
  vesk::Mutex mutex_;
  vesk::Condition changed_;
  int looks_ VESK_GUARDED_BY(mutex_) = 0;
};

// What the cache does after it has submitted a job that nobody waits for.
void Mark(VeskThreadPool& pool, const std::string& name) {
  pthread_mutex_lock(&pool.tp_mutex);
  pool.pending_streams[name] = 1;
  pthread_cond_signal(&pool.tp_cond);
  pthread_mutex_unlock(&pool.tp_mutex);
}

class ReaperTest : public ::testing::Test {
 protected:
  VeskThreadPool pool_;
};

TEST_F(ReaperTest, LooksAtAFileWhenItsNameIsMarked) {
  CountedFile file;
  CountedFile other;
  Reaper reaper(pool_, 1);
  reaper.Add("f", file);
  reaper.Add("g", other);
  Mark(pool_, "f");
  EXPECT_EQ(file.Looks(1), 1);
  EXPECT_EQ(other.Looks(0), 0);
  reaper.Remove(file);
  reaper.Remove(other);
}

TEST_F(ReaperTest, ANameMarkedBeforeItBeganIsNotLost) {
  CountedFile file;
  Mark(pool_, "f");
  // The name is looked up when the thread gets to it: the file is added first.
  pthread_mutex_lock(&pool_.tp_mutex);
  Reaper reaper(pool_, 1);
  reaper.Add("f", file);
  pthread_mutex_unlock(&pool_.tp_mutex);
  EXPECT_EQ(file.Looks(1), 1);
  reaper.Remove(file);
}

// A mark that comes while the file is being looked at may be for a job that the look has passed.
TEST_F(ReaperTest, AMarkDuringALookIsFollowedByAnother) {
  CountedFile file;
  std::atomic<bool> inside{false};
  std::atomic<bool> leave{false};
  file.on_reap = [&] {
    inside = true;
    while (!leave) std::this_thread::yield();
  };
  Reaper reaper(pool_, 2);  // the second thread takes the mark and must not lose it
  reaper.Add("f", file);
  Mark(pool_, "f");
  while (!inside) std::this_thread::yield();
  Mark(pool_, "f");
  for (;;) {  // until a thread has taken it
    pthread_mutex_lock(&pool_.tp_mutex);
    const bool taken = pool_.pending_streams.empty();
    pthread_mutex_unlock(&pool_.tp_mutex);
    if (taken) break;
    std::this_thread::yield();
  }
  leave = true;
  EXPECT_GE(file.Looks(2), 2);
  reaper.Remove(file);
}

TEST_F(ReaperTest, AFileIsNeverLookedAtByTwoThreadsAtOnce) {
  CountedFile file;
  std::atomic<int> inside{0};
  std::atomic<bool> together{false};
  file.on_reap = [&] {
    if (++inside > 1) together = true;
    std::this_thread::yield();
    --inside;
  };
  {
    Reaper reaper(pool_, 4);
    reaper.Add("f", file);
    for (int i = 0; i < 2000; ++i) Mark(pool_, "f");
    file.Looks(1);
    reaper.Remove(file);
  }
  EXPECT_FALSE(together);
}

TEST_F(ReaperTest, AllFilesOfANameAreLookedAt) {
  CountedFile first;
  CountedFile second;
  Reaper reaper(pool_, 1);
  reaper.Add("f", first);
  reaper.Add("f", second);
  Mark(pool_, "f");
  EXPECT_EQ(first.Looks(1), 1);
  EXPECT_EQ(second.Looks(1), 1);
  reaper.Remove(first);
  Mark(pool_, "f");
  EXPECT_EQ(second.Looks(2), 2);
  EXPECT_EQ(first.Looks(0), 1);
  reaper.Remove(second);
}

TEST_F(ReaperTest, NoCallOfAFileIsRunningAfterItsRemoval) {
  CountedFile file;
  std::atomic<bool> inside{false};
  std::atomic<bool> done{false};
  file.on_reap = [&] {
    inside = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // time for a wrong return to show
    done = true;
  };
  Reaper reaper(pool_, 1);
  reaper.Add("f", file);
  Mark(pool_, "f");
  while (!inside) std::this_thread::yield();
  reaper.Remove(file);
  EXPECT_TRUE(done);
  Mark(pool_, "f");  // nobody's any more
}

TEST_F(ReaperTest, LooksAtWhatIsMarkedBeforeItEnds) {
  CountedFile file;
  {
    Reaper reaper(pool_, 1);
    reaper.Add("f", file);
    Mark(pool_, "f");
  }
  EXPECT_EQ(file.Looks(0), 1);
}

TEST_F(ReaperTest, TellsEveryFileOfTheNameOfAFailingWrite) {
  CountedFile file;
  CountedFile same;
  CountedFile other;
  Reaper reaper(pool_, 1);
  reaper.Add("f", file);
  reaper.Add("f", same);
  reaper.Add("g", other);
  const std::string name = "f";
  reaper.WriteFails({name, 0, 10, EIO, true, 1, false});
  EXPECT_EQ(file.failures, std::vector<int>{EIO});
  EXPECT_EQ(same.failures, std::vector<int>{EIO});
  EXPECT_TRUE(other.failures.empty());
  for (CountedFile* known : {&file, &same, &other}) reaper.Remove(*known);
}

// The cache marks a name when a job starts. The job ends long after that mark was taken: the end
// has to bring the reaper back.
TEST_F(ReaperTest, TheEndOfAJobBringsItBackWithoutAnotherMark) {
  StubBackend backend;
  vesk::VeskBundler bundler(backend);
  CountedFile file;
  Reaper reaper(pool_, 1);
  bundler.dispatcher().OnEnd([&](const std::string& name) { reaper.JobEnded(name); });
  reaper.Add("f", file);
  unsigned int count = 0;
  const JobHolder job(NewRead("f", nullptr, 0, 0, &count));
  std::atomic<bool> finished_at_look{false};
  file.on_reap = [&] { finished_at_look = job->GetJobState() == vesk::JOB_STATE_DONE; };
  bundler.SubmitJob(job.get());
  Mark(pool_, "f");
  EXPECT_EQ(file.Looks(1), 1);
  EXPECT_FALSE(finished_at_look);
  backend.End(job.get(), 0);
  EXPECT_EQ(file.Looks(2), 2);
  EXPECT_TRUE(finished_at_look);
  reaper.Remove(file);
}

// What the reaper has done when it does nothing more. A thread that was signalled for a name which
// the other one took has yet to wake: it has not if nothing changes for a while.
Reaper::Stats StatsOnceQuiet(const Reaper& reaper) {
  const auto watchdog = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (Reaper::Stats before = reaper.GetStats();;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const Reaper::Stats now = reaper.GetStats();
    if (now.wakeups == before.wakeups && now.looks == before.looks) return now;
    if (std::chrono::steady_clock::now() > watchdog) {
      ADD_FAILURE() << "the reaper is never quiet: " << now.wakeups << " wake-ups";
      return now;
    }
    before = now;
  }
}

// Thousands of files with jobs in flight, each marked: when all were looked at, the reaper sleeps.
TEST_F(ReaperTest, IsIdleWhileNothingHappensHoweverManyFilesHaveJobsInFlight) {
  constexpr int kFiles = 5000;
  std::vector<std::unique_ptr<CountedFile>> files;
  Reaper reaper(pool_, 2);
  for (int i = 0; i < kFiles; ++i) {
    files.push_back(std::make_unique<CountedFile>());
    reaper.Add(std::to_string(i), *files.back());
    Mark(pool_, std::to_string(i));
  }
  for (const auto& file : files) EXPECT_EQ(file->Looks(1), 1);

  EXPECT_EQ(StatsOnceQuiet(reaper).looks, static_cast<std::uint64_t>(kFiles));

  for (int i = 0; i < kFiles; ++i) reaper.JobEnded(std::to_string(i));
  for (const auto& file : files) EXPECT_GE(file->Looks(2), 2);
  for (const auto& file : files) reaper.Remove(*file);
}

// Many threads mark and end at random: after the last one every file was looked at once more.
TEST_F(ReaperTest, NoMarkIsLostUnderLoad) {
  constexpr unsigned int kFiles = 50;
  struct CheckedFile : CountedFile {
    std::atomic<int> ended{0};  // raised before the mark
    std::atomic<int> seen{0};   // `ended` as the last look found it
  };
  std::vector<std::unique_ptr<CheckedFile>> files;
  Reaper reaper(pool_, 3);
  for (unsigned int i = 0; i < kFiles; ++i) {
    files.push_back(std::make_unique<CheckedFile>());
    CheckedFile* const file = files.back().get();
    file->on_reap = [file] { file->seen = file->ended.load(); };
    reaper.Add(std::to_string(i), *file);
  }
  std::vector<std::thread> threads;
  for (unsigned int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      unsigned int random = t + 1;
      for (int i = 0; i < 5000; ++i) {
        random = random * 1103515245 + 12345;
        const unsigned int which = (random >> 8) % kFiles;
        ++files[which]->ended;
        reaper.JobEnded(std::to_string(which));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const auto watchdog = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  for (const auto& file : files) {
    while (file->seen != file->ended && std::chrono::steady_clock::now() < watchdog) {
      std::this_thread::yield();
    }
    EXPECT_EQ(file->seen, file->ended);
  }
  for (const auto& file : files) reaper.Remove(*file);
}

TEST_F(ReaperTest, LooksAtEveryFileWhenThereIsNoMemoryForAName) {
  CountedFile file;
  CountedFile other;
  Reaper reaper(pool_, 1);
  reaper.Add("f", file);
  reaper.Add("g", other);
  const std::string long_name(1000, 'x');
  {
    const FailingAllocation next(1);
    reaper.JobEnded(long_name);
    EXPECT_TRUE(next.Fired());
  }
  EXPECT_GE(file.Looks(1), 1);
  EXPECT_GE(other.Looks(1), 1);
  reaper.Remove(file);
  reaper.Remove(other);
}

}  // namespace
}  // namespace vesk_test
