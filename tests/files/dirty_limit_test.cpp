// The limits for unsaved bytes: who is slowed down, who waits, and what is told.

#include "files/dirty_limit.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <memory>
#include <vector>

#include "runtime/request.h"
#include "tests/support/manual_clock.h"
#include "tests/support/task.h"

namespace vesk_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using vesk::DirtyLimit;
using Room = DirtyLimit::Room;

// Tells until when was waited last.
class NotingClock final : public ManualClock {
 public:
  void WaitUntil(vesk::Condition& condition, vesk::Mutex& mutex,
                 Time until) override VESK_NO_THREAD_SAFETY_ANALYSIS {
    until_ = until;
    ManualClock::WaitUntil(condition, mutex, until);
  }
  Time until() const { return until_; }

 private:
  std::atomic<Time> until_{};
};

class DirtyLimitTest : public ::testing::Test {
 protected:
  DirtyLimitTest() {
    limit_.OnPressure([this](bool hard) {
      const vesk::MutexLock guard(mutex_);
      told_.push_back(hard);
      changed_.WakeAll();
    });
  }

  // True as soon as everything was to be written out so often; false after a while.
  bool AwaitToldHard(std::ptrdiff_t times = 1) {
    const auto watchdog = std::chrono::steady_clock::now() + seconds(10);
    const vesk::MutexLock guard(mutex_);
    while (Hard() < times && std::chrono::steady_clock::now() < watchdog) {
      changed_.WaitUntil(mutex_, watchdog);
    }
    return Hard() >= times;
  }

  std::vector<bool> told() {
    const vesk::MutexLock guard(mutex_);
    return told_;
  }

  // So many bytes are dirty, whatever the limits say.
  void MakeDirty(std::uint64_t bytes) {
    Room room(limit_);
    ASSERT_EQ(room.Admit(bytes), 0);
    room.Use(bytes);
  }

  NotingClock clock_;
  DirtyLimit limit_{100, 200, clock_};

 private:
  std::ptrdiff_t Hard() const VESK_REQUIRES(mutex_) {
    return std::count(told_.begin(), told_.end(), true);
  }

  vesk::Mutex mutex_;
  vesk::Condition changed_;
  std::vector<bool> told_ VESK_GUARDED_BY(mutex_);
};

TEST_F(DirtyLimitTest, UpToTheSoftLimitNobodyIsHeldUp) {
  Room room(limit_);
  EXPECT_TRUE(room.TryAdmit(60));
  EXPECT_TRUE(room.TryAdmit(40));  // there already
  EXPECT_EQ(room.bytes(), 60u);
  EXPECT_TRUE(room.TryAdmit(90));
  EXPECT_EQ(room.Admit(100), 0);
  EXPECT_FALSE(limit_.AboveSoft());
  Room other(limit_);
  EXPECT_FALSE(other.TryAdmit(1));
  room.Use(30);
  room.Reset();  // what is not used is given back
  EXPECT_EQ(room.bytes(), 0u);
  EXPECT_TRUE(other.TryAdmit(70));
  EXPECT_FALSE(other.TryAdmit(71));
  EXPECT_TRUE(told().empty());
  EXPECT_EQ(limit_.throttled(), 0u);
}

TEST_F(DirtyLimitTest, WhoIsNotAloneHasToFitHoweverLittleTheOthersHave) {
  Room room(limit_);
  EXPECT_TRUE(room.TryAdmit(1));
  Room other(limit_);
  EXPECT_FALSE(other.TryAdmit(100));
  EXPECT_TRUE(other.TryAdmit(99));
}

TEST_F(DirtyLimitTest, ThePauseGrowsFromTheSoftLimitToTheHardOne) {
  struct Row {
    std::uint64_t dirty;
    milliseconds pause;
  };
  for (const Row row :
       {Row{120, milliseconds(2)}, Row{150, milliseconds(5)}, Row{190, milliseconds(9)}}) {
    MakeDirty(100);
    {
      Task more([&] { MakeDirty(row.dirty - 100); });  // at the soft limit itself: no pause
      EXPECT_TRUE(more.Await());
    }
    EXPECT_TRUE(limit_.AboveSoft());
    const auto before = limit_.throttled_time();
    Task writer([&] { MakeDirty(1); });
    clock_.AwaitWaiters(1);
    EXPECT_EQ(clock_.until() - clock_.Now(), row.pause) << row.dirty;
    clock_.Advance(row.pause - milliseconds(1));
    EXPECT_FALSE(writer.Ended()) << row.dirty;
    clock_.Advance(milliseconds(1));
    EXPECT_TRUE(writer.Await()) << row.dirty;
    EXPECT_EQ(limit_.throttled_time() - before, row.pause);
    limit_.Sub(row.dirty + 1);
  }
  EXPECT_EQ(limit_.throttled(), 6u);
}

TEST_F(DirtyLimitTest, BelowTheSoftLimitThereIsNoPauseForWhoGoesBeyondIt) {
  MakeDirty(50);
  Task writer([&] { MakeDirty(60); });
  EXPECT_TRUE(writer.Await());
  EXPECT_EQ(limit_.throttled_time(), seconds(0));
}

TEST_F(DirtyLimitTest, AboveTheHardLimitThePauseIsTheLongest) {
  DirtyLimit limit(100, 101, clock_);
  Room room(limit);
  EXPECT_TRUE(room.TryAdmit(300));  // alone
  Task writer([&] {
    Room more(limit);
    EXPECT_EQ(more.Admit(1), 0);
  });
  clock_.AwaitWaiters(1);
  EXPECT_EQ(clock_.until() - clock_.Now(), DirtyLimit::kLongestPause);
  room.Reset();
  EXPECT_TRUE(writer.Await());
}

TEST_F(DirtyLimitTest, WhoHasRoomAlreadyIsNotHeldUp) {
  Room room(limit_);
  EXPECT_TRUE(room.TryAdmit(60));
  MakeDirty(40);
  Room other(limit_);
  EXPECT_EQ(other.Admit(30), 0);  // at the soft limit itself: no pause
  EXPECT_TRUE(other.TryAdmit(30));
  Task writer([&] { EXPECT_EQ(room.Admit(50), 0); });
  EXPECT_TRUE(writer.Await());
  EXPECT_EQ(room.bytes(), 60u);
}

TEST_F(DirtyLimitTest, WhatIsMadeDirtyBeyondARoomCounts) {
  Room room(limit_);
  EXPECT_TRUE(room.TryAdmit(10));
  room.Use(30);
  EXPECT_EQ(room.bytes(), 0u);
  Room other(limit_);
  EXPECT_FALSE(other.TryAdmit(71));
  EXPECT_TRUE(other.TryAdmit(70));
}

TEST_F(DirtyLimitTest, APauseEndsEarlyWhenThereIsRoomBelowTheSoftLimit) {
  MakeDirty(100);
  MakeDirty(80);
  Task writer([&] { MakeDirty(10); });
  clock_.AwaitWaiters(1);
  EXPECT_EQ(told().back(), false) << "writing out has begun";
  limit_.Sub(50);
  EXPECT_FALSE(writer.Ended());
  limit_.Sub(40);
  EXPECT_TRUE(writer.Await());
  EXPECT_EQ(limit_.throttled_time(), seconds(0));
}

TEST_F(DirtyLimitTest, AtTheHardLimitWritersWaitUntilBytesAreStored) {
  MakeDirty(100);
  MakeDirty(100);
  Task writer([&] { MakeDirty(30); });
  clock_.AwaitWaiters(1);
  clock_.Advance(DirtyLimit::kLongestPause);
  EXPECT_TRUE(AwaitToldHard());
  clock_.AwaitWaiters(1);
  clock_.Advance(std::chrono::hours(1));
  EXPECT_FALSE(writer.Ended());
  limit_.Sub(29);
  EXPECT_FALSE(writer.Ended());
  limit_.Sub(1);
  EXPECT_TRUE(writer.Await());
}

TEST_F(DirtyLimitTest, AWriterWithoutAPauseWhoDoesNotFitHasEverythingWrittenOutAtOnce) {
  MakeDirty(100);
  Task writer([&] { MakeDirty(150); });
  EXPECT_TRUE(AwaitToldHard());
  limit_.Sub(100);
  EXPECT_TRUE(writer.Await());
}

TEST_F(DirtyLimitTest, AWriterWhoMakesRoomByHavingEverythingWrittenOutGoesOnAtOnce) {
  DirtyLimit limit(100, 200, clock_);
  limit.OnPressure([&](bool hard) {
    if (hard) limit.Sub(100);
  });
  Room room(limit);
  ASSERT_EQ(room.Admit(100), 0);
  room.Use(100);
  Task writer([&] {
    Room more(limit);
    EXPECT_EQ(more.Admit(150), 0);
  });
  EXPECT_TRUE(writer.Await()) << "it sleeps although there is room";
}

// What others have made dirty meanwhile, or has failed, is to be written as well.
TEST_F(DirtyLimitTest, WhoWaitsAtTheHardLimitHasEverythingWrittenOutNowAndThen) {
  MakeDirty(100);
  MakeDirty(100);
  Task writer([&] { MakeDirty(30); });
  clock_.AwaitWaiters(1);
  clock_.Advance(DirtyLimit::kLongestPause);
  for (std::ptrdiff_t times = 1; times <= 3; ++times) {
    ASSERT_TRUE(AwaitToldHard(times));
    clock_.AwaitWaiters(1);
    const std::vector<bool> so_far = told();
    EXPECT_EQ(std::count(so_far.begin(), so_far.end(), true), times) << "it asks without a pause";
    clock_.Advance(seconds(1));
  }
  limit_.Sub(100);
  EXPECT_TRUE(writer.Await());
}

TEST_F(DirtyLimitTest, WaitsEndWithTheDeadlineOrWhenTheyAreCalledOff) {
  MakeDirty(100);
  MakeDirty(100);
  Task late([&] {
    const vesk::RequestScope scope({clock_.Now() + seconds(2), nullptr});
    Room room(limit_);
    EXPECT_EQ(room.Admit(10), ETIMEDOUT);
    EXPECT_EQ(room.bytes(), 0u);
  });
  clock_.AwaitWaiters(1);
  Task cancelled([&] {
    Room room(limit_);
    EXPECT_EQ(room.Admit(10), ECANCELED);
  });
  clock_.AwaitWaiters(2);
  cancelled.Cancel();
  EXPECT_TRUE(cancelled.Await());
  clock_.Advance(seconds(2));
  EXPECT_TRUE(late.Await());
  limit_.Sub(200);
  Room room(limit_);
  EXPECT_TRUE(room.TryAdmit(100)) << "those who gave up hold something";
}

TEST_F(DirtyLimitTest, WithNobodyToTellItIsWaitedAllTheSame) {
  DirtyLimit limit(100, 200, clock_);
  Room room(limit);
  ASSERT_EQ(room.Admit(100), 0);
  room.Use(100);
  Task writer([&] {
    Room more(limit);
    EXPECT_EQ(more.Admit(150), 0);
  });
  clock_.AwaitWaiters(1);
  EXPECT_FALSE(writer.Ended());
  limit.Sub(100);
  EXPECT_TRUE(writer.Await());
}

TEST_F(DirtyLimitTest, ARoomThatGrowsBeyondTheLimitIsAdmittedWhereItIsAlone) {
  Room room(limit_);
  EXPECT_TRUE(room.TryAdmit(60));
  EXPECT_EQ(room.Admit(150), 0);
  EXPECT_EQ(room.bytes(), 150u);
  EXPECT_TRUE(told().empty());
  EXPECT_EQ(limit_.throttled(), 0u);
  room.Reset();
  EXPECT_FALSE(limit_.AboveSoft());
  EXPECT_TRUE(room.TryAdmit(100));
}

// Otherwise it would never be served.
TEST_F(DirtyLimitTest, AWriteLargerThanTheLimitIsAdmittedAlone) {
  Room room(limit_);
  EXPECT_TRUE(room.TryAdmit(1000));
  Room other(limit_);
  EXPECT_FALSE(other.TryAdmit(1));
  room.Use(1000);
  Task writer([&] { MakeDirty(500); });
  clock_.AwaitWaiters(1);
  clock_.Advance(DirtyLimit::kLongestPause);
  EXPECT_FALSE(writer.Ended());
  limit_.Sub(1000);
  EXPECT_TRUE(writer.Await());
}

}  // namespace
}  // namespace vesk_test
