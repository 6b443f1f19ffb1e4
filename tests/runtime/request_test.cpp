// What ends a wait for a condition, and what calls a request off. Waits for jobs are in
// bundler_test.cpp.

#include "runtime/request.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <thread>
#include <vector>

#include "tests/support/manual_clock.h"
#include "vesk/VeskMutex.h"

namespace vesk_test {
namespace {

using std::chrono::seconds;
using vesk::CancelToken;
using vesk::Clock;
using vesk::MutexLock;
using vesk::RequestLimits;
using vesk::RequestScope;
using vesk::WakeOnCancel;

class RequestTest : public ::testing::Test {
 protected:
  // Waits until Open was called; what ended the wait otherwise.
  int WaitForOpen() {
    const WakeOnCancel wake(mutex_, changed_);
    const MutexLock guard(mutex_);
    while (!open_) {
      if (const int error = RequestScope::Wait(changed_, mutex_, clock_)) return error;
    }
    return 0;
  }

  // One step, without a token.
  int Step(Clock::Time until) {
    const MutexLock guard(mutex_);
    return RequestScope::Wait(changed_, mutex_, clock_, until);
  }

  // The same for a request with `limits`, in a thread of its own.
  std::thread Waiter(const RequestLimits& limits, int* result) {
    return std::thread([this, limits, result] {
      const RequestScope scope(limits);
      *result = WaitForOpen();
    });
  }

  void Open() {
    const MutexLock guard(mutex_);
    open_ = true;
    changed_.WakeAll();
  }

  ManualClock clock_;
  vesk::Mutex mutex_;
  vesk::Condition changed_;
  bool open_ VESK_GUARDED_BY(mutex_) = false;
};

// ---- waiting for a condition ----

TEST_F(RequestTest, AConditionThatIsWokenEndsTheWaitWell) {
  CancelToken token;
  int limited = -1;
  int unlimited = -1;
  std::thread first = Waiter({clock_.Now() + seconds(3), &token}, &limited);
  std::thread second = Waiter({}, &unlimited);
  clock_.AwaitWaiters(2);
  Open();
  first.join();
  second.join();
  EXPECT_EQ(limited, 0);
  EXPECT_EQ(unlimited, 0);
}

TEST_F(RequestTest, ADeadlineEndsAWaitForACondition) {
  int result = -1;
  std::thread waiter = Waiter({clock_.Now() + seconds(3), nullptr}, &result);
  clock_.AwaitWaiters(1);
  clock_.Advance(seconds(3));
  waiter.join();
  EXPECT_EQ(result, ETIMEDOUT);
}

TEST_F(RequestTest, ACancelEndsAWaitForACondition) {
  CancelToken token;
  int result = -1;
  std::thread waiter = Waiter({Clock::kNever, &token}, &result);
  clock_.AwaitWaiters(1);
  token.Cancel();
  waiter.join();
  EXPECT_EQ(result, ECANCELED);
}

TEST_F(RequestTest, LimitsThatAreMetEndAWaitBeforeItBegins) {
  CancelToken token;
  token.Cancel();
  {
    const RequestScope scope({Clock::kNever, &token});
    EXPECT_EQ(WaitForOpen(), ECANCELED);
  }
  const RequestScope scope({clock_.Now(), nullptr});
  EXPECT_EQ(WaitForOpen(), ETIMEDOUT);
}

TEST_F(RequestTest, AStepOfAWaitEndsWellAtTheTimeThatWasAskedFor) {
  for (const Clock::Duration deadline : {seconds(9), seconds(0)}) {
    const RequestLimits limits = {deadline == seconds(0) ? Clock::kNever : clock_.Now() + deadline,
                                  nullptr};
    const Clock::Time until = clock_.Now() + seconds(3);
    std::thread time([&] {
      clock_.AwaitWaiters(1);
      clock_.Advance(seconds(3));
    });
    const RequestScope scope(limits);
    EXPECT_EQ(Step(until), 0);
    EXPECT_EQ(clock_.Now(), until);
    time.join();
  }
}

TEST_F(RequestTest, AStepOfAWaitEndsAtTheDeadlineWhereThatIsNearer) {
  std::thread time([&] {
    clock_.AwaitWaiters(1);
    clock_.Advance(seconds(3));
  });
  const RequestScope scope({clock_.Now() + seconds(3), nullptr});
  const Clock::Time until = clock_.Now() + seconds(9);
  EXPECT_EQ(Step(until), 0) << "the caller may have got what it waited for";
  EXPECT_EQ(Step(until), ETIMEDOUT);
  time.join();
}

// Between the look at the token and the sleep the mutex is held; so Cancel, which comes at any
// moment, waits for it.
TEST_F(RequestTest, NoCancelIsMissedByAThreadAboutToSleep) {
  for (int round = 0; round < 2000; ++round) {
    CancelToken token;
    std::thread other([&token] { token.Cancel(); });
    const RequestScope scope({Clock::kNever, &token});
    EXPECT_EQ(WaitForOpen(), ECANCELED);  // or the test hangs
    other.join();
  }
}

TEST_F(RequestTest, ACancelWakesEveryWaiterOfOneConditionAndNoOtherRequest) {
  CancelToken token;
  CancelToken other;
  std::vector<int> results(3, -1);
  int spared = -1;
  std::vector<std::thread> waiters;
  for (int& result : results) waiters.push_back(Waiter({Clock::kNever, &token}, &result));
  std::thread last = Waiter({Clock::kNever, &other}, &spared);
  clock_.AwaitWaiters(4);
  token.Cancel();
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(results, std::vector<int>(3, ECANCELED));
  Open();
  last.join();
  EXPECT_EQ(spared, 0);
}

// Touching what is gone ends the program under the address sanitizer.
TEST_F(RequestTest, ATokenForgetsAConditionThatIsNoLongerWaitedFor) {
  CancelToken token;
  const RequestScope scope({Clock::kNever, &token});
  {
    const auto mutex = std::make_unique<vesk::Mutex>();
    const auto first = std::make_unique<vesk::Condition>();
    const auto second = std::make_unique<vesk::Condition>();
    auto outer = std::make_unique<WakeOnCancel>(*mutex, *first);
    auto inner = std::make_unique<WakeOnCancel>(*mutex, *second);
    outer.reset();  // not in the order of a stack
    inner.reset();
  }
  token.Cancel();
  EXPECT_TRUE(token.Cancelled());
}

// ---- a token inside another ----

TEST_F(RequestTest, ACancelOfTheParentEndsTheWaitsOfItsTokensAndTheirTokens) {
  CancelToken parent;
  CancelToken child(&parent);
  CancelToken sibling(&parent);
  CancelToken grandchild(&child);
  std::vector<CancelToken*> tokens = {&child, &sibling, &grandchild};
  std::vector<int> results(tokens.size(), -1);
  std::vector<std::thread> waiters;
  for (std::size_t i = 0; i < tokens.size(); ++i) {
    waiters.push_back(Waiter({Clock::kNever, tokens[i]}, &results[i]));
  }
  clock_.AwaitWaiters(tokens.size());
  parent.Cancel();
  for (std::thread& waiter : waiters) waiter.join();
  EXPECT_EQ(results, std::vector<int>(tokens.size(), ECANCELED));
  for (const CancelToken* const token : tokens) EXPECT_TRUE(token->Cancelled());
}

TEST_F(RequestTest, ACancelOfATokenLeavesItsParentAndItsSiblingsAlone) {
  CancelToken parent;
  CancelToken child(&parent);
  CancelToken sibling(&parent);
  child.Cancel();
  EXPECT_TRUE(child.Cancelled());
  EXPECT_FALSE(sibling.Cancelled());
  EXPECT_FALSE(parent.Cancelled());
  parent.Cancel();
  EXPECT_TRUE(sibling.Cancelled());
}

TEST_F(RequestTest, ATokenOfAParentThatWasCancelledBeforeIsCancelledFromTheStart) {
  CancelToken parent;
  parent.Cancel();
  CancelToken child(&parent);
  EXPECT_TRUE(child.Cancelled());
  const CancelToken grandchild(&child);
  EXPECT_TRUE(grandchild.Cancelled());
  const RequestScope scope({Clock::kNever, &child});
  EXPECT_EQ(WaitForOpen(), ECANCELED);
}

TEST_F(RequestTest, NoParentIsAllowed) {
  CancelToken token(nullptr);
  EXPECT_FALSE(token.Cancelled());
  token.Cancel();
  EXPECT_TRUE(token.Cancelled());
}

TEST_F(RequestTest, AParentForgetsATokenThatIsGone) {
  CancelToken parent;
  auto first = std::make_unique<CancelToken>(&parent);
  auto second = std::make_unique<CancelToken>(&parent);
  auto third = std::make_unique<CancelToken>(&parent);
  second.reset();
  first.reset();
  parent.Cancel();
  EXPECT_TRUE(third->Cancelled());
  third.reset();
  parent.Cancel();
}

// Whichever comes first, the construction or the cancel: none falls between.
TEST_F(RequestTest, ATokenMadeWhileItsParentIsCancelledIsCancelledToo) {
  for (int round = 0; round < 2000; ++round) {
    CancelToken parent;
    std::thread other([&parent] { parent.Cancel(); });
    const CancelToken child(&parent);
    other.join();
    EXPECT_TRUE(child.Cancelled());
  }
}

}  // namespace
}  // namespace vesk_test
