#include "files/range.h"

#include <pthread.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>

#include "runtime/wall_clock.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskEnv.h"
#include "vesk/VeskException.h"

namespace vesk {

namespace {

// Between two tries of a write that has failed, but for those that somebody asks for.
constexpr Clock::Duration kRest = std::chrono::milliseconds(50);

// More than a stream can hold: it never drops a block of its own accord.
constexpr unsigned int kAnyNumber = std::numeric_limits<unsigned int>::max();

std::uint64_t BlockEnd(const VeskBuffer& block) { return block.off + block.blen; }

std::uint64_t DataEnd(const VeskBuffer& block) {
  return block.off + __atomic_load_n(&block.dlen, __ATOMIC_RELAXED);
}

bool Is(const VeskBuffer& block, unsigned int states) { return block.GetState(states) != 0; }

// A block with a job is neither VALID nor DIRTY.
bool IsIdleAndClean(const VeskBuffer& block) { return Is(block, VeskBuffer::VALID); }

// Keeps a stream for the rest of the process: its blocks may be dirty or in flight, so destroying
// it would end the process, or let a job write into freed memory. Kept in reach, so that a leak
// checker tells of other leaks only.
void LeaveInMemory(std::unique_ptr<VeskStream> stream) {
  static Mutex mutex;
  const MutexLock guard(mutex);
  try {
    static auto* const left = new std::vector<std::unique_ptr<VeskStream>>;
    left->push_back(nullptr);
    left->back() = std::move(stream);
  } catch (const std::bad_alloc&) {
    (void)stream.release();
  }
}

// As the stream sees it, for a block that is VALID.
bool IsOlder(const VeskBuffer& block, unsigned int now, int interval) {
  return interval != 0 && block.ltime != 0 &&
         static_cast<long>(now) - static_cast<long>(block.ltime) > interval;
}

// That the stream has started: their blocks may have been handed on since.
unsigned int ReadsInFlight(VeskStream& stream) {
  pthread_mutex_lock(&stream.stream_mutex);
  const unsigned int count = stream.pending_io;
  pthread_mutex_unlock(&stream.stream_mutex);
  return count;
}

}  // namespace

Wants::Want::Want(Wants& wants, std::uint64_t offset) : wants_(wants), offset_(offset) {
  const MutexLock guard(wants.mutex_);
  next_ = wants.first_;
  wants.first_ = this;
}

Wants::Want::~Want() {
  const MutexLock guard(wants_.mutex_);
  Want** link = &wants_.first_;
  while (*link != this) link = &(*link)->next_;
  *link = next_;
}

bool Wants::AnyIn(std::uint64_t begin, std::uint64_t end) const {
  const MutexLock guard(mutex_);
  for (const Want* want = first_; want != nullptr; want = want->next_) {
    if (begin <= want->offset_ && want->offset_ < end) return true;
  }
  return false;
}

JobList::~JobList() {
  for (VeskJob* const job : jobs_) VeskJob::RefCountDec(job);
}

void JobList::Add(VeskJob* job) {
  jobs_.push_back(job);
  job->RefCountInc();
}

using RangeLock = Holding<VeskLock>;

Range::Range(FileCore& core, RangeOwner& owner) : core_(core), owner_(owner) {
  core_.memory.Add(*this);
}

Range::~Range() {
  const RangeLock guard(lock);
  if (stream_ == nullptr) return;
  if (core_.broken) LeaveAccounts();
  const bool busy = core_.broken || std::any_of(uses_.begin(), uses_.end(), [](const Use& use) {
                      return !IsIdleAndClean(*use.block);
                    });
  if (busy || ReadsInFlight(*stream_) > 0) {
    LeaveInMemory(std::move(stream_));
    return;
  }
  uses_.clear();
  stream_.reset();
  Account();
}

// ---- boundaries ----

// Without its lock: the range covers nothing, so whoever locks it looks at that and goes.
void Range::Open(const std::string& name) VESK_NO_THREAD_SAFETY_ANALYSIS {
  stream_ = NewStream(name);
}

std::unique_ptr<VeskStream> Range::NewStream(const std::string& name) const {
  try {
    return std::make_unique<VeskStream>(name, &core_.services.bundler, 0, 0, 0);
  } catch (const VeskException&) {
    throw std::bad_alloc();  // what the stream's check was about
  }
}

void Range::SetBounds(std::uint64_t begin, std::uint64_t end) {
  begin_.store(begin, std::memory_order_relaxed);
  SetEnd(end);
}

std::uint64_t Range::Middle() const {
  return uses_.size() <= kMaxBlocks ? 0 : uses_[uses_.size() / 2].block->off;
}

std::uint64_t Range::FullBefore(std::uint64_t offset) const {
  if (uses_.size() < kMaxBlocks || BlockEnd(*uses_.back().block) > offset) return 0;
  return std::max(BlockEnd(*uses_.back().block), offset / core_.block_size * core_.block_size);
}

Range::Divided Range::DivideInto(Range& upper, std::uint64_t at) {
  const auto first =
      std::find_if(uses_.begin(), uses_.end(), [at](const Use& use) { return use.off >= at; });
  if (first == uses_.begin() || BlockEnd(*std::prev(first)->block) > at) return {};
  std::unique_ptr<VeskStream> stream = NewStream(stream_->name);
  Prepare(upper, uses_.size());
  std::uint64_t divide = at;
  if (first != uses_.end()) {
    Recover();
    Guarded([&]() VESK_REQUIRES(lock) { divide = stream_->Split(&lock, stream.get(), at); });
    if (core_.broken) {
      LeaveInMemory(std::move(stream));  // it may have got blocks
      return {};
    }
    if (divide == 0) return {};
  }
  const auto moved = std::find_if(uses_.begin(), uses_.end(),
                                  [divide](const Use& use) { return use.off >= divide; });
  const bool was_active = sums_.IsActive();
  HandOver(upper, std::move(stream), static_cast<std::size_t>(moved - uses_.begin()));
  return Summary(upper, divide, was_active);
}

void Range::Prepare(Range& upper, std::size_t blocks) VESK_NO_THREAD_SAFETY_ANALYSIS {
  upper.uses_.reserve(blocks);
}

// The blocks have a new owner, and so has their account.
void Range::HandOver(Range& upper, std::unique_ptr<VeskStream> stream,
                     std::size_t index) VESK_NO_THREAD_SAFETY_ANALYSIS {
  upper.stream_ = std::move(stream);
  upper.uses_.assign(uses_.begin() + static_cast<std::ptrdiff_t>(index), uses_.end());
  uses_.erase(uses_.begin() + static_cast<std::ptrdiff_t>(index), uses_.end());
  upper.sums_ = upper.SumUp();
  sums_ = SumUp();
}

Range::Divided Range::Summary(const Range& upper, std::uint64_t at,
                              bool was_active) const VESK_NO_THREAD_SAFETY_ANALYSIS {
  Divided divided{at, upper.sums_.IsActive(), was_active && !sums_.IsActive(),
                  MemoryBudget::kNoBlock};
  for (const Use& use : upper.uses_) divided.oldest = std::min(divided.oldest, use.stamp);
  return divided;
}

bool Range::Close() {
  // After a failed check the stream may have a block more than is known of.
  if (!stream_->buffers.empty() || ReadsInFlight(*stream_) > 0) return false;
  stream_.reset();
  SetBounds(0, 0);
  return true;
}

void Range::Rename(const std::string& name) { stream_->name = name; }

// ---- the stream and what is known of its blocks ----

// After a failed check the stream is inconsistent: nobody uses it again. What it looks like goes to
// the log, after the lines of the check itself.
template <typename Work>
void Range::Guarded(const Work& work) {
  try {
    work();
  } catch (const VeskException& failure) {
    if (failure.code != ERR_WAIT) Break();
  }
}

void Range::Break() {
  core_.broken = true;
  stream_->Dump();
}

// Before a call of the stream that looks at its range. That begins with the file, so whatever was
// taken out or put in, or is cut, lies within.
void Range::Recover() {
  stream_->last_buffer = nullptr;
  stream_->curr_off = 0;
  if (stream_->buffers.empty()) return;
  stream_->curr_len = static_cast<long>(BlockEnd(*stream_->buffers.back()));
  stream_->buffers.front()->skip = 0;  // else the stream drops it after it was passed four times
}

void Range::Erase(std::size_t index) {
  stream_->buffers.erase(std::next(stream_->buffers.begin(), static_cast<std::ptrdiff_t>(index)));
  delete uses_[index].block;
  uses_.erase(uses_.begin() + static_cast<std::ptrdiff_t>(index));
}

template <typename Predicate>
void Range::EraseIf(const Predicate& predicate) {
  for (std::size_t i = 0; i < uses_.size();) {
    if (predicate(uses_[i])) {
      Erase(i);
    } else {
      ++i;
    }
  }
  Account();
}

// The stream has made a block, or dropped some, by itself.
//   Before   there is room for one more in `uses_`: nothing is allocated here
void Range::SyncUses() {
  auto known = uses_.begin();
  for (VeskBuffer* const block : stream_->buffers) {
    const auto same =
        std::find_if(known, uses_.end(), [block](const Use& use) { return use.block == block; });
    if (same == uses_.end()) {
      known = uses_.insert(known, Use{block, block->off, NextStamp(), core_.services.clock.Now()});
    } else {
      known = uses_.erase(known, same);
    }
    ++known;
  }
  uses_.erase(known, uses_.end());
}

Range::Sums Range::SumUp() const {
  Sums sums;
  for (const Use& use : uses_) {
    const VeskBuffer& block = *use.block;
    sums.cached += block.size;
    sums.dirty += block.dirty_length;
    if (Is(block, VeskBuffer::IOW)) sums.written += block.dirty_length;
    if (block.job != nullptr) sums.in_flight += block.size;
  }
  return sums;
}

// Nothing has been added.
void Range::Account() {
  MemoryBudget::Reservation no_memory(core_.memory);
  DirtyLimit::Room no_room(core_.dirty_limit);
  Account(no_memory, no_room);
}

// Of a file that is out of service: its blocks will never be stored or evicted, and others'
// requests are not to wait for that.
void Range::LeaveAccounts() {
  const Sums old = std::exchange(sums_, Sums{});
  core_.cached -= old.cached;
  core_.dirty -= old.dirty;
  core_.in_flight -= old.in_flight;
  core_.written -= old.written;
  core_.dirty_limit.Sub(old.dirty);
  if (old.cached > 0) core_.memory.Release(old.cached);  // which wakes whoever waits for memory
  if (old.IsActive()) owner_.SetActive(*this, false);
}

void Range::Account(MemoryBudget::Reservation& memory, DirtyLimit::Room& room) {
  if (core_.broken) {
    LeaveAccounts();
    return;
  }
  const Sums old = std::exchange(sums_, SumUp());
  core_.cached += sums_.cached - old.cached;
  core_.dirty += sums_.dirty - old.dirty;
  core_.in_flight += sums_.in_flight - old.in_flight;
  core_.written += sums_.written - old.written;
  if (sums_.cached > old.cached) memory.Use(sums_.cached - old.cached);
  if (sums_.dirty > old.dirty) room.Use(sums_.dirty - old.dirty);
  if (sums_.dirty < old.dirty) core_.dirty_limit.Sub(old.dirty - sums_.dirty);
  if (sums_.cached < old.cached) {
    core_.memory.Release(old.cached - sums_.cached);
  } else if (sums_.in_flight < old.in_flight || sums_.dirty > old.dirty) {
    core_.memory.Changed();  // something can be evicted, or be written to be evicted then
  }
  if (sums_.IsActive() != old.IsActive()) owner_.SetActive(*this, sums_.IsActive());
}

std::size_t Range::IndexAt(std::uint64_t offset) const {
  std::size_t index = 0;
  while (index < uses_.size() && uses_[index].off <= offset) ++index;
  // The last one that begins there or before, if it reaches so far.
  return index > 0 && BlockEnd(*uses_[index - 1].block) > offset ? index - 1 : index;
}

VeskBuffer* Range::At(std::uint64_t offset) const {
  const std::size_t index = IndexAt(offset);
  return index < uses_.size() && uses_[index].block->off <= offset ? uses_[index].block : nullptr;
}

VeskJob* Range::JobAt(std::uint64_t offset, bool is_write) const {
  const VeskBuffer* const block = At(offset);
  if (block == nullptr) return nullptr;
  return Is(*block, is_write ? VeskBuffer::IOR | VeskBuffer::IOW : VeskBuffer::IOR) ? block->job
                                                                                    : nullptr;
}

Clock::Time Range::OldestDirty() const {
  Clock::Time oldest = Clock::kNever;
  for (const Use& use : uses_) {
    if (Is(*use.block, VeskBuffer::DIRTY | VeskBuffer::IOW)) oldest = std::min(oldest, use.since);
  }
  return oldest;
}

std::uint64_t Range::DirtyEnd() const {
  std::uint64_t end = 0;
  for (const Use& use : uses_) {
    if (!Is(*use.block, VeskBuffer::DIRTY | VeskBuffer::IOW)) continue;
    end = use.block->off + use.block->dirty_length;
  }
  return end;
}

// ---- finished jobs ----

void Range::Collect() {
  if (core_.broken || sums_.in_flight == 0) return;
  EraseIf([&](Use& use) VESK_REQUIRES(lock) {
    const VeskJob* const job = use.block->job;
    if (job == nullptr || job->GetJobState() != JOB_STATE_DONE) return false;
    const bool was_read = Is(*use.block, VeskBuffer::IOR);
    const int error = Reap(*use.block);
    return !(was_read ? TakeFetched(use, error) : TakeWritten(use, error));
  });
}

// Takes the end of the block's job into the block; its error. There is a job and it has ended, so
// no check fails here.
int Range::Reap(VeskBuffer& block) {
  try {
    block.WaitForBuffer(&lock, stream_->bundler, stream_->name, false, "Reap");
  } catch (const VeskException& failure) {
    return failure.code;
  }
  return 0;
}

// False: the block is of no use.
bool Range::TakeFetched(Use& use, int error) {
  VeskBuffer& block = *use.block;
  if (error != 0) return false;  // whoever waits for the job has its error; others fetch again
  NoteLatency(core_.services.clock.Now() - use.since);
  core_.fetched += block.dlen;
  block.RemoveEOF(stream_->name);  // where the file ends is the file's business
  if (use.dropped) return false;
  if (block.dlen < block.blen) FillGap(use);
  return block.blen > 0;
}

// The store had fewer bytes than the file has: what lies beyond the store's file was never written.
// But when the store's file was longer before the fetch, somebody else has cut it.
void Range::FillGap(const Use& use) {
  VeskBuffer& block = *use.block;
  if (DataEnd(block) >= use.stored) {
    std::memset(block.bptr + block.dlen, 0, block.blen - block.dlen);
    block.dlen = block.blen;
    return;
  }
  core_.suspicious = true;
  block.ReduceLength(stream_->name, static_cast<int>(block.dlen));
}

// A block whose write has failed was cut to its dirty bytes when the write began, and they are
// still there: it is dirty as before, until a later write succeeds or its owner gives it up.
bool Range::TakeWritten(Use& use, int error) {
  VeskBuffer& block = *use.block;
  ++core_.own_writes;  // one that has failed may have changed the store's file as well
  if (error == 0) {
    Raise(&core_.stored_size, DataEnd(block));
    if (core_.failures.count() > 0) core_.failures.Succeeded(block.off);
    use.dropped = false;
    return true;
  }
  if (use.dropped) {  // its owner knows
    core_.failures.Succeeded(block.off);
    return false;
  }
  core_.failures.Ended(block.off, error);
  block.state = VeskBuffer::DIRTY;
  block.dlen = block.dirty_length = block.blen;
  use.rests_until = core_.services.clock.Now() + kRest;
  return true;
}

void Range::NoteLatency(Clock::Duration latency) {
  const Clock::Duration::rep old = core_.latency;
  core_.latency = old == 0 ? latency.count() : old + (latency.count() - old) / 8;
}

void Range::ListJobs(bool reads, JobList* jobs) const {
  const unsigned int states = reads ? VeskBuffer::IOR | VeskBuffer::IOW : VeskBuffer::IOW;
  for (const Use& use : uses_) {
    if (Is(*use.block, states)) jobs->Add(use.block->job);
  }
}

// ---- reading ----

bool Range::IsAged(std::uint64_t offset) const {
  const VeskBuffer* const block = At(offset);
  return block != nullptr && Is(*block, VeskBuffer::VALID) &&
         IsOlder(*block, WallSeconds(), gEnv->settings->refresh_interval);
}

// What IndexAt finds. Where blocks of full size follow each other, as they do in a file that was
// read, without a search: for a reader that jumps a processor predicts the end of one wrongly.
inline Range::Use* Range::UseAt(std::uint64_t offset) {
  if (uses_.empty()) return nullptr;
  const std::uint64_t guess = (offset - uses_.front().off) >> core_.block_shift;
  if (guess < uses_.size()) {
    Use& use = uses_[guess];
    if (use.off <= offset && offset < BlockEnd(*use.block)) return &use;
  }
  const std::size_t index = IndexAt(offset);
  return index < uses_.size() && uses_[index].off <= offset ? &uses_[index] : nullptr;
}

bool Range::Hit(unsigned char* destination, std::uint64_t offset, unsigned int length,
                unsigned int now, int refresh_interval) {
  Use* const use = UseAt(offset);
  if (use == nullptr) return false;
  const VeskBuffer& block = *use->block;
  if (block.job != nullptr || offset + length > use->off + block.dlen) return false;
  if (!Is(block, VeskBuffer::DIRTY) && IsOlder(block, now, refresh_interval)) return false;
  use->stamp = NextStamp();
  // Not through the block, whose line in the trace costs a tenth of a hit.
  std::memcpy(destination, block.bptr + (offset - use->off), length);
  ++counts.hits;
  counts.returned += length;
  return true;
}

void Range::Renew() {
  for (const Use& use : uses_) {
    if (IsIdleAndClean(*use.block)) use.block->ltime = WallSeconds();
  }
}

unsigned int Range::Read(unsigned char* destination, std::uint64_t offset, unsigned int length) {
  const std::size_t index = IndexAt(offset);
  if (index == uses_.size() || uses_[index].block->off > offset) return 0;
  VeskBuffer& block = *uses_[index].block;
  if (Is(block, VeskBuffer::IOR) || DataEnd(block) <= offset) return 0;
  uses_[index].stamp = NextStamp();
  // The stream's own shortcut, led to the right block: it copies at once instead of walking over
  // those before. Not where the walk has to drop the block for its age.
  Recover();
  stream_->last_buffer = IsAged(offset) ? nullptr : &block;
  unsigned int count = 0;
  Guarded([&]() VESK_REQUIRES(lock) {
    bool eof = false;  // afresh for each request: a true flag would make the stream invent zeros
    count = stream_->Read(&lock, destination, offset, length, &eof, end(), 0, core_.block_size,
                          kAnyNumber, 0, nullptr);
  });
  if (stream_->buffers.size() != uses_.size()) {  // one was dropped for its age
    SyncUses();
    Account();
  }
  return count;
}

std::uint64_t Range::GapStart(std::uint64_t offset, std::uint64_t from) const {
  std::uint64_t start = std::max(from, begin());
  for (const Use& use : uses_) {
    if (use.block->off > offset) break;
    const bool on_its_way = Is(*use.block, VeskBuffer::IOR);
    start = std::max(start, on_its_way ? BlockEnd(*use.block) : DataEnd(*use.block));
  }
  return std::min(start, offset);
}

// Blocks end at multiples of the block size, so that they meet.
std::uint64_t Range::PieceEnd(std::size_t index, std::uint64_t from, std::uint64_t to) const {
  const std::uint64_t line = (from / core_.block_size + 1) * core_.block_size;
  const std::uint64_t next =
      index < uses_.size() ? uses_[index].block->off : std::numeric_limits<std::uint64_t>::max();
  return std::min({to, end(), line, next});
}

std::uint64_t Range::NeedForFetch(std::uint64_t from, std::uint64_t to) const {
  std::size_t index = IndexAt(from);
  if (index < uses_.size() && uses_[index].block->off <= from) {
    const VeskBuffer& block = *uses_[index].block;
    if (Is(block, VeskBuffer::IOR) || DataEnd(block) > from) return 0;
    ++index;
  }
  return PieceEnd(index, from, to) - from;
}

std::uint64_t Range::Fetch(std::uint64_t from, std::uint64_t to,
                           MemoryBudget::Reservation& memory) {
  to = std::min(to, end());
  const Clock::Time now = core_.services.clock.Now();
  std::uint64_t left = memory.bytes();
  uses_.reserve(uses_.size() + kMaxBlocks);
  Recover();
  while (from < to) {
    std::size_t index = IndexAt(from);
    if (index < uses_.size() && uses_[index].block->off <= from) {
      VeskBuffer& block = *uses_[index].block;
      const std::uint64_t there = Is(block, VeskBuffer::IOR) ? BlockEnd(block) : DataEnd(block);
      if (there > from) {
        from = there;
        continue;
      }
      // Room behind written bytes: what is fetched stands in a block of its own.
      block.ReduceLength(stream_->name, static_cast<int>(block.dlen));
      ++index;
    }
    const std::uint64_t piece = PieceEnd(index, from, to) - from;
    const bool full =
        uses_.size() == uses_.capacity() || (left < memory.bytes() && FullBefore(from) != 0);
    if (left < piece || full) break;
    VeskBuffer* block = nullptr;
    Guarded([&]() VESK_REQUIRES(lock) {
      const auto where = std::next(stream_->buffers.begin(), static_cast<std::ptrdiff_t>(index));
      block = stream_->AllocateBuffer(where, from + piece, from, from + piece,
                                      static_cast<unsigned int>(piece));
      block->DoReadIO(&lock, stream_->bundler, stream_->name, false, nullptr, stream_.get());
    });
    if (core_.broken) break;
    uses_.insert(uses_.begin() + static_cast<std::ptrdiff_t>(index),
                 Use{block, block->off, NextStamp(), now, {}, core_.stored_size});
    from += piece;
    left -= piece;
  }
  DirtyLimit::Room none(core_.dirty_limit);
  Account(memory, none);
  return from;
}

// ---- writing ----

// The bytes land in the block, and its dirty run has no gap.
bool Range::CanWriteInto(const VeskBuffer& block, std::uint64_t offset) const {
  if (block.off > offset || block.job != nullptr) return false;
  if (Is(block, VeskBuffer::DIRTY)) return offset <= DataEnd(block);
  return offset == block.off;
}

Range::WriteNeed Range::NeedForWrite(std::uint64_t offset, unsigned int length) const {
  const std::size_t index = IndexAt(offset);
  if (index < uses_.size() && CanWriteInto(*uses_[index].block, offset)) {
    const VeskBuffer& block = *uses_[index].block;
    const std::uint64_t written = std::min(offset + length, BlockEnd(block)) - block.off;
    return {0, written - std::min<std::uint64_t>(written, block.dirty_length)};
  }
  // A writer that goes on where bytes were written before gets a whole block, others what they
  // write, in pages.
  const std::uint64_t line = (offset / core_.block_size + 1) * core_.block_size;
  const bool goes_on = std::any_of(uses_.begin(), uses_.end(), [offset](const Use& use) {
    return Is(*use.block, VeskBuffer::DIRTY | VeskBuffer::IOW) && DataEnd(*use.block) == offset;
  });
  const std::uint64_t pages = (offset + length + kPage - 1) / kPage * kPage;
  const std::uint64_t room = std::min({goes_on ? line : pages, line, kMaxFileSize}) - offset;
  return {room, std::min<std::uint64_t>(length, room)};
}

unsigned int Range::Write(const unsigned char* source, std::uint64_t offset, unsigned int length,
                          MemoryBudget::Reservation& memory, DirtyLimit::Room& room) {
  unsigned int count = 0;
  const std::size_t index = IndexAt(offset);
  const bool into_block = index < uses_.size() && CanWriteInto(*uses_[index].block, offset);
  const bool was_clean = into_block && Is(*uses_[index].block, VeskBuffer::VALID);
  const WriteNeed need = NeedForWrite(offset, length);
  uses_.reserve(uses_.size() + 1);
  Guarded([&]() VESK_REQUIRES(lock) {
    if (into_block) {
      count = uses_[index].block->Write(source, offset, length);
      return;
    }
    Recover();
    // The stream takes one kind of pointer for both directions; a write only reads from it.
    count = stream_->Write(&lock, const_cast<unsigned char*>(source), offset,
                           static_cast<unsigned int>(need.dirty), end(), 0,
                           static_cast<unsigned int>(need.memory), kAnyNumber, false, nullptr);
  });
  if (into_block) {
    uses_[index].stamp = NextStamp();
    if (was_clean) uses_[index].since = core_.services.clock.Now();
  } else {
    SyncUses();
  }
  Account(memory, room);
  return count;
}

void Range::StartWrites(Clock::Time before, bool asked_for) {
  const Clock::Time now = core_.services.clock.Now();
  for (const Use& use : uses_) {
    if (!Is(*use.block, VeskBuffer::DIRTY) || use.since > before) continue;
    if (!asked_for && use.rests_until > now) continue;
    Guarded([&]() VESK_REQUIRES(lock) {
      use.block->DoWriteIO(&lock, stream_->bundler, stream_->name, false, false, true, "Flush",
                           false);
    });
    if (core_.broken) break;
  }
  Account();
}

// ---- dropping ----

void Range::Drop(std::uint64_t from, std::uint64_t to) {
  EraseIf([&](const Use& use) {
    const VeskBuffer& block = *use.block;
    return IsIdleAndClean(block) && from <= block.off && BlockEnd(block) <= to &&
           !core_.wants.AnyIn(block.off, BlockEnd(block));
  });
}

void Range::Forget() {
  for (Use& use : uses_) {
    VeskBuffer& block = *use.block;
    if (Is(block, VeskBuffer::IOR)) use.dropped = true;
    if (Is(block, VeskBuffer::DIRTY)) {
      block.ReduceLength(stream_->name, static_cast<int>(block.dirty_length));
    }
  }
  EraseIf([](const Use& use) { return IsIdleAndClean(*use.block); });
}

void Range::Discard() {
  for (Use& use : uses_) {
    VeskBuffer& block = *use.block;
    if (Is(block, VeskBuffer::IOW)) use.dropped = true;
    if (!Is(block, VeskBuffer::DIRTY)) continue;
    block.state = VeskBuffer::VALID;
    block.dlen = block.dirty_length = 0;
  }
  EraseIf([](const Use& use) { return IsIdleAndClean(*use.block) && use.block->dlen == 0; });
}

void Range::Truncate(std::uint64_t size) {
  if (uses_.empty() || size >= BlockEnd(*uses_.back().block)) return;
  Recover();
  Guarded([&]() VESK_REQUIRES(lock) { stream_->Truncate(size); });
  SyncUses();
  Account();
}

// Blocks of one range are told apart even between two reservations.
std::uint64_t Range::NextStamp() {
  const std::uint64_t now = core_.memory.Stamp();
  stamp_ = stamp_ < now ? now : std::min(stamp_ + 1, now + MemoryBudget::kTicks - 1);
  return stamp_;
}

// The idle clean block used least recently, if nobody waits for it; none: the number of blocks.
std::size_t Range::OldestIdle() const {
  std::size_t oldest = uses_.size();
  for (std::size_t i = 0; i < uses_.size(); ++i) {
    const Use& use = uses_[i];
    if (!IsIdleAndClean(*use.block)) continue;
    if (oldest < uses_.size() && use.stamp >= uses_[oldest].stamp) continue;
    if (!core_.wants.AnyIn(use.block->off, BlockEnd(*use.block))) oldest = i;
  }
  return oldest;
}

Range::Left Range::Evict(std::uint64_t bytes, std::uint64_t newest) {
  Left left;
  {
    const RangeLock guard(lock);
    if (end() == 0 || core_.broken) return left;
    Collect();
    std::size_t oldest = OldestIdle();
    while (left.freed < bytes && oldest < uses_.size() && uses_[oldest].stamp <= newest) {
      left.freed += uses_[oldest].block->size;
      Erase(oldest);
      oldest = OldestIdle();
    }
    if (oldest < uses_.size()) left.oldest = uses_[oldest].stamp;
    Account();
    if (!uses_.empty()) return left;
  }
  owner_.Retire(*this);
  return left;
}

}  // namespace vesk
