// One part of a file by itself: what it promises the file that it is a part of.

#include "files/range.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "files/dirty_limit.h"
#include "files/memory_budget.h"
#include "runtime/wall_clock.h"
#include "tests/files/file_world.h"
#include "tests/support/allocation.h"
#include "tests/support/manual_clock.h"
#include "tests/support/task.h"
#include "vesk/VeskStream.h"

namespace vesk_test {
namespace {

using std::chrono::milliseconds;
using vesk::Clock;
using vesk::DirtyLimit;
using vesk::FileCore;
using vesk::JobList;
using vesk::MemoryBudget;
using vesk::Range;
using vesk::VeskBuffer;
using vesk::VeskJob;
using vesk::Wants;
using RangeLock = vesk::Holding<vesk::VeskLock>;

constexpr std::uint64_t kPage = Range::kPage;
constexpr std::uint64_t kBlock = 4 * kPage;
constexpr std::uint64_t kMany = Range::kMaxBlocks;
constexpr std::uint64_t kAll = std::numeric_limits<std::uint64_t>::max();
constexpr std::uint64_t kPlenty = 64 * kBlock;
constexpr std::uint64_t kLimit = 1u << 24;  // of memory, and of dirty bytes

// Long texts, of which a failure shows where they differ alone.
::testing::AssertionResult Same(const std::string& actual, const std::string& expected) {
  if (actual == expected) return ::testing::AssertionSuccess();
  const std::size_t shorter = std::min(actual.size(), expected.size());
  std::size_t at = 0;
  while (at < shorter && actual[at] == expected[at]) ++at;
  return ::testing::AssertionFailure() << actual.size() << " bytes instead of " << expected.size()
                                       << ", other ones from " << at << " on";
}

// What the owner of ranges hears of them.
class Owner final : public vesk::RangeOwner {
 public:
  void SetActive(Range& range, bool active) override {
    const SparedAllocations spared;
    told.emplace_back(&range, active);
  }
  void Retire(Range& range) override { retired.push_back(&range); }

  std::vector<std::pair<const Range*, bool>> told;
  std::vector<const Range*> retired;
};

// A range, with its lock taken for each step: what it has started begins when that is given up.
class Part {
 public:
  Part(FileCore& core, vesk::RangeOwner& owner) : range(core, owner), core_(core) {}
  ~Part() { range.LeaveBudget(); }
  Part(const Part&) = delete;
  Part& operator=(const Part&) = delete;

  void Open(std::uint64_t begin = 0, std::uint64_t end = kAll, const std::string& name = "file") {
    range.Open(name);
    range.SetBounds(begin, end);
  }
  // Nothing is dirty or in flight any more.
  //   Before   no job is held by the store
  void Calm() {
    const RangeLock guard(range.lock);
    if (range.end() == 0 || core_.broken) return;
    range.Collect();
    range.Discard();
  }

  VeskBuffer* At(std::uint64_t offset) {
    const RangeLock guard(range.lock);
    return range.At(offset);
  }
  VeskJob* JobAt(std::uint64_t offset, bool is_write) {
    const RangeLock guard(range.lock);
    return range.JobAt(offset, is_write);
  }
  void Collect() {
    const RangeLock guard(range.lock);
    range.Collect();
  }

  std::uint64_t Fetch(std::uint64_t from, std::uint64_t to, std::uint64_t bytes = kPlenty) {
    MemoryBudget::Reservation memory(core_.memory);
    EXPECT_TRUE(memory.TryReserve(bytes));
    const RangeLock guard(range.lock);
    return range.Fetch(from, to, memory);
  }
  void Load(std::uint64_t from, std::uint64_t to) {
    EXPECT_EQ(Fetch(from, to), to);
    Collect();
  }
  std::uint64_t NeedForFetch(std::uint64_t from, std::uint64_t to) {
    const RangeLock guard(range.lock);
    return range.NeedForFetch(from, to);
  }
  std::uint64_t GapStart(std::uint64_t offset, std::uint64_t from) {
    const RangeLock guard(range.lock);
    return range.GapStart(offset, from);
  }

  bool Hit(std::uint64_t offset, unsigned length, std::string* bytes = nullptr, unsigned now = 0,
           int interval = 0) {
    std::string copy(length, '?');
    const RangeLock guard(range.lock);
    const bool hit = range.Hit(Bytes(&copy), offset, length, now, interval);
    if (bytes != nullptr) *bytes = copy;
    return hit;
  }
  std::string Read(std::uint64_t offset, unsigned length) {
    std::string bytes(length, '?');
    const RangeLock guard(range.lock);
    const unsigned count = range.Read(Bytes(&bytes), offset, length);
    EXPECT_LE(count, length);
    return bytes.substr(0, count);
  }

  Range::WriteNeed NeedForWrite(std::uint64_t offset, unsigned length) {
    const RangeLock guard(range.lock);
    return range.NeedForWrite(offset, length);
  }
  // Bytes that were taken.
  unsigned Write(std::uint64_t offset, const std::string& bytes) {
    const auto length = static_cast<unsigned>(bytes.size());
    const Range::WriteNeed need = NeedForWrite(offset, length);
    MemoryBudget::Reservation memory(core_.memory);
    EXPECT_TRUE(memory.TryReserve(need.memory));
    DirtyLimit::Room room(core_.dirty_limit);
    EXPECT_TRUE(room.TryAdmit(need.dirty));
    unsigned count = 0;
    {
      const RangeLock guard(range.lock);
      count = range.Write(reinterpret_cast<const unsigned char*>(bytes.data()), offset, length,
                          memory, room);
    }
    // What was asked for is what was used, where all of it was taken at once.
    if (count == length && !core_.broken) {
      EXPECT_EQ(memory.bytes() + room.bytes(), 0u);
    }
    return count;
  }
  unsigned Write(std::uint64_t offset, std::uint64_t length, char byte = 'w') {
    return Write(offset, std::string(length, byte));
  }

  void StartWrites(Clock::Time before = Clock::kNever, bool asked_for = true) {
    const RangeLock guard(range.lock);
    range.StartWrites(before, asked_for);
  }
  void Store() {
    StartWrites();
    Collect();
  }
  Clock::Time OldestDirty() {
    const RangeLock guard(range.lock);
    return range.OldestDirty();
  }
  std::uint64_t DirtyEnd() {
    const RangeLock guard(range.lock);
    return range.DirtyEnd();
  }

  void Drop(std::uint64_t from, std::uint64_t to) {
    const RangeLock guard(range.lock);
    range.Drop(from, to);
  }
  void Forget() {
    const RangeLock guard(range.lock);
    range.Forget();
  }
  void Discard() {
    const RangeLock guard(range.lock);
    range.Discard();
  }
  void Truncate(std::uint64_t size) {
    const RangeLock guard(range.lock);
    range.Truncate(size);
  }
  void LeaveAccounts() {
    const RangeLock guard(range.lock);
    range.LeaveAccounts();
  }
  bool Close() {
    const RangeLock guard(range.lock);
    return range.Close();
  }
  bool IsAged(std::uint64_t offset) {
    const RangeLock guard(range.lock);
    return range.IsAged(offset);
  }
  void Renew() {
    const RangeLock guard(range.lock);
    range.Renew();
  }
  std::uint64_t Middle() {
    const RangeLock guard(range.lock);
    return range.Middle();
  }
  std::uint64_t FullBefore(std::uint64_t offset) {
    const RangeLock guard(range.lock);
    return range.FullBefore(offset);
  }

  MemoryBudget::Source::Left Evict(std::uint64_t bytes, std::uint64_t newest = kAll) {
    return range.Evict(bytes, newest);
  }
  std::uint64_t OldestStamp() { return Evict(0).oldest; }

  // Hands on as the owner of both does.
  Range::Divided DivideInto(Part& upper, std::uint64_t at) {
    const RangeLock guard(range.lock);
    const Range::Divided divided = range.DivideInto(upper.range, at);
    if (divided.at == 0) return divided;
    const std::uint64_t end = range.end();
    range.SetEnd(divided.at);
    upper.range.SetBounds(divided.at, end);
    return divided;
  }

  Range::Counts counts() {
    const RangeLock guard(range.lock);
    return range.counts;
  }

  Range range;

 private:
  static unsigned char* Bytes(std::string* text) {
    return reinterpret_cast<unsigned char*>(text->data());
  }

  FileCore& core_;
};

class RangeTest : public ::testing::Test {
 protected:
  explicit RangeTest(unsigned block_size = kBlock)
      : core_(world_.services(), memory_, dirty_, block_size),
        range_(std::make_unique<Part>(core_, owner_)),
        upper_(std::make_unique<Part>(core_, owner_)) {
    world_.Put("file", content_);
    core_.size = core_.stored_size = content_.size();
    range_->Open();
  }

  // Whatever a test has done, nothing is counted when all blocks are gone.
  void TearDown() override {
    EXPECT_EQ(core_.broken, breaks_);
    world_.script.Heal();
    range_->Calm();
    upper_->Calm();
    range_.reset();
    upper_.reset();
    ExpectSums(0, 0, 0, 0);
  }

  // Of all ranges; the limits have the same.
  void ExpectSums(std::uint64_t cached, std::uint64_t dirty, std::uint64_t in_flight,
                  std::uint64_t written) {
    EXPECT_EQ(core_.cached, cached);
    EXPECT_EQ(core_.dirty, dirty);
    EXPECT_EQ(core_.in_flight, in_flight);
    EXPECT_EQ(core_.written, written);
    EXPECT_EQ(memory_.used(), cached);
    DirtyLimit::Room one(dirty_);  // alone, a writer gets any room
    DirtyLimit::Room rest(dirty_);
    DirtyLimit::Room more(dirty_);
    EXPECT_TRUE(one.TryAdmit(1));
    EXPECT_TRUE(rest.TryAdmit(kLimit - 1 - dirty));
    EXPECT_FALSE(more.TryAdmit(1));
  }
  void ExpectBlock(Part& part, std::uint64_t begin, std::uint64_t end) {
    VeskBuffer* const block = part.At(begin);
    ASSERT_NE(block, nullptr) << "at " << begin;
    EXPECT_EQ(block->off, begin);
    EXPECT_EQ(block->off + block->blen, end);
    EXPECT_EQ(part.At(end - 1), block);
    EXPECT_NE(part.At(end), block);
    if (begin > 0) {
      EXPECT_NE(part.At(begin - 1), block);
    }
  }
  std::string Content(std::uint64_t offset, std::uint64_t length) {
    return content_.substr(offset, length);
  }
  // A reservation: what is used from now on is newer than what was used before.
  void TimePasses() {
    MemoryBudget::Reservation memory(memory_);
    EXPECT_TRUE(memory.TryReserve(1));
  }
  std::vector<std::pair<const Range*, bool>> TakeTold() { return std::exchange(owner_.told, {}); }

  using Told = std::vector<std::pair<const Range*, bool>>;

  bool breaks_ = false;  // the test makes a check fail
  ManualClock clock_;
  FileWorld world_{FileWorld::Kind::kMemoryNoRetry, clock_};
  MemoryBudget memory_{kLimit, clock_};
  DirtyLimit dirty_{kLimit, 2 * kLimit, clock_};
  Owner owner_;
  FileCore core_;
  inline static const std::string content_ = FileWorld::Content(8 * kBlock, 5);
  std::unique_ptr<Part> range_;
  std::unique_ptr<Part> upper_;  // not in use until something is handed to it
};

// ---- what requests wait for ----

TEST(WantsTest, AWantIsForTheBlockThatCoversItsOffset) {
  Wants wants;
  EXPECT_FALSE(wants.AnyIn(0, kAll));
  const Wants::Want want(wants, 10);
  EXPECT_TRUE(wants.AnyIn(10, 11));
  EXPECT_TRUE(wants.AnyIn(0, 20));
  EXPECT_FALSE(wants.AnyIn(11, 20));
  EXPECT_FALSE(wants.AnyIn(0, 10));
}

TEST(WantsTest, EachWantLastsAsLongAsItsRequest) {
  Wants wants;
  auto first = std::make_unique<Wants::Want>(wants, 1);
  auto second = std::make_unique<Wants::Want>(wants, 2);
  auto third = std::make_unique<Wants::Want>(wants, 3);
  second.reset();
  EXPECT_TRUE(wants.AnyIn(1, 2));
  EXPECT_FALSE(wants.AnyIn(2, 3));
  EXPECT_TRUE(wants.AnyIn(3, 4));
  third.reset();
  EXPECT_TRUE(wants.AnyIn(1, 2));
  EXPECT_FALSE(wants.AnyIn(2, 4));
  first.reset();
  EXPECT_FALSE(wants.AnyIn(0, kAll));
}

TEST_F(RangeTest, AListOfJobsHoldsThem) {
  world_.script.Hold({vesk::kFaultRead});
  range_->Fetch(0, 2 * kBlock);
  VeskJob* const job = range_->JobAt(0, false);
  const int references = job->GetRefCount();
  {
    JobList jobs;
    {
      const RangeLock guard(range_->range.lock);
      range_->range.ListJobs(true, &jobs);
    }
    EXPECT_EQ(jobs.jobs(), (std::vector<VeskJob*>{job, range_->JobAt(kBlock, false)}));
    EXPECT_EQ(job->GetRefCount(), references + 1);
  }
  EXPECT_EQ(job->GetRefCount(), references);
}

TEST_F(RangeTest, JobsAreListedByTheirKind) {
  world_.script.Hold({vesk::kFaultRead | vesk::kFaultWrite});
  range_->Fetch(0, kBlock);
  range_->Write(2 * kBlock, 10);
  range_->Write(3 * kBlock, 10);
  range_->StartWrites();
  range_->Write(4 * kBlock, 10);  // has none
  VeskJob* const read = range_->JobAt(0, true);
  VeskJob* const write = range_->JobAt(2 * kBlock, true);
  VeskJob* const other = range_->JobAt(3 * kBlock, true);
  JobList all;
  JobList writes;
  {
    const RangeLock guard(range_->range.lock);
    range_->range.ListJobs(true, &all);
    range_->range.ListJobs(false, &writes);
  }
  EXPECT_EQ(all.jobs(), (std::vector<VeskJob*>{read, write, other}));
  EXPECT_EQ(writes.jobs(), (std::vector<VeskJob*>{write, other}));
  EXPECT_EQ(range_->JobAt(0, false), read);
  EXPECT_NE(write, nullptr);
  EXPECT_EQ(range_->JobAt(2 * kBlock, false), nullptr) << "a reader needs not wait for it";
  EXPECT_EQ(range_->JobAt(4 * kBlock, true), nullptr);
  EXPECT_EQ(range_->JobAt(kBlock, true), nullptr);
}

// ---- fetching ----

TEST_F(RangeTest, AFetchMakesBlocksThatMeetAtMultiplesOfTheBlockSize) {
  world_.script.Hold({vesk::kFaultRead});
  EXPECT_EQ(range_->NeedForFetch(100, 3 * kBlock + 5), kBlock - 100);
  EXPECT_EQ(range_->NeedForFetch(100, 200), 100u);
  EXPECT_EQ(range_->Fetch(100, 3 * kBlock + 5), 3 * kBlock + 5);
  ExpectBlock(*range_, 100, kBlock);
  ExpectBlock(*range_, kBlock, 2 * kBlock);
  ExpectBlock(*range_, 2 * kBlock, 3 * kBlock);
  ExpectBlock(*range_, 3 * kBlock, 3 * kBlock + 5);
  EXPECT_EQ(range_->At(99), nullptr);
  EXPECT_EQ(world_.script.held(), 4u);
  const std::uint64_t bytes = 3 * kBlock + 5 - 100;
  ExpectSums(bytes, 0, bytes, 0);
  EXPECT_EQ(range_->NeedForFetch(100, 3 * kBlock + 5), 0u) << "on its way";
  EXPECT_EQ(range_->NeedForFetch(kBlock - 1, 3 * kBlock), 0u);
  EXPECT_EQ(range_->NeedForFetch(3 * kBlock + 5, 4 * kBlock), kBlock - 5);
  EXPECT_EQ(range_->NeedForFetch(0, kBlock), 100u) << "up to the next block";
  EXPECT_EQ(range_->Fetch(0, 100), 100u);
  ExpectBlock(*range_, 0, 100);
  EXPECT_EQ(range_->Fetch(0, 3 * kBlock), 3 * kBlock) << "nothing is left to fetch";
  EXPECT_EQ(world_.script.held(), 5u);

  range_->Collect();
  ExpectSums(bytes + 100, 0, bytes + 100, 0);
  world_.script.Heal();
  range_->Collect();
  ExpectSums(bytes + 100, 0, 0, 0);
  EXPECT_EQ(core_.fetched, bytes + 100);
  EXPECT_TRUE(Same(range_->Read(0, 4 * kBlock), Content(0, 3 * kBlock + 5)));
  EXPECT_EQ(range_->NeedForFetch(0, kBlock), 0u) << "it is there";
}

TEST_F(RangeTest, AFetchStopsAtTheEndOfTheRange) {
  range_->range.SetEnd(2 * kBlock + 10);
  EXPECT_EQ(range_->NeedForFetch(2 * kBlock, 5 * kBlock), 10u);
  EXPECT_EQ(range_->Fetch(kBlock, 5 * kBlock), 2 * kBlock + 10);
  ExpectBlock(*range_, 2 * kBlock, 2 * kBlock + 10);
}

TEST_F(RangeTest, AFetchStopsWhereItIsShortOfMemory) {
  EXPECT_EQ(range_->Fetch(0, 5 * kBlock, kBlock - 1), 0u);
  EXPECT_EQ(range_->At(0), nullptr);
  EXPECT_EQ(range_->Fetch(0, 5 * kBlock, 2 * kBlock), 2 * kBlock) << "all of it is used";
  EXPECT_EQ(range_->Fetch(2 * kBlock, 5 * kBlock, 2 * kBlock - 1), 3 * kBlock);
  range_->Collect();
  ExpectSums(3 * kBlock, 0, 0, 0);
}

TEST_F(RangeTest, AFetchOfARangeThatIsFullHasRoomForOneBlock) {
  range_->Load(0, kMany * kBlock);
  EXPECT_EQ(range_->Fetch(kMany * kBlock, (kMany + 4) * kBlock), (kMany + 1) * kBlock);
  range_->Collect();
  EXPECT_EQ(range_->Fetch((kMany - 1) * kBlock, (kMany + 4) * kBlock), (kMany + 2) * kBlock);
}

TEST_F(RangeTest, AFetchBeforeTheLastBlockGoesOnUntilTheRangeIsFullTwice) {
  range_->Load(3 * kMany * kBlock, 3 * kMany * kBlock + 1);
  const std::uint64_t there = range_->Fetch(0, 3 * kMany * kBlock);
  EXPECT_GE(there, kMany * kBlock);
  EXPECT_LT(there, 3 * kMany * kBlock);
  range_->Collect();
  EXPECT_GT(range_->Fetch(there, 3 * kMany * kBlock), there);
}

TEST_F(RangeTest, AFetchBeforeWhereBlocksWere) {
  range_->Load(2 * kBlock, 3 * kBlock);
  range_->Load(kBlock, 2 * kBlock);
  range_->Drop(0, kAll);
  range_->Load(0, kPage);
  EXPECT_TRUE(Same(range_->Read(0, kPage), Content(0, kPage)));
}

// The list of what is known of the blocks has its memory before the first job is started: a job
// that nobody knows of would write into memory that is given back.
TEST_F(RangeTest, AFetchThatGetsNoMemoryForItsListStartsNothing) {
  {
    const FailingAllocation failing(1, true);
    EXPECT_THROW(range_->Fetch(0, kBlock), std::bad_alloc);
  }
  EXPECT_FALSE(core_.broken);
  EXPECT_EQ(world_.script.Count(vesk::kFaultRead), 0u);
  ExpectSums(0, 0, 0, 0);
  range_->Load(0, kBlock);
  EXPECT_TRUE(Same(range_->Read(0, kBlock), Content(0, kBlock)));
}

TEST_F(RangeTest, AFetchGoesAroundWhatIsThere) {
  range_->Load(kBlock + 100, kBlock + 200);
  range_->Write(2 * kBlock + 2 * kPage, 10);
  range_->Write(2 * kBlock, 10);
  EXPECT_EQ(range_->NeedForFetch(kBlock + 150, 4 * kBlock), 0u);
  EXPECT_EQ(range_->NeedForFetch(kBlock + 199, 4 * kBlock), 0u);
  EXPECT_EQ(range_->NeedForFetch(kBlock + 200, 4 * kBlock), kBlock - 200);
  EXPECT_EQ(range_->NeedForFetch(2 * kBlock + 9, 4 * kBlock), 0u);
  EXPECT_EQ(range_->NeedForFetch(2 * kBlock + 10, 4 * kBlock), 2 * kPage - 10)
      << "what is behind the written bytes, up to the next ones";
  EXPECT_EQ(range_->Fetch(kBlock, 3 * kBlock), 3 * kBlock);
  ExpectBlock(*range_, kBlock, kBlock + 100);
  ExpectBlock(*range_, kBlock + 100, kBlock + 200);
  ExpectBlock(*range_, kBlock + 200, 2 * kBlock);
  ExpectBlock(*range_, 2 * kBlock, 2 * kBlock + 10);
  ExpectBlock(*range_, 2 * kBlock + 10, 2 * kBlock + 2 * kPage);
  ExpectBlock(*range_, 2 * kBlock + 2 * kPage, 2 * kBlock + 2 * kPage + 10);
  ExpectBlock(*range_, 2 * kBlock + 2 * kPage + 10, 3 * kBlock);
  range_->Collect();
  std::string expected = Content(kBlock, 2 * kBlock);
  expected.replace(kBlock, 10, 10, 'w');
  expected.replace(kBlock + 2 * kPage, 10, 10, 'w');
  EXPECT_TRUE(Same(range_->Read(kBlock, 2 * kBlock), expected));
}

TEST_F(RangeTest, AFetchLeavesTheRoomBehindWrittenBytesThatItDoesNotNeed) {
  range_->Write(kBlock, 10);
  EXPECT_EQ(range_->Fetch(0, kBlock + 10), kBlock + 10);
  ExpectBlock(*range_, kBlock, kBlock + kPage);
}

TEST_F(RangeTest, TheGapOfAnOffsetBeginsBehindWhatIsThere) {
  EXPECT_EQ(range_->GapStart(500, 300), 300u);
  EXPECT_EQ(range_->GapStart(500, 0), 0u);
  range_->Load(100, 200);
  range_->Write(1000, 10);
  EXPECT_EQ(range_->GapStart(500, 0), 200u);
  EXPECT_EQ(range_->GapStart(500, 300), 300u);
  EXPECT_EQ(range_->GapStart(2000, 0), 1010u) << "not behind the room for bytes to come";
  EXPECT_EQ(range_->GapStart(1010, 0), 1010u);
  EXPECT_EQ(range_->GapStart(90, 0), 0u) << "blocks behind it do not count";
  EXPECT_EQ(range_->GapStart(100, 0), 100u) << "never behind the offset";
  EXPECT_EQ(range_->GapStart(150, 400), 150u);
  world_.script.Hold({vesk::kFaultRead});
  range_->Fetch(kBlock, kBlock + 50);
  EXPECT_EQ(range_->GapStart(kBlock + 60, 0), kBlock + 50) << "on its way";
  range_->range.SetBounds(kBlock, kAll);
  range_->Drop(0, kAll);
  EXPECT_EQ(range_->GapStart(kBlock, 0), kBlock) << "not before the range";
  range_->range.SetBounds(0, kAll);
}

// ---- ends of fetches ----

TEST_F(RangeTest, TheTimeOfAFetchIsAveraged) {
  const auto fetch = [&](std::uint64_t offset, Clock::Duration time) {
    world_.script.Hold({vesk::kFaultRead});
    range_->Fetch(offset, offset + 10);
    clock_.Advance(time);
    world_.script.Heal();
    range_->Collect();
    return Clock::Duration(core_.latency);
  };
  EXPECT_EQ(fetch(0, milliseconds(80)), milliseconds(80)) << "the first one alone";
  EXPECT_EQ(fetch(20, milliseconds(160)), milliseconds(90)) << "an eighth of what is new";
  EXPECT_EQ(fetch(40, milliseconds(10)), milliseconds(80));
  world_.script.Fail({vesk::kFaultRead}, EIO);
  range_->Fetch(60, 70);
  clock_.Advance(milliseconds(800));
  range_->Collect();
  EXPECT_EQ(Clock::Duration(core_.latency), milliseconds(80)) << "one that failed says nothing";
}

TEST_F(RangeTest, ABlockWhoseFetchFailsIsGone) {
  world_.script.Fail({vesk::kFaultRead, "", kBlock, 2 * kBlock}, EIO);
  EXPECT_EQ(range_->Fetch(0, 3 * kBlock), 3 * kBlock);
  EXPECT_EQ(TakeTold(), (Told{{&range_->range, true}}));
  range_->Collect();
  EXPECT_EQ(TakeTold(), (Told{{&range_->range, false}}));
  ExpectBlock(*range_, 0, kBlock);
  EXPECT_EQ(range_->At(kBlock), nullptr);
  ExpectBlock(*range_, 2 * kBlock, 3 * kBlock);
  ExpectSums(2 * kBlock, 0, 0, 0);
  EXPECT_EQ(core_.fetched, 2 * kBlock);
  EXPECT_FALSE(core_.suspicious);
  world_.script.Heal();
  EXPECT_EQ(range_->NeedForFetch(kBlock, 3 * kBlock), kBlock);
  range_->Load(kBlock, 2 * kBlock);
  EXPECT_TRUE(Same(range_->Read(0, 3 * kBlock), Content(0, 3 * kBlock)));
}

TEST_F(RangeTest, JobsAreCollectedInAnyOrder) {
  world_.script.Hold({vesk::kFaultRead});
  range_->Fetch(0, 3 * kBlock);
  world_.script.EndOne(1, 0);
  range_->Collect();
  EXPECT_NE(range_->JobAt(0, false), nullptr);
  EXPECT_EQ(range_->JobAt(kBlock, false), nullptr);
  EXPECT_NE(range_->JobAt(2 * kBlock, false), nullptr);
  ExpectSums(3 * kBlock, 0, 2 * kBlock, 0);
  EXPECT_TRUE(Same(range_->Read(kBlock, kBlock), Content(kBlock, kBlock)));
  EXPECT_EQ(TakeTold(), (Told{{&range_->range, true}}));
  world_.script.EndOne(1, EIO);
  range_->Collect();
  ExpectSums(2 * kBlock, 0, kBlock, 0);
  world_.script.EndOne(0, 0);
  range_->Collect();
  ExpectSums(2 * kBlock, 0, 0, 0);
  EXPECT_EQ(TakeTold(), (Told{{&range_->range, false}}));
}

// Whoever gets the new memory finds something in it.
class FilledMemory {
 public:
  FilledMemory()
      : watch_([](void* memory, std::size_t bytes) { std::memset(memory, 'x', bytes); }) {}

 private:
  AllocationWatch watch_;
};

TEST_F(RangeTest, WhatTheFileHasBeyondTheStoresFileIsZeros) {
  const std::uint64_t stored = 2 * kBlock + 100;
  world_.Put("file", Content(0, stored));
  core_.stored_size = stored;
  core_.size = stored + 1000;
  {
    const FilledMemory filled;
    range_->Fetch(stored - 100, stored + 500);
    range_->Fetch(stored + 500, stored + 600);
  }
  range_->Collect();
  EXPECT_FALSE(core_.suspicious);
  EXPECT_TRUE(
      Same(range_->Read(stored - 100, 1000), Content(stored - 100, 100) + std::string(600, '\0')));
  EXPECT_EQ(core_.fetched, 100u);
  for (const std::uint64_t offset : {stored - 100, stored + 500}) {
    EXPECT_EQ(range_->At(offset)->GetState(255), VeskBuffer::VALID) << "the file does not end here";
  }
}

// As the fetch began: what has been stored since may be behind what it has read.
TEST_F(RangeTest, AStoresFileThatIsShorterThanItWasIsSuspicious) {
  const std::uint64_t stored = 2 * kBlock + 100;
  world_.Put("file", Content(0, stored));
  core_.stored_size = stored;
  core_.size = stored + 1000;
  world_.script.Hold({vesk::kFaultRead});
  range_->Fetch(stored, stored + 10);
  core_.stored_size = stored + 1;
  range_->Fetch(stored - 100, stored);
  range_->Fetch(stored + 20, stored + 30);
  world_.script.Heal();
  range_->Collect();
  EXPECT_FALSE(core_.suspicious) << "as long as it was, or the rest is not in the store";
  EXPECT_TRUE(Same(range_->Read(stored, 10), std::string(10, '\0')));
  EXPECT_TRUE(Same(range_->Read(stored + 20, 10), std::string(10, '\0')));

  range_->Forget();
  range_->Fetch(stored - 100, stored + 10);
  range_->Collect();
  EXPECT_TRUE(core_.suspicious);
  EXPECT_TRUE(Same(range_->Read(stored - 100, 110), Content(stored - 100, 100)))
      << "what was there";
  ExpectBlock(*range_, stored - 100, stored);
}

TEST_F(RangeTest, ABlockOfWhichNothingIsLeftIsGone) {
  const std::uint64_t stored = content_.size();
  core_.stored_size = stored + 1;
  range_->Fetch(stored, stored + 10);
  range_->Collect();
  EXPECT_TRUE(core_.suspicious);
  EXPECT_EQ(range_->At(stored), nullptr);
  ExpectSums(0, 0, 0, 0);
}

TEST_F(RangeTest, ABlockOfOneByteIsNotGone) {
  range_->Load(0, 1);
  EXPECT_TRUE(Same(range_->Read(0, 1), Content(0, 1)));
}

// ---- writing ----

TEST_F(RangeTest, AWriterGetsPagesAndOneWhoGoesOnAWholeBlock) {
  Range::WriteNeed need = range_->NeedForWrite(0, 1);
  EXPECT_EQ(need.memory, kPage);
  EXPECT_EQ(need.dirty, 1u);
  EXPECT_EQ(range_->NeedForWrite(0, kPage).memory, kPage);
  EXPECT_EQ(range_->NeedForWrite(0, kPage + 1).memory, 2 * kPage);
  EXPECT_EQ(range_->NeedForWrite(kPage + 100, 10).memory, kPage - 100);
  need = range_->NeedForWrite(3 * kPage + 1, 2 * kPage);
  EXPECT_EQ(need.memory, kPage - 1) << "a block ends with its line";
  EXPECT_EQ(need.dirty, kPage - 1);
  EXPECT_EQ(range_->NeedForWrite(kBlock, kBlock).memory, kBlock);

  EXPECT_EQ(range_->Write(kBlock, kPage), kPage);
  ExpectBlock(*range_, kBlock, kBlock + kPage);
  EXPECT_EQ(range_->NeedForWrite(kBlock + kPage, 10).memory, kBlock - kPage);
  EXPECT_EQ(range_->NeedForWrite(kBlock + kPage, 10).dirty, 10u);
  EXPECT_EQ(range_->NeedForWrite(kBlock + kPage + 1, 10).memory, kPage - 1);
  range_->Load(3 * kBlock, 3 * kBlock + kPage);
  EXPECT_EQ(range_->NeedForWrite(3 * kBlock + kPage, 10).memory, kPage) << "it was read";
  world_.script.Hold({vesk::kFaultWrite});
  range_->StartWrites();
  EXPECT_EQ(range_->NeedForWrite(kBlock + kPage, 10).memory, kBlock - kPage) << "on its way";
  EXPECT_EQ(range_->Write(kBlock + kPage, 10), 10u);
  ExpectBlock(*range_, kBlock + kPage, 2 * kBlock);
  ExpectSums(kBlock + kPage, kPage + 10, kPage, kPage);
}

TEST_F(RangeTest, NoBlockReachesBeyondTheLargestFile) {
  EXPECT_EQ(range_->NeedForWrite(vesk::kMaxFileSize - 10, 5).memory, 10u);
  EXPECT_EQ(range_->NeedForWrite(vesk::kMaxFileSize - 10, 20).dirty, 10u);
}

TEST_F(RangeTest, BytesGoIntoADirtyBlockWithoutAGap) {
  range_->Write(kBlock, 100);
  ExpectSums(kPage, 100, 0, 0);
  EXPECT_EQ(range_->NeedForWrite(kBlock + 100, 10).memory, 0u);
  EXPECT_EQ(range_->NeedForWrite(kBlock + 100, 10).dirty, 10u);
  EXPECT_EQ(range_->NeedForWrite(kBlock + 50, 10).dirty, 0u) << "dirty already";
  EXPECT_EQ(range_->NeedForWrite(kBlock + 50, 100).dirty, 50u);
  EXPECT_EQ(range_->NeedForWrite(kBlock + 50, kBlock).dirty, kPage - 100) << "what it has room for";
  EXPECT_NE(range_->NeedForWrite(kBlock + 101, 10).memory, 0u) << "a gap would be between them";

  EXPECT_EQ(range_->Write(kBlock + 50, 100, 'x'), 100u);
  ExpectSums(kPage, 150, 0, 0);
  EXPECT_EQ(range_->Write(kBlock + 150, 2 * kPage, 'y'), kPage - 150)
      << "the rest is another write";
  ExpectSums(kPage, kPage, 0, 0);
  EXPECT_TRUE(Same(range_->Read(kBlock, kBlock),
                   std::string(50, 'w') + std::string(100, 'x') + std::string(kPage - 150, 'y')));
  EXPECT_EQ(TakeTold(), (Told{{&range_->range, true}}));
}

TEST_F(RangeTest, AWriteBehindAGapGetsABlockOfItsOwn) {
  range_->Write(kBlock, 100);
  EXPECT_EQ(range_->Write(kBlock + 101, 10), 10u);
  range_->Collect();
  EXPECT_NE(range_->At(kBlock + 101), range_->At(kBlock));
  EXPECT_EQ(range_->At(kBlock + 100), nullptr);
  range_->Store();
  std::string expected = content_;
  expected.replace(kBlock, 100, 100, 'w').replace(kBlock + 101, 10, 10, 'w');
  EXPECT_TRUE(Same(world_.Stored("file"), expected));
}

// Clean bytes before those written would be stored with them, over what others have put there.
TEST_F(RangeTest, ACleanBlockIsWrittenToFromItsStartOnly) {
  range_->Load(0, 2 * kBlock);
  EXPECT_EQ(range_->NeedForWrite(0, 10).memory, 0u);
  EXPECT_EQ(range_->NeedForWrite(0, 10).dirty, 10u);
  EXPECT_EQ(range_->Write(0, 10), 10u);
  EXPECT_TRUE(Same(range_->Read(0, kBlock), std::string(10, 'w') + Content(10, kBlock - 10)));
  ExpectSums(2 * kBlock, 10, 0, 0);
  EXPECT_NE(range_->NeedForWrite(kBlock + 5, 10).memory, 0u);
  range_->Store();
  EXPECT_EQ(range_->Write(kBlock + 5, 10), 0u) << "to be issued again: the block was in the way";
  ExpectSums(kBlock, 0, 0, 0);
  EXPECT_EQ(range_->Write(kBlock + 5, 10), 10u);
  ExpectBlock(*range_, kBlock + 5, kBlock + kPage);
  range_->Store();
  std::string expected = content_;
  expected.replace(0, 10, 10, 'w').replace(kBlock + 5, 10, 10, 'w');
  EXPECT_TRUE(Same(world_.Stored("file"), expected));
}

TEST_F(RangeTest, NothingIsWrittenIntoABlockThatIsOnItsWay) {
  world_.script.Hold({vesk::kFaultWrite});
  range_->Write(0, 10, 'a');
  range_->StartWrites();
  EXPECT_NE(range_->NeedForWrite(0, 10).memory, 0u);
  EXPECT_NE(range_->NeedForWrite(5, 10).memory, 0u);
  EXPECT_EQ(range_->NeedForWrite(0, 10).dirty, 10u);
}

TEST_F(RangeTest, ABlockIsDirtySinceItsFirstByteBecameSo) {
  EXPECT_EQ(range_->OldestDirty(), Clock::kNever);
  range_->Load(0, kBlock);
  EXPECT_EQ(range_->OldestDirty(), Clock::kNever);
  clock_.Advance(milliseconds(10));
  const Clock::Time first = clock_.Now();
  range_->Write(kBlock, 10);
  clock_.Advance(milliseconds(10));
  range_->Write(kBlock + 10, 10);
  EXPECT_EQ(range_->OldestDirty(), first);
  const Clock::Time second = clock_.Now();
  range_->Write(0, 10);
  clock_.Advance(milliseconds(10));
  range_->Write(10, 10);
  EXPECT_EQ(range_->OldestDirty(), first);
  world_.script.Hold({vesk::kFaultWrite});
  range_->StartWrites(first);
  EXPECT_EQ(range_->OldestDirty(), first) << "on its way is not there";
  world_.script.Heal();
  range_->Collect();
  EXPECT_EQ(range_->OldestDirty(), second);
  range_->Write(kBlock, 10);
  EXPECT_EQ(range_->OldestDirty(), second);
  range_->StartWrites(second);
  range_->Collect();
  EXPECT_EQ(range_->OldestDirty(), clock_.Now());
  range_->Store();
  EXPECT_EQ(range_->OldestDirty(), Clock::kNever);
}

TEST_F(RangeTest, TheEndOfWhatIsNotStored) {
  EXPECT_EQ(range_->DirtyEnd(), 0u);
  range_->Load(4 * kBlock, 5 * kBlock);
  EXPECT_EQ(range_->DirtyEnd(), 0u);
  range_->Write(2 * kBlock + 5, 10);
  range_->Write(kBlock, 10);
  EXPECT_EQ(range_->DirtyEnd(), 2 * kBlock + 15);
  world_.script.Hold({vesk::kFaultWrite});
  range_->StartWrites();
  EXPECT_EQ(range_->DirtyEnd(), 2 * kBlock + 15);
  range_->Write(3 * kBlock, 7);
  EXPECT_EQ(range_->DirtyEnd(), 3 * kBlock + 7);
  world_.script.Heal();
  range_->Collect();
  EXPECT_EQ(range_->DirtyEnd(), 3 * kBlock + 7);
  range_->Store();
  EXPECT_EQ(range_->DirtyEnd(), 0u);
}

// ---- write-backs ----

TEST_F(RangeTest, WritesStartThatBecameDirtyBeforeATime) {
  world_.script.Hold({vesk::kFaultWrite});
  range_->Load(2 * kBlock, 3 * kBlock);
  const Clock::Time first = clock_.Now();
  range_->Write(kBlock, 20);
  clock_.Advance(milliseconds(1));
  range_->Write(0, 10);
  TakeTold();
  range_->StartWrites(first - milliseconds(1), false);
  EXPECT_EQ(world_.script.held(), 0u);
  ExpectSums(2 * kPage + kBlock, 30, 0, 0);
  range_->StartWrites(first, false);
  EXPECT_EQ(world_.script.held(), 1u);
  EXPECT_NE(range_->JobAt(kBlock, true), nullptr);
  ExpectSums(2 * kPage + kBlock, 30, kPage, 20);
  range_->StartWrites(clock_.Now(), false);
  EXPECT_EQ(world_.script.held(), 2u);
  ExpectSums(2 * kPage + kBlock, 30, 2 * kPage, 30);
  EXPECT_EQ(TakeTold(), Told());
  world_.script.Heal();
  range_->Collect();
  ExpectSums(2 * kPage + kBlock, 0, 0, 0);
  EXPECT_EQ(TakeTold(), (Told{{&range_->range, false}}));
  std::string expected = content_;
  expected.replace(0, 10, 10, 'w').replace(kBlock, 20, 20, 'w');
  EXPECT_TRUE(Same(world_.Stored("file"), expected));
  EXPECT_TRUE(Same(range_->Read(0, 10), std::string(10, 'w'))) << "it stays";
}

TEST_F(RangeTest, WhatIsStoredRaisesWhatTheStoreHas) {
  const std::uint64_t stored = content_.size();
  range_->Write(0, 10);
  range_->Store();
  EXPECT_EQ(core_.stored_size, stored);
  EXPECT_EQ(core_.own_writes, 1u);
  range_->Write(stored + 100, 10);
  world_.script.Fail({vesk::kFaultWrite}, EIO, 1);
  range_->Store();
  EXPECT_EQ(core_.stored_size, stored);
  EXPECT_EQ(core_.own_writes, 2u) << "it may have changed the store's file";
  range_->Store();
  EXPECT_EQ(core_.stored_size, stored + 110);
  EXPECT_EQ(core_.own_writes, 3u);
}

TEST_F(RangeTest, AfterAWriteThatFailedItsBytesAreDirtyAgainAndRest) {
  range_->Write(kBlock, 100);
  world_.script.Fail({vesk::kFaultWrite}, EIO, 1);
  range_->Store();
  ExpectSums(kPage, 100, 0, 0);
  EXPECT_EQ(core_.failures.count(), 1u);
  EXPECT_EQ(core_.failures.last_error(), EIO);
  EXPECT_TRUE(Same(range_->Read(kBlock, kBlock), std::string(100, 'w')));
  EXPECT_EQ(range_->At(kBlock)->GetState(255), VeskBuffer::DIRTY);
  EXPECT_EQ(TakeTold(), (Told{{&range_->range, true}}));

  const std::uint64_t writes = world_.script.Count(vesk::kFaultWrite);
  range_->StartWrites(Clock::kNever, false);
  clock_.Advance(milliseconds(49));
  range_->StartWrites(Clock::kNever, false);
  EXPECT_EQ(world_.script.Count(vesk::kFaultWrite), writes) << "it rests";
  clock_.Advance(milliseconds(1));
  range_->StartWrites(Clock::kNever, false);
  EXPECT_EQ(world_.script.Count(vesk::kFaultWrite), writes + 1);
  range_->Collect();
  ExpectSums(kPage, 0, 0, 0);
  EXPECT_TRUE(Same(world_.Stored("file").substr(kBlock, 100), std::string(100, 'w')));
}

TEST_F(RangeTest, AWriteThatIsAskedForDoesNotRest) {
  range_->Write(0, 10);
  world_.script.Fail({vesk::kFaultWrite}, EIO, 1);
  range_->Store();
  range_->StartWrites(Clock::kNever, true);
  EXPECT_EQ(world_.script.Count(vesk::kFaultWrite), 2u);
  range_->Collect();
  ExpectSums(kPage, 0, 0, 0);
}

TEST_F(RangeTest, ABlockWhoseWriteFailedCanBeWrittenTo) {
  range_->Write(0, 10);
  world_.script.Fail({vesk::kFaultWrite}, EIO, 1);
  range_->Store();
  EXPECT_EQ(range_->Write(0, 10, 'x'), 10u);
  EXPECT_EQ(range_->Write(10, 10, 'y'), 10u);
  range_->Store();
  EXPECT_TRUE(Same(world_.Stored("file").substr(0, 21),
                   std::string(10, 'x') + std::string(10, 'y') + Content(20, 1)));
}

// The runtime tells of a write that it keeps and tries again.
TEST_F(RangeTest, AWriteThatSucceedsAtLastFailsNoMore) {
  const std::string name = "file";
  range_->Write(0, 10);
  core_.failures.Tell({name, 0, 10, EIO, true, 1, false});
  EXPECT_EQ(core_.failures.At(0), EIO);
  range_->Store();
  EXPECT_EQ(core_.failures.At(0), 0);
  EXPECT_EQ(core_.failures.count(), 1u);
}

TEST_F(RangeTest, AFailureThatWasToldIsNotToldAgainAtItsEnd) {
  const std::string name = "file";
  range_->Write(0, 10);
  core_.failures.Tell({name, 0, 10, EIO, true, 1, false});
  world_.script.Fail({vesk::kFaultWrite}, EIO, 1);
  range_->Store();
  EXPECT_EQ(core_.failures.At(0), 0) << "it is not kept any more";
  EXPECT_EQ(core_.failures.count(), 1u);
  ExpectSums(kPage, 10, 0, 0);
}

// ---- giving up ----

TEST_F(RangeTest, WhatIsDiscardedIsNotStored) {
  range_->Load(0, 2 * kBlock);
  range_->Write(3 * kBlock, 10);
  range_->Write(0, 10);
  range_->Discard();
  EXPECT_EQ(range_->At(0), nullptr);
  ExpectBlock(*range_, kBlock, 2 * kBlock);
  EXPECT_EQ(range_->At(3 * kBlock), nullptr);
  ExpectSums(kBlock, 0, 0, 0);
  EXPECT_EQ(TakeTold(), (Told{{&range_->range, true},
                              {&range_->range, false},
                              {&range_->range, true},
                              {&range_->range, false}}));
  range_->Store();
  EXPECT_EQ(world_.script.Count(vesk::kFaultWrite), 0u);
}

TEST_F(RangeTest, DiscardingLeavesFetchesAlone) {
  world_.script.Hold({vesk::kFaultRead});
  range_->Fetch(0, kBlock);
  range_->Discard();
  EXPECT_NE(range_->JobAt(0, false), nullptr);
  world_.script.Heal();
  range_->Collect();
  EXPECT_TRUE(Same(range_->Read(0, kBlock), Content(0, kBlock)));
}

TEST_F(RangeTest, AWriteInFlightWhenItIsDiscardedIsGivenUpIfItFails) {
  world_.script.Hold({vesk::kFaultWrite});
  range_->Write(0, 10);
  range_->Write(kBlock, 10);
  range_->StartWrites();
  const std::string name = "file";
  core_.failures.Tell({name, 0, 10, EIO, true, 1, false});  // the runtime keeps it
  range_->Discard();
  ExpectSums(2 * kPage, 20, 2 * kPage, 20);
  world_.script.EndOne(0, EIO);
  world_.script.Heal();
  range_->Collect();
  EXPECT_EQ(range_->At(0), nullptr);
  EXPECT_TRUE(Same(range_->Read(kBlock, 20), std::string(10, 'w'))) << "it was stored";
  EXPECT_EQ(core_.failures.Any(), 0) << "nobody tries it again";
  EXPECT_EQ(core_.failures.count(), 1u);
  ExpectSums(kPage, 0, 0, 0);
  EXPECT_EQ(range_->At(kBlock)->GetState(255), VeskBuffer::VALID);
}

TEST_F(RangeTest, OnlyWhatWasInFlightIsGivenUp) {
  range_->Load(0, kBlock);
  world_.script.Hold({vesk::kFaultWrite});
  range_->Write(kBlock, 10);
  range_->StartWrites();
  range_->Discard();
  world_.script.Heal();
  range_->Collect();
  range_->Write(0, 10);
  range_->Write(kBlock, 10);
  world_.script.Fail({vesk::kFaultWrite}, EIO, 2);
  range_->Store();
  EXPECT_EQ(core_.failures.count(), 2u);
  ExpectSums(kBlock + kPage, 20, 0, 0);
  range_->Store();
  std::string expected = content_;
  expected.replace(0, 10, 10, 'w').replace(kBlock, 10, 10, 'w');
  EXPECT_TRUE(Same(world_.Stored("file"), expected));
}

TEST_F(RangeTest, AfterForgettingEverythingIsFetchedAnew) {
  range_->Load(0, 2 * kBlock);
  world_.script.Hold({vesk::kFaultRead | vesk::kFaultWrite});
  range_->Write(3 * kBlock, 10);
  range_->StartWrites();
  range_->Write(kBlock, 10);  // over clean bytes
  range_->Fetch(2 * kBlock, 3 * kBlock);
  range_->Forget();
  EXPECT_EQ(range_->At(0), nullptr);
  EXPECT_NE(range_->JobAt(3 * kBlock - 1, false), nullptr) << "as long as it is on its way";
  EXPECT_TRUE(Same(range_->Read(kBlock, kBlock), std::string(10, 'w')));
  EXPECT_TRUE(Same(range_->Read(3 * kBlock, kBlock), std::string(10, 'w')));
  world_.script.Heal();
  range_->Collect();
  EXPECT_EQ(range_->At(2 * kBlock), nullptr) << "it was on its way";
  EXPECT_TRUE(Same(range_->Read(3 * kBlock, kBlock), std::string(10, 'w')));
  ExpectSums(kBlock + kPage, 10, 0, 0);
}

TEST_F(RangeTest, WhatIsDirtyWhenItIsForgottenIsStored) {
  world_.script.Hold({vesk::kFaultWrite});
  range_->Write(kBlock, 10);
  range_->StartWrites();
  range_->Write(0, 10);
  range_->Forget();
  world_.script.EndOne(0, EIO);
  world_.script.Heal();
  range_->Collect();
  world_.script.Fail({vesk::kFaultWrite}, EIO, 2);
  range_->Store();
  ExpectSums(2 * kPage, 20, 0, 0);
  range_->Store();
  ExpectSums(2 * kPage, 0, 0, 0);
  std::string expected = content_;
  expected.replace(0, 10, 10, 'w').replace(kBlock, 10, 10, 'w');
  EXPECT_TRUE(Same(world_.Stored("file"), expected));
}

TEST_F(RangeTest, WhatIsOnItsWayWhenItIsForgottenIsNotSeen) {
  world_.script.Hold({vesk::kFaultRead});
  range_->Fetch(0, 2 * kBlock);
  world_.script.EndOne(0, 0);
  range_->Collect();
  range_->Forget();
  ExpectSums(kBlock, 0, kBlock, 0);
  EXPECT_EQ(range_->At(0), nullptr);
  world_.script.Heal();
  range_->Collect();
  EXPECT_EQ(range_->At(kBlock), nullptr);
  ExpectSums(0, 0, 0, 0);
  range_->Load(0, 2 * kBlock);
  EXPECT_TRUE(Same(range_->Read(0, 2 * kBlock), Content(0, 2 * kBlock)));
}

TEST_F(RangeTest, WhatIsDroppedLiesWithinTheBoundsAndIsIdle) {
  range_->Load(0, 5 * kBlock);
  range_->Write(4 * kBlock, 10);
  {
    const Wants::Want want(core_.wants, 2 * kBlock);
    range_->Drop(kBlock, 5 * kBlock - 1);
    ExpectBlock(*range_, 0, kBlock);
    EXPECT_EQ(range_->At(kBlock), nullptr);
    ExpectBlock(*range_, 2 * kBlock, 3 * kBlock);
    EXPECT_EQ(range_->At(3 * kBlock), nullptr);
    ExpectBlock(*range_, 4 * kBlock, 5 * kBlock);
  }
  ExpectSums(3 * kBlock, 10, 0, 0);
  range_->Drop(1, kBlock);
  range_->Drop(0, kBlock - 1);
  range_->Drop(2 * kBlock + 1, 3 * kBlock + 1);
  range_->Drop(2 * kBlock - 1, 3 * kBlock - 1);
  ExpectSums(3 * kBlock, 10, 0, 0);
  range_->Drop(0, kBlock);
  EXPECT_EQ(range_->At(0), nullptr);
  range_->Drop(2 * kBlock, 3 * kBlock);
  range_->Drop(0, kAll);
  ExpectSums(kBlock, 10, 0, 0);
  world_.script.Hold({vesk::kFaultRead});
  range_->Fetch(0, kBlock);
  range_->Drop(0, kAll);
  ExpectSums(2 * kBlock, 10, kBlock, 0);
}

TEST_F(RangeTest, AFileThatIsCut) {
  range_->Load(kBlock, 4 * kBlock);
  range_->Truncate(4 * kBlock);
  ExpectSums(3 * kBlock, 0, 0, 0);
  range_->Truncate(5 * kBlock);
  ExpectSums(3 * kBlock, 0, 0, 0);
  range_->Truncate(3 * kBlock + 10);
  ExpectBlock(*range_, 3 * kBlock, 3 * kBlock + 10);
  EXPECT_TRUE(Same(range_->Read(kBlock, 4 * kBlock), Content(kBlock, 2 * kBlock + 10)));
  range_->Truncate(3 * kBlock);
  ExpectSums(kBlock, 0, 0, 0);
  ExpectBlock(*range_, kBlock, 2 * kBlock);
  EXPECT_TRUE(Same(range_->Read(kBlock, kBlock), Content(kBlock, kBlock)));
  range_->Truncate(kBlock);
  ExpectSums(0, 0, 0, 0);
  range_->Truncate(0);
  range_->Load(kBlock, 2 * kBlock);
  range_->Load(0, kBlock);
  range_->Drop(0, kBlock);
  range_->Truncate(10);
  ExpectSums(0, 0, 0, 0);
  range_->Load(2 * kBlock, 3 * kBlock);
  range_->Load(kBlock, 2 * kBlock);
  range_->Truncate(0);
  ExpectSums(0, 0, 0, 0);
  range_->Load(0, 2 * kBlock);
  EXPECT_TRUE(Same(range_->Read(0, 2 * kBlock), Content(0, 2 * kBlock)));
}

TEST_F(RangeTest, ARenamedFileIsFetchedUnderItsName) {
  world_.Put("other", std::string(kBlock, 'o'));
  {
    const RangeLock guard(range_->range.lock);
    range_->range.Rename("other");
  }
  range_->Load(0, kBlock);
  EXPECT_TRUE(Same(range_->Read(0, kBlock), std::string(kBlock, 'o')));
}

// ---- reading ----

TEST_F(RangeTest, AHitIsTheWholeOfAReadFromOneBlock) {
  range_->Load(kBlock, 3 * kBlock);
  std::string bytes;
  EXPECT_TRUE(range_->Hit(kBlock, kBlock, &bytes));
  EXPECT_TRUE(Same(bytes, Content(kBlock, kBlock)));
  EXPECT_TRUE(range_->Hit(kBlock + 10, 20, &bytes));
  EXPECT_TRUE(Same(bytes, Content(kBlock + 10, 20)));
  EXPECT_TRUE(range_->Hit(3 * kBlock - 1, 1, &bytes));
  EXPECT_TRUE(Same(bytes, Content(3 * kBlock - 1, 1)));
  EXPECT_TRUE(range_->Hit(2 * kBlock, 10, &bytes));
  EXPECT_TRUE(Same(bytes, Content(2 * kBlock, 10)));
  EXPECT_EQ(range_->counts().hits, 4u);
  EXPECT_EQ(range_->counts().returned, kBlock + 31);
  EXPECT_FALSE(range_->Hit(kBlock, kBlock + 1));
  EXPECT_FALSE(range_->Hit(kBlock + 1, kBlock));
  EXPECT_FALSE(range_->Hit(kBlock - 1, 1));
  EXPECT_FALSE(range_->Hit(3 * kBlock, 1));
  EXPECT_FALSE(range_->Hit(100 * kBlock, 1));
  EXPECT_EQ(range_->counts().hits, 4u);
  EXPECT_EQ(range_->counts().returned, kBlock + 31);
}

TEST_F(RangeTest, BlocksAreFoundHoweverTheyLie) {
  EXPECT_FALSE(range_->Hit(0, 1)) << "there is none";
  range_->Load(3 * kBlock + 100, 3 * kBlock + 200);
  range_->Load(3 * kBlock + 200, 3 * kBlock + 300);
  range_->Load(3 * kBlock + 400, 4 * kBlock);
  range_->Load(4 * kBlock, 5 * kBlock);
  range_->Load(7 * kBlock, 8 * kBlock);
  const auto expect_found = [&](std::uint64_t offset, unsigned length) {
    std::string bytes;
    EXPECT_TRUE(range_->Hit(offset, length, &bytes)) << offset;
    EXPECT_TRUE(Same(bytes, Content(offset, length))) << offset;
    EXPECT_TRUE(Same(range_->Read(offset, length), Content(offset, length))) << offset;
  };
  expect_found(3 * kBlock + 100, 100);
  expect_found(3 * kBlock + 199, 1);
  expect_found(3 * kBlock + 200, 100);
  expect_found(3 * kBlock + 299, 1);
  expect_found(3 * kBlock + 400, 100);
  expect_found(4 * kBlock - 1, 1);
  expect_found(4 * kBlock, kBlock);
  expect_found(5 * kBlock - 1, 1);
  expect_found(7 * kBlock, kBlock);
  expect_found(8 * kBlock - 1, 1);
  for (const std::uint64_t offset :
       {std::uint64_t{0}, 3 * kBlock, 3 * kBlock + 99, 3 * kBlock + 300, 3 * kBlock + 399,
        5 * kBlock, 7 * kBlock - 1, 8 * kBlock, kAll - 1}) {
    EXPECT_FALSE(range_->Hit(offset, 1)) << offset;
    EXPECT_EQ(range_->At(offset), nullptr) << offset;
    EXPECT_TRUE(Same(range_->Read(offset, 1), "")) << offset;
  }
}

TEST_F(RangeTest, WhatLiesBetweenBlocksIsNoHit) {
  range_->Load(0, kBlock);
  range_->Load(5 * kBlock, 6 * kBlock);
  for (std::uint64_t block = 1; block < 5; ++block) {
    EXPECT_FALSE(range_->Hit(block * kBlock, 10)) << block;
  }
  EXPECT_TRUE(range_->Hit(5 * kBlock, 10));
}

TEST_F(RangeTest, WhatIsOnItsWayIsNoHit) {
  world_.script.HoldEnds({vesk::kFaultRead});
  range_->Fetch(0, kBlock);
  EXPECT_FALSE(range_->Hit(0, 10));
  EXPECT_TRUE(Same(range_->Read(0, 10), ""));
  world_.script.Heal();
  range_->Collect();
  range_->Write(kBlock, 10);
  EXPECT_TRUE(range_->Hit(kBlock, 10));
  EXPECT_FALSE(range_->Hit(kBlock, 11)) << "behind what was written";
  EXPECT_FALSE(range_->Hit(kBlock + 10, 1));
  EXPECT_TRUE(Same(range_->Read(kBlock + 10, 1), ""));
  EXPECT_EQ(world_.script.Count(vesk::kFaultRead), 1u) << "a read fetches nothing by itself";
  world_.script.Hold({vesk::kFaultWrite});
  range_->StartWrites();
  EXPECT_FALSE(range_->Hit(kBlock, 10)) << "the long way";
  EXPECT_TRUE(Same(range_->Read(kBlock, 11), std::string(10, 'w')));
}

// Ages in seconds; a block is as old as its last job.
TEST_F(RangeTest, ABlockIsServedUntilItIsOlderThanTheInterval) {
  range_->Load(0, kBlock);
  VeskBuffer* const block = range_->At(0);
  block->ltime = 1000;
  EXPECT_TRUE(range_->Hit(0, 10, nullptr, 1005, 5));
  EXPECT_FALSE(range_->Hit(0, 10, nullptr, 1006, 5));
  EXPECT_TRUE(range_->Hit(0, 10, nullptr, 1006, 0)) << "no interval is set";
  EXPECT_TRUE(range_->Hit(0, 10, nullptr, 990, 5)) << "the clock was put back";
  range_->Write(0, 10);
  EXPECT_TRUE(range_->Hit(0, 10, nullptr, 2000, 5)) << "its bytes are here alone";
  block->ltime = 0;
  range_->Store();
  block->ltime = 0;
  EXPECT_TRUE(range_->Hit(0, 10, nullptr, 2000, 5)) << "it never had a job";
}

TEST_F(RangeTest, OnlyCleanBlocksAge) {
  world_.settings.refresh_interval = 60;
  range_->Load(0, 3 * kBlock);
  range_->At(0)->ltime = 1;
  range_->Write(kBlock, 10);
  range_->At(kBlock)->ltime = 1;
  EXPECT_TRUE(range_->IsAged(0));
  EXPECT_TRUE(range_->IsAged(kBlock - 1));
  EXPECT_FALSE(range_->IsAged(kBlock));
  EXPECT_FALSE(range_->IsAged(2 * kBlock));
  EXPECT_FALSE(range_->IsAged(3 * kBlock)) << "there is none";
  world_.settings.refresh_interval = 0;
  EXPECT_FALSE(range_->IsAged(0));
  world_.settings.refresh_interval = 60;
  range_->Renew();
  EXPECT_FALSE(range_->IsAged(0));
  EXPECT_EQ(range_->At(kBlock)->ltime, 1u) << "what is dirty has no age";
}

TEST_F(RangeTest, AnAgedBlockIsDroppedByTheReadThatFindsIt) {
  world_.settings.refresh_interval = 60;
  range_->Load(0, 3 * kBlock);
  for (const std::uint64_t offset : {kBlock + 10, std::uint64_t{10}, 2 * kBlock}) {
    range_->At(offset)->ltime = 1;
    const std::uint64_t cached = core_.cached;
    EXPECT_TRUE(Same(range_->Read(offset, 10), ""));
    EXPECT_EQ(range_->At(offset), nullptr);
    ExpectSums(cached - kBlock, 0, 0, 0);
  }
  EXPECT_FALSE(core_.broken);
  range_->Load(0, 3 * kBlock);
  EXPECT_TRUE(Same(range_->Read(10, 3 * kBlock), Content(10, 3 * kBlock - 10)));
}

TEST_F(RangeTest, ReadsNeverDropABlockThatTheyPassOver) {
  range_->Load(0, 4 * kBlock);
  for (int i = 0; i < 20; ++i) {
    EXPECT_TRUE(Same(range_->Read(2 * kBlock + 5, kBlock), Content(2 * kBlock + 5, kBlock)));
    EXPECT_TRUE(Same(range_->Read(2 * kBlock, kBlock), Content(2 * kBlock, kBlock)));
    EXPECT_TRUE(range_->Hit(3 * kBlock, 10));
  }
  ExpectBlock(*range_, 0, kBlock);
  ExpectSums(4 * kBlock, 0, 0, 0);
  for (std::uint64_t i = 0; i < 20; ++i) {
    EXPECT_EQ(range_->Write(4 * kBlock + 2 * i * kPage, 10), 10u);
    range_->Store();
  }
  ExpectBlock(*range_, 0, kBlock);
}

// ---- which block goes ----

TEST_F(RangeTest, TheBlockUsedLongestAgoGoes) {
  range_->Load(0, 4 * kBlock);
  range_->Write(5 * kBlock, 10);
  range_->Store();  // the newest, but for what is used now
  EXPECT_TRUE(range_->Hit(0, 10));
  EXPECT_TRUE(Same(range_->Read(2 * kBlock, 10), Content(2 * kBlock, 10)));
  EXPECT_EQ(range_->Write(3 * kBlock, 10), 10u);
  range_->Store();
  // The order of use: 1, 5, 0, 2, 3.
  for (const std::uint64_t block : {1u, 5u, 0u, 2u, 3u}) {
    const std::uint64_t offset = block * kBlock;
    ASSERT_NE(range_->At(offset), nullptr) << block;
    const std::uint64_t size = range_->At(offset)->size;
    const std::uint64_t cached = core_.cached;
    const MemoryBudget::Source::Left left = range_->Evict(1);
    EXPECT_EQ(left.freed, size) << block;
    EXPECT_EQ(range_->At(offset), nullptr) << block;
    ExpectSums(cached - size, 0, 0, 0);
    EXPECT_EQ(owner_.retired.size(), cached == size ? 1u : 0u) << "told when none is left";
  }
  EXPECT_EQ(range_->Evict(1).freed, 0u);
}

TEST_F(RangeTest, AsMuchIsEvictedAsIsAskedFor) {
  range_->Load(0, 6 * kBlock);
  EXPECT_EQ(range_->Evict(0).freed, 0u);
  EXPECT_EQ(range_->Evict(kBlock).freed, kBlock);
  EXPECT_EQ(range_->Evict(kBlock + 1).freed, 2 * kBlock);
  EXPECT_EQ(range_->Evict(kAll).freed, 3 * kBlock);
  EXPECT_EQ(range_->Evict(kAll).oldest, MemoryBudget::kNoBlock);
}

TEST_F(RangeTest, WhatIsNewerThanIsAskedForStays) {
  range_->Load(0, kBlock);
  TimePasses();
  range_->Load(kBlock, 2 * kBlock);
  const std::uint64_t oldest = range_->OldestStamp();
  EXPECT_EQ(range_->Evict(kAll, oldest - 1).freed, 0u);
  EXPECT_EQ(range_->Evict(kAll, oldest - 1).oldest, oldest);
  const MemoryBudget::Source::Left left = range_->Evict(kAll, oldest);
  EXPECT_EQ(left.freed, kBlock);
  EXPECT_EQ(range_->At(0), nullptr);
  EXPECT_GT(left.oldest, oldest);
  EXPECT_EQ(left.oldest, range_->OldestStamp());
  EXPECT_TRUE(owner_.retired.empty());
}

TEST_F(RangeTest, WhatIsBusyOrWaitedForIsNotEvicted) {
  range_->Load(0, 3 * kBlock);
  range_->Write(kBlock, 10);
  world_.script.Hold({vesk::kFaultRead});
  range_->Fetch(3 * kBlock, 4 * kBlock);
  {
    const Wants::Want want(core_.wants, 5);
    const Wants::Want other(core_.wants, 3 * kBlock);
    EXPECT_EQ(range_->Evict(kAll).freed, kBlock);
    EXPECT_EQ(range_->At(2 * kBlock), nullptr);
    EXPECT_EQ(range_->Evict(kAll).oldest, MemoryBudget::kNoBlock);
    ExpectSums(3 * kBlock, 10, kBlock, 0);
  }
  EXPECT_EQ(range_->Evict(kAll).freed, kBlock);
  EXPECT_EQ(range_->At(0), nullptr);
  world_.script.Heal();
  EXPECT_EQ(range_->Evict(kAll).freed, kBlock) << "finished jobs are collected for it";
  ExpectSums(kBlock, 10, 0, 0);
  EXPECT_TRUE(owner_.retired.empty());
  range_->Store();
  EXPECT_EQ(range_->Evict(kAll).freed, kBlock);
  EXPECT_EQ(owner_.retired, (std::vector<const Range*>{&range_->range}));
}

// Nothing else would wake it: the clock stands still.
TEST_F(RangeTest, WhoWaitsForMemoryHasItAsSoonAsABlockCanBeEvicted) {
  world_.script.Hold({vesk::kFaultRead});
  range_->Fetch(0, kBlock);
  std::atomic<unsigned> short_of{0};
  memory_.OnShort([&] { ++short_of; });
  Task task([&] {
    MemoryBudget::Reservation memory(memory_);
    EXPECT_EQ(memory.Reserve(kLimit), 0);
  });
  EXPECT_TRUE(FileWorld::Await([&] { return short_of > 0; }));
  clock_.AwaitWaiters(1);
  world_.script.Heal();
  range_->Collect();
  EXPECT_TRUE(task.Await());
  EXPECT_EQ(range_->At(0), nullptr);
}

TEST_F(RangeTest, WhoWaitsForMemoryHasWrittenWhatBecomesDirty) {
  range_->Load(0, kBlock);
  std::atomic<unsigned> short_of{0};
  memory_.OnShort([&] { ++short_of; });
  Wants::Want want(core_.wants, 0);
  Task task([&] {
    MemoryBudget::Reservation memory(memory_);
    EXPECT_EQ(memory.Reserve(kLimit), 0);
  });
  EXPECT_TRUE(FileWorld::Await([&] { return short_of > 0; }));
  clock_.AwaitWaiters(1);
  const unsigned before = short_of;
  EXPECT_EQ(range_->Write(0, 10), 10u);
  EXPECT_TRUE(FileWorld::Await([&] { return short_of > before; })) << "it asks once more";
  range_->Discard();
  EXPECT_TRUE(task.Await());
}

TEST_F(RangeTest, ABlockThatGoesGivesItsMemoryBack) {
  constexpr long kTimes = 100;
  const long before = LiveAllocations();
  for (long i = 0; i < kTimes; ++i) {
    range_->Load(0, kBlock);
    range_->Evict(kAll);
  }
  EXPECT_LT(LiveAllocations(), before + kTimes);
}

TEST_F(RangeTest, ARangeThatIsNotInUseHasNothingToEvict) {
  EXPECT_EQ(upper_->Evict(kAll).freed, 0u);
  EXPECT_TRUE(owner_.retired.empty());
}

// Uses of different ranges between two reservations count as simultaneous, whatever their number.
TEST_F(RangeTest, ABlockUsedAnyNumberOfTimesIsOlderThanWhatComesAfterTheNextReservation) {
  range_->Load(0, 2 * kBlock);
  const std::uint64_t now = memory_.Stamp();
  EXPECT_TRUE(range_->Hit(0, 1));
  EXPECT_TRUE(range_->Hit(kBlock, 1));
  EXPECT_LT(range_->OldestStamp(), now + 10);
  {
    const RangeLock guard(range_->range.lock);
    std::uint64_t hits = 0;
    for (unsigned char byte = 0; hits < MemoryBudget::kTicks + 2; ++hits) {
      if (!range_->range.Hit(&byte, 0, 1, 0, 0)) break;
    }
    EXPECT_EQ(hits, MemoryBudget::kTicks + 2);
  }
  EXPECT_TRUE(range_->Hit(kBlock, 1));
  EXPECT_GE(range_->OldestStamp(), now);
  EXPECT_LT(range_->OldestStamp(), now + MemoryBudget::kTicks);
  TimePasses();
  EXPECT_EQ(memory_.Stamp(), now + MemoryBudget::kTicks);
  EXPECT_LT(range_->OldestStamp(), memory_.Stamp());
  EXPECT_TRUE(range_->Hit(0, 1));
  EXPECT_TRUE(range_->Hit(kBlock, 1));
  EXPECT_GE(range_->OldestStamp(), memory_.Stamp());
}

// ---- dividing ----

TEST_F(RangeTest, ARangeOfTooManyBlocksIsDividedInTheirMiddle) {
  range_->Load(0, kMany * kBlock);
  EXPECT_EQ(range_->Middle(), 0u) << "there is no need";
  range_->Load(kMany * kBlock, (kMany + 1) * kBlock);
  EXPECT_EQ(range_->Middle(), kMany / 2 * kBlock);
}

TEST_F(RangeTest, AFullRangeIsDividedBeforeABlockBehindItsLast) {
  range_->Load(0, (kMany - 1) * kBlock);
  EXPECT_EQ(range_->FullBefore(kMany * kBlock), 0u) << "there is room";
  range_->Load((kMany - 1) * kBlock, kMany * kBlock - 10);
  EXPECT_EQ(range_->FullBefore(kMany * kBlock - 11), 0u) << "it would not be the last";
  EXPECT_EQ(range_->FullBefore(kMany * kBlock - 10), kMany * kBlock - 10) << "where the last ends";
  EXPECT_EQ(range_->FullBefore(kMany * kBlock - 1), kMany * kBlock - 10);
  EXPECT_EQ(range_->FullBefore(kMany * kBlock), kMany * kBlock);
  EXPECT_EQ(range_->FullBefore((kMany + 3) * kBlock + 5), (kMany + 3) * kBlock)
      << "where the new one's line begins";
}

TEST_F(RangeTest, TheUpperBlocksAreHandedOn) {
  range_->Load(0, 2 * kBlock);
  TimePasses();
  range_->Load(2 * kBlock, 4 * kBlock);
  range_->Write(5 * kBlock, 10);
  TakeTold();
  const Range::Divided divided = range_->DivideInto(*upper_, 2 * kBlock);
  EXPECT_EQ(divided.at, 2 * kBlock);
  EXPECT_TRUE(divided.upper_active);
  EXPECT_TRUE(divided.ceased);
  EXPECT_GT(divided.oldest, range_->OldestStamp());
  EXPECT_EQ(divided.oldest, upper_->OldestStamp());
  EXPECT_TRUE(TakeTold().empty()) << "the owner was told by the result";
  ExpectSums(4 * kBlock + kPage, 10, 0, 0);
  EXPECT_TRUE(Same(range_->Read(0, 4 * kBlock), Content(0, 2 * kBlock)));
  EXPECT_TRUE(Same(upper_->Read(2 * kBlock, 4 * kBlock), Content(2 * kBlock, 2 * kBlock)));
  EXPECT_EQ(range_->At(2 * kBlock), nullptr);
  EXPECT_EQ(upper_->At(2 * kBlock - 1), nullptr);
  range_->Load(0, kBlock);
  range_->Forget();
  ExpectSums(2 * kBlock + kPage, 10, 0, 0);
  EXPECT_EQ(upper_->Write(5 * kBlock + 10, 10), 10u);
  upper_->Store();
  EXPECT_EQ(TakeTold(), (Told{{&upper_->range, false}}));
  EXPECT_TRUE(Same(world_.Stored("file").substr(5 * kBlock, 20), std::string(20, 'w')));
  upper_->Load(4 * kBlock, 5 * kBlock);
  EXPECT_TRUE(Same(upper_->Read(4 * kBlock, kBlock), Content(4 * kBlock, kBlock)));
}

TEST_F(RangeTest, TheLowerRangeStaysActiveWhereItHasSomethingToDo) {
  range_->Write(2 * kBlock, 20);
  range_->Load(kBlock, 2 * kBlock);
  range_->Write(0, 10);
  TakeTold();
  Range::Divided divided = range_->DivideInto(*upper_, kBlock);
  EXPECT_EQ(divided.at, kBlock);
  EXPECT_TRUE(divided.upper_active);
  EXPECT_FALSE(divided.ceased);
  ExpectSums(kBlock + 2 * kPage, 30, 0, 0);
  range_->Store();
  ExpectSums(kBlock + 2 * kPage, 20, 0, 0);
  upper_->Store();
  EXPECT_EQ(TakeTold(), (Told{{&range_->range, false}, {&upper_->range, false}}));
  upper_->Forget();
  EXPECT_TRUE(upper_->Close());

  range_->range.SetEnd(kAll);
  range_->Load(kBlock, 2 * kBlock);
  divided = range_->DivideInto(*upper_, kBlock);
  EXPECT_FALSE(divided.upper_active);
  EXPECT_FALSE(divided.ceased) << "it was not active before";
}

TEST_F(RangeTest, ARangeMayBeDividedBehindItsLastBlock) {
  range_->Load(0, 2 * kBlock);
  const Range::Divided divided = range_->DivideInto(*upper_, 2 * kBlock);
  EXPECT_EQ(divided.at, 2 * kBlock);
  EXPECT_FALSE(divided.upper_active);
  EXPECT_FALSE(divided.ceased);
  EXPECT_EQ(divided.oldest, MemoryBudget::kNoBlock);
  ExpectSums(2 * kBlock, 0, 0, 0);
  EXPECT_TRUE(Same(range_->Read(0, 3 * kBlock), Content(0, 2 * kBlock)));
  upper_->Load(2 * kBlock, 3 * kBlock);
  EXPECT_TRUE(Same(upper_->Read(2 * kBlock, kBlock), Content(2 * kBlock, kBlock)));
  EXPECT_EQ(range_->range.end(), 2 * kBlock);
}

TEST_F(RangeTest, NoBlockIsDivided) {
  range_->Load(kBlock, 3 * kBlock);
  EXPECT_EQ(range_->DivideInto(*upper_, kBlock + 1).at, 0u);
  EXPECT_EQ(range_->DivideInto(*upper_, 3 * kBlock - 1).at, 0u);
  EXPECT_EQ(range_->DivideInto(*upper_, kBlock).at, 0u) << "nothing would be left";
  EXPECT_EQ(range_->DivideInto(*upper_, 0).at, 0u);
  EXPECT_FALSE(core_.broken);
  EXPECT_TRUE(Same(range_->Read(kBlock, 3 * kBlock), Content(kBlock, 2 * kBlock)));
  ExpectSums(2 * kBlock, 0, 0, 0);
}

// A read in flight counts for the stream that started it.
TEST_F(RangeTest, ADivideLiesBehindWhatIsOnItsWay) {
  range_->Load(0, 2 * kBlock);
  range_->Load(3 * kBlock, 4 * kBlock);
  world_.script.Hold({vesk::kFaultRead});
  range_->Fetch(2 * kBlock, 3 * kBlock);
  Range::Divided divided = range_->DivideInto(*upper_, 2 * kBlock);
  EXPECT_EQ(divided.at, 3 * kBlock);
  EXPECT_FALSE(divided.ceased);
  EXPECT_FALSE(divided.upper_active);
  world_.script.Heal();
  range_->Collect();
  EXPECT_TRUE(Same(range_->Read(0, 4 * kBlock), Content(0, 3 * kBlock)));
  EXPECT_TRUE(Same(upper_->Read(3 * kBlock, kBlock), Content(3 * kBlock, kBlock)));
}

// The stream that has started a read counts it until it has ended, whoever has its block.
TEST_F(RangeTest, ARangeStaysAsLongAsAReadThatItHasHandedOn) {
  range_->Load(0, 3 * kBlock);
  world_.script.Hold({vesk::kFaultRead});
  range_->Fetch(3 * kBlock, 4 * kBlock);
  EXPECT_EQ(range_->DivideInto(*upper_, 2 * kBlock).at, 2 * kBlock);
  EXPECT_NE(upper_->JobAt(3 * kBlock, false), nullptr);
  EXPECT_EQ(range_->Evict(kAll).freed, 2 * kBlock);
  EXPECT_FALSE(range_->Close());
  world_.script.Heal();
  EXPECT_TRUE(range_->Close());
  upper_->Collect();
  EXPECT_TRUE(Same(upper_->Read(2 * kBlock, 2 * kBlock), Content(2 * kBlock, 2 * kBlock)));
}

TEST_F(RangeTest, ADivideIsRefusedWhereAllIsOnItsWay) {
  range_->Load(0, kBlock);
  world_.script.Hold({vesk::kFaultRead});
  range_->Fetch(kBlock, 3 * kBlock);
  EXPECT_EQ(range_->DivideInto(*upper_, kBlock).at, 0u);
  ExpectSums(3 * kBlock, 0, 2 * kBlock, 0);
  EXPECT_EQ(upper_->range.end(), 0u);
  world_.script.Heal();
  range_->Collect();
  EXPECT_TRUE(Same(range_->Read(0, 3 * kBlock), Content(0, 3 * kBlock)));
}

TEST_F(RangeTest, WithoutMemoryNothingIsDivided) {
  range_->Load(0, 4 * kBlock);
  for (long nth = 1;; ++nth) {
    const FailingAllocation failing(nth);
    try {
      EXPECT_EQ(range_->DivideInto(*upper_, 2 * kBlock).at, 2 * kBlock);
      EXPECT_FALSE(failing.Fired());
      break;
    } catch (const std::bad_alloc&) {
      EXPECT_FALSE(core_.broken);
      EXPECT_NE(range_->At(3 * kBlock), nullptr);
    }
  }
  ExpectSums(4 * kBlock, 0, 0, 0);
  EXPECT_TRUE(Same(upper_->Read(2 * kBlock, 2 * kBlock), Content(2 * kBlock, 2 * kBlock)));
}

TEST_F(RangeTest, OnlyAnEmptyRangeIsClosed) {
  range_->Load(kBlock, 2 * kBlock);
  EXPECT_FALSE(range_->Close());
  EXPECT_TRUE(range_->range.Covers(kBlock));
  EXPECT_TRUE(Same(range_->Read(kBlock, kBlock), Content(kBlock, kBlock)));
  world_.script.Hold({vesk::kFaultRead});
  range_->Fetch(0, kBlock);
  range_->Forget();
  EXPECT_FALSE(range_->Close()) << "a read is left";
  world_.script.Heal();
  range_->Collect();
  EXPECT_TRUE(range_->Close());
  EXPECT_FALSE(range_->range.Covers(0));
  EXPECT_EQ(range_->range.begin(), 0u);
  EXPECT_EQ(range_->range.end(), 0u);
  range_->Open(kBlock, 3 * kBlock);
  EXPECT_FALSE(range_->range.Covers(kBlock - 1));
  EXPECT_TRUE(range_->range.Covers(kBlock));
  EXPECT_TRUE(range_->range.Covers(3 * kBlock - 1));
  EXPECT_FALSE(range_->range.Covers(3 * kBlock));
  range_->Load(kBlock, 2 * kBlock);
  EXPECT_TRUE(Same(range_->Read(kBlock, kBlock), Content(kBlock, kBlock)));
}

TEST_F(RangeTest, AClosedRangeKeepsNoStream) {
  constexpr std::size_t kRanges = 100;
  std::vector<std::unique_ptr<Part>> parts;
  for (std::size_t i = 0; i < kRanges; ++i) {
    parts.push_back(std::make_unique<Part>(core_, owner_));
    parts.back()->Open();
  }
  const long before = LiveAllocations();
  for (const auto& part : parts) EXPECT_TRUE(part->Close());
  EXPECT_LT(LiveAllocations(), before - static_cast<long>(kRanges) / 2);  // others allocate too
}

// ---- a check that fails ----

// Blocks that are inconsistent make the stream's checks fail.
class BrokenRangeTest : public RangeTest {
 protected:
  BrokenRangeTest() { breaks_ = true; }

  // Nothing is counted any more, nor done; what it looked like is in the log.
  void ExpectBroken() {
    EXPECT_TRUE(core_.broken);
    EXPECT_GT(world_.logger.Count("Dump", "Dump STREAM"), 0u);
    TakeTold();
    range_->LeaveAccounts();
    ExpectSums(0, 0, 0, 0);
    for (const auto& [range, active] : TakeTold()) EXPECT_FALSE(active) << range;
    range_->LeaveAccounts();
    EXPECT_EQ(TakeTold(), Told()) << "once";
    const std::uint64_t jobs = world_.script.Count(vesk::kFaultAll);
    EXPECT_EQ(range_->Evict(kAll).freed, 0u);
    EXPECT_EQ(world_.script.Count(vesk::kFaultAll), jobs);
    EXPECT_TRUE(owner_.retired.empty());
  }
};

TEST_F(BrokenRangeTest, WhatIsWrittenIsNotTaken) {
  range_->Load(kBlock, 2 * kBlock);
  range_->Write(0, 10);
  range_->At(0)->dirty_length = kPage;
  EXPECT_EQ(range_->Write(0, 20), 0u);
  ExpectSums(0, 0, 0, 0);
  EXPECT_EQ(TakeTold().back(), std::make_pair<const Range*>(&range_->range, false));
  ExpectBroken();
}

TEST_F(BrokenRangeTest, NoWriteIsStartedAfterOneThatFailedACheck) {
  range_->Write(kBlock, 10);
  range_->Write(0, 10);
  range_->At(0)->dirty_length = kPage;
  range_->StartWrites();
  EXPECT_EQ(world_.script.Count(vesk::kFaultWrite), 0u);
  ExpectBroken();
}

TEST_F(BrokenRangeTest, ADivideThatFailsACheckIsNone) {
  range_->Load(0, 3 * kBlock);
  range_->At(2 * kBlock)->blen = 0;  // the divide would lie behind the range
  EXPECT_EQ(range_->DivideInto(*upper_, 2 * kBlock).at, 0u);
  EXPECT_EQ(upper_->range.end(), 0u);
  ExpectBroken();
}

// The other stream has blocks by then, and one of them is dirty.
TEST_F(BrokenRangeTest, ADivideThatFailsACheckAtItsEnd) {
  range_->Load(0, 2 * kBlock);
  range_->Load(3 * kBlock, 4 * kBlock);
  range_->Write(5 * kBlock, 10);
  world_.script.Hold({vesk::kFaultRead});
  range_->Fetch(2 * kBlock, 3 * kBlock);
  TakeTold();
  range_->At(3 * kBlock)->off = 10 * kBlock;  // the divide would lie behind the range
  EXPECT_EQ(range_->DivideInto(*upper_, 2 * kBlock).at, 0u);
  EXPECT_EQ(upper_->range.end(), 0u);
  world_.script.EndHeld(EIO);
  range_->Collect();
  EXPECT_NE(range_->JobAt(2 * kBlock, false), nullptr) << "nobody uses the blocks any more";
  ExpectBroken();
}

TEST_F(BrokenRangeTest, ATruncationThatFailsACheck) {
  range_->Load(0, 2 * kBlock);
  range_->At(kBlock)->dlen = 10;
  range_->At(kBlock)->dirty_length = 20;
  range_->Truncate(kBlock + 30);
  ExpectBroken();
}

TEST_F(BrokenRangeTest, WhatARangeHasLeftIsNotCountedWhenItEnds) {
  range_->Load(0, kBlock);
  world_.script.Hold({vesk::kFaultWrite});
  range_->Write(kBlock, 10);
  range_->StartWrites();
  range_->Write(0, 10);
  ExpectSums(kBlock + kPage, 20, kPage, 10);
  core_.broken = true;  // another range has failed a check
  TakeTold();
  range_.reset();
  upper_.reset();
  ExpectSums(0, 0, 0, 0);
  EXPECT_EQ(TakeTold().size(), 1u) << "it is not active any more";
  upper_ = std::make_unique<Part>(core_, owner_);
  range_ = std::make_unique<Part>(core_, owner_);
}

// Whichever allocation fails: what has been begun is counted, or nothing is.
TEST_F(RangeTest, AFetchWithoutMemory) {
  for (long nth = 1;; ++nth) {
    // A name that nobody knows yet has to be noted for those who collect, with memory.
    const std::string name = "file " + std::to_string(nth);
    FileCore core(world_.services(), memory_, dirty_, kBlock);
    Owner owner;
    bool fired = false;
    {
      Part part(core, owner);
      part.Open(0, kAll, name);
      {
        const FailingAllocation failing(nth);
        try {
          part.Fetch(0, 3 * kBlock);
        } catch (const std::bad_alloc&) {
          EXPECT_EQ(core.cached, 0u);
        }
        fired = failing.Fired();
      }
      if (core.broken) {
        EXPECT_EQ(core.cached + core.in_flight, 0u) << nth;
        part.Close();  // whatever was begun: nothing busy is destroyed
      }
      EXPECT_EQ(memory_.used(), core.cached) << nth;
      part.Calm();
    }
    EXPECT_EQ(memory_.used(), 0u) << nth;
    EXPECT_EQ(core.cached + core.in_flight, 0u) << nth;
    if (!fired) break;
  }
}

TEST_F(RangeTest, AWriteWithoutMemory) {
  for (long nth = 1;; ++nth) {
    FileCore core(world_.services(), memory_, dirty_, kBlock);
    Owner owner;
    bool fired = false;
    {
      Part part(core, owner);
      part.Open();
      {
        const std::string bytes(10, 'w');
        const FailingAllocation failing(nth);
        try {
          const unsigned count = part.Write(0, bytes);
          EXPECT_EQ(count, core.broken ? 0u : 10u);
        } catch (const std::bad_alloc&) {
          EXPECT_EQ(core.cached, 0u);
        }
        fired = failing.Fired();
      }
      EXPECT_EQ(memory_.used(), core.cached) << nth;
      part.Calm();
    }
    EXPECT_EQ(memory_.used(), 0u) << nth;
    EXPECT_EQ(core.dirty, 0u) << nth;
    if (!fired) break;
  }
}

// ---- the end of a range ----

TEST_F(RangeTest, AStreamStaysInMemoryAsLongAsAReadThatItHasHandedOn) {
  MemoryBudget memory(kLimit, clock_);
  DirtyLimit dirty(kLimit, kLimit, clock_);
  FileCore core(world_.services(), memory, dirty, kBlock);
  Part upper(core, owner_);
  auto lower = std::make_unique<Part>(core, owner_);
  lower->Open();
  lower->Load(0, 2 * kBlock);
  world_.script.Hold({vesk::kFaultRead});
  lower->Fetch(2 * kBlock, 3 * kBlock);
  EXPECT_EQ(lower->DivideInto(upper, kBlock).at, kBlock);
  lower.reset();
  EXPECT_EQ(core.cached, 3 * kBlock) << "with the block that it had";
  world_.script.Heal();
  upper.Collect();
  EXPECT_TRUE(Same(upper.Read(kBlock, 2 * kBlock), Content(kBlock, 2 * kBlock)));
}

// A job may still write into its memory.
TEST_F(RangeTest, BusyBlocksStayInMemory) {
  MemoryBudget memory(kLimit, clock_);
  DirtyLimit dirty(kLimit, kLimit, clock_);
  FileCore core(world_.services(), memory, dirty, kBlock);
  world_.script.Hold({vesk::kFaultRead});
  auto reading = std::make_unique<Range>(core, owner_);
  auto writing = std::make_unique<Range>(core, owner_);
  for (Range* const range : {reading.get(), writing.get()}) {
    range->Open("file");
    range->SetBounds(0, kAll);
    MemoryBudget::Reservation reserved(memory);
    ASSERT_TRUE(reserved.TryReserve(kBlock));
    DirtyLimit::Room room(dirty);
    ASSERT_TRUE(room.TryAdmit(10));
    const RangeLock guard(range->lock);
    if (range == reading.get()) {
      range->Fetch(0, kBlock, reserved);
    } else {
      range->Write(reinterpret_cast<const unsigned char*>("0123456789"), 0, 10, reserved, room);
    }
  }
  for (auto* const range : {&reading, &writing}) {
    (*range)->LeaveBudget();
    range->reset();
  }
  EXPECT_EQ(core.cached, kBlock + kPage);
  EXPECT_EQ(core.dirty, 10u);
  EXPECT_EQ(memory.used(), kBlock + kPage);
  world_.script.Heal();
  EXPECT_EQ(world_.dispatcher().GetStats().depth, 0u);
}

}  // namespace
}  // namespace vesk_test
