// Who is told of a failed write-back, how often, and whose wait ends with it.

#include "files/write_failures.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "runtime/request.h"
#include "tests/support/allocation.h"
#include "tests/support/manual_clock.h"
#include "tests/support/task.h"

namespace vesk_test {
namespace {

using vesk::WriteFailure;
using vesk::WriteFailures;
using Seen = WriteFailures::Seen;

class WriteFailuresTest : public ::testing::Test {
 protected:
  void Tell(std::uint64_t offset, int error) {
    failures_.Tell(WriteFailure{name_, offset, 10, error, true, 1, false});
  }

  const std::string name_ = "file";
  ManualClock clock_;
  WriteFailures failures_;
};

TEST_F(WriteFailuresTest, EachHandleIsToldOnce) {
  Seen first{failures_.count()};
  Seen second{failures_.count()};
  EXPECT_EQ(failures_.TakeNews(&first), 0);
  Tell(0, EIO);
  EXPECT_EQ(failures_.TakeNews(&first), EIO);
  EXPECT_EQ(failures_.TakeNews(&first), 0);
  EXPECT_EQ(failures_.TakeNews(&second), EIO) << "whatever the other was told";
  Seen late{failures_.count()};
  EXPECT_EQ(failures_.TakeNews(&late), 0) << "it was opened afterwards";
  Tell(0, ENOSPC);
  for (Seen* const seen : {&first, &second, &late}) EXPECT_EQ(failures_.TakeNews(seen), ENOSPC);
}

TEST_F(WriteFailuresTest, AnErrorThatWasToldIsNoNewsWhenTheWriteEndsWithIt) {
  Seen seen{failures_.count()};
  Tell(100, EIO);
  EXPECT_EQ(failures_.TakeNews(&seen), EIO);
  failures_.Ended(100, EIO);
  EXPECT_EQ(failures_.TakeNews(&seen), 0);
  failures_.Ended(100, EIO);  // of the next try, which was not told yet
  EXPECT_EQ(failures_.TakeNews(&seen), EIO);
  Tell(100, EIO);
  EXPECT_EQ(failures_.TakeNews(&seen), EIO);
  failures_.Ended(100, ENOSPC);
  EXPECT_EQ(failures_.TakeNews(&seen), ENOSPC);
  failures_.Ended(200, EIO);  // another block's
  EXPECT_EQ(failures_.TakeNews(&seen), EIO);
}

TEST_F(WriteFailuresTest, AWriteThatIsGivenUpIsNewsUnlessItsErrorWasTold) {
  const auto give_up = [this](int error) {
    failures_.Tell(WriteFailure{name_, 100, 10, error, true, 2, true});
  };
  Seen seen{failures_.count()};
  Tell(100, EIO);
  EXPECT_EQ(failures_.TakeNews(&seen), EIO);
  give_up(EIO);
  EXPECT_EQ(failures_.TakeNews(&seen), 0);
  Tell(100, EIO);
  EXPECT_EQ(failures_.TakeNews(&seen), EIO) << "it fails again";
  give_up(ENOSPC);
  EXPECT_EQ(failures_.TakeNews(&seen), ENOSPC);
}

TEST_F(WriteFailuresTest, KnowsWhichWritesAreFailingNow) {
  EXPECT_EQ(failures_.At(100), 0);
  Tell(100, EIO);
  Tell(200, ENOSPC);
  EXPECT_EQ(failures_.At(100), EIO);
  EXPECT_EQ(failures_.At(200), ENOSPC);
  EXPECT_EQ(failures_.At(150), 0);
  EXPECT_NE(failures_.Any(), 0);
  Tell(100, EDQUOT);
  EXPECT_EQ(failures_.At(100), EDQUOT);
  failures_.Succeeded(100);
  EXPECT_EQ(failures_.At(100), 0);
  failures_.Ended(200, ENOSPC);
  EXPECT_EQ(failures_.At(200), 0);
  EXPECT_EQ(failures_.Any(), 0);
  EXPECT_EQ(failures_.last_error(), EDQUOT) << "the latest that was told, whatever came after it";
}

// A success takes no news away from a handle that has not heard them.
TEST_F(WriteFailuresTest, ASuccessDoesNotSwallowAFailure) {
  Seen seen{failures_.count()};
  Tell(100, EIO);
  failures_.Succeeded(100);
  EXPECT_EQ(failures_.TakeNews(&seen), EIO);
  EXPECT_EQ(failures_.TakeNews(&seen), 0);
}

TEST_F(WriteFailuresTest, ASyncThatFailedIsToldToAll) {
  Seen seen{failures_.count()};
  failures_.Note(EIO);
  EXPECT_EQ(failures_.TakeNews(&seen), EIO);
  EXPECT_EQ(failures_.At(0), 0);
}

TEST_F(WriteFailuresTest, ListenersHearOfEachReportUntilTheyStop) {
  std::vector<std::pair<std::uint64_t, int>> heard;
  unsigned others = 0;
  failures_.Listen(&heard, [&](const WriteFailure& failure) {
    EXPECT_EQ(failure.name, "file");
    heard.emplace_back(failure.offset, failure.error);
  });
  failures_.Listen(&others, [&](const WriteFailure& /*failure*/) { ++others; });
  Tell(1, EIO);
  Tell(2, ENOSPC);
  failures_.Listen(&heard, nullptr);
  Tell(3, EIO);
  EXPECT_EQ(heard, (std::vector<std::pair<std::uint64_t, int>>{{1, EIO}, {2, ENOSPC}}));
  EXPECT_EQ(others, 3u);
}

// ---- a wait that ends with a failure ----

TEST_F(WriteFailuresTest, AWatchEndsTheWaitsOfItsThreadAndNoOthers) {
  EXPECT_EQ(vesk::RequestScope::Exceeded(clock_), 0);
  {
    const WriteFailures::Watch watch(failures_);
    EXPECT_EQ(vesk::RequestScope::Exceeded(clock_), 0);
    Tell(0, EIO);
    EXPECT_EQ(vesk::RequestScope::Exceeded(clock_), ECANCELED);
    const WriteFailures::Watch later(failures_);  // inside one that has ended: it has, too
    EXPECT_EQ(vesk::RequestScope::Exceeded(clock_), ECANCELED);
  }
  EXPECT_EQ(vesk::RequestScope::Exceeded(clock_), 0) << "the request itself goes on";
  const WriteFailures::Watch watch(failures_);
  EXPECT_EQ(vesk::RequestScope::Exceeded(clock_), 0) << "failures from before do not count";
}

TEST_F(WriteFailuresTest, AWatchWakesEverybodyWhoSleeps) {
  vesk::Mutex mutex;
  vesk::Condition condition;
  const auto sleep = [&] {
    const WriteFailures::Watch watch(failures_);
    const vesk::WakeOnCancel wake(mutex, condition);
    const vesk::MutexLock guard(mutex);
    int error = 0;
    while (error == 0) error = vesk::RequestScope::Wait(condition, mutex, clock_);
    EXPECT_EQ(error, ECANCELED);
  };
  Task first(sleep);
  Task second(sleep);
  clock_.AwaitWaiters(2);
  EXPECT_FALSE(first.Ended());
  Tell(0, EIO);
  EXPECT_TRUE(first.Await());
  EXPECT_TRUE(second.Await());
}

TEST_F(WriteFailuresTest, AWatchThatEndsLeavesTheLaterOnes) {
  vesk::Mutex mutex;
  vesk::Condition condition;
  std::optional<WriteFailures::Watch> earlier(failures_);
  Task sleeper([&] {
    const WriteFailures::Watch watch(failures_);
    const vesk::WakeOnCancel wake(mutex, condition);
    const vesk::MutexLock guard(mutex);
    while (vesk::RequestScope::Wait(condition, mutex, clock_) == 0) {
    }
  });
  clock_.AwaitWaiters(1);
  earlier.reset();
  EXPECT_FALSE(sleeper.Ended());
  Tell(0, EIO);
  EXPECT_TRUE(sleeper.Await());
}

TEST_F(WriteFailuresTest, AFailureForWhichThereIsNoMemoryIsTold) {
  Seen seen{failures_.count()};
  {
    const FailingAllocation failing(1);
    Tell(0, EIO);
  }
  EXPECT_EQ(failures_.TakeNews(&seen), EIO);
}

TEST_F(WriteFailuresTest, AWatchKeepsTheLimitsOfTheRequest) {
  vesk::CancelToken token;
  const vesk::RequestScope scope({clock_.Now() + std::chrono::seconds(1), &token});
  {
    const WriteFailures::Watch watch(failures_);
    clock_.Advance(std::chrono::seconds(1));
    EXPECT_EQ(vesk::RequestScope::Exceeded(clock_), ETIMEDOUT);
    token.Cancel();
    EXPECT_EQ(vesk::RequestScope::Exceeded(clock_), ECANCELED);
  }
}

}  // namespace
}  // namespace vesk_test
