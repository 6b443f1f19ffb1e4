// The limits for unsaved bytes: who is slowed down, who waits, and what is told.

#include "files/dirty_limit.h"

#include <gtest/gtest.h>

#include <cerrno>
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

class DirtyLimitTest : public ::testing::Test {
 protected:
  DirtyLimitTest() {
    limit_.OnPressure([this](bool hard) {
      const vesk::MutexLock guard(mutex_);
      told_.push_back(hard);
      changed_.WakeAll();
    });
  }

  // True as soon as everything is to be written out; false after a while.
  bool AwaitToldHard() {
    const auto watchdog = std::chrono::steady_clock::now() + seconds(10);
    const vesk::MutexLock guard(mutex_);
    while ((told_.empty() || !told_.back()) && std::chrono::steady_clock::now() < watchdog) {
      changed_.WaitUntil(mutex_, watchdog);
    }
    return !told_.empty() && told_.back();
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

  ManualClock clock_;
  DirtyLimit limit_{100, 200, clock_};

 private:
  vesk::Mutex mutex_;
  vesk::Condition changed_;
  std::vector<bool> told_ VESK_GUARDED_BY(mutex_);
};

TEST_F(DirtyLimitTest, UpToTheSoftLimitNobodyIsHeldUp) {
  Room room(limit_);
  EXPECT_TRUE(room.TryAdmit(60));
  EXPECT_TRUE(room.TryAdmit(40));  // there already
  EXPECT_EQ(room.bytes(), 60u);
  EXPECT_EQ(room.Admit(100), 0);
  EXPECT_FALSE(limit_.AboveSoft());
  Room other(limit_);
  EXPECT_FALSE(other.TryAdmit(1));
  room.Use(30);
  room.Reset();  // what is not used is given back
  EXPECT_TRUE(other.TryAdmit(70));
  EXPECT_FALSE(other.TryAdmit(71));
  EXPECT_TRUE(told().empty());
  EXPECT_EQ(limit_.throttled(), 0u);
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
    clock_.Advance(row.pause - milliseconds(1));
    EXPECT_FALSE(writer.Ended()) << row.dirty;
    clock_.Advance(milliseconds(1));
    EXPECT_TRUE(writer.Await()) << row.dirty;
    EXPECT_EQ(limit_.throttled_time() - before, row.pause);
    limit_.Sub(row.dirty + 1);
  }
  EXPECT_EQ(limit_.throttled(), 6u);
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
