#include "files/node.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>
#include <utility>

#include "runtime/decorator_retry.h"
#include "runtime/name_operation.h"
#include "runtime/request.h"
#include "runtime/store.h"
#include "runtime/wall_clock.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskEnv.h"
#include "vesk/VeskJob.h"

namespace vesk {

namespace {

constexpr std::uint64_t kNoEnd = std::numeric_limits<std::uint64_t>::max();

// Bytes that one try may ask of a stream: its counts are 32 bits wide.
constexpr std::size_t kMaxPiece = 1u << 30;

// Times that a request repeats before it takes the file's turn.
constexpr unsigned kPatience = 8;

// Times that an Append asks how long the file is.
constexpr int kLooks = 3;

bool Failed(int result) { return result != 0 && result != RC_EOF; }

}  // namespace

using RangeLock = Holding<VeskLock>;

Node::Node(const Services& services, Store& store, MemoryBudget& memory, DirtyLimit& dirty,
           const FileSystemOptions& options, const std::string& name, const FileInfo& info,
           std::function<void()> meanwhile)
    : device(info.device),
      inode(info.inode),
      services_(services),
      store_(store),
      options_(options),
      core_(services, memory, dirty,
            static_cast<unsigned>(std::min<std::uint64_t>(options.block_size, options.memory))),
      turn_(services.clock, std::move(meanwhile)),
      checked_at_(WallSeconds()),
      name_(name),
      known_(info) {
  core_.size = core_.stored_size = info.size;
  try {
    Range* const range = NewRange();
    range->Open(name);
    range->SetBounds(0, kNoEnd);
    {
      const MutexLock guard(mutex_);
      ranges_.emplace(0, range);
    }
    if (services_.reaper != nullptr) services_.reaper->Add(name, *this);
  } catch (...) {
    LeaveBudget();
    throw;
  }
}

Node::~Node() {
  if (services_.reaper != nullptr) services_.reaper->Remove(*this);
  LeaveBudget();  // an eviction retires ranges, which touches their neighbours
  const MutexLock guard(mutex_);
  if (abandoned_) services_.retry->KeepAgain(name_);
  if (resize_ != nullptr) VeskJob::RefCountDec(resize_);
  for (VeskJob* const job : syncs_) VeskJob::RefCountDec(job);
}

void Node::LeaveBudget() VESK_NO_THREAD_SAFETY_ANALYSIS {
  for (const std::unique_ptr<Range>& range : all_) range->LeaveBudget();
}

std::string Node::name() const {
  const MutexLock guard(mutex_);
  return name_;
}

// ---- ranges ----

std::atomic<Range*>& Node::Hint(std::uint64_t offset) {
  return hints_[(offset >> core_.block_shift) % hints_.size()];
}

Range& Node::Find(std::uint64_t offset) {
  std::atomic<Range*>& hint = Hint(offset);
  Range* const range = hint.load(std::memory_order_acquire);
  if (range != nullptr && range->Covers(offset)) return *range;
  Range& found = Seek(offset);
  hint.store(&found, std::memory_order_release);
  return found;
}

Range& Node::Seek(std::uint64_t offset) {
  const MutexLock guard(mutex_);
  return *std::prev(ranges_.upper_bound(offset))->second;
}

Range* Node::NewRange() {
  {
    const MutexLock guard(mutex_);
    if (!spare_.empty()) {
      Range* const range = spare_.back();
      spare_.pop_back();
      return range;
    }
  }
  auto range = std::make_unique<Range>(core_, static_cast<RangeOwner&>(*this));
  const MutexLock guard(mutex_);
  try {
    std::map<std::uint64_t, Range*> entry{{0, range.get()}};
    range->entry = entry.extract(entry.begin());
    all_.reserve(all_.size() + 1);
    spare_.reserve(all_.size());  // the first one never gets there
  } catch (...) {
    range->LeaveBudget();
    throw;
  }
  all_.push_back(std::move(range));
  return all_.back().get();
}

// From `at` on another range takes over, unless the stream refuses.
void Node::Divide(Range& range, std::uint64_t at) {
  Range* const upper = NewRange();
  Range::Divided divided;
  std::map<std::uint64_t, Range*> place;
  try {
    place.emplace(at, upper);  // no memory is needed once blocks have moved
    divided = range.DivideInto(*upper, at);
  } catch (...) {
    const MutexLock guard(mutex_);
    spare_.push_back(upper);
    throw;
  }
  const MutexLock guard(mutex_);
  if (divided.at == 0) {
    spare_.push_back(upper);
    return;
  }
  auto entry = place.extract(place.begin());
  entry.key() = divided.at;
  ranges_.insert(std::move(entry));
  const std::uint64_t end = range.end();
  range.SetEnd(divided.at);
  upper->SetBounds(divided.at, end);
  if (divided.ceased) range.entry = active_.extract(range.begin());
  if (divided.upper_active) Activate(*upper);
  core_.memory.Lower(*upper, divided.oldest);
}

// Not urgent: without memory for it the next request tries again, and what this one has done holds.
void Node::DivideInTheMiddle(Range& range) {
  const std::uint64_t middle = range.Middle();
  if (middle == 0) return;
  try {
    Divide(range, middle);
  } catch (const std::bad_alloc&) {
  }
}

// A full range ends before `offset`, which would have a new block, from now on.
bool Node::DividedBefore(Range& range, std::uint64_t offset) {
  const std::uint64_t at = range.FullBefore(offset);
  if (at != 0) Divide(range, at);
  return !range.Covers(offset);
}

// A range without blocks: the one before it takes its place, so that a reader who has gone through
// a large file leaves nothing behind.
void Node::Retire(Range& range) {
  const RangeLock guard(range.lock);
  const MutexLock ranges(mutex_);
  const std::uint64_t begin = range.begin();
  const std::uint64_t end = range.end();
  if (begin == 0 || !range.Close()) return;  // the first one, or not in use any more
  const auto place = ranges_.find(begin);
  std::prev(place)->second->SetEnd(end);
  ranges_.erase(place);
  retired_.hits += range.counts.hits;
  retired_.misses += range.counts.misses;
  retired_.returned += range.counts.returned;
  range.counts = {};
  spare_.push_back(&range);
}

void Node::SetActive(Range& range, bool active) {
  const MutexLock guard(mutex_);
  if (active) {
    Activate(range);
  } else {
    range.entry = active_.extract(range.begin());
  }
}

void Node::Activate(Range& range) {
  range.entry.key() = range.begin();
  active_.insert(std::move(range.entry));
}

bool Node::FindActive(std::uint64_t from, std::uint64_t* begin, Range** range) const {
  const MutexLock guard(mutex_);
  auto it = active_.upper_bound(from);
  // The one before may reach beyond `from`.
  if (it != active_.begin() && std::prev(it)->second->end() > from) --it;
  if (it == active_.end()) return false;
  *begin = it->first;
  *range = it->second;
  return true;
}

// Calls `work` for every range that has dirty blocks or jobs, with its lock held. A range may
// divide in the meantime: its blocks lie further on then, and are met there. (The compiler's
// analysis does not follow the lock into `work`.)
template <typename Work>
void Node::ForEachActive(const Work& work) const {
  std::uint64_t at = 0;
  std::uint64_t begin = 0;
  Range* range = nullptr;
  while (FindActive(at, &begin, &range)) {
    const RangeLock guard(range->lock);
    if (range->begin() != begin || range->end() <= at) continue;  // retired in between
    if (core_.broken) return;
    work(*range);
    at = range->end();
    if (at == kNoEnd) return;
  }
}

std::vector<Range*> Node::RangesFrom(std::uint64_t offset) const {
  const MutexLock guard(mutex_);
  std::vector<Range*> ranges;
  for (auto it = std::prev(ranges_.upper_bound(offset)); it != ranges_.end(); ++it) {
    ranges.push_back(it->second);
  }
  return ranges;
}

// Calls `work` for each of these that is still in use, with its lock held; for none of a file that
// is out of service.
template <typename Work>
void Node::ForEach(const std::vector<Range*>& ranges, const Work& work) const {
  for (Range* const range : ranges) {
    const RangeLock guard(range->lock);
    if (range->end() != 0 && !core_.broken) work(*range);
  }
}

// Whoever was inside a range at or after `from` when the turn was taken has left it now, and what
// they did is to be seen.
void Node::Barrier(std::uint64_t from) {
  for (Range* const range : RangesFrom(from)) {
    const RangeLock guard(range->lock);
  }
}

// ---- serving ----

Outcome Node::Serve(std::uint64_t offset, Piece& piece, Request& request) {
  request.repeats = 0;
  request.waited = false;
  int error = Refusal();
  while (error == 0) {
    const Next next = TryIn(offset, piece, request);
    if (next == Next::kDone) break;
    error = Prepare(next, request);
    if (error == 0) error = Refusal();
  }
  request.LetGo();
  request.turn.Give();
  return error != 0 ? Outcome{error, false} : request.outcome;
}

Node::Next Node::TryIn(std::uint64_t offset, Piece& piece, Request& request) {
  for (;;) {
    Range& range = Find(offset);
    const RangeLock guard(range.lock);
    if (!range.Covers(offset)) continue;  // divided or retired in between
    range.Collect();
    if (turn_.IsTakenFrom(request.who)) return Next::kPass;
    if (core_.broken || removed_) return Next::kRepeat;
    if (resizing_ && request.who == &request) return Next::kCheck;
    if (DividedBefore(range, offset)) continue;
    const Next next = piece.Try(range, request);
    // After a wait the range may be another one's, or somebody may have the turn.
    if (core_.broken || !range.Covers(offset) || turn_.IsTakenFrom(request.who)) return next;
    DivideInTheMiddle(range);
    return next;
  }
}

// What has to happen, without a lock, before the next try.
int Node::Prepare(Next next, Request& request) {
  switch (next) {
    case Next::kDone: return 0;
    case Next::kFetchRest:
      FetchAhead(request.rest_from, request.rest_to, nullptr);
      return RequestScope::Exceeded(services_.clock);
    case Next::kCheck:
      request.LetGo();
      request.turn.Give();  // what is learnt may need it
      if (const int error = CheckFreshness()) return error;
      return RequestScope::Exceeded(services_.clock);
    case Next::kGet: {
      if (!request.room.TryAdmit(request.need_room)) request.memory.Reset();
      request.want.reset();
      core_.memory.Changed();
      int error = request.room.Admit(request.need_room);
      if (error == 0) error = request.memory.Reserve(request.need_memory);
      if (error == 0) request.memory.TakeUpTo(request.wish_memory);
      return error;
    }
    case Next::kPass: {
      request.LetGo();
      const int error = turn_.Pass();
      if (error != 0) return error;
      break;
    }
    case Next::kRepeat: {
      const int error = RequestScope::Exceeded(services_.clock);
      if (error != 0) return error;
      if (core_.suspicious && request.who == &request) return Clear(request);
      break;
    }
  }
  if (request.turn.has() || request.who != &request) return 0;
  if (Repeat(request) < kPatience) return 0;
  request.LetGo();
  const int error = request.turn.Take(request.who);
  if (error == 0) turns_.fetch_add(1, std::memory_order_relaxed);
  return error;
}

// How many times the request has been tried again without the turn.
unsigned Node::Repeat(Request& request) {
  ++request.repeats;
  Raise(&repeats_, request.repeats);
  return request.repeats;
}

// The store gave less than it should have: looks at its file, without the turn, which that may
// need. What stays short for good is an error.
int Node::Clear(Request& request) {
  if (Repeat(request) >= 2 * kPatience) return EIO;
  request.LetGo();
  request.turn.Give();
  if (const int error = CheckFreshness()) return error;
  return RequestScope::Exceeded(services_.clock);
}

// Returns the error that the job has ended with, whoever collects it.
int Node::Await(Range& range, VeskJob* job, const char* tag, Request& request) {
  request.waited = true;
  request.memory.Reset();
  request.room.Reset();
  job->RefCountInc();
  services_.bundler.WaitForJob(job, &range.lock, tag);
  const int result = job->GetJobState() == JOB_STATE_DONE ? job->GetReturnValue() : 0;
  VeskJob::RefCountDec(job);
  return Failed(result) ? result : 0;
}

// ---- reading ----

class Node::ReadPiece final : public Node::Piece {
 public:
  ReadPiece(Node& node, ReadAhead& ahead, unsigned char* destination, std::size_t length,
            std::uint64_t offset)
      : node_(node), ahead_(ahead), destination_(destination), length_(length), offset_(offset) {}

  ~ReadPiece() { Remember(nullptr); }
  ReadPiece(const ReadPiece&) = delete;
  ReadPiece& operator=(const ReadPiece&) = delete;

  std::size_t count() const { return count_; }

  // The reader's window has been looked at.
  bool told() const { return told_; }

  Next Try(Range& range, Request& request) override VESK_REQUIRES(range.lock) {
    const std::uint64_t size = node_.core_.size;
    if (offset_ >= size) return Next::kDone;  // it has become shorter
    if ((request.outcome.error = ErrorOfJob()) != 0) return Next::kDone;
    if (VeskJob* const job = range.JobAt(offset_, false)) return Meet(range, job, request);
    if (range.IsAged(offset_) && node_.checked_at_ != WallSeconds()) {
      const bool serve = node_.options_.when_unknown == UnknownPolicy::kServe;
      if (!node_.asking_ || !serve) return Next::kCheck;
      range.Renew();  // somebody else asks; until it is known what is there is served
    }
    count_ = range.Read(
        destination_, offset_,
        static_cast<unsigned int>(std::min<std::uint64_t>({length_, kMaxPiece, size - offset_})));
    if (count_ == 0) return Miss(range, request);
    ++(request.waited ? range.counts.misses : range.counts.hits);
    range.counts.returned += count_;
    return Next::kDone;
  }

 private:
  // The job that the piece comes back for. Its end may be collected by others, so its error is
  // asked of the job itself; a failed block is taken out, and would be fetched again and again.
  void Remember(VeskJob* job) {
    if (job != nullptr) job->RefCountInc();
    if (job_ != nullptr) VeskJob::RefCountDec(job_);
    job_ = job;
  }

  int ErrorOfJob() {
    const bool failed =
        job_ != nullptr && job_->GetJobState() == JOB_STATE_DONE && Failed(job_->GetReturnValue());
    return failed ? job_->GetReturnValue() : 0;
  }

  // The block is on its way. What the reader wants next sets out before this request waits.
  Next Meet(Range& range, VeskJob* job, Request& request) VESK_REQUIRES(range.lock) {
    Remember(job);
    if (told_ || !ahead_.Due(offset_, length_)) return Wait(range, job, request);
    told_ = true;
    const FetchWindow window = node_.Window(ahead_, offset_, length_, false);
    if (window.Empty()) return Wait(range, job, request);
    request.rest_from = window.from;
    request.rest_to = window.to;
    return Next::kFetchRest;
  }

  Next Wait(Range& range, VeskJob* job, Request& request) VESK_REQUIRES(range.lock) {
    if (!request.want.has_value()) request.want.emplace(node_.core_.wants, offset_);
    (void)node_.Await(range, job, "Read-io-active", request);
    return Next::kRepeat;
  }

  // What the request needs, in whole pages, and what the reader will want next.
  void Plan() {
    planned_ = true;
    const std::uint64_t size = node_.core_.size;
    const std::uint64_t page = std::min<std::uint64_t>(Range::kPage, node_.core_.block_size);
    const std::uint64_t end = std::min(size, offset_ + length_);
    from_ = offset_ / page * page;
    to_ = std::min(size, (end + page - 1) / page * page);
    const FetchWindow window = told_ ? FetchWindow{} : node_.Window(ahead_, offset_, length_, true);
    told_ = true;
    if (!window.Empty()) {
      const std::uint64_t block = offset_ / node_.core_.block_size * node_.core_.block_size;
      from_ = std::min(from_, std::max(window.from, block));
      to_ = std::max(to_, std::min(window.to, size));
    }
    // What is fetched last must not push out what was fetched first and is not read yet.
    to_ = std::min(to_, from_ + std::max<std::uint64_t>(node_.core_.memory.limit() / 4,
                                                        node_.core_.block_size));
  }

  Next Miss(Range& range, Request& request) VESK_REQUIRES(range.lock) {
    if (!planned_) Plan();
    to_ = std::min(to_, node_.core_.size.load());
    if (to_ <= offset_) return Next::kRepeat;
    const std::uint64_t start = range.GapStart(offset_, from_);
    const std::uint64_t need = range.NeedForFetch(start, to_);
    if (need == 0) return Next::kRepeat;
    const std::uint64_t wish = to_ - start;
    if (!request.memory.TryReserve(wish) && request.memory.bytes() < need) {
      request.need_memory = need;
      request.wish_memory = wish - need;
      return Next::kGet;
    }
    const std::uint64_t reached = range.Fetch(start, to_, request.memory);
    const bool short_of_memory = request.memory.bytes() == 0;
    request.memory.Reset();
    VeskJob* const job = range.JobAt(offset_, false);
    if (job == nullptr) return Next::kRepeat;
    Remember(job);
    if (!request.want.has_value()) request.want.emplace(node_.core_.wants, offset_);
    if (reached < to_ && !short_of_memory) {  // the window leaves together with the miss
      request.waited = true;
      request.rest_from = reached;
      request.rest_to = to_;
      return Next::kFetchRest;
    }
    return Wait(range, job, request);
  }

  Node& node_;
  ReadAhead& ahead_;
  unsigned char* const destination_;
  const std::size_t length_;
  const std::uint64_t offset_;
  std::size_t count_ = 0;
  VeskJob* job_ = nullptr;
  bool told_ = false;     // the reader's window was asked for
  bool planned_ = false;  // `from_` and `to_` are known
  std::uint64_t from_ = 0;
  std::uint64_t to_ = 0;
};

// What the reader will want next; nothing where read-ahead is switched off with the age check.
FetchWindow Node::Window(ReadAhead& ahead, std::uint64_t offset, std::uint64_t length,
                         bool missed) {
  if (gEnv->settings->refresh_interval == 0) return {};
  return ahead.OnRead(offset, length, missed, core_.size, services_.clock.Now(),
                      Clock::Duration(core_.latency.load(std::memory_order_relaxed)));
}

// A reader was served from memory: the next blocks are due when it has come far enough.
inline void Node::ReadOn(ReadAhead& ahead, std::uint64_t offset, std::uint64_t length) {
  if (!ahead.Due(offset, length)) return;
  const FetchWindow window = Window(ahead, offset, length, false);
  FetchAhead(window.from, window.to, &ahead);
}

// What most reads of a warm file come to. False: nothing has happened.
bool Node::Hit(unsigned char* destination, std::size_t length, std::uint64_t offset) {
  const std::uint64_t size = core_.size.load(std::memory_order_relaxed);
  if (offset >= size || length > kMaxPiece || length == 0) return false;
  const unsigned now = WallSeconds();
  const int interval = gEnv->settings->refresh_interval;
  if (IsCheckDue(now, interval) || Refusal() != 0) return false;
  Range* const range = Hint(offset).load(std::memory_order_acquire);
  if (range == nullptr) return false;
  const RangeLock guard(range->lock);
  return range->Covers(offset) && !turn_.IsTakenFrom(nullptr) &&
         range->Hit(destination, offset, static_cast<unsigned>(length), now, interval);
}

Outcome Node::ReadAt(ReadAhead& ahead, unsigned char* destination, std::size_t length,
                     std::uint64_t offset, std::size_t* moved) {
  if (Hit(destination, length, offset)) {
    *moved = length;
    ReadOn(ahead, offset, length);
    return {};
  }
  return ReadPieces(ahead, destination, length, offset, moved);
}

// Not inline: what it keeps on the stack is nothing that a hit has to make room for.
[[gnu::noinline]] Outcome Node::ReadPieces(ReadAhead& ahead, unsigned char* destination,
                                           std::size_t length, std::uint64_t offset,
                                           std::size_t* moved) {
  *moved = 0;
  if (const int error = CheckIfDue()) return {error, false};
  Request request(core_, turn_);
  while (*moved < length) {
    const std::uint64_t at = offset + *moved;
    // Clipped to the size: no block is fetched beyond the end, none is left short behind it.
    const std::uint64_t size = core_.size;
    if (at >= size) return {Refusal(), false};
    const std::size_t wanted = std::min<std::uint64_t>(length - *moved, size - at);
    ReadPiece piece(*this, ahead, destination + *moved, wanted, at);
    const Outcome outcome = Serve(at, piece, request);
    if (outcome.error != 0) return outcome;
    if (piece.count() == 0) return {};
    if (!piece.told()) ReadOn(ahead, at, piece.count());
    *moved += piece.count();
  }
  return {};
}

void Node::FetchAhead(std::uint64_t from, std::uint64_t to, ReadAhead* ahead) {
  to = std::min(to, core_.size.load());
  if (from >= to) return;
  MemoryBudget::Reservation memory(core_.memory);
  memory.TakeUpTo(to - from);
  if (memory.bytes() < to - from && ahead != nullptr) ahead->Shrink();
  try {
    while (from < to && memory.bytes() > 0) {
      Range& range = Find(from);
      const RangeLock guard(range.lock);
      if (!range.Covers(from)) continue;
      if (turn_.IsTakenFrom(nullptr) || Refusal() != 0) return;
      range.Collect();
      if (core_.broken) return;
      if (DividedBefore(range, from)) continue;
      const std::uint64_t reached = range.Fetch(from, to, memory);
      if (reached == from) return;  // less memory than a block
      from = reached;
    }
  } catch (const std::bad_alloc&) {  // what is fetched ahead can be left
  }
}

void Node::DropClean(std::uint64_t from, std::uint64_t to) {
  ForEach(RangesFrom(from), [&](Range& range) VESK_NO_THREAD_SAFETY_ANALYSIS {
    range.Collect();
    if (!core_.broken) range.Drop(from, to);
  });
}

// ---- writing ----

class Node::WritePiece final : public Node::Piece {
 public:
  WritePiece(Node& node, const unsigned char* source, std::size_t length, std::uint64_t offset)
      : node_(node), source_(source), length_(length), offset_(offset) {}

  std::size_t count() const { return count_; }

  Next Try(Range& range, Request& request) override VESK_REQUIRES(range.lock) {
    if (VeskJob* const job = range.JobAt(offset_, true)) return Wait(range, job, request);
    const auto length = static_cast<unsigned int>(
        std::min<std::uint64_t>({length_, kMaxPiece, range.end() - offset_}));
    const Range::WriteNeed need = range.NeedForWrite(offset_, length);
    if (!request.memory.TryReserve(need.memory) || !request.room.TryAdmit(need.dirty)) {
      request.need_memory = need.memory;
      request.need_room = need.dirty;
      return Next::kGet;
    }
    count_ = range.Write(source_, offset_, length, request.memory, request.room);
    if (count_ == 0) return Next::kRepeat;
    ++(request.waited ? range.counts.misses : range.counts.hits);
    Raise(&node_.core_.size, offset_ + count_);  // under the lock: see Barrier
    return Next::kDone;
  }

 private:
  // A block that is being written is waited for; not when its write is failing.
  Next Wait(Range& range, VeskJob* job, Request& request) VESK_REQUIRES(range.lock) {
    const VeskBuffer& block = *range.At(offset_);
    if (block.GetState(VeskBuffer::IOW) == 0) {
      (void)node_.Await(range, job, "Write-io-active", request);  // a read's error: the reader's
      return Next::kRepeat;
    }
    const std::uint64_t begin = block.off;
    WriteFailures& failures = node_.core_.failures;
    const WriteFailures::Watch watch(failures);
    int error = failures.At(begin);
    if (error == 0) error = node_.Await(range, job, "Write-io-active", request);
    if (error == 0) error = failures.At(begin);
    if (error == 0) return Next::kRepeat;
    request.outcome = {error, true};
    return Next::kDone;
  }

  Node& node_;
  const unsigned char* const source_;
  const std::size_t length_;
  const std::uint64_t offset_;
  std::size_t count_ = 0;
};

Outcome Node::WriteAt(const unsigned char* source, std::size_t length, std::uint64_t offset,
                      std::size_t* moved) {
  *moved = 0;
  if (const int error = CheckIfDue()) return {error, false};
  return WriteAll(source, length, offset, moved, nullptr);
}

Outcome Node::WriteAll(const unsigned char* source, std::size_t length, std::uint64_t offset,
                       std::size_t* moved, const void* who) {
  if (offset > kMaxFileSize || length > kMaxFileSize - offset) return {EFBIG, false};
  Request request(core_, turn_);
  if (who != nullptr) request.who = who;
  while (*moved < length) {
    WritePiece piece(*this, source + *moved, length - *moved, offset + *moved);
    const Outcome outcome = Serve(offset + *moved, piece, request);
    if (outcome.error != 0) return outcome;
    *moved += piece.count();
  }
  return {Refusal(), false};
}

Outcome Node::Append(const unsigned char* source, std::size_t length, std::uint64_t* offset,
                     std::size_t* moved) {
  *moved = 0;
  Turn::Holder turn(turn_);
  // The size may be in doubt since the look, which needs the turn; the store need not know better.
  int looks = 0;
  do {
    turn.Give();
    if (const int error = resizing_ ? CheckFreshness() : CheckIfDue()) return {error, false};
    if (const int error = turn.Take(&turn)) return {error, false};
  } while (resizing_ || (core_.suspicious && ++looks < kLooks));
  // Whoever was about to make the file longer wrote a piece of at most a block that begins here or
  // later.
  const std::uint64_t size = core_.size;
  Barrier(size - std::min<std::uint64_t>(size, core_.block_size));
  *offset = core_.size;
  return WriteAll(source, length, *offset, moved, &turn);
}

// ---- writing back ----

void Node::StartWrites(Clock::Time before, bool asked_for) {
  if (core_.broken) return LeaveAccounts();
  ForEachActive([&](Range& range) VESK_NO_THREAD_SAFETY_ANALYSIS {
    range.Collect();
    if (core_.broken) return;
    if (stopped_ && asked_for) put_off_ = true;
    // Asked again: who let them set out in between may have looked at `put_off_` before.
    if (!stopped_) range.StartWrites(before, asked_for);
  });
}

// Starts every write and lists it, under one hold of its range's lock: it could end, and fail,
// before a later look. While the file is about to be removed none sets out: returns when they have
// after all, or it is removed.
int Node::StartAll(JobList* jobs) {
  if (core_.broken) LeaveAccounts();
  for (;;) {
    bool all = true;
    ForEachActive([&](Range& range) VESK_NO_THREAD_SAFETY_ANALYSIS {
      range.Collect();
      if (core_.broken) return;
      if (stopped_) {
        all = false;
      } else {
        range.StartWrites(Clock::kNever, true);
      }
      range.ListJobs(false, jobs);
    });
    if (all || removed_) return 0;
    if (const int limit = turn_.Pass()) return limit;  // who removes it has the turn
  }
}

void Node::LeaveAccounts() {
  for (Range* const range : Ranges()) {
    const RangeLock guard(range->lock);
    range->LeaveAccounts();
  }
}

void Node::ListJobs(bool reads, JobList* jobs) const {
  ForEachActive([&](Range& range) VESK_NO_THREAD_SAFETY_ANALYSIS { range.ListJobs(reads, jobs); });
}

// Waits for each job, within the limits, but for no longer than until the count of failures is
// another one than `before`: a parked write does not end. Collects what has ended.
void Node::AwaitJobs(const JobList& jobs, std::uint64_t before) {
  {
    const WriteFailures::Watch watch(core_.failures);
    for (VeskJob* const job : jobs.jobs()) {
      if (core_.failures.count() == before) {
        services_.bundler.WaitForJob(job, nullptr, "Flush");
      }
    }
  }
  Reap();
}

Outcome Node::Flush(WriteFailures::Seen* seen) {
  TakeSyncs();
  StartWrites();
  if (core_.broken) return {EIO, false};
  return {core_.failures.TakeNews(seen), true};
}

// A failure that came since the beginning may have been a job's that was not in the list any more,
// and told to another thread that uses the same handle.
Outcome Node::Drain(WriteFailures::Seen* seen) {
  TakeSyncs();
  const std::uint64_t before = *seen;
  JobList jobs;
  if (const int error = StartAll(&jobs)) return {error, false};
  if (removed_) return {};
  AwaitJobs(jobs, before);
  const int limit = RequestScope::Exceeded(services_.clock);
  if (core_.broken) return {EIO, false};
  if (core_.failures.count() != before) {
    (void)core_.failures.TakeNews(seen);
    return {core_.failures.last_error(), true};
  }
  for (VeskJob* const job : jobs.jobs()) {
    // Whatever made the wait end: a job that has not ended is no success.
    if (job->GetJobState() != JOB_STATE_DONE) return {limit != 0 ? limit : EAGAIN, false};
    if (Failed(job->GetReturnValue())) return {job->GetReturnValue(), true};
  }
  return {};
}

// Under the turn: nothing new comes, so the rounds end.
Outcome Node::DrainAll() {
  if (const int error = AwaitResize()) return {error, false};
  const std::uint64_t before = core_.failures.count();
  for (;;) {
    if (core_.broken) return {EIO, false};
    if (core_.failures.count() != before) return {core_.failures.last_error(), true};
    if (const int error = core_.failures.Any()) return {error, true};
    if (idle()) return {};
    StartWrites();
    JobList jobs;
    ListJobs(true, &jobs);
    AwaitJobs(jobs, before);
    if (const int error = RequestScope::Exceeded(services_.clock)) return {error, false};
  }
}

// Under the turn: what is on its way ends, well or not, and nothing follows.
int Node::StopAll() {
  stopped_ = true;
  if (const int error = AwaitResize()) return error;
  if (services_.retry != nullptr) Abandon();
  for (;;) {
    if (core_.broken) return EIO;
    if (in_flight() == 0) return 0;
    JobList jobs;
    ListJobs(true, &jobs);
    AwaitJobs(jobs, core_.failures.count());
    if (const int error = RequestScope::Exceeded(services_.clock)) return error;
  }
}

// Calls `work` with the file's name; again when that may have been another file's meanwhile.
//   Before   the calling thread does not have the turn
template <typename Work>
int Node::ByName(const Work& work) {
  for (;;) {
    const std::uint64_t renamings = renamings_;
    if (renamings % 2 == 0) {
      const int error = work(name());
      if (renamings_ == renamings) return error;
    }
    if (const int limit = turn_.Pass()) return limit;  // who changes it has the turn
  }
}

// Has the store make its file durable. The job is in `syncs_` until its answer was taken, also when
// that comes too late for this request: it may fail, and systems tell only once that bytes are
// lost.
int Node::SyncStore(const std::string& name) {
  std::list<VeskJob*> entry(1);
  VeskJob* const job = entry.front() = NewNameJob(OPCODE_SYNC, name);
  job->RefCountInc();
  {
    const MutexLock guard(mutex_);
    syncs_.splice(syncs_.end(), entry);
  }
  services_.bundler.SubmitJob(job);
  services_.bundler.WaitForJob(job, nullptr, "Sync");
  const int error = job->GetJobState() == JOB_STATE_DONE ? job->GetReturnValue()
                                                         : RequestScope::Exceeded(services_.clock);
  VeskJob::RefCountDec(job);
  return error;
}

// Takes the answers of those that have ended. Others' bytes may be lost as well.
void Node::TakeSyncs() {
  std::list<VeskJob*> ended;
  {
    const MutexLock guard(mutex_);
    for (auto next = syncs_.begin(); next != syncs_.end();) {
      const auto job = next++;
      if ((*job)->GetJobState() == JOB_STATE_DONE) ended.splice(ended.end(), syncs_, job);
    }
  }
  for (VeskJob* const job : ended) {
    const int error = job->GetReturnValue();
    VeskJob::RefCountDec(job);
    if (error != 0 && error != ENOENT) core_.failures.Note(error);  // which may want the mutex
  }
}

// Returns when those on their way now have been answered.
int Node::AwaitSyncs() {
  JobList jobs;
  {
    const MutexLock guard(mutex_);
    for (VeskJob* const job : syncs_) jobs.Add(job);
  }
  for (VeskJob* const job : jobs.jobs()) {
    services_.bundler.WaitForJob(job, nullptr, "Sync");
    if (job->GetJobState() != JOB_STATE_DONE) return RequestScope::Exceeded(services_.clock);
  }
  return 0;
}

Outcome Node::Sync(WriteFailures::Seen* seen) {
  const Outcome drained = Drain(seen);
  if (drained.error != 0) return drained;
  if (removed_) return {ESTALE, false};
  int error = ByName([this](const std::string& name) { return SyncStore(name); });
  if (core_.broken) return {EIO, false};
  if (error == ENOENT) {
    if (removed_) return {ESTALE, false};
    core_.failures.Note(error);
  }
  // Systems tell one sync of lost bytes, and it need not be the first that ends: a success counts
  // when those beside it have ended well, too.
  if (error == 0) error = AwaitSyncs();
  TakeSyncs();
  if (const int told = core_.failures.TakeNews(seen)) return {told, told != error};
  return {error, false};
}

Outcome Node::Truncate(std::uint64_t size) {
  if (size > kMaxFileSize) return {EFBIG, false};
  if (const int error = CheckIfDue()) return {error, false};
  const Quiet quiet(*this, Quiet::What::kDrained);
  if (quiet.outcome().error != 0) return quiet.outcome();
  if (const int error = Refusal()) return {error, false};
  const std::vector<Range*> ranges = Ranges();
  const int error = Resize(size);  // from here on nothing needs memory
  ForEach(ranges, [&](Range& range) VESK_NO_THREAD_SAFETY_ANALYSIS {
    if (error == 0) {
      range.Truncate(size);
    } else {
      range.Forget();
    }
  });
  if (error != 0) {
    core_.suspicious = true;  // it may have taken place
    return {error, false};
  }
  core_.size = core_.stored_size = size;
  ++core_.own_writes;
  return {Refusal(), false};
}

// Has the store cut or extend its file. A job that outlasts the calling thread's limits is kept:
// while it may take place nobody knows what the file is, and what is written now could be cut off
// later.
int Node::Resize(std::uint64_t size) {
  VeskJob* const job = NewNameJob(OPCODE_TRUNCATE, name(), {}, size);
  services_.bundler.SubmitJob(job);
  services_.bundler.WaitForJob(job, nullptr, "Truncate");
  if (job->GetJobState() == JOB_STATE_DONE) {
    const int result = job->GetReturnValue();
    VeskJob::RefCountDec(job);
    return result;
  }
  const MutexLock guard(mutex_);
  resize_ = job;
  resizing_ = true;
  return RequestScope::Exceeded(services_.clock);
}

// Returns when no truncation is on its way whose request has given up waiting for it.
int Node::AwaitResize() {
  VeskJob* job = nullptr;
  {
    const MutexLock guard(mutex_);
    if (resize_ == nullptr) return 0;
    job = resize_;
    job->RefCountInc();
  }
  services_.bundler.WaitForJob(job, nullptr, "Truncate");
  const bool ended = job->GetJobState() == JOB_STATE_DONE;
  {
    const MutexLock guard(mutex_);
    if (ended && resize_ == job) {
      resize_ = nullptr;
      resizing_ = false;
      VeskJob::RefCountDec(job);
    }
  }
  VeskJob::RefCountDec(job);
  return ended ? 0 : RequestScope::Exceeded(services_.clock);
}

// How long the file is now is the store's to say.
void Node::Discard() {
  if (services_.retry != nullptr) Abandon();
  GiveUpUnsaved();
  freshness_ = Freshness::kUnknown;
  Doubt();
}

void Node::GiveUpUnsaved() {
  ForEachActive([&](Range& range) VESK_NO_THREAD_SAFETY_ANALYSIS {
    range.Collect();
    if (!core_.broken) range.Discard();
  });
}

// Without a range's lock: it ends jobs, and whoever is told of an end may want the lock. Later
// failures are not kept by the runtime any more, but by this file.
void Node::Abandon() {
  for (bool renamed = true; renamed;) {
    const std::string name = this->name();
    services_.retry->Abandon(name);
    const MutexLock guard(mutex_);
    renamed = name != name_;  // in between: nobody else ends what was begun for that name
    if (renamed || std::exchange(abandoned_, true)) services_.retry->KeepAgain(name);
  }
}

Node::Quiet::Quiet(Node& node) : node_(node), turn_(node.turn_) {
  outcome_.error = turn_.Take(this);
}

// In two steps: without memory in the second one, the destructor lets writes set out again.
Node::Quiet::Quiet(Node& node, What what) : Quiet(node) {
  if (outcome_.error != 0) return;
  node.Barrier();
  if (what == What::kDrained) outcome_ = node.DrainAll();
  if (what == What::kStopped) outcome_.error = node.StopAll();
}

Node::Quiet::~Quiet() {
  if (!turn_.has()) return;
  node_.stopped_ = false;
  if (node_.put_off_.exchange(false) && !node_.removed_) node_.StartWrites();
}

void Node::SetName(const std::string& name) {
  ForEach(Ranges(), [&](Range& range) VESK_NO_THREAD_SAFETY_ANALYSIS { range.Rename(name); });
  if (services_.reaper != nullptr) services_.reaper->Remove(*this);
  {
    const MutexLock guard(mutex_);
    if (std::exchange(abandoned_, false)) services_.retry->KeepAgain(name_);
    name_ = name;
  }
  if (services_.reaper != nullptr) services_.reaper->Add(name, *this);
}

void Node::SetRemoved() {
  removed_ = true;
  if (services_.reaper != nullptr) services_.reaper->Remove(*this);  // its name may be another's
  GiveUpUnsaved();  // nothing is in flight, and no memory is needed
}

// ---- the runtime's calls ----

void Node::Reap() {
  ForEachActive([](Range& range) VESK_NO_THREAD_SAFETY_ANALYSIS { range.Collect(); });
}

void Node::WriteFails(const WriteFailure& failure) { core_.failures.Tell(failure); }

// ---- freshness ----

int Node::CheckIfDue() {
  if (IsCheckDue(WallSeconds(), gEnv->settings->refresh_interval)) {
    if (const int error = CheckFreshness()) return error;
  }
  const bool fails = options_.when_unknown == UnknownPolicy::kFail;
  return fails && freshness_ == Freshness::kUnknown ? ESTALE : 0;
}

// One thread looks; others that need to know wait for what it learns. Without memory to look the
// request ends: it would go on with what may be wrong.
int Node::CheckFreshness() {
  if (const int error = AwaitResize()) return error;
  const WakeOnCancel wake(mutex_, checked_);
  {
    const MutexLock guard(mutex_);
    if (checking_) {
      while (checking_ && RequestScope::Wait(checked_, mutex_, services_.clock) == 0) {
      }
      return 0;
    }
    checking_ = true;
    asking_ = !core_.suspicious;
  }
  int error = 0;
  try {
    Look();
  } catch (const std::bad_alloc&) {
    core_.suspicious = true;  // it is not known, and the next request looks again
    error = ENOMEM;
  }
  const MutexLock guard(mutex_);
  checking_ = asking_ = false;
  checked_.WakeAll();
  return error;
}

void Node::Look() {
  const bool was_suspicious = core_.suspicious.exchange(false);
  Sight sight;
  const int error = See(&sight, false);
  // A suspicion holds until it is known what the store's file is.
  const bool over = RequestScope::Exceeded(services_.clock) != 0;
  if ((over || error != 0) && was_suspicious) Doubt();
  if (over) return;  // this request's end, not the store's
  if (sight.hasty) return RenewAll();
  Learn(error, sight, was_suspicious);
  checked_at_ = WallSeconds();
}

// What the store says of its file now. `alone`: the calling thread has the turn, and the file keeps
// its name.
int Node::See(Sight* sight, bool alone) {
  const Clock::Time now = services_.clock.Now();
  const Clock::Time patience = now + options_.check_patience;
  const Clock::Time until = std::min(patience, HalfOfTheRest(now));
  const RequestScope scope({until, nullptr});
  const bool was_quiet = core_.written == 0;
  sight->writes = core_.own_writes;
  const auto stat = [&](const std::string& name) { return store_.Stat(name, &sight->info); };
  const int error = alone ? stat(name()) : ByName(stat);
  sight->quiet = was_quiet && core_.written == 0 && core_.own_writes == sight->writes;
  sight->hasty = error == ETIMEDOUT && until < patience && services_.clock.Now() >= until;
  return error;
}

// A request that can be served without an answer keeps half of its time for that.
Clock::Time Node::HalfOfTheRest(Clock::Time now) const {
  const RequestLimits* const limits = RequestScope::Current();
  const bool needs_answer = options_.when_unknown == UnknownPolicy::kFail;
  if (needs_answer || limits == nullptr || limits->deadline == Clock::kNever) return Clock::kNever;
  return now + (limits->deadline - now) / 2;
}

void Node::Learn(int error, Sight& sight, bool was_suspicious) {
  const bool was_unsure = freshness_ == Freshness::kUnknown || freshness_ == Freshness::kGone ||
                          (was_suspicious && !sight.quiet);
  if (error == ENOENT) {
    freshness_ = Freshness::kGone;
    return;
  }
  if (error != 0) {
    freshness_ = Freshness::kUnknown;
    RenewAll();
    return;
  }
  const bool changed = IsChanged(sight);
  if ((changed || was_unsure) && !Forget(&sight)) {
    core_.suspicious = true;  // to be found once more
    return;
  }
  freshness_ = changed ? Freshness::kChanged : Freshness::kKnown;
  const MutexLock guard(mutex_);
  if (sight.quiet) {
    known_ = sight.info;
    known_writes_ = sight.writes;
  } else {
    known_.device = sight.info.device;
    known_.inode = sight.info.inode;
  }
}

bool Node::IsChanged(const Sight& sight) const {
  const FileInfo& info = sight.info;
  const MutexLock guard(mutex_);
  if (info.device != known_.device || info.inode != known_.inode) return true;
  if (!sight.quiet) return false;
  if (sight.writes != known_writes_) return info.size != core_.stored_size;
  return info.size != known_.size || info.modified_ns != known_.modified_ns;
}

// Somebody else may have changed the store's file: what is clean is fetched again. False: it could
// not be done now. Where bytes of ours were on their way the file is looked at once more while
// nobody writes: what is on its way then can only make it as long as it is here, whenever it
// arrives.
bool Node::Forget(Sight* sight) {
  const Quiet quiet(*this, Quiet::What::kAsItIs);
  if (quiet.outcome().error != 0) return false;
  std::uint64_t end = 0;
  ForEach(Ranges(), [&](Range& range) VESK_NO_THREAD_SAFETY_ANALYSIS {
    range.Collect();
    end = std::max(end, range.DirtyEnd());
  });
  const bool holds = sight->quiet && end == 0 && core_.own_writes == sight->writes;
  if (!holds && See(sight, true) != 0) return false;
  ForEach(Ranges(), [](Range& range) VESK_NO_THREAD_SAFETY_ANALYSIS { range.Forget(); });
  const std::uint64_t size = sight->info.size;
  core_.size = std::max(size, end);
  core_.stored_size = core_.own_writes == sight->writes ? size : core_.size.load();
  return true;
}

void Node::RenewAll() {
  ForEach(Ranges(), [](Range& range) VESK_NO_THREAD_SAFETY_ANALYSIS { range.Renew(); });
}

// ---- what is known ----

FileStats Node::GetStats() const {
  FileStats stats;
  stats.name = name();
  stats.size = core_.size;
  stats.cached = core_.cached;
  stats.dirty = core_.dirty;
  stats.in_flight = core_.in_flight;
  if (services_.retry != nullptr) stats.parked = services_.retry->GetParked(stats.name).bytes;
  stats.last_error = core_.failures.last_error();
  stats.fetched = core_.fetched;
  stats.turns = turns_;
  stats.repeats = repeats_;
  stats.freshness = freshness_;
  Clock::Time oldest = Clock::kNever;
  for (Range* const range : Ranges()) {
    const RangeLock guard(range->lock);
    if (range->end() == 0) continue;
    ++stats.streams;
    stats.hits += range->counts.hits;
    stats.misses += range->counts.misses;
    stats.returned += range->counts.returned;
    oldest = std::min(oldest, range->OldestDirty());
  }
  if (oldest != Clock::kNever) stats.oldest_dirty = services_.clock.Now() - oldest;
  const MutexLock guard(mutex_);
  stats.hits += retired_.hits;
  stats.misses += retired_.misses;
  stats.returned += retired_.returned;
  return stats;
}

}  // namespace vesk
