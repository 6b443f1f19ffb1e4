// Every request makes progress, however small the memory and whatever the others do.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "runtime/random.h"
#include "runtime/transfer.h"
#include "tests/files/file_world.h"
#include "tests/support/allocation.h"
#include "tests/support/null_logger.h"
#include "tests/support/task.h"

namespace vesk_test {
namespace {

using vesk::Advice;
using vesk::FileHandle;
using vesk::VeskJob;

constexpr unsigned kPage = 4096;

constexpr std::uint64_t kMostRepeats = 8;  // then a request takes the turn

// A store that takes its time: transfers end one after the other, in an order of chance.
class SlowStore {
 public:
  explicit SlowStore(ScriptedStore& store)
      : store_(store), thread_([this] {
          vesk::Random random(3);
          while (!ending_) {
            const std::size_t held = store_.held();
            if (held == 0) {
              std::this_thread::yield();
            } else {
              store_.EndOne(static_cast<int>(random.Next() % held), 0);
            }
          }
        }) {
    store.Hold({vesk::kFaultRead | vesk::kFaultWrite, "", 0, ~std::uint64_t{0}});
  }
  ~SlowStore() {
    ending_ = true;
    thread_.join();
    store_.Heal();
  }
  SlowStore(const SlowStore&) = delete;
  SlowStore& operator=(const SlowStore&) = delete;

 private:
  ScriptedStore& store_;
  std::atomic<bool> ending_{false};
  std::thread thread_;
};

// Eight threads, each at a place of its own of one file, which write there, read back what they
// wrote, and read where others write.
void ExpectProgress(std::uint64_t memory, unsigned block_size, unsigned requests) {
  SCOPED_TRACE("memory of " + std::to_string(memory) + " bytes, blocks of " +
               std::to_string(block_size));
  constexpr std::uint64_t kPlace = 8 * kPage;
  FileWorld world;
  world.options.memory = memory;
  world.options.block_size = block_size;
  world.options.read_ahead = 4;
  std::string content = FileWorld::Content(8 * kPlace);
  world.Put("file", content);
  FileHandle& file = world.Open("file");
  std::atomic<unsigned> served{0};
  {
    const SlowStore slow(world.script);
    std::vector<std::unique_ptr<Task>> tasks;
    for (unsigned i = 0; i < 8; ++i) {
      tasks.push_back(std::make_unique<Task>([&, i] {
        vesk::Random random(i);
        char* const mine = content.data() + i * kPlace;
        for (unsigned k = 0; k < requests; ++k) {
          const std::uint64_t at = random.Next() % (kPlace - 700);
          const std::size_t length = 1 + random.Next() % 700;
          if (i % 2 == 0) {
            const std::string bytes(length, static_cast<char>('a' + k % 26));
            FileWorld::Write(file, bytes, i * kPlace + at);
            std::copy(bytes.begin(), bytes.end(), mine + at);
          }
          EXPECT_TRUE(FileWorld::Read(file, i * kPlace + at, length) ==
                      std::string(mine + at, length));
          EXPECT_EQ(FileWorld::Read(file, (i + 1) % 8 * kPlace + at, length).size(), length);
          ++served;
        }
      }));
    }
    for (const auto& task : tasks) EXPECT_TRUE(task->Await()) << served << " rounds are done";
  }
  EXPECT_EQ(served, 8 * requests);
  EXPECT_LE(world.files().memory_peak(), memory);
  EXPECT_TRUE(file.Sync().ok());
  EXPECT_TRUE(world.Stored("file") == content);
  // A request repeats for a bounded number of times: what it makes the store do is bounded, too.
  EXPECT_LE(file.GetStats().repeats, kMostRepeats);
  const vesk::DispatcherStats stats = world.dispatcher().GetStats();
  const std::uint64_t pieces = 701 / std::min<std::uint64_t>(memory, block_size) + 2;
  EXPECT_LE(stats.reads.ended, std::uint64_t{8} * requests * 2 * pieces * 9);
}

TEST(ProgressTest, EightReadersAndWritersShareTwoBlocks) { ExpectProgress(2 * kPage, kPage, 30); }

TEST(ProgressTest, EightReadersAndWritersShareOneBlock) { ExpectProgress(kPage, kPage, 20); }

TEST(ProgressTest, EightReadersAndWritersShareLessThanAPage) {
  ExpectProgress(1000, 64 * kPage, 10);
  ExpectProgress(300, kPage, 10);
}

// They write where others fetch and drop the same blocks, so that they are overtaken all the time.
TEST(ProgressTest, NobodyIsOvertakenForLong) {
  constexpr std::uint64_t kPages = 3;
  constexpr unsigned kRequests = 60;
  FileWorld world;
  world.options.memory = 2 * kPage;
  world.options.block_size = kPage;
  world.Put("file", FileWorld::Content(kPages * kPage));
  FileHandle& file = world.Open("file");
  {
    const SlowStore slow(world.script);
    std::vector<std::unique_ptr<Task>> tasks;
    for (unsigned i = 0; i < 8; ++i) {
      tasks.push_back(std::make_unique<Task>([&, i] {
        vesk::Random random(i);
        for (unsigned k = 0; k < kRequests; ++k) {
          const std::uint64_t at = random.Next() % kPages * kPage + 100;
          if (i % 2 == 0) {
            FileWorld::Write(file, "written", at);
          } else {
            EXPECT_EQ(FileWorld::Read(file, at, 7).size(), 7u);
          }
          for (std::uint64_t page = 0; page < kPages; ++page) {
            file.Advise(Advice::kDontNeed, page * kPage, kPage);
            file.Advise(Advice::kWillNeed, page * kPage, kPage);
          }
        }
      }));
    }
    for (const auto& task : tasks) EXPECT_TRUE(task->Await());
  }
  EXPECT_LE(file.GetStats().repeats, kMostRepeats);
  EXPECT_LE(world.files().memory_peak(), 2u * kPage);
}

TEST(ProgressTest, OneByteOfMemoryIsEnough) {
  FileWorld world;
  world.options.memory = 1;
  world.options.block_size = kPage;
  world.options.read_ahead = 8;
  world.Put("file", "0123456789");
  FileHandle& file = world.Open("file");
  Task task([&] {
    EXPECT_EQ(FileWorld::Read(file, 0, 20), "0123456789");
    FileWorld::Write(file, "abc", 8);
    EXPECT_EQ(FileWorld::Read(file, 0, 20), "01234567abc");
    EXPECT_TRUE(file.Sync().ok());
  });
  EXPECT_TRUE(task.Await());
  EXPECT_EQ(world.Stored("file"), "01234567abc");
  EXPECT_LE(world.files().memory_peak(), 1u);
}

// ---- a request that others overtake for ever ----

// A transfer for which a thread waits is carried out by that thread, and `after` is called in it
// then: after the end of the transfer, before the thread can look at what it has brought.
class OvertakingStore final : public vesk::Decorator {
 public:
  explicit OvertakingStore(vesk::VeskBackend& inner) : Decorator(inner) {}

  std::function<void()> after;

  void Start(vesk::JobQueue& jobs) override {
    while (!jobs.Empty()) {
      VeskJob* const job = jobs.Pop();
      if (holds_ && job->GetType() == vesk::JOB_TYPE_IO &&
          vesk::Transfer(job->GetOP()).offset >= holds_from) {
        ++started;
        held_.Push(job);
      } else {
        inner().Run(job);
      }
    }
  }
  bool Withdraw(VeskJob* job) override {
    if (!held_.Holds(job)) return false;
    held_.Remove(job);
    return true;
  }
  void Run(VeskJob* job) override {
    const bool transfer = job->GetType() == vesk::JOB_TYPE_IO;
    inner().Run(job);
    if (transfer && after) after();
  }

  unsigned started = 0;
  std::uint64_t holds_from = 0;  // transfers of what lies before take place at once
  int next_error = 0;            // of the next transfer that takes place
  unsigned short_reads = 0;      // so many reads to come bring ten bytes at most
  bool tells_end = false;        // a read that brings nothing ends in RC_EOF

  // What nobody waits for takes place, from now on.
  void StopHolding() {
    holds_ = false;
    while (!held_.Empty()) inner().Run(held_.Pop());
  }

 private:
  void JobEnded(VeskJob* job, int result) override {
    if (short_reads > 0 && job->GetOP().GetOpcode() == vesk::OPCODE_READ) {
      --short_reads;
      const vesk::Transfer read(job->GetOP());
      read.StoreCount(std::min<std::size_t>(read.Moved(), 10));
    }
    if (tells_end && job->GetOP().GetOpcode() == vesk::OPCODE_READ &&
        vesk::Transfer(job->GetOP()).Moved() == 0) {
      result = vesk::RC_EOF;
    }
    if (next_error != 0 && job->GetType() == vesk::JOB_TYPE_IO) {
      result = std::exchange(next_error, 0);
    }
    End(job, result);
  }

  bool holds_ = true;
  vesk::JobQueue held_;
};

// By one thread alone: it is overtaken by itself, from inside its waits.
class OvertakingTest : public ::testing::Test {
 protected:
  OvertakingTest() {
    settings_.refresh_interval = 60;
    vesk::gEnv = &env_;
    options_.block_size = kPage;
    options_.read_ahead = 0;
    options_.background = false;
    files_ = std::make_unique<vesk::FileSystem>(vesk::Services{bundler_, vesk::Clock::System()},
                                                names_, options_);
    vesk::OpenOptions open;
    open.write = open.create = true;
    EXPECT_TRUE(files_->Open("file", open, &file_).ok());
    EXPECT_TRUE(files_->Open("file", open, &other_).ok());
    EXPECT_TRUE(file_->Truncate(8 * kPage).ok());
  }
  ~OvertakingTest() override {
    store_.after = nullptr;
    store_.StopHolding();
    other_.reset();
    file_.reset();
    files_.reset();
    vesk::gEnv = nullptr;
  }

  NullLogger logger_;
  vesk::Settings settings_;
  vesk::VeskEnv env_{nullptr, &logger_, &settings_};
  vesk::MemoryBackend memory_;
  OvertakingStore store_{memory_};
  vesk::VeskBundler bundler_{store_};
  vesk::Store names_{bundler_};
  vesk::FileSystemOptions options_;
  std::unique_ptr<vesk::FileSystem> files_;
  std::unique_ptr<FileHandle> file_;
  std::unique_ptr<FileHandle> other_;
};

// The page is fetched; before the writer comes to it, it is dropped and on its way again. Each
// round leaves the writer where it was: there is nothing but the turn that could end this.
TEST_F(OvertakingTest, AWriterTakesTheTurnWhenOthersFetchItsBlockAgainAndAgain) {
  unsigned rounds = 0;
  unsigned kept_out = 0;
  store_.after = [&] {
    const unsigned before = store_.started;
    other_->Advise(Advice::kDontNeed, 0, kPage);
    other_->Advise(Advice::kWillNeed, 0, kPage);
    ++(store_.started > before ? rounds : kept_out);
    ASSERT_LT(rounds, 100u) << "the writer is never served";
  };
  other_->Advise(Advice::kWillNeed, 0, kPage);
  EXPECT_EQ(store_.started, 1u);
  FileWorld::Write(*file_, "served", 0);
  EXPECT_GE(rounds, 2u) << "it was not overtaken";
  EXPECT_LE(rounds, 8u);
  EXPECT_EQ(kept_out, 1u);
  EXPECT_EQ(file_->GetStats().turns, 1u);
  EXPECT_EQ(file_->GetStats().repeats, kMostRepeats);
  EXPECT_EQ(files_->GetStats().repeats, kMostRepeats);
  EXPECT_EQ(files_->GetStats().turns, 1u);
}

// A write of two pages; both are overtaken a few times each.
TEST_F(OvertakingTest, EachPieceOfARequestHasItsOwnPatience) {
  constexpr unsigned kRounds = 5;
  unsigned ends = 0;
  store_.after = [&] {
    const std::uint64_t page = ends / (kRounds + 1);
    if (++ends % (kRounds + 1) == 0) return;
    other_->Advise(Advice::kDontNeed, page * kPage, kPage);
    other_->Advise(Advice::kWillNeed, page * kPage, kPage);
  };
  other_->Advise(Advice::kWillNeed, 0, 2 * kPage);
  FileWorld::Write(*file_, std::string(2 * kPage, 'w'), 0);
  EXPECT_EQ(ends, 2 * (kRounds + 1));
  EXPECT_EQ(file_->GetStats().turns, 0u);
  EXPECT_EQ(file_->GetStats().repeats, kRounds + 1);
  EXPECT_EQ(file_->GetStats().misses, 2u);
}

// Both pages are fetched again and again, as long as others may do so.
TEST_F(OvertakingTest, BetweenTwoPiecesTheTurnIsGivenBack) {
  unsigned kept_out = 0;
  unsigned rounds = 0;
  store_.after = [&] {
    ASSERT_LT(++rounds, 100u) << "the writer is never served";
    const unsigned before = store_.started;
    const std::uint64_t page = kept_out;
    other_->Advise(Advice::kDontNeed, page * kPage, kPage);
    other_->Advise(Advice::kWillNeed, page * kPage, kPage);
    if (store_.started == before) ++kept_out;
  };
  other_->Advise(Advice::kWillNeed, 0, 2 * kPage);
  FileWorld::Write(*file_, std::string(2 * kPage, 'w'), 0);
  EXPECT_EQ(kept_out, 2u);
  EXPECT_GE(rounds, 2 * kMostRepeats) << "nobody could come in between";
  EXPECT_EQ(file_->GetStats().turns, 2u);
}

// A reader who has fetched a page finds it, whatever others advise meanwhile.
TEST_F(OvertakingTest, ABlockThatAReaderWaitsForIsNotDropped) {
  unsigned rounds = 0;
  store_.after = [&] {
    if (rounds >= 1000) return;  // the test fails, but it ends
    ++rounds;
    other_->Advise(Advice::kDontNeed, 0, kPage);
  };
  EXPECT_EQ(FileWorld::Read(*file_, 0, 10), std::string(10, '\0'));
  EXPECT_EQ(rounds, 1u);
  EXPECT_EQ(file_->GetStats().turns, 0u);
}

TEST_F(OvertakingTest, NoBlockIsDroppedWhileAReaderOfSeveralWaitsForIt) {
  unsigned rounds = 0;
  store_.after = [&] {
    if (rounds >= 1000) return;  // the test fails, but it ends
    ++rounds;
    other_->Advise(Advice::kDontNeed, 0, 8 * kPage);
  };
  EXPECT_EQ(FileWorld::Read(*file_, kPage - 5, kPage + 10), std::string(kPage + 10, '\0'));
  EXPECT_EQ(rounds, 3u);
  EXPECT_EQ(file_->GetStats().turns, 0u);
}

TEST_F(OvertakingTest, AReadThatWaitsWhereTheFileIsCutOffEndsThere) {
  store_.after = [&] {
    store_.after = nullptr;
    EXPECT_TRUE(other_->Truncate(kPage).ok());
  };
  EXPECT_EQ(FileWorld::Read(*file_, kPage, 10), "");
  EXPECT_EQ(file_->Size(), kPage);
}

// Somebody else has started it, and would be the only one to know.
TEST_F(OvertakingTest, WhoWaitsForOthersFetchIsToldItsError) {
  other_->Advise(Advice::kWillNeed, 0, kPage);
  store_.next_error = EIO;
  EXPECT_EQ(FileWorld::Read(*file_, 0, 10, EIO), "");
  EXPECT_EQ(store_.started, 1u) << "it has fetched the page again";
  EXPECT_EQ(FileWorld::Read(*file_, 0, 10), std::string(10, '\0'));
}

// ---- a store that brings less than it has ----

TEST_F(OvertakingTest, AGapBehindTheStoresEndReadsAsZerosHoweverTheStoreSaysSo) {
  store_.tells_end = true;
  FileWorld::Write(*file_, "far", 20 * kPage);
  EXPECT_EQ(FileWorld::Read(*file_, 12 * kPage, 10), std::string(10, '\0'));
}

TEST_F(OvertakingTest, AReadIsServedThoughTheStoreIsShortTenTimes) {
  store_.short_reads = 10;
  EXPECT_EQ(FileWorld::Read(*file_, 2000, 10), std::string(10, '\0'));
  EXPECT_EQ(store_.short_reads, 0u);
}

TEST_F(OvertakingTest, AReadOfAStoreThatStaysShortEndsInAnError) {
  store_.short_reads = 100;
  EXPECT_EQ(FileWorld::Read(*file_, 2000, 10, EIO), "");
  EXPECT_LE(file_->GetStats().repeats, 2 * kMostRepeats);
  EXPECT_GE(store_.short_reads, 100 - 2 * kMostRepeats) << "so often it was tried";
  store_.short_reads = 0;
  EXPECT_EQ(FileWorld::Read(*file_, 2000, 10), std::string(10, '\0')) << "it is well again";
}

// To look at the store's file may need the turn that the request has.
TEST_F(OvertakingTest, AReaderWithTheTurnWhoMeetsAShorterFileEndsThere) {
  unsigned rounds = 0;
  store_.after = [&] {
    if (++rounds > kMostRepeats) return;
    EXPECT_TRUE(other_->Truncate(0).ok());  // what the reader waits for is cut off
    EXPECT_TRUE(other_->Truncate(8 * kPage).ok());
    if (rounds == kMostRepeats) {
      EXPECT_EQ(names_.Truncate("file", 10), 0);  // by somebody else
    }
  };
  EXPECT_EQ(FileWorld::Read(*file_, 2000, 10), "");
  EXPECT_EQ(file_->GetStats().turns, 1u);
  EXPECT_EQ(file_->Size(), 10u);
}

// It goes on in the next range, whose blocks are fetched while it waits for the first one's.
TEST_F(OvertakingTest, ALongReadCountsAsWhatItHadToWaitFor) {
  store_.StopHolding();
  EXPECT_TRUE(file_->Truncate(40 * kPage).ok());
  const vesk::FileStats before = file_->GetStats();
  EXPECT_EQ(FileWorld::Read(*file_, 0, 20 * kPage).size(), 20 * kPage);
  EXPECT_EQ(file_->GetStats().streams, 2u);
  EXPECT_EQ(file_->GetStats().misses - before.misses, 1u);
  EXPECT_EQ(file_->GetStats().hits - before.hits, 1u);
}

// ---- what is left behind ----

TEST_F(OvertakingTest, ACloseOfWhichOnlyAPartIsStoredInTimeSaysSo) {
  store_.holds_from = 5 * kPage;
  FileWorld::Write(*file_, "late", 5 * kPage);
  FileWorld::Write(*file_, "early", 0);
  {
    const vesk::RequestScope scope({vesk::Clock::System().Now(), nullptr});
    EXPECT_EQ(file_->Close().error(), ETIMEDOUT);
  }
  EXPECT_EQ(other_->GetStats().dirty, 4u) << "the first part is stored";
  store_.StopHolding();
  EXPECT_TRUE(file_->Close().ok());
}

TEST_F(OvertakingTest, RequestsLeaveNothingBehind) {
  store_.StopHolding();
  const auto use = [&] {
    other_->Advise(Advice::kDontNeed, 0, 8 * kPage);
    EXPECT_EQ(FileWorld::Read(*file_, kPage - 5, 10), std::string(10, '\0'));
    other_->Advise(Advice::kWillNeed, 4 * kPage, kPage);
    FileWorld::Write(*file_, "w", 4 * kPage);  // waits for the fetch
    EXPECT_TRUE(file_->Sync().ok());
    EXPECT_TRUE(file_->Truncate(7 * kPage).ok());
    EXPECT_TRUE(file_->Truncate(8 * kPage).ok());
  };
  for (unsigned i = 0; i < 3; ++i) use();
  const long before = LiveAllocations();
  for (unsigned i = 0; i < 20; ++i) use();
  EXPECT_EQ(LiveAllocations(), before);
}

// Requests of others are kept out while the turn is taken, within their own limits.
TEST_F(OvertakingTest, WhileTheTurnIsTakenOthersQueueWithinTheirDeadlines) {
  std::vector<int> errors;
  store_.after = [&] {
    const vesk::RequestScope scope({vesk::Clock::System().Now(), nullptr});
    std::size_t moved = 0;
    char byte = 'x';
    errors.push_back(other_->WriteAt(&byte, 1, 5 * kPage, &moved).error());
    if (errors.size() > 100) return;
    other_->Advise(Advice::kDontNeed, 0, kPage);
    other_->Advise(Advice::kWillNeed, 0, kPage);
  };
  other_->Advise(Advice::kWillNeed, 0, kPage);
  FileWorld::Write(*file_, "served", 0);
  ASSERT_GE(errors.size(), 3u);
  for (std::size_t i = 0; i + 1 < errors.size(); ++i) EXPECT_EQ(errors[i], 0) << i;
  EXPECT_EQ(errors.back(), ETIMEDOUT);
  store_.after = nullptr;
  FileWorld::Write(*other_, "y", 5 * kPage);  // the turn has been given back
  EXPECT_EQ(file_->GetStats().turns, 1u);
}

// A request that cannot be served in time leaves the file to others.
TEST_F(OvertakingTest, ARequestThatEndsWithItsDeadlineKeepsNothing) {
  other_->Advise(Advice::kWillNeed, 0, kPage);
  {
    const vesk::RequestScope scope(
        {vesk::Clock::System().Now() + std::chrono::milliseconds(30), nullptr});
    FileWorld::Write(*file_, "late", 0, ETIMEDOUT);  // nobody carries the fetch out
  }
  store_.StopHolding();
  FileWorld::Write(*file_, "served", 0);
  EXPECT_EQ(FileWorld::Read(*other_, 0, 6), "served");
}

}  // namespace
}  // namespace vesk_test
