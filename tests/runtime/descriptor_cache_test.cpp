// Which descriptors are kept, and for how long.

#include "runtime/descriptor_cache.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <memory>
#include <new>
#include <string>
#include <thread>

#include "tests/support/allocation.h"
#include "tests/support/temporary_directory.h"

namespace vesk_test {
namespace {

using vesk::Descriptor;
using vesk::OpenFor;

class DescriptorCacheTest : public ::testing::Test {
 protected:
  std::shared_ptr<const Descriptor> Open(const std::string& name,
                                         OpenFor opened_for = OpenFor::kRead) {
    std::ofstream(directory_ / name, std::ios::app).flush();
    std::shared_ptr<const Descriptor> descriptor;
    EXPECT_EQ(cache_.Get({directory_ / name, opened_for}, &descriptor), 0);
    return descriptor;
  }
  std::shared_ptr<const Descriptor> Find(const std::string& name,
                                         OpenFor opened_for = OpenFor::kRead) {
    return cache_.Find({directory_ / name, opened_for});
  }
  static bool IsOpen(int fd) { return fcntl(fd, F_GETFD) >= 0; }
  // Of a descriptor that is opened next: one that stays open takes it.
  static int NextNumber() {
    const int fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    close(fd);
    return fd;
  }

  const TemporaryDirectory directory_;
  vesk::DescriptorCache cache_{2};
};

TEST_F(DescriptorCacheTest, KeepsADescriptorForTheNextJob) {
  EXPECT_EQ(Open("a"), Open("a"));
  EXPECT_NE(Open("a"), Open("b"));
}

// A program may have been started without an input.
TEST_F(DescriptorCacheTest, TakesTheFirstDescriptorOfAllWhenItIsFree) {
  std::ofstream(directory_ / "a").flush();
  const int input = dup(0);
  close(0);
  errno = EINTR;  // of an earlier call
  std::shared_ptr<const Descriptor> descriptor;
  EXPECT_EQ(cache_.Get({directory_ / "a", OpenFor::kRead}, &descriptor), 0);
  ASSERT_NE(descriptor, nullptr);
  EXPECT_EQ(descriptor->fd(), 0);
  descriptor.reset();
  cache_.Forget(directory_ / "a");
  EXPECT_FALSE(IsOpen(0));
  if (input >= 0) {
    dup2(input, 0);
    close(input);
  }
}

TEST_F(DescriptorCacheTest, FindsWhatIsOpenAndOpensNothing) {
  EXPECT_EQ(Find("a"), nullptr);
  const auto opened = Open("a");
  EXPECT_EQ(Find("a"), opened);
  EXPECT_EQ(Find("a", OpenFor::kWrite), nullptr);
}

TEST_F(DescriptorCacheTest, ReadersAndWritersHaveTheirOwn) {
  const auto reader = Open("a");
  const auto writer = Open("a", OpenFor::kWrite);
  EXPECT_EQ(fcntl(reader->fd(), F_GETFL) & O_ACCMODE, O_RDONLY);
  EXPECT_EQ(fcntl(writer->fd(), F_GETFL) & O_ACCMODE, O_WRONLY);
  EXPECT_FALSE(reader->IsDirect());
  EXPECT_FALSE(writer->IsDirect());
}

TEST_F(DescriptorCacheTest, NoDescriptorIsInheritedByAProgramThatIsStarted) {
  EXPECT_NE(fcntl(Open("a")->fd(), F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_NE(fcntl(Open("a", OpenFor::kWrite)->fd(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(DescriptorCacheTest, WithoutMemoryNothingStaysOpen) {
  std::ofstream(directory_ / "a").flush();
  const vesk::DescriptorCache::Key key(directory_ / "a", OpenFor::kRead);
  const int number = NextNumber();
  bool fired = true;
  unsigned refused = 0;
  for (long nth = 1; fired; ++nth) {
    {
      std::shared_ptr<const Descriptor> descriptor;
      const FailingAllocation failing(nth);
      try {
        EXPECT_EQ(cache_.Get(key, &descriptor), 0);
      } catch (const std::bad_alloc&) {
        ++refused;
      }
      fired = failing.Fired();
    }
    cache_.Forget(key.first);
    EXPECT_EQ(NextNumber(), number) << "allocation " << nth;
  }
  EXPECT_GT(refused, 0u);
}

TEST_F(DescriptorCacheTest, AFileThatCannotBeOpenedIsAnErrnoAndNoEntry) {
  std::shared_ptr<const Descriptor> descriptor;
  EXPECT_EQ(cache_.Get({directory_ / "absent", OpenFor::kRead}, &descriptor), ENOENT);
  EXPECT_EQ(descriptor, nullptr);
  EXPECT_EQ(Find("absent"), nullptr);
}

TEST_F(DescriptorCacheTest, ClosesTheLeastRecentlyUsedOverItsBound) {
  const int a = Open("a")->fd();
  Open("b");
  Open("a");  // used again: b is now the oldest
  Open("c");
  EXPECT_TRUE(IsOpen(a));
  EXPECT_NE(Find("a"), nullptr);
  EXPECT_EQ(Find("b"), nullptr);
  EXPECT_NE(Find("c"), nullptr);
}

TEST_F(DescriptorCacheTest, FindingCountsAsUse) {
  Open("a");
  Open("b");
  Find("a");
  Open("c");
  EXPECT_NE(Find("a"), nullptr);
  EXPECT_EQ(Find("b"), nullptr);
}

TEST_F(DescriptorCacheTest, AnEntryThatGoesClosesItsFile) {
  const int a = Open("a")->fd();
  cache_.Forget(directory_ / "a");
  EXPECT_FALSE(IsOpen(a));
}

TEST_F(DescriptorCacheTest, ADescriptorInUseOutlivesItsEntry) {
  const auto used = Open("a");
  Open("b");
  Open("c");
  EXPECT_EQ(Find("a"), nullptr);
  EXPECT_TRUE(IsOpen(used->fd()));
  EXPECT_NE(Open("a"), used);
}

TEST_F(DescriptorCacheTest, ForgetsANameForAllThatItWasOpenedFor) {
  const auto reader = Open("a");
  const auto writer = Open("a", OpenFor::kWrite);
  cache_.Forget(directory_ / "a");
  cache_.Forget(directory_ / "never opened");
  EXPECT_EQ(Find("a"), nullptr);
  EXPECT_EQ(Find("a", OpenFor::kWrite), nullptr);
  EXPECT_NE(Open("a"), reader);
}

TEST_F(DescriptorCacheTest, ForgettingANameLeavesItsNeighboursAlone) {
  Open("a");
  Open("ab");
  cache_.Forget(directory_ / "a");
  EXPECT_EQ(Find("a"), nullptr);
  EXPECT_NE(Find("ab"), nullptr);
}

// The system call that the thread of this process is in; -1: none.
long SystemCallOf(pid_t thread) {
  long number = -1;
  std::ifstream("/proc/self/task/" + std::to_string(thread) + "/syscall") >> number;
  return number;
}

// Opening takes time, in which a name may come to stand for another file: such a descriptor serves
// its job and is not kept. A FIFO is open for reading when somebody opens it for writing.
TEST_F(DescriptorCacheTest, DoesNotKeepWhatWasForgottenWhileItWasOpened) {
  const std::string fifo = directory_ / "fifo";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  std::atomic<pid_t> thread{0};
  std::thread opener([&] {
    thread = static_cast<pid_t>(syscall(SYS_gettid));
    std::shared_ptr<const vesk::Descriptor> descriptor;
    EXPECT_EQ(cache_.Get({fifo, vesk::OpenFor::kRead}, &descriptor), 0);
    EXPECT_NE(descriptor, nullptr);
  });
  const auto watchdog = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (thread == 0 || SystemCallOf(thread) != SYS_openat) {
    std::this_thread::yield();
    if (std::chrono::steady_clock::now() < watchdog) continue;
    ADD_FAILURE() << "the open does not begin";
    break;
  }
  cache_.Forget(fifo);
  const int writer = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
  opener.join();
  close(writer);
  EXPECT_EQ(cache_.Find({fifo, vesk::OpenFor::kRead}), nullptr);
}

}  // namespace
}  // namespace vesk_test
