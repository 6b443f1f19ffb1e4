// The lock of a file's streams, under more threads than the machine has cores.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>
#include <vector>

#include "vesk/VeskLock.h"

namespace vesk_test {
namespace {

using Guard = vesk::Holding<vesk::VeskLock>;
using namespace std::chrono_literals;

// Threads that do the same, and are waited for.
class Crowd {
 public:
  Crowd(int count, const std::function<void(int)>& work) : left_(count) {
    for (int i = 0; i < count; ++i) {
      threads_.emplace_back([this, work, i] {
        work(i);
        --left_;
      });
    }
  }
  // One that is still inside ends the program: it would never come back.
  ~Crowd() {
    if (!End()) {
      ADD_FAILURE() << left_ << " threads have not come back";
      std::abort();
    }
    for (std::thread& thread : threads_) thread.join();
  }
  Crowd(const Crowd&) = delete;
  Crowd& operator=(const Crowd&) = delete;

  int left() const { return left_; }

  // False: they have not, after a time that is enough for the slowest build.
  bool End() const {
    const auto watchdog = std::chrono::steady_clock::now() + 60s;
    while (left_ > 0 && std::chrono::steady_clock::now() < watchdog) {
      std::this_thread::sleep_for(1ms);
    }
    return left_ == 0;
  }

 private:
  std::atomic<int> left_;
  std::vector<std::thread> threads_;
};

int MoreThanCores() { return 2 * static_cast<int>(std::thread::hardware_concurrency()) + 2; }

TEST(LockTest, OneThreadAtATimeIsInside) {
  constexpr long kTimes = 20000;
  const int threads = MoreThanCores();
  vesk::VeskLock lock;
  long count = 0;
  std::atomic<int> inside{0};
  std::atomic<int> most{0};
  {
    const Crowd crowd(threads, [&](int /*i*/) {
      for (long i = 0; i < kTimes; ++i) {
        const Guard guard(lock);
        if (inside.fetch_add(1, std::memory_order_relaxed) > 0) most = 2;
        ++count;
        inside.fetch_sub(1, std::memory_order_relaxed);
      }
    });
  }
  EXPECT_EQ(0, most);
  EXPECT_EQ(threads * kTimes, count);
}

// Whoever holds it lets the others run into it, so that most of them park.
TEST(LockTest, NobodyWhoHasParkedIsForgotten) {
  constexpr int kTimes = 500;
  const int threads = MoreThanCores();
  vesk::VeskLock lock;
  long count = 0;
  {
    const Crowd crowd(threads, [&](int /*i*/) {
      for (int i = 0; i < kTimes; ++i) {
        const Guard guard(lock);
        ++count;
        std::this_thread::yield();
      }
    });
  }
  EXPECT_EQ(threads * kTimes, count);
}

TEST(LockTest, AllThatWaitForOneHolderComeIn) {
  for (int round = 0; round < 20; ++round) {
    vesk::VeskLock lock;
    lock.lock();
    const Crowd crowd(4, [&](int /*i*/) { const Guard guard(lock); });
    std::this_thread::sleep_for(5ms);  // they are asleep by now, or nearly
    EXPECT_EQ(4, crowd.left());
    lock.unlock();
  }
}

TEST(LockTest, AThreadAmongManyThatAreAlwaysThereComesInToo) {
  vesk::VeskLock lock;
  std::atomic<bool> stop{false};
  const Crowd always(MoreThanCores(), [&](int /*i*/) {
    while (!stop) const Guard guard(lock);
  });
  {
    const Crowd seldom(1, [&](int /*i*/) {
      for (int i = 0; i < 50; ++i) {
        const Guard guard(lock);
      }
    });
    EXPECT_TRUE(seldom.End());
    stop = true;
  }
}

TEST(LockTest, AThreadCountsTheLocksThatItHasTakenItself) {
  vesk::VeskLock lock;
  const unsigned long before = vesk::VeskLock::TakenByThisThread();
  { const Guard guard(lock); }
  {
    const Crowd other(1, [&](int /*i*/) { const Guard guard(lock); });
  }
  Guard guard(lock);
  guard.Unlock();
  guard.Lock();
  EXPECT_EQ(before + 3, vesk::VeskLock::TakenByThisThread());
}

}  // namespace
}  // namespace vesk_test
