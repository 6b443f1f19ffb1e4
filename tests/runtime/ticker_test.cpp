// When the thread does its work, and that it stops.

#include "runtime/ticker.h"

#include <gtest/gtest.h>

#include <memory>

#include "tests/support/manual_clock.h"

namespace vesk_test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using vesk::MutexLock;
using vesk::Ticker;

class TickerTest : public ::testing::Test {
 protected:
  void Work() {
    const MutexLock guard(mutex_);
    ++rounds_;
    changed_.WakeAll();
    while (stopped_) changed_.Wait(mutex_);
  }

  // True as soon as the work was begun so many times; false after a while.
  bool AwaitRounds(unsigned rounds) {
    const auto watchdog = std::chrono::steady_clock::now() + seconds(10);
    const MutexLock guard(mutex_);
    while (rounds_ < rounds && std::chrono::steady_clock::now() < watchdog) {
      changed_.WaitUntil(mutex_, watchdog);
    }
    return rounds_ >= rounds;
  }
  unsigned rounds() {
    const MutexLock guard(mutex_);
    return rounds_;
  }
  void StopInside(bool stopped) {
    const MutexLock guard(mutex_);
    stopped_ = stopped;
    changed_.WakeAll();
  }

  ManualClock clock_;

 private:
  vesk::Mutex mutex_;
  vesk::Condition changed_;
  unsigned rounds_ VESK_GUARDED_BY(mutex_) = 0;
  bool stopped_ VESK_GUARDED_BY(mutex_) = false;
};

TEST_F(TickerTest, WorksOnceEveryInterval) {
  Ticker ticker(clock_, seconds(5), [this] { Work(); });
  clock_.AwaitWaiters(1);
  EXPECT_EQ(rounds(), 0u) << "not at once";
  clock_.Advance(seconds(5) - milliseconds(1));
  clock_.AwaitWaiters(1);
  EXPECT_EQ(rounds(), 0u);
  for (unsigned i = 1; i <= 3; ++i) {
    clock_.AwaitWaiters(1);
    clock_.Advance(i == 1 ? milliseconds(1) : seconds(5));
    ASSERT_TRUE(AwaitRounds(i));
    clock_.AwaitWaiters(1);
    EXPECT_EQ(rounds(), i);
  }
}

TEST_F(TickerTest, AKickIsDueAtOnceAndBeginsTheIntervalAnew) {
  Ticker ticker(clock_, seconds(5), [this] { Work(); });
  clock_.AwaitWaiters(1);
  clock_.Advance(seconds(4));
  ticker.Kick();
  ASSERT_TRUE(AwaitRounds(1));
  clock_.AwaitWaiters(1);
  clock_.Advance(seconds(4));
  clock_.AwaitWaiters(1);
  EXPECT_EQ(rounds(), 1u);
  clock_.Advance(seconds(1));
  EXPECT_TRUE(AwaitRounds(2));
}

TEST_F(TickerTest, KicksDuringTheWorkAreOneMore) {
  StopInside(true);
  Ticker ticker(clock_, seconds(5), [this] { Work(); });
  ticker.Kick();
  ASSERT_TRUE(AwaitRounds(1));
  for (unsigned i = 0; i < 5; ++i) ticker.Kick();
  StopInside(false);
  ASSERT_TRUE(AwaitRounds(2));
  clock_.AwaitWaiters(1);
  EXPECT_EQ(rounds(), 2u);
}

TEST_F(TickerTest, EndsWithoutWaitingForTheInterval) {
  auto ticker = std::make_unique<Ticker>(clock_, std::chrono::hours(1), [this] { Work(); });
  clock_.AwaitWaiters(1);
  ticker.reset();
  EXPECT_EQ(rounds(), 0u);
  clock_.Advance(std::chrono::hours(2));
  EXPECT_EQ(rounds(), 0u);
}

TEST_F(TickerTest, EndsAfterTheWorkThatIsUnderWay) {
  bool done = false;
  auto ticker = std::make_unique<Ticker>(clock_, seconds(1), [this, &done] {
    Work();
    done = true;
  });
  ticker->Kick();
  ASSERT_TRUE(AwaitRounds(1));
  ticker.reset();
  EXPECT_TRUE(done);
}

}  // namespace
}  // namespace vesk_test
