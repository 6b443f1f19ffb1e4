// Who gets the turn of a file, and in which order.

#include "files/turn.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "runtime/request.h"
#include "tests/support/manual_clock.h"
#include "tests/support/task.h"

namespace vesk_test {
namespace {

using std::chrono::seconds;
using vesk::Turn;

class TurnTest : public ::testing::Test {
 protected:
  // Notes in which order things happened.
  void Note(const std::string& what) {
    const vesk::MutexLock guard(mutex_);
    order_.push_back(what);
  }
  std::vector<std::string> order() {
    const vesk::MutexLock guard(mutex_);
    return order_;
  }

  std::unique_ptr<Task> Taker(const std::string& name) {
    return std::make_unique<Task>([this, name] {
      Turn::Holder turn(turn_);
      ASSERT_EQ(turn.Take(&name), 0);
      EXPECT_TRUE(turn.has());
      Note(name);
    });
  }
  std::unique_ptr<Task> Passer() {
    return std::make_unique<Task>([this] {
      ASSERT_EQ(turn_.Pass(), 0);
      Note("pass");
    });
  }

  ManualClock clock_;
  Turn turn_{clock_};
  Turn::Holder mine_{turn_};  // the test's own

 private:
  vesk::Mutex mutex_;
  std::vector<std::string> order_ VESK_GUARDED_BY(mutex_);
};

TEST_F(TurnTest, IsTakenFromEverybodyElse) {
  const int me = 0;
  const int you = 0;
  EXPECT_FALSE(turn_.IsTakenFrom(nullptr));
  EXPECT_EQ(mine_.Take(&me), 0);
  EXPECT_FALSE(turn_.IsTakenFrom(&me));
  EXPECT_TRUE(turn_.IsTakenFrom(&you));
  EXPECT_TRUE(turn_.IsTakenFrom(nullptr));
  mine_.Give();
  EXPECT_FALSE(turn_.IsTakenFrom(&you));
  EXPECT_EQ(turn_.Pass(), 0);
}

TEST_F(TurnTest, FirstComeIsFirstServed) {
  const int me = 0;
  ASSERT_EQ(mine_.Take(&me), 0);
  std::vector<std::unique_ptr<Task>> tasks;
  std::vector<std::string> expected;
  for (unsigned i = 0; i < 6; ++i) {
    expected.push_back(std::to_string(i));
    tasks.push_back(Taker(expected.back()));
    clock_.AwaitWaiters(i + 1);
  }
  EXPECT_TRUE(order().empty());
  mine_.Give();
  for (const auto& task : tasks) EXPECT_TRUE(task->Await());
  EXPECT_EQ(order(), expected);
}

// However many queue for the turn: between two of them those that pass go on.
TEST_F(TurnTest, WhoWaitsToPassGoesBeforeTheNextTurn) {
  const int me = 0;
  ASSERT_EQ(mine_.Take(&me), 0);
  std::vector<std::unique_ptr<Task>> tasks;
  tasks.push_back(Taker("first"));
  clock_.AwaitWaiters(1);
  tasks.push_back(Taker("second"));
  clock_.AwaitWaiters(2);
  tasks.push_back(Passer());
  clock_.AwaitWaiters(3);
  tasks.push_back(Passer());
  clock_.AwaitWaiters(4);
  mine_.Give();
  for (const auto& task : tasks) EXPECT_TRUE(task->Await());
  // Those who pass go on in threads of their own: only the order of the turns is certain to be
  // seen.
  const std::vector<std::string> seen = order();
  ASSERT_EQ(seen.size(), 4u);
  EXPECT_LT(std::find(seen.begin(), seen.end(), "first"),
            std::find(seen.begin(), seen.end(), "second"));
}

// The same, with one who is woken in time and comes to it late.
class LateClock final : public ManualClock {
 public:
  void WaitUntil(vesk::Condition& condition, vesk::Mutex& mutex,
                 Time until) override VESK_NO_THREAD_SAFETY_ANALYSIS {
    {
      const vesk::MutexLock guard(mutex_);
      ++waits_;
      changed_.WakeAll();
    }
    ManualClock::WaitUntil(condition, mutex, until);
    if (!late) return;
    mutex.unlock();
    {
      const vesk::MutexLock guard(mutex_);
      while (!go_on_) changed_.Wait(mutex_);
    }
    mutex.lock();
  }

  // Returns when threads have begun to wait so often, after a while in any case.
  void AwaitWaits(unsigned count) {
    const auto watchdog = std::chrono::steady_clock::now() + seconds(10);
    const vesk::MutexLock guard(mutex_);
    while (waits_ < count && std::chrono::steady_clock::now() < watchdog) {
      changed_.WaitUntil(mutex_, watchdog);
    }
  }
  void GoOn() {
    const vesk::MutexLock guard(mutex_);
    go_on_ = true;
    changed_.WakeAll();
  }

  inline static thread_local bool late = false;

 private:
  vesk::Mutex mutex_;
  vesk::Condition changed_;
  unsigned waits_ VESK_GUARDED_BY(mutex_) = 0;
  bool go_on_ VESK_GUARDED_BY(mutex_) = false;
};

TEST(LateTurnTest, TheNextTurnWaitsForWhoPassesHoweverLateItIs) {
  const int me = 0;
  const int you = 0;
  LateClock clock;
  Turn turn(clock);
  Turn::Holder mine(turn);
  ASSERT_EQ(mine.Take(&me), 0);
  Task passer([&] {
    LateClock::late = true;
    EXPECT_EQ(turn.Pass(), 0);
  });
  clock.AwaitWaits(1);
  Task taker([&] {
    Turn::Holder holder(turn);
    EXPECT_EQ(holder.Take(&you), 0);
  });
  clock.AwaitWaits(2);
  mine.Give();
  clock.AwaitWaits(3);  // the taker was woken and waits again
  EXPECT_FALSE(turn.IsTakenFrom(nullptr));
  EXPECT_FALSE(taker.Ended()) << "it has overtaken the one who passes";
  clock.GoOn();
  EXPECT_TRUE(passer.Await());
  EXPECT_TRUE(taker.Await()) << "nobody has told it that all have passed";
}

TEST_F(TurnTest, NobodyIsOvertakenByARequestThatTakesTheTurnAgainAndAgain) {
  const int me = 0;
  ASSERT_EQ(mine_.Take(&me), 0);
  const auto passer = Passer();
  clock_.AwaitWaiters(1);
  const auto taker = Taker("other");
  clock_.AwaitWaiters(2);
  mine_.Give();
  ASSERT_EQ(mine_.Take(&me), 0);  // only after both
  EXPECT_TRUE(taker->Await());
  EXPECT_TRUE(passer->Await());
  mine_.Give();
}

TEST_F(TurnTest, WaitsEndWithTheDeadlineAndLeaveTheQueue) {
  const int me = 0;
  ASSERT_EQ(mine_.Take(&me), 0);
  int taken = 0;
  int passed = 0;
  Task taker([&] {
    const vesk::RequestScope scope({clock_.Now() + seconds(2), nullptr});
    Turn::Holder turn(turn_);
    taken = turn.Take(&taken);
    EXPECT_FALSE(turn.has());
  });
  clock_.AwaitWaiters(1);
  Task passer([&] {
    const vesk::RequestScope scope({clock_.Now() + seconds(3), nullptr});
    passed = turn_.Pass();
  });
  clock_.AwaitWaiters(2);
  const auto last = Taker("last");
  clock_.AwaitWaiters(3);
  clock_.Advance(seconds(2));
  EXPECT_TRUE(taker.Await());
  EXPECT_EQ(taken, ETIMEDOUT);
  EXPECT_FALSE(passer.Ended());
  clock_.Advance(seconds(1));
  EXPECT_TRUE(passer.Await());
  EXPECT_EQ(passed, ETIMEDOUT);
  EXPECT_TRUE(turn_.IsTakenFrom(nullptr));
  EXPECT_FALSE(turn_.IsTakenFrom(&me)) << "it is still mine";
  EXPECT_FALSE(last->Ended());
  mine_.Give();
  EXPECT_TRUE(last->Await()) << "those who gave up are in its way";
}

TEST_F(TurnTest, WhoGivesUpInTheMiddleOfTheQueueLeavesTheOthersInIt) {
  const int me = 0;
  ASSERT_EQ(mine_.Take(&me), 0);
  const auto first = Taker("first");
  clock_.AwaitWaiters(1);
  int taken = 0;
  Task second([&] {
    Turn::Holder turn(turn_);
    taken = turn.Take(&taken);
  });
  clock_.AwaitWaiters(2);
  const auto third = Taker("third");
  clock_.AwaitWaiters(3);
  second.Cancel();
  EXPECT_TRUE(second.Await());
  EXPECT_EQ(taken, ECANCELED);
  mine_.Give();
  EXPECT_TRUE(first->Await());
  EXPECT_TRUE(third->Await());
  EXPECT_EQ(order(), (std::vector<std::string>{"first", "third"}));
}

TEST_F(TurnTest, WaitsEndWhenTheyAreCalledOff) {
  const int me = 0;
  ASSERT_EQ(mine_.Take(&me), 0);
  int taken = 0;
  int passed = 0;
  Task taker([&] {
    Turn::Holder turn(turn_);
    taken = turn.Take(&taken);
  });
  Task passer([&] { passed = turn_.Pass(); });
  clock_.AwaitWaiters(2);
  taker.Cancel();
  EXPECT_TRUE(taker.Await());
  EXPECT_EQ(taken, ECANCELED);
  EXPECT_FALSE(passer.Ended());
  passer.Cancel();
  EXPECT_TRUE(passer.Await());
  EXPECT_EQ(passed, ECANCELED);
  mine_.Give();
  EXPECT_EQ(mine_.Take(&me), 0);
  mine_.Give();
}

}  // namespace
}  // namespace vesk_test
