// Signals reach ordinary code, on the watcher's thread, and nobody else.

#include "runtime/signals.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <thread>
#include <vector>

#include "vesk/VeskMutex.h"

namespace vesk_test {
namespace {

using vesk::MutexLock;

class SignalsTest : public ::testing::Test {
 protected:
  void Arrived(int signal_number) {
    const MutexLock guard(mutex_);
    arrived_.push_back(signal_number);
    changed_.WakeAll();
  }

  std::vector<int> Arrivals(std::size_t count) {
    const auto watchdog = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    const MutexLock guard(mutex_);
    while (arrived_.size() < count && std::chrono::steady_clock::now() < watchdog) {
      changed_.WaitUntil(mutex_, watchdog);
    }
    return arrived_;
  }

  vesk::Mutex mutex_;
  vesk::Condition changed_;
  std::vector<int> arrived_ VESK_GUARDED_BY(mutex_);
};

TEST_F(SignalsTest, HandsSignalsToItsOwnThread) {
  std::thread::id handler;
  {
    vesk::SignalWatcher watcher({SIGUSR1, SIGHUP}, [&](int signal_number) {
      handler = std::this_thread::get_id();
      Arrived(signal_number);
    });
    kill(getpid(), SIGUSR1);
    EXPECT_EQ(Arrivals(1), std::vector<int>{SIGUSR1});
    kill(getpid(), SIGHUP);
    EXPECT_EQ(Arrivals(2), (std::vector<int>{SIGUSR1, SIGHUP}));
  }
  EXPECT_NE(handler, std::this_thread::get_id());
}

TEST_F(SignalsTest, LeavesTheMaskAsItWas) {
  sigset_t before;
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  {
    vesk::SignalWatcher watcher({SIGUSR2}, [](int /*signal_number*/) {});
  }
  sigset_t after;
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  EXPECT_EQ(sigismember(&before, SIGUSR2), 0);
  EXPECT_EQ(sigismember(&after, SIGUSR2), 0);
}

TEST_F(SignalsTest, EndsWithoutASignal) {
  vesk::SignalWatcher watcher({SIGUSR1}, [this](int signal_number) { Arrived(signal_number); });
}

}  // namespace
}  // namespace vesk_test
