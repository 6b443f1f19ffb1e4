// The limit for all blocks: what is reserved, who gives some back, and who waits.

#include "files/memory_budget.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/request.h"
#include "tests/support/manual_clock.h"
#include "tests/support/task.h"

namespace vesk_test {
namespace {

using std::chrono::seconds;
using vesk::MemoryBudget;
using Reservation = MemoryBudget::Reservation;

// Holds blocks of one byte each, known by their stamps, oldest first.
class Holder final : public MemoryBudget::Source {
 public:
  Holder(MemoryBudget& budget, std::string name, std::vector<std::string>* evicted)
      : budget_(budget), name_(std::move(name)), evicted_(evicted) {
    budget_.Add(*this);
  }
  ~Holder() {
    budget_.Remove(*this);
    budget_.Release(stamps_.size());
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  void Make() {
    Reservation memory(budget_);
    ASSERT_EQ(memory.Reserve(1), 0);
    memory.Use(1);
    stamps_.push_back(budget_.Stamp());
  }
  // Its newest block is used once more.
  void Use() { stamps_.back() = budget_.Stamp() + 1; }
  // Takes all blocks over; some may have been used before those that it has.
  void TakeOver(Holder& other) {
    stamps_.insert(stamps_.begin(), other.stamps_.begin(), other.stamps_.end());
    other.stamps_.clear();
    budget_.Lower(*this, stamps_.front());
  }
  std::size_t size() const { return stamps_.size(); }

  std::function<void()> when_asked;  // called while it is asked
  std::atomic<bool> busy{false};
  unsigned busy_for = 0;           // times that it is asked in vain
  std::atomic<unsigned> asked{0};  // times that it had to evict

 private:
  Left Evict(std::uint64_t bytes, std::uint64_t newest) override {
    Left left;
    ++asked;
    if (when_asked) when_asked();
    if (busy) return left;
    if (busy_for > 0) {
      --busy_for;
      left.oldest = stamps_.front();
      return left;
    }
    while (left.freed < bytes && !stamps_.empty() && stamps_.front() <= newest) {
      stamps_.erase(stamps_.begin());
      evicted_->push_back(name_);
      ++left.freed;
    }
    budget_.Release(left.freed);
    if (!stamps_.empty()) left.oldest = stamps_.front();
    return left;
  }

  MemoryBudget& budget_;
  const std::string name_;
  std::vector<std::string>* const evicted_;
  std::vector<std::uint64_t> stamps_;
};

class MemoryBudgetTest : public ::testing::Test {
 protected:
  ManualClock clock_;
  MemoryBudget budget_{10, clock_};
  std::vector<std::string> evicted_;
};

TEST_F(MemoryBudgetTest, WhatIsReservedIsGivenBackUnlessItIsUsed) {
  {
    Reservation memory(budget_);
    EXPECT_EQ(memory.Reserve(6), 0);
    EXPECT_EQ(memory.Reserve(4), 0);  // there already
    EXPECT_EQ(memory.bytes(), 6u);
    EXPECT_EQ(budget_.used(), 6u);
    memory.Use(2);
    EXPECT_EQ(memory.bytes(), 4u);
    EXPECT_TRUE(memory.TryReserve(8));
    EXPECT_EQ(budget_.used(), 10u);
    Reservation other(budget_);
    EXPECT_FALSE(other.TryReserve(1));
    EXPECT_EQ(other.bytes(), 0u);
  }
  EXPECT_EQ(budget_.used(), 2u);
  EXPECT_EQ(budget_.peak(), 10u);
  budget_.Release(2);
  EXPECT_EQ(budget_.used(), 0u);
  {
    Reservation memory(budget_);
    EXPECT_EQ(memory.Reserve(1), 0);
    EXPECT_EQ(budget_.used(), 1u);
  }
  EXPECT_EQ(budget_.used(), 0u);
  EXPECT_EQ(budget_.peak(), 10u) << "it is the most that there was";
}

// It must not happen; if it does, it is to be seen.
TEST_F(MemoryBudgetTest, WhatIsUsedBeyondAReservationCounts) {
  Reservation other(budget_);
  ASSERT_EQ(other.Reserve(7), 0);
  Reservation memory(budget_);
  ASSERT_EQ(memory.Reserve(2), 0);
  memory.Use(5);
  EXPECT_EQ(memory.bytes(), 0u);
  EXPECT_EQ(budget_.used(), 12u);
  EXPECT_EQ(budget_.peak(), 12u);
  budget_.Release(5);
}

TEST_F(MemoryBudgetTest, WhatIsHeldAlreadyIsThereWhoeverWaits) {
  Reservation mine(budget_);
  ASSERT_EQ(mine.Reserve(9), 0);
  Task waiter([&] {
    Reservation memory(budget_);
    EXPECT_EQ(memory.Reserve(5), 0);
  });
  clock_.AwaitWaiters(1);
  EXPECT_TRUE(mine.TryReserve(9));
  EXPECT_EQ(mine.Reserve(8), 0);
  EXPECT_EQ(mine.bytes(), 9u);
  mine.Reset();
  EXPECT_TRUE(waiter.Await());
}

TEST_F(MemoryBudgetTest, ThePeakIsNotedForThoseWhoHaveWaitedToo) {
  Reservation mine(budget_);
  ASSERT_EQ(mine.Reserve(6), 0);
  Task waiter([&] {
    Reservation memory(budget_);
    EXPECT_EQ(memory.Reserve(10), 0);
  });
  clock_.AwaitWaiters(1);
  EXPECT_EQ(budget_.peak(), 6u);
  mine.Reset();
  EXPECT_TRUE(waiter.Await());
  EXPECT_EQ(budget_.peak(), 10u);
}

TEST_F(MemoryBudgetTest, MoreThanThereIsAtAllIsRefusedAtOnce) {
  Reservation memory(budget_);
  EXPECT_EQ(memory.Reserve(11), ENOMEM);
  EXPECT_FALSE(memory.TryReserve(~std::uint64_t{0}));
  EXPECT_EQ(memory.Reserve(10), 0);
}

TEST_F(MemoryBudgetTest, TheOldestBlockOfAllSourcesGoesFirst) {
  Holder a(budget_, "a", &evicted_);
  Holder b(budget_, "b", &evicted_);
  Holder c(budget_, "c", &evicted_);
  for (Holder* const holder : {&a, &b, &b, &c, &a, &c, &b, &a, &c, &c}) holder->Make();
  EXPECT_EQ(budget_.used(), 10u);
  Reservation memory(budget_);
  EXPECT_EQ(memory.Reserve(6), 0);
  EXPECT_EQ(evicted_, (std::vector<std::string>{"a", "b", "b", "c", "a", "c"}));
  EXPECT_EQ(budget_.used(), 10u);
}

// Which of two sources comes first is a matter of their blocks, not of the sources.
TEST_F(MemoryBudgetTest, ANewSourceIsAskedAfterThoseWhoHaveOlderBlocks) {
  std::array<std::optional<Holder>, 2> holders;
  Holder& old = holders[1].emplace(budget_, "old", &evicted_);
  for (unsigned i = 0; i < 10; ++i) old.Make();
  Holder& empty = holders[0].emplace(budget_, "empty", &evicted_);
  Reservation memory(budget_);
  EXPECT_EQ(memory.Reserve(3), 0);
  EXPECT_EQ(empty.asked, 0u);
}

TEST_F(MemoryBudgetTest, BlocksMadeWhileMemoryIsShortGoInTheirOrder) {
  std::array<std::optional<Holder>, 3> holders;
  Holder& first = holders[2].emplace(budget_, "first", &evicted_);
  for (unsigned i = 0; i < 10; ++i) first.Make();
  Holder& second = holders[1].emplace(budget_, "second", &evicted_);
  Holder& third = holders[0].emplace(budget_, "third", &evicted_);
  second.Make();
  third.Make();
  Reservation memory(budget_);
  EXPECT_EQ(memory.Reserve(9), 0);
  EXPECT_EQ(first.size(), 0u);
  EXPECT_EQ(second.size(), 0u);
  EXPECT_EQ(third.size(), 1u);
}

TEST_F(MemoryBudgetTest, BlocksThatMoveToAnotherSourceKeepTheirPlace) {
  Holder a(budget_, "a", &evicted_);
  Holder b(budget_, "b", &evicted_);
  for (unsigned i = 0; i < 2; ++i) a.Make();
  for (unsigned i = 0; i < 8; ++i) b.Make();
  Holder upper(budget_, "upper", &evicted_);
  upper.TakeOver(a);
  Reservation memory(budget_);
  EXPECT_EQ(memory.Reserve(3), 0);
  EXPECT_EQ(evicted_, (std::vector<std::string>{"upper", "upper", "b"}));
}

// While it is asked, when it had none: it is asked again before those whose blocks are newer.
TEST_F(MemoryBudgetTest, BlocksThatMoveToASourceThatIsBeingAskedKeepTheirPlace) {
  Holder upper(budget_, "upper", &evicted_);
  Holder a(budget_, "a", &evicted_);
  Holder b(budget_, "b", &evicted_);
  for (unsigned i = 0; i < 2; ++i) a.Make();
  for (unsigned i = 0; i < 8; ++i) b.Make();
  upper.busy = true;
  upper.when_asked = [&] {
    if (a.size() > 0) upper.TakeOver(a);
  };
  Reservation memory(budget_);
  memory.TakeUpTo(1);
  EXPECT_EQ(memory.bytes(), 1u);
  EXPECT_EQ(evicted_, (std::vector<std::string>{"b"})) << "it was busy";
  EXPECT_EQ(upper.asked, 2u) << "it was not asked for the blocks that it got";
}

TEST_F(MemoryBudgetTest, ASourceThatIsBusyIsPassedOver) {
  Holder a(budget_, "a", &evicted_);
  Holder b(budget_, "b", &evicted_);
  for (unsigned i = 0; i < 5; ++i) a.Make();
  for (unsigned i = 0; i < 5; ++i) b.Make();
  a.busy = true;
  Reservation memory(budget_);
  EXPECT_EQ(memory.Reserve(5), 0);
  EXPECT_EQ(a.size(), 5u);
  EXPECT_EQ(b.size(), 0u);
  a.busy = false;
  EXPECT_EQ(memory.Reserve(9), 0);
  EXPECT_EQ(a.size(), 1u);
}

TEST_F(MemoryBudgetTest, ASourceThatIsBusyIsPutBehindTheBlockUsedLast) {
  Holder a(budget_, "a", &evicted_);
  Holder b(budget_, "b", &evicted_);
  for (unsigned i = 0; i < 9; ++i) a.Make();
  b.Make();
  b.Use();
  a.busy = true;
  Reservation memory(budget_);
  EXPECT_EQ(memory.Reserve(1), 0);
  EXPECT_EQ(a.asked, 1u);
}

// What it has may be older, but not than what was used after it was asked.
TEST_F(MemoryBudgetTest, WhatIsUsedAfterASourceWasBusyGoesAfterItsBlocks) {
  Holder a(budget_, "a", &evicted_);
  Holder b(budget_, "b", &evicted_);
  for (unsigned i = 0; i < 9; ++i) a.Make();
  b.Make();
  a.busy = true;
  b.busy_for = 100;
  Reservation memory(budget_);
  memory.TakeUpTo(1);
  EXPECT_EQ(memory.bytes(), 0u);
  b.Use();
  a.busy = false;
  b.busy_for = 0;
  memory.TakeUpTo(1);
  EXPECT_EQ(evicted_, (std::vector<std::string>{"a"}));
}

TEST_F(MemoryBudgetTest, ASourceThatWasBusyIsNotLastForEver) {
  Holder a(budget_, "a", &evicted_);
  Holder b(budget_, "b", &evicted_);
  for (unsigned i = 0; i < 4; ++i) a.Make();
  for (unsigned i = 0; i < 6; ++i) b.Make();
  a.busy = true;
  {
    Reservation memory(budget_);
    EXPECT_EQ(memory.Reserve(5), 0);
  }
  for (unsigned i = 0; i < 5; ++i) b.Make();
  a.busy = false;
  evicted_.clear();
  Reservation memory(budget_);
  EXPECT_EQ(memory.Reserve(2), 0);
  EXPECT_EQ(evicted_, (std::vector<std::string>{"b", "a"})) << "the others' blocks are newer";
}

TEST_F(MemoryBudgetTest, EverySourceIsAskedForWhatTheOthersHaveNot) {
  Holder a(budget_, "a", &evicted_);
  Holder b(budget_, "b", &evicted_);
  Holder c(budget_, "c", &evicted_);
  for (Holder* const holder : {&a, &b, &c}) {
    for (unsigned i = 0; i < 3; ++i) holder->Make();
  }
  a.busy = b.busy = true;
  Reservation memory(budget_);
  memory.TakeUpTo(4);
  EXPECT_EQ(memory.bytes(), 4u);
  EXPECT_EQ(c.size(), 0u);
}

TEST_F(MemoryBudgetTest, ASourceThatHasNothingIsAskedThreeTimesAtMost) {
  Holder holder(budget_, "a", &evicted_);
  for (unsigned i = 0; i < 10; ++i) holder.Make();
  holder.busy_for = 100;
  Reservation memory(budget_);
  memory.TakeUpTo(1);
  EXPECT_EQ(memory.bytes(), 0u);
  EXPECT_LE(holder.asked, 3u);
}

// Who removes it destroys it next.
TEST_F(MemoryBudgetTest, ASourceIsRemovedWhenNobodyAsksItAnyMore) {
  auto source = std::make_unique<Holder>(budget_, "a", &evicted_);
  for (unsigned i = 0; i < 10; ++i) source->Make();
  Holder other(budget_, "b", &evicted_);
  std::atomic<bool> removed{false};
  std::unique_ptr<Task> remover;
  source->when_asked = [&] {
    remover = std::make_unique<Task>([&] {
      budget_.Remove(*source);
      removed = true;
    });
    // Long enough for who does not wait at all.
    for (unsigned i = 0; i < 20 && !removed; ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_FALSE(removed) << "it is still being asked";
  };
  {
    Reservation memory(budget_);
    memory.TakeUpTo(4);
    EXPECT_EQ(memory.bytes(), 4u);
  }
  ASSERT_TRUE(remover->Await()) << "nobody tells it that the source is free";
  source->when_asked = nullptr;
  const unsigned asked = source->asked;
  Reservation memory(budget_);
  memory.TakeUpTo(10);
  EXPECT_EQ(source->asked, asked) << "it is asked though it was removed";
  source.reset();
}

TEST_F(MemoryBudgetTest, NobodyIsToldThatMemoryIsShortWhereBlocksCanGo) {
  Holder a(budget_, "a", &evicted_);
  for (unsigned i = 0; i < 10; ++i) a.Make();
  unsigned told = 0;
  budget_.OnShort([&] { ++told; });
  Reservation memory(budget_);
  EXPECT_EQ(memory.Reserve(5), 0);
  EXPECT_EQ(told, 0u);
}

TEST_F(MemoryBudgetTest, ASourceMayBeAskedInVainTwice) {
  Holder holder(budget_, "a", &evicted_);
  for (unsigned i = 0; i < 10; ++i) holder.Make();
  holder.busy_for = 2;
  Task taker([&] {
    Reservation memory(budget_);
    EXPECT_EQ(memory.Reserve(5), 0);
  });
  EXPECT_TRUE(taker.Await()) << "it waits for a change that does not come";
  EXPECT_EQ(holder.asked, 3u);
}

TEST_F(MemoryBudgetTest, SourcesAreAskedForAsLongAsTheyGiveSomething) {
  Holder a(budget_, "a", &evicted_);
  Holder b(budget_, "b", &evicted_);
  for (unsigned i = 0; i < 5; ++i) {
    a.Make();
    b.Make();
  }
  Reservation memory(budget_);
  memory.TakeUpTo(10);
  EXPECT_EQ(memory.bytes(), 10u);
  EXPECT_GE(a.asked + b.asked, 10u) << "they take turns, since each has the next older block";
}

TEST_F(MemoryBudgetTest, TakeUpToTakesNothingFromAnybodyWhileOthersWait) {
  Holder a(budget_, "a", &evicted_);
  for (unsigned i = 0; i < 4; ++i) a.Make();
  a.busy = true;
  Reservation mine(budget_);
  ASSERT_EQ(mine.Reserve(6), 0);
  Task waiter([&] {
    Reservation memory(budget_);
    EXPECT_EQ(memory.Reserve(2), 0);
  });
  clock_.AwaitWaiters(1);
  a.busy = false;
  Reservation small(budget_);
  small.TakeUpTo(4);
  EXPECT_EQ(small.bytes(), 0u);
  EXPECT_EQ(a.size(), 4u);
  budget_.Changed();
  EXPECT_TRUE(waiter.Await());
}

TEST_F(MemoryBudgetTest, TakeUpToTakesHalvesAndDoesNotWait) {
  Holder a(budget_, "a", &evicted_);
  for (unsigned i = 0; i < 7; ++i) a.Make();
  a.busy = true;
  Reservation memory(budget_);
  memory.TakeUpTo(8);
  EXPECT_EQ(memory.bytes(), 2u);  // 8 and 4 are not there
  memory.TakeUpTo(4);
  EXPECT_EQ(memory.bytes(), 3u);
  memory.TakeUpTo(4);
  EXPECT_EQ(memory.bytes(), 3u);
  a.busy = false;
  memory.TakeUpTo(4);
  EXPECT_EQ(memory.bytes(), 7u);
  EXPECT_EQ(budget_.used(), 10u);
}

TEST_F(MemoryBudgetTest, TakeUpToTakesHalfWhereThatIsThere) {
  Reservation mine(budget_);
  ASSERT_EQ(mine.Reserve(5), 0);
  Reservation memory(budget_);
  memory.TakeUpTo(10);
  EXPECT_EQ(memory.bytes(), 5u);
}

TEST_F(MemoryBudgetTest, WhereNothingCanGoRequestsWaitInTheOrderOfTheirComing) {
  std::atomic<unsigned> told{0};
  budget_.OnShort([&] { ++told; });
  auto mine = std::make_unique<Reservation>(budget_);
  ASSERT_EQ(mine->Reserve(10), 0);
  vesk::Mutex mutex;
  std::vector<unsigned> order;
  std::vector<std::unique_ptr<Task>> tasks;
  for (unsigned i = 0; i < 4; ++i) {
    tasks.push_back(std::make_unique<Task>([&, i] {
      Reservation memory(budget_);
      ASSERT_EQ(memory.Reserve(6), 0);  // one at a time
      const vesk::MutexLock guard(mutex);
      order.push_back(i);
    }));
    clock_.AwaitWaiters(i + 1);
  }
  EXPECT_GE(told, 1u) << "somebody has to write dirty blocks out";
  Reservation late(budget_);
  mine.reset();
  (void)late.TryReserve(1);  // never before those who wait, so it is in nobody's way
  late.Reset();
  for (const auto& task : tasks) EXPECT_TRUE(task->Await());
  EXPECT_EQ(order, (std::vector<unsigned>{0, 1, 2, 3}));
  EXPECT_EQ(budget_.used(), 0u);
  EXPECT_LE(budget_.peak(), 10u);
}

TEST_F(MemoryBudgetTest, WhoComesLaterAndWantsLessWaitsBehind) {
  Reservation mine(budget_);
  ASSERT_EQ(mine.Reserve(9), 0);
  Task waiter([&] {
    Reservation memory(budget_);
    EXPECT_EQ(memory.Reserve(5), 0);
  });
  clock_.AwaitWaiters(1);
  Reservation small(budget_);
  EXPECT_FALSE(small.TryReserve(1)) << "a byte is free, but somebody waits for it";
  mine.Reset();
  EXPECT_TRUE(waiter.Await());
  EXPECT_TRUE(small.TryReserve(1));
}

TEST_F(MemoryBudgetTest, AWaitEndsWhenABlockCanBeEvicted) {
  Holder a(budget_, "a", &evicted_);
  for (unsigned i = 0; i < 10; ++i) a.Make();
  a.busy = true;
  Task waiter([&] {
    Reservation memory(budget_);
    EXPECT_EQ(memory.Reserve(3), 0);
  });
  clock_.AwaitWaiters(1);
  EXPECT_FALSE(waiter.Ended());
  EXPECT_LE(a.asked, 6u) << "it asks again and again instead of sleeping";
  a.busy = false;
  budget_.Changed();
  EXPECT_TRUE(waiter.Await());
  EXPECT_EQ(evicted_.size(), 3u);
}

TEST_F(MemoryBudgetTest, WaitsEndWithTheDeadlineOrWhenTheyAreCalledOff) {
  Reservation mine(budget_);
  ASSERT_EQ(mine.Reserve(10), 0);
  Task late([&] {
    const vesk::RequestScope scope({clock_.Now() + seconds(2), nullptr});
    Reservation memory(budget_);
    EXPECT_EQ(memory.Reserve(5), ETIMEDOUT);
    EXPECT_EQ(memory.bytes(), 0u);
  });
  clock_.AwaitWaiters(1);
  Task cancelled([&] {
    Reservation memory(budget_);
    EXPECT_EQ(memory.Reserve(5), ECANCELED);
  });
  clock_.AwaitWaiters(2);
  Task last([&] {
    Reservation memory(budget_);
    EXPECT_EQ(memory.Reserve(5), 0);
  });
  clock_.AwaitWaiters(3);
  clock_.Advance(seconds(2));
  EXPECT_TRUE(late.Await());
  cancelled.Cancel();
  EXPECT_TRUE(cancelled.Await());
  EXPECT_FALSE(last.Ended());
  mine.Reset();
  EXPECT_TRUE(last.Await()) << "those who gave up are in its way";
  EXPECT_EQ(budget_.used(), 0u);
}

TEST_F(MemoryBudgetTest, WhoGivesUpInTheMiddleOfTheQueueLeavesTheOthersInIt) {
  Reservation mine(budget_);
  ASSERT_EQ(mine.Reserve(10), 0);
  std::vector<std::unique_ptr<Task>> tasks;
  for (const int expected : {0, ECANCELED, 0}) {
    tasks.push_back(std::make_unique<Task>([&, expected] {
      Reservation memory(budget_);
      EXPECT_EQ(memory.Reserve(6), expected);
    }));
    clock_.AwaitWaiters(tasks.size());
  }
  tasks[1]->Cancel();
  EXPECT_TRUE(tasks[1]->Await());
  mine.Reset();
  EXPECT_TRUE(tasks[0]->Await());
  EXPECT_TRUE(tasks[2]->Await());
}

TEST_F(MemoryBudgetTest, AWaitThatIsWokenInVainAgainAndAgainEndsWithItsDeadline) {
  Reservation mine(budget_);
  ASSERT_EQ(mine.Reserve(10), 0);
  budget_.OnShort([this] {
    clock_.Advance(std::chrono::milliseconds(100));
    budget_.Changed();
  });
  const vesk::RequestScope scope({clock_.Now() + seconds(2), nullptr});
  Reservation memory(budget_);
  EXPECT_EQ(memory.Reserve(1), ETIMEDOUT);
}

// Again and again, since whoever is woken first may not be the one whose turn it is.
TEST_F(MemoryBudgetTest, WhoIsServedWakesTheNextOne) {
  for (unsigned i = 0; i < 30; ++i) {
    Reservation mine(budget_);
    ASSERT_EQ(mine.Reserve(10), 0);
    Reservation one(budget_);
    Reservation two(budget_);
    Task first([&] { EXPECT_EQ(one.Reserve(3), 0); });
    clock_.AwaitWaiters(1);
    Task second([&] { EXPECT_EQ(two.Reserve(3), 0); });
    clock_.AwaitWaiters(2);
    mine.Reset();
    ASSERT_TRUE(first.Await());
    ASSERT_TRUE(second.Await());
  }
}

// Two that wait for more while they hold some could wait for each other.
TEST_F(MemoryBudgetTest, AReservationThatHasToWaitHoldsNothing) {
  Reservation mine(budget_);
  ASSERT_EQ(mine.Reserve(5), 0);
  Task waiter([&] {
    Reservation memory(budget_);
    EXPECT_EQ(memory.Reserve(5), 0);
    EXPECT_EQ(memory.Reserve(8), 0);
  });
  clock_.AwaitWaiters(1);
  EXPECT_EQ(budget_.used(), 5u);
  mine.Reset();
  EXPECT_TRUE(waiter.Await());
}

}  // namespace
}  // namespace vesk_test
