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
  EXPECT_TRUE(turn_.IsTakenFrom(nullptr)) << "it is still mine";
  EXPECT_FALSE(last->Ended());
  mine_.Give();
  EXPECT_TRUE(last->Await()) << "those who gave up are in its way";
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
