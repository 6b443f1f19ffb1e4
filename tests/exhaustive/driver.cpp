#include "tests/exhaustive/driver.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <sstream>
#include <utility>

#include "tests/support/clock.h"
#include "vesk/VeskException.h"

namespace vesk_test {

using vesk::VeskBuffer;
using vesk::VeskJob;
using vesk::VeskStream;

namespace {

constexpr time_t kStart = 1000000;
constexpr unsigned char kGarbage = 0xDD;  // what a failing read leaves
constexpr int kAttempts = 16;             // at one request that is repeated
constexpr int kMostRounds = 400;          // of writing everything back at the end
constexpr int kSiteReadWithoutJob = 249;  // the read is counted in pending_io, and never ends

constexpr const char* kOpNames[] = {
    "Read",           "Write",     "ReadAhead", "Flush",    "IsCacheDirty",
    "Shrink",         "Truncate",  "Split",     "Allocate", "block Write",
    "block DoReadIO", "RemoveEOF", "GetMaxLen", "Dump",     "block WaitForBuffer"};

// A value for the length of a scope.
template <typename T>
class Set {
 public:
  Set(T& variable, T value) : variable_(variable), before_(std::exchange(variable, value)) {}
  ~Set() { variable_ = before_; }
  Set(const Set&) = delete;
  Set& operator=(const Set&) = delete;

 private:
  T& variable_;
  const T before_;
};

bool Is(const VeskBuffer& block, unsigned int states) { return (block.state & states) != 0; }
unsigned long BlockEnd(const VeskBuffer& block) { return block.off + block.blen; }
// Where the bytes end that the block has or is about to get.
unsigned long DataEnd(const VeskBuffer& block) {
  return block.off + (Is(block, VeskBuffer::IOR) ? block.blen : block.dlen);
}
bool HasEnded(const VeskJob* job) { return job->state == vesk::JOB_STATE_DONE; }

Op OpOf(Kind kind) {
  if (kind == Kind::kDirty) return Op::kDirty;
  if (kind == Kind::kRemoveEof) return Op::kRemoveEof;
  return kind == Kind::kLength ? Op::kLength : Op::kDump;
}

bool Begins(const std::string& text, const char* with) { return text.rfind(with, 0) == 0; }

}  // namespace

std::string ToText(const Call& call) {
  std::ostringstream text;
  text << "stream " << call.stream << ": " << kOpNames[static_cast<int>(call.op)] << " off "
       << call.off << " len " << call.len << " max_off " << call.max_off << " size "
       << call.alloc_size << " maxbufs " << call.maxbufs << " maxpending " << call.maxpending
       << " flags ";
  for (const bool flag : call.flags) text << flag;
  text << (call.eof ? " eof" : "") << " block " << call.block;
  if (!call.bytes.empty()) {
    text << " bytes";
    for (const unsigned char byte : call.bytes) text << ' ' << int{byte};
  }
  return text.str();
}

void WorldLogger::Keep(const char* operation, const vesk::LogSite& site, const char* format,
                       va_list arguments) {
  const SparedAllocations spared;
  const bool is_error = operation[0] == 'E';
  if (std::strcmp(format, "Excpetion in IsCacheDirty %d\n") == 0) ++dirty_exceptions;
  if (!keeps_lines && !is_error) return;
  char text[1024];
  std::vsnprintf(text, sizeof text, format, arguments);
  if (is_error) {
    if (std::strstr(text, "Block error RC:") != nullptr) ++block_errors;
    if (std::strcmp(text, "\n\n") != 0) last_error = text;
    last_error_site = site.second;
  }
  if (keeps_lines) lines.push_back({operation, site.second, text});
}

// ---- life ---------------------------------------------------------------------------------------

const std::string& World::Name() {
  // Too long for a string to keep inside itself: every copy is an allocation that can fail.
  static const std::string name = "a file with a name that is not short";
  return name;
}

World::World(const Settings& settings, const Faults& faults)
    : settings_(settings),
      faults_(faults),
      base_(kBases[settings.base]),
      failing_(faults.allocation, faults.later_allocations),
      watch_([this](void* memory, std::size_t bytes) {
        if (inside_cache_ && bytes == sizeof(VeskBuffer)) Forget(memory);
      }),
      refresh_{static_cast<int>(settings.refresh)},
      pool_(NewThreadPool()),
      store_(settings.stored),
      allowed_(settings.span),
      ever_(settings.span),
      zero_from_(settings.span),
      content_end_(base_ + settings.stored) {
  env_.thread_pool = settings.pool != 0 ? pool_.get() : nullptr;
  env_.logger = &logger_;
  env_.settings = &refresh_;
  vesk::gEnv = &env_;
  clock_now = kStart;
  clock_reads = 0;
  dispatcher_.submitted.reserve(1024);
  dispatcher_.waits.reserve(1024);
  dispatcher_.on_submit = [this](VeskJob* job) { OnSubmit(job); };
  dispatcher_.on_wait = [this](VeskJob* job) { OnWait(job); };
  for (auto& stream : streams_) {
    stream = std::make_unique<VeskStream>(Name(), dispatcher_.bundler(), base_, settings.covered,
                                          kCookie);
  }
  parts_.push_back({0, base_});
  for (std::size_t i = 0; i < settings.span; ++i) {
    if (i < store_.size()) store_[i] = static_cast<unsigned char>(1 + (i * 7 + 3) % 250);
    allowed_[i].set(StoredByte(i));
    ever_[i] = allowed_[i];
  }
}

// Blocks that are busy or dirty, after a run that was broken off, must not be destroyed as such.
World::~World() {
  for (const auto& stream : streams_) {
    for (VeskBuffer* const block : stream->buffers) {
      block->state = VeskBuffer::VALID;
      if (block->job != nullptr) VeskJob::RefCountDec(block->job);
    }
  }
  for (auto& stream : streams_) stream.reset();
  GiveMemoryBack();
  vesk::gEnv = nullptr;
}

// A new block where one was that is gone: what is known is not of this one.
void World::Forget(const void* memory) {
  const auto* const block = static_cast<const VeskBuffer*>(memory);
  known_.erase(block);
  for (auto& [other, known] : known_) {
    auto& list = known.made_inside;
    list.erase(std::remove(list.begin(), list.end(), block), list.end());
  }
}

void World::Break(const std::string& what) {
  if (broken_.empty()) broken_ = what + " (in: " + doing_ + ")";
}

void World::Tell(const std::string& what) const {
  if (tells) std::fprintf(stderr, "%*s%s\n", 2 * depth_, "", what.c_str());
}

void World::Note(Event event) {
  if (records_) events_.push_back(std::move(event));
}

void World::Record() {
  records_ = true;
  logger_.keeps_lines = true;
}

// ---- parts of the file --------------------------------------------------------------------------

std::size_t World::PartAt(unsigned long off) const {
  std::size_t part = parts_.size() - 1;
  while (part > 0 && parts_[part].begin > off) --part;
  return part;
}

unsigned long World::EndOf(std::size_t part) const {
  return part + 1 < parts_.size() ? parts_[part + 1].begin : End();
}

std::vector<VeskBuffer*> World::Blocks() const {
  std::vector<VeskBuffer*> blocks;
  for (const Part& part : parts_) {
    const auto& list = streams_[part.stream]->buffers;
    blocks.insert(blocks.end(), list.begin(), list.end());
  }
  return blocks;
}

unsigned char World::StoredByte(std::size_t index) const {
  return index < store_.size() ? store_[index] : 0;
}

// A request that stays inside its part.
Call World::Request(Op op, unsigned long off, unsigned int len) const {
  const std::size_t part = PartAt(off);
  Call call;
  call.op = op;
  call.stream = parts_[part].stream;
  call.off = off;
  call.max_off = EndOf(part);
  call.len = static_cast<unsigned int>(std::min<unsigned long>(len, call.max_off - off));
  call.alloc_size = settings_.block;
  call.maxbufs = settings_.maxbufs;
  call.maxpending = settings_.ahead;
  return call;
}

// ---- steps --------------------------------------------------------------------------------------

void World::Do(const Step& step) {
  if (over()) return;
  if (depth_ == 0 && step_for_wait_ && step.kind != Kind::kInWait) {
    in_wait_.push_back(step);
    step_for_wait_ = false;
    return;
  }
  const std::string outer = std::exchange(doing_, ToText(step));
  Tell(doing_);
  if (depth_ == 0) {
    pool_->pending_streams.clear();
    first_flight_of_step_ = flights_.size();
    out_of_memory_in_step_ = false;
  }
  {
    const Set<int> deeper(depth_, depth_ + 1);
    const Set<unsigned int> wait_how(wait_how_, step.c);
    Take(step);
    if (settings_.careful != 0) Collect();
  }
  if (!over()) Check();
  if (depth_ == 0 && !over()) {
    CheckMarks();
    CheckJobs();
  }
  doing_ = outer;
}

void World::Take(const Step& step) {
  switch (step.kind) {
    case Kind::kRead: return Read(step, false);
    case Kind::kReadAll: return Read(step, true);
    case Kind::kWrite: return Write(step, false);
    case Kind::kWriteAll: return Write(step, true);
    case Kind::kReadAhead: return ReadAhead(step);
    case Kind::kFlush: return Flush(step);
    case Kind::kShrink: return Shrink(step);
    case Kind::kTruncate: return Truncate(step);
    case Kind::kSplit: return Split(step);
    case Kind::kAllocate: return Allocate(step);
    case Kind::kEnd: return EndOne(step);
    case Kind::kClock: return MoveClock(step);
    case Kind::kReap: return Reap(step);
    case Kind::kNoMemory: return TakeMemory(step);
    case Kind::kInWait: step_for_wait_ = true; return;
    case Kind::kDirty:
    case Kind::kRemoveEof:
    case Kind::kLength:
    case Kind::kDump:
      Call call;
      call.op = OpOf(step.kind);
      call.flags[0] = step.a % 2 != 0;
      for (const Part& part : parts_) {
        call.stream = part.stream;
        Perform(call);
      }
      return;
  }
}

void World::Read(const Step& step, bool all) {
  unsigned long off = base_ + step.a % settings_.span;
  unsigned int left = 1 + step.b % (3 * settings_.block);
  for (int i = 0; i < kAttempts && left > 0 && off < End() && !over(); ++i) {
    if (settings_.careful != 0) Collect();
    Call call = Request(Op::kRead, off, left);
    call.eof = (step.c & 4) != 0 && IsKnownEnd(off);
    const Result result = Perform(call);
    if (!all || (result.code != 0 && result.code != vesk::ERR_WAIT)) return;
    if (result.code != 0) continue;
    if (result.value == 0) return;
    off += result.value;
    left -= static_cast<unsigned int>(result.value);
  }
}

// What a caller may say it knows: no byte lies there or beyond, and no transfer has claimed one.
bool World::IsKnownEnd(unsigned long off) const {
  const std::vector<VeskBuffer*> blocks = Blocks();
  return off >= content_end_ && std::none_of(blocks.begin(), blocks.end(), [&](const auto* block) {
           return block->off >= off && block->dlen > 0;
         });
}

void World::Write(const Step& step, bool all) {
  unsigned long off = base_ + step.a % settings_.span;
  unsigned int left = 1 + step.b % (3 * settings_.block);
  ++writes_;
  for (int i = 0; i < kAttempts && left > 0 && off < End() && !over(); ++i) {
    if (settings_.careful != 0) Collect();
    Call call = Request(Op::kWrite, off, left);
    call.flags[0] = (step.c & 8) != 0;
    for (unsigned int j = 0; j < call.len; ++j) {
      call.bytes.push_back(
          static_cast<unsigned char>(1 + (writes_ * 37 + (off - base_) + j) % settings_.values));
    }
    const Result result = Perform(call);
    if (!all || (result.code != 0 && result.code != vesk::ERR_WAIT)) return;
    if (result.code != 0) continue;
    off += result.value;
    left -= static_cast<unsigned int>(result.value);
  }
}

void World::ReadAhead(const Step& step) {
  Call call = Request(Op::kReadAhead, base_ + step.a % settings_.span, 1);
  call.maxpending = (settings_.ahead + step.b) % 100;
  Perform(call);
}

void World::Flush(const Step& step) {
  Call call;
  call.op = Op::kFlush;
  for (unsigned int i = 0; i < 4; ++i) call.flags[i] = (step.a >> i) % 2 != 0;
  for (std::size_t part = 0; part < parts_.size(); ++part) {  // a wait may divide them further
    if (settings_.careful != 0) Collect();
    call.stream = parts_[part].stream;
    Perform(call);
  }
}

void World::Shrink(const Step& step) {
  Call call = Request(Op::kShrink, base_ + step.a % settings_.span, 1);
  call.maxbufs = step.b % 4;
  Perform(call);
}

// Only where the header allows it: what goes is clean and idle. A block across the new length is
// idle as well, since a transfer goes on as it began.
void World::Truncate(const Step& step) {
  Call call;
  call.op = Op::kTruncate;
  call.stream = parts_.back().stream;
  call.off = base_ + step.a % (settings_.span + 1);
  const VeskStream& stream = *streams_[call.stream];
  if (call.off < stream.curr_off || (parts_.size() > 1 && call.off < parts_.back().begin)) return;
  for (const VeskBuffer* const block : stream.buffers) {
    const bool goes = call.off <= block->off || call.off == BlockEnd(*block);
    const bool stays = call.off > BlockEnd(*block);
    if (goes && Is(*block, VeskBuffer::DIRTY | VeskBuffer::IOR | VeskBuffer::IOW)) return;
    if (!stays && Is(*block, VeskBuffer::IOR | VeskBuffer::IOW)) return;
  }
  Perform(call);
  const std::size_t size = call.off - base_;
  const bool grown = size > store_.size();
  store_.resize(size);
  for (std::size_t i = size; i < settings_.span; ++i) {
    allowed_[i].reset();
    allowed_[i].set(0);
    ever_[i] = allowed_[i];
  }
  if (grown) NoteMarksBefore(call.off);
  content_end_ = call.off;
}

// True when a block that would stay reaches over the first one that would go: the two share bytes
// (see CheckOverlaps), of which each stream would go on to keep its own.
bool World::IsHeldTogether(const VeskStream& stream, unsigned long splitoff) {
  unsigned long reach = 0;
  for (const VeskBuffer* const block : stream.buffers) {
    if (block->off >= splitoff && !Is(*block, VeskBuffer::IOR)) return reach > block->off;
    reach = std::max(reach, BlockEnd(*block));
  }
  return false;
}

void World::Split(const Step& step) {
  if (parts_.size() == kStreams) return;
  const unsigned long wanted = base_ + step.a % settings_.span;
  const std::size_t part = PartAt(wanted);
  const VeskStream& stream = StreamOf(part);
  if (stream.curr_len < 2) return;
  Call call;
  call.op = Op::kSplit;
  call.stream = parts_[part].stream;
  call.other = parts_.size();  // never used before
  call.off = stream.curr_off + 1 +
             step.a % static_cast<unsigned long>(std::min<long>(stream.curr_len, 255) - 1);
  if (IsHeldTogether(stream, call.off)) return;
  const Result result = Perform(call);
  if (result.code != 0 || result.value == 0) return;
  if (result.value <= parts_[part].begin || result.value >= EndOf(part)) {
    Break("a split at " + std::to_string(result.value) + ", outside of the part");
  }
  parts_.insert(parts_.begin() + static_cast<std::ptrdiff_t>(part) + 1, {call.other, result.value});
}

// A block where none is, as the engine and read-ahead make them.
void World::Allocate(const Step& step) {
  std::vector<Call> gaps;
  const std::vector<VeskBuffer*> all = Blocks();
  for (std::size_t part = 0; part < parts_.size(); ++part) {
    const auto& list = StreamOf(part).buffers;
    std::size_t place = 0;
    unsigned long begin = parts_[part].begin;
    auto it = list.begin();
    do {
      const bool is_last = it == list.end();
      const unsigned long end = is_last ? EndOf(part) : (*it)->off;
      const bool is_free = std::none_of(all.begin(), all.end(), [begin](const VeskBuffer* b) {
        return b->off <= begin && begin < BlockEnd(*b);
      });
      if (begin < end && is_free) {
        Call call = Request(Op::kAllocate, begin, 1);
        call.block = place;
        call.len = static_cast<unsigned int>(end - begin);
        gaps.push_back(call);
      }
      if (is_last) break;
      begin = std::max(begin, BlockEnd(**it));
      ++it;
      ++place;
    } while (true);
  }
  if (gaps.empty()) return;
  Call call = gaps[step.a % gaps.size()];
  call.alloc_size = 1 + step.b % settings_.block;
  if (Perform(call).code != 0 || over()) return;
  if (step.c % 3 == 1) {
    call.op = Op::kBlockRead;
    Perform(call);
  } else if (step.c % 3 == 2) {
    ++writes_;
    call.op = Op::kBlockWrite;
    call.len = 1;
    call.bytes = {static_cast<unsigned char>(1 + writes_ % settings_.values)};
    Perform(call);
  }
}

void World::EndOne(const Step& step) {
  std::vector<Flight*> in_flight;
  for (Flight& flight : flights_) {
    if (!flight.ended) in_flight.push_back(&flight);
  }
  if (!in_flight.empty()) End(*in_flight[step.a % in_flight.size()], HowTo(step.b), step.c);
}

void World::MoveClock(const Step& step) {
  clock_now += step.b % 4 == 0 ? -(step.a % 8) : step.a % 8;
  Event event;
  event.what = Event::kClock;
  event.now = clock_now;
  Note(std::move(event));
}

void World::Reap(const Step& step) {
  std::size_t wanted = step.a;
  const std::size_t count = Blocks().size();
  if (count == 0) return;
  wanted %= count;
  for (const Part& part : parts_) {
    const std::size_t here = streams_[part.stream]->buffers.size();
    if (wanted < here) {
      Call call;
      call.op = Op::kReap;
      call.stream = part.stream;
      call.block = wanted;
      Perform(call);
      return;
    }
    wanted -= here;
  }
}

// An allocation that yields null; others, and those that throw, are up to Faults.
void World::TakeMemory(const Step& step) {
  Event event;
  event.what = Event::kNoMemory;
  event.for_job = step.a % 2 != 0;
  (event.for_job ? VeskJob::allocate_null : vesk::VeskOP::allocate_null) = true;
  memory_was_taken_ = true;
  Note(std::move(event));
}

void World::GiveMemoryBack() {
  VeskJob::allocate_null = vesk::VeskOP::allocate_null = false;
  Event event;
  event.what = Event::kMemory;
  Note(std::move(event));
}

// ---- the cache ----------------------------------------------------------------------------------

Result World::Perform(const Call& call) {
  Result result;
  if (over()) return result;
  Event asked;
  asked.what = Event::kCall;
  asked.call = call;
  Note(std::move(asked));
  const Set<std::size_t> waits(waits_in_call_, 0);
  const Set<std::size_t> first_flight(first_flight_of_call_, flights_.size());
  result.eof = call.eof;
  if (call.op == Op::kRead) result.bytes.assign(call.len, kUntouched);
  try {
    result.value = Carry(call, result);
  } catch (const vesk::VeskException& thrown) {
    result.code = thrown.code;
  } catch (const std::bad_alloc&) {
    Break("std::bad_alloc left the cache");
  }
  Event returned;
  returned.what = Event::kReturned;
  returned.result = result;
  Note(std::move(returned));
  Tell("  " + ToText(call) + " -> " +
       (result.code != 0 ? "throws " + std::to_string(result.code) : std::to_string(result.value)) +
       (result.eof ? " eof" : ""));
  Expect(call, result);
  if (!over()) {
    MeetNewBlocks();
    CheckOverlaps();
  }
  return result;
}

unsigned long World::Carry(const Call& call, Result& result) {
  VeskStream& stream = *streams_[call.stream];
  vesk::VeskBundler* const bundler = dispatcher_.bundler();
  vesk::sfsstat status{};
  std::vector<unsigned char> bytes = call.bytes;
  const bool* const flags = call.flags;
  const auto block = [&] {
    return std::next(stream.buffers.begin(), static_cast<std::ptrdiff_t>(call.block));
  };
  const SparedAllocations fail_here(store_repaired_);
  const Set<bool> inside(inside_cache_, true);
  switch (call.op) {
    case Op::kRead:
      return stream.Read(&lock_, result.bytes.data(), call.off, call.len, &result.eof, call.max_off,
                         kCookie + call.off, call.alloc_size, call.maxbufs, call.maxpending,
                         &status);
    case Op::kWrite:
      return stream.Write(&lock_, bytes.data(), call.off, call.len, call.max_off,
                          kCookie + call.off, call.alloc_size, call.maxbufs, flags[0], &status);
    case Op::kReadAhead:
      stream.ReadAhead(&lock_, call.off, call.max_off, call.alloc_size, call.maxbufs,
                       call.maxpending, &status);
      return 0;
    case Op::kFlush: stream.Flush(&lock_, flags[0], flags[1], flags[2], flags[3]); return 0;
    case Op::kDirty: return stream.IsCacheDirty(flags[0]) ? 1 : 0;
    case Op::kShrink: stream.ShrinkStream(&lock_, call.off, call.maxbufs); return 0;
    case Op::kTruncate: stream.Truncate(call.off); return 0;
    case Op::kSplit: return stream.Split(&lock_, streams_[call.other].get(), call.off);
    case Op::kAllocate:
      stream.AllocateBuffer(block(), call.off + call.len, call.off, call.max_off, call.alloc_size);
      return 0;
    case Op::kBlockWrite: return (*block())->Write(bytes.data(), call.off, call.len);
    case Op::kBlockRead:
      (*block())->DoReadIO(&lock_, bundler, stream.name, false, &status, &stream);
      return 0;
    case Op::kRemoveEof: stream.RemoveEOF(); return 0;
    case Op::kLength: return stream.GetMaxLen();
    case Op::kDump: stream.Dump(); return 0;
    case Op::kReap:
      (*block())->WaitForBuffer(&lock_, bundler, stream.name, false, "Reap");
      return 0;
  }
  return 0;
}

// What a call may end in, and what it means for the bytes of the file.
void World::Expect(const Call& call, const Result& result) {
  const VeskStream& stream = *streams_[call.stream];
  const bool moves = call.op == Op::kRead || call.op == Op::kWrite;
  if (moves && waits_in_call_ == 0 && stream.io_cookie != kCookie + call.off) {
    Break("the cookie was not kept");
  }
  if (result.code == 0) {
    if (call.op == Op::kRead) CheckRead(call, result);
    if (call.op == Op::kWrite || call.op == Op::kBlockWrite) {
      if (result.value == 0 || result.value > call.len) {
        Break("a write of " + std::to_string(result.value));
      }
      Accepted(call.off, call.bytes, result.value);
    }
    return;
  }
  // A request that ends in a wait has moved nothing; one that discards a block, or fails, may have.
  if (call.op == Op::kWrite && (result.code == vesk::ERR_ASSERT || waits_in_call_ == 0)) {
    PerhapsAccepted(call.off, call.bytes);
  }
  if (result.code == vesk::ERR_WAIT) {
    if (!moves && call.op != Op::kFlush && call.op != Op::kShrink) {
      Break("a wait that nobody asked for");
    }
    return;
  }
  if (result.code != vesk::ERR_ASSERT) {
    ++codes_thrown_;
    return;
  }
  ExpectFailedCheck(call, logger_.last_error);
}

void World::ExpectFailedCheck(const Call& call, const std::string& message) {
  const VeskStream& stream = *streams_[call.stream];
  if (message == "Out of memory" && (failing_.Fired() || memory_was_taken_)) {
    out_of_memory_in_step_ = true;
    if (logger_.last_error_site == kSiteReadWithoutJob) ++pending_leaked_[&stream];
    return;
  }
  // A block whose job failed refuses writes to its first byte until it goes.
  if (message == "Buffer is not valid 1\n" && call.op == Op::kWrite && settings_.careful == 0 &&
      std::any_of(stream.buffers.begin(), stream.buffers.end(), [&](const VeskBuffer* block) {
        return block->state == VeskBuffer::INV && block->off >= call.off &&
               block->off < call.off + call.len;
      })) {
    return;
  }
  // The covered range does not follow every discard: a stream left without blocks keeps its start,
  // and cannot be used below it. The careful caller sets the range right each time.
  if (Begins(message, "Negative ") && settings_.careful == 0 && stream.curr_len < 0) {
    over_ = true;
    return;
  }
  Break("a failed check: " + message);
}

void World::OnSubmit(VeskJob* job) {
  const SparedAllocations spared;
  const Set<bool> outside(inside_cache_, false);
  const VeskBuffer* const block = BlockOf(job);
  if (block == nullptr) {
    Break("a job that belongs to no block");
    return;
  }
  if (!IsFor(*block, *job)) Break("a job that does not say what its block is about");
  Flight flight{job,
                job->op->code == vesk::OPCODE_WRITE,
                block->off,
                block->blen,
                job->op->flags,
                block->bptr,
                {},
                logger_.lines.size()};
  if (flight.is_write) flight.sent.assign(block->bptr, block->bptr + block->dirty_length);
  flights_.push_back(std::move(flight));
  MeetNewBlocks();  // before anything can happen to the block
}

VeskBuffer* World::BlockOf(const VeskJob* job) const {
  const std::vector<VeskBuffer*> blocks = Blocks();
  const auto found = std::find_if(blocks.begin(), blocks.end(),
                                  [job](const VeskBuffer* block) { return block->job == job; });
  return found == blocks.end() ? nullptr : *found;
}

bool World::IsFor(const VeskBuffer& block, const VeskJob& job) const {
  const auto& arguments = job.op->arguments;
  if (job.type != vesk::JOB_TYPE_IO || arguments.size() != 5 || job.references != 2) return false;
  if (arguments[0].text != Name() || arguments[1].pointer != block.bptr ||
      arguments[3].number != block.off || block.ltime != static_cast<unsigned int>(clock_now)) {
    return false;
  }
  if (job.op->code == vesk::OPCODE_WRITE) {
    return arguments[2].number == block.dirty_length && block.dirty_length > 0 &&
           block.blen == block.dirty_length && block.dlen == block.dirty_length &&
           arguments[4].integer == 1 && Is(block, VeskBuffer::IOW) && !Is(block, VeskBuffer::DIRTY);
  }
  return job.op->code == vesk::OPCODE_READ && job.op->flags == 0 &&
         arguments[2].integer == static_cast<int>(block.blen) &&
         arguments[4].pointer == &block.dlen && Is(block, VeskBuffer::IOR) &&
         job.owner_stream != nullptr;
}

// What other threads do while the lock is given up, and then the end of the job, or of patience.
void World::OnWait(VeskJob* job) {
  const SparedAllocations spared;
  const Set<bool> outside(inside_cache_, false);
  ++waits_in_call_;
  const std::size_t number = NumberOf(job);
  Flight& flight = flights_[number];
  if (number >= first_flight_of_call_) flight.awaited = true;
  if (HasEnded(job)) Break("a wait for a job that has ended");
  if (dispatcher_.waits.back().lock != &lock_) Break("a wait without the caller's lock");
  Event event;
  event.what = Event::kWait;
  event.flight = number;
  event.tag = dispatcher_.waits.back().tag;
  Note(event);
  ++flight.waiting;
  // The dispatcher's, the block's, and one for each thread that waits.
  if (job->references != 2 + flight.waiting) Break("a wait that does not hold its job");
  if (!in_wait_.empty()) {
    const Step step = in_wait_.front();
    in_wait_.pop_front();
    Do(step);
  }
  switch (wait_how_ % 4) {
    case 0: End(flight, How::kWell, 0); break;
    case 1: End(flight, How::kFailing, 1); break;
    case 2: break;  // it took too long
    default: EndAll(); break;
  }
  --flight.waiting;
  event.what = Event::kWaited;
  Note(std::move(event));
}

std::size_t World::NumberOf(const VeskJob* job) const {
  std::size_t number = 0;
  while (flights_[number].job != job) ++number;
  return number;
}

// ---- jobs ---------------------------------------------------------------------------------------

World::How World::HowTo(std::uint8_t number) {
  switch (number % 8) {
    case 4: return How::kFailing;
    case 5: return How::kEndOfFile;
    case 6: return How::kShort;
    case 7: return How::kEmpty;
    default: return How::kWell;
  }
}

void World::EndAll() {
  for (std::size_t i = 0; i < flights_.size(); ++i) End(flights_[i], How::kWell, 0);
}

void World::End(Flight& flight, How how, unsigned int amount) {
  if (flight.ended) return;
  ++jobs_ended_;
  const bool fault = faults_.job != 0 &&
                     (faults_.later_jobs ? jobs_ended_ >= faults_.job : jobs_ended_ == faults_.job);
  if (fault) how = How::kFailing;
  if (store_repaired_) how = How::kWell;
  job_failed_ |= fault && !store_repaired_;
  flight.ended = true;
  Event event;
  event.what = Event::kEnded;
  event.flight = NumberOf(flight.job);
  if (flight.is_write) {
    EndWrite(flight, how, amount, event);
  } else {
    EndRead(flight, how, amount, event);
  }
  flight.failed = event.return_value != 0 && event.return_value != vesk::RC_EOF;
  Tell("  job " + std::to_string(event.flight) + (flight.is_write ? ", a write" : ", a read") +
       " of " + std::to_string(flight.length) + " at " + std::to_string(flight.off) +
       ", ends with " + std::to_string(event.return_value) + ", count " +
       std::to_string(event.count));
  EndJob(flight.job, event.return_value);
  Note(std::move(event));
}

void World::EndRead(Flight& flight, How how, unsigned int amount, Event& event) {
  const std::size_t begin = flight.off - base_;
  const std::size_t stored = store_.size() > begin ? store_.size() - begin : 0;
  const auto full = static_cast<unsigned int>(std::min<std::size_t>(stored, flight.length));
  const bool true_end = full == 0;
  if (how != How::kFailing && settings_.lies == 0 && !(how == How::kEndOfFile && true_end)) {
    how = How::kWell;
  }
  event.count = full;
  if (how == How::kFailing) event.return_value = amount % 2 != 0 ? EIO : -ENOSPC;
  if (how == How::kEndOfFile) event.return_value = vesk::RC_EOF;
  if (how == How::kFailing || how == How::kEndOfFile) event.count = amount % (flight.length + 1);
  if (how == How::kShort && full > 0) event.count = amount % full;
  if (how == How::kEmpty) event.count = 0;
  if (event.return_value == 0) {
    std::copy_n(store_.begin() + static_cast<std::ptrdiff_t>(std::min(begin, store_.size())),
                event.count, flight.area);
  } else {
    std::fill_n(flight.area, event.count, kGarbage);
  }
  event.bytes.assign(flight.area, flight.area + event.count);
  const bool tells_of_end =
      event.return_value == vesk::RC_EOF || (event.return_value == 0 && event.count == 0);
  if (tells_of_end && !true_end) MayBeZeroFrom(flight.off);
  // A mark of the end that is only met after the file has grown over it.
  if (tells_of_end && content_end_ > flight.off) MayBeZeroFrom(flight.off);
  *CountAddress(flight.job) = event.count;
  VeskStream* const owner = flight.job->owner_stream;
  if (owner->pending_io == 0) Break("a read ends that was never counted");
  --owner->pending_io;
}

void World::EndWrite(Flight& flight, How how, unsigned int amount, Event& event) {
  if (!std::equal(flight.sent.begin(), flight.sent.end(), flight.area)) {
    Break("bytes changed while they were written");
  }
  const bool may_lie = settings_.lies != 0 && settings_.careful == 0;
  std::size_t stored = flight.sent.size();
  if (how == How::kEndOfFile && may_lie) {
    event.return_value = vesk::RC_EOF;
    stored = 0;
  } else if (how == How::kFailing || how == How::kShort) {
    event.return_value = amount % 2 != 0 ? EIO : -ENOSPC;
    stored = amount % (stored + 1);
  }
  const std::size_t begin = flight.off - base_;
  if (stored > 0) store_.resize(std::max(store_.size(), begin + stored));
  std::copy_n(flight.sent.begin(), stored,
              store_.begin() + static_cast<std::ptrdiff_t>(std::min(begin, store_.size())));
  if (event.return_value == 0 || settings_.careful != 0) return;
  // What the store did not take is lost, with the failure as the report of it.
  for (std::size_t i = begin; i < begin + flight.sent.size(); ++i) {
    allowed_[i].set(StoredByte(i));
    ever_[i].set(StoredByte(i));
  }
  if (event.return_value == vesk::RC_EOF) MayBeZeroFrom(flight.off);
}

// ---- the careful caller -------------------------------------------------------------------------

void World::Collect() {
  for (const Part& part : parts_) CollectFrom(*streams_[part.stream]);
}

void World::CollectFrom(VeskStream& stream) {
  bool changed = stream.buffers.empty();  // the last one was discarded
  for (auto it = stream.buffers.begin(); it != stream.buffers.end() && !over();) {
    VeskBuffer& block = **it;
    const bool ended = block.job != nullptr && HasEnded(block.job);
    if (!ended && (block.job != nullptr || block.dlen != 0)) {
      ++it;
      continue;
    }
    changed = true;
    if (ended) {
      Call call;
      call.op = Op::kReap;
      while (streams_[call.stream].get() != &stream) ++call.stream;
      call.block = static_cast<std::size_t>(std::distance(stream.buffers.begin(), it));
      const bool was_write = Is(block, VeskBuffer::IOW);
      if (Perform(call).code != 0 && was_write) {  // its bytes are still there
        block.state = VeskBuffer::DIRTY;
        block.dlen = block.dirty_length = block.blen;
        block.rc = 0;
      }
    }
    if (Keeps(stream, block)) {
      ++it;
    } else {
      delete &block;
      it = stream.buffers.erase(it);
    }
  }
  if (!changed || over()) return;
  stream.last_buffer = nullptr;
  stream.curr_off = stream.curr_pos = base_;
  stream.curr_len = 0;
  if (stream.buffers.empty()) return;
  stream.curr_off = stream.buffers.front()->off;
  stream.curr_len = static_cast<long>(BlockEnd(*stream.buffers.back()) - stream.curr_off);
}

bool World::Keeps(VeskStream& stream, VeskBuffer& block) {
  if (Is(block, VeskBuffer::DIRTY)) return true;
  block.RemoveEOF(stream.name);
  if (block.dlen == 0) return false;
  if (block.dlen < block.blen) block.ReduceLength(stream.name, static_cast<int>(block.dlen));
  return true;
}

// ---- what must hold -----------------------------------------------------------------------------

void World::Check() {
  unsigned long before = 0;
  for (const VeskBuffer* const block : Blocks()) {
    CheckBlock(*block);
    if (block->off < before) Break("blocks out of order");
    before = block->off;
  }
  for (const auto& stream : streams_) CheckStream(*stream);
  for (std::size_t part = 0; part < parts_.size(); ++part) {
    for (const VeskBuffer* const block : StreamOf(part).buffers) {
      if (block->off < parts_[part].begin || block->off >= EndOf(part)) {
        Break("a block outside its part");
      }
    }
  }
}

void World::CheckBlock(const VeskBuffer& block) {
  const std::string at = "block at " + std::to_string(block.off) + ": ";
  if (block.dirty_length > block.dlen || block.dlen > block.blen || block.blen > block.size) {
    Break(at + "lengths " + std::to_string(block.dirty_length) + ' ' + std::to_string(block.dlen) +
          ' ' + std::to_string(block.blen) + ' ' + std::to_string(block.size));
  }
  if (block.blen == 0 && !(settings_.careful == 0 && block.state != VeskBuffer::VALID)) {
    Break(at + "no length");
  }
  const bool busy = Is(block, VeskBuffer::IOR | VeskBuffer::IOW);
  if (busy != (block.job != nullptr)) Break(at + "state and job differ");
  if (Is(block, VeskBuffer::DIRTY | VeskBuffer::IOW) != (block.dirty_length > 0)) {
    Break(at + "state and dirty length differ");
  }
  CheckState(block);
  if (block.job == nullptr) return;
  const Flight& flight = flights_[NumberOf(block.job)];
  if (flight.area != block.bptr || flight.off != block.off || flight.length != block.blen ||
      flight.is_write != Is(block, VeskBuffer::IOW)) {
    Break(at + "its job is another block's");
  }
}

// The states that there are; all others are of no block at rest between two requests.
void World::CheckState(const VeskBuffer& block) {
  const std::string at = "block at " + std::to_string(block.off) + ": ";
  const unsigned int state = block.state & ~VeskBuffer::END_OF_FILE;
  if (state != VeskBuffer::VALID && state != VeskBuffer::DIRTY && state != VeskBuffer::IOR &&
      state != VeskBuffer::IOW && state != VeskBuffer::INV) {
    Break(at + "state " + std::to_string(block.state));
  }
  const bool failed = state == VeskBuffer::INV;
  if (Is(block, VeskBuffer::END_OF_FILE)) {
    if (settings_.careful != 0) Break(at + "an end of file that nobody took off");
    if (failed || state == VeskBuffer::IOR) {
      Break(at + "end of file in state " + std::to_string(state));
    }
  }
  if (failed) {
    if (settings_.careful != 0) Break(at + "a failure that nobody took");
    if (block.dlen != 0 || block.rc == 0 || block.rc == vesk::RC_EOF) {
      Break(at + "invalid, with data or without a code");
    }
  } else if (block.rc != 0 && block.rc != vesk::RC_EOF) {
    Break(at + "a code without a failure");
  }
}

void World::CheckStream(const VeskStream& stream) {
  if (stream.name != Name() || stream.bundler != dispatcher_.bundler() || stream.stream_tag != 3 ||
      stream.aux_count != 0 || stream.start_read_time.halves[0] != 0 ||
      stream.start_read_time.halves[1] != 0) {
    Break("a field changed that never does");
  }
  if (stream.curr_len < 0) Break("a negative range");
  const auto& list = stream.buffers;
  if (stream.last_buffer != nullptr &&
      std::find(list.begin(), list.end(), stream.last_buffer) == list.end()) {
    Break("last_buffer is not a block of the stream");
  }
  const auto leaked = pending_leaked_.find(&stream);
  unsigned int expected = leaked == pending_leaked_.end() ? 0 : leaked->second;
  for (const Flight& flight : flights_) {
    if (!flight.ended && !flight.is_write && flight.job->owner_stream == &stream) ++expected;
  }
  if (stream.pending_io != expected) {
    Break("pending_io " + std::to_string(stream.pending_io) + " instead of " +
          std::to_string(expected));
  }
}

void World::CheckJobs() {
  const std::vector<VeskBuffer*> blocks = Blocks();
  int failures_taken = 0;
  for (const Flight& flight : flights_) {
    const bool is_held = std::any_of(blocks.begin(), blocks.end(), [&](const VeskBuffer* block) {
      return block->job == flight.job;
    });
    if (!is_held && !flight.ended) Break("a job in flight that no block holds");
    if (!is_held && flight.failed) ++failures_taken;
    if (flight.job->references != 1 + (is_held ? 1 : 0)) {
      Break("a job with " + std::to_string(flight.job->references) + " references");
    }
  }
  if (logger_.block_errors != failures_taken) Break("a failed job without its line");
  if (codes_thrown_ + logger_.dirty_exceptions != failures_taken) {
    Break("a failed job that nobody was told of");
  }
  const auto jobs = static_cast<int>(flights_.size());
  if (VeskJob::live != jobs || vesk::VeskOP::live != jobs) Break("jobs or operations left over");
}

// The thread pool is told of each job that nobody waits for.
void World::CheckMarks() {
  if (settings_.pool == 0 || out_of_memory_in_step_) return;
  const bool expected =
      std::any_of(flights_.begin() + static_cast<std::ptrdiff_t>(first_flight_of_step_),
                  flights_.end(), [](const Flight& flight) { return !flight.awaited; });
  const auto& marks = pool_->pending_streams;
  const bool marked =
      marks.size() == 1 && marks.begin()->first == Name() && marks.begin()->second == 1;
  if (expected ? !marked : !marks.empty()) Break("the thread pool was not told, or for nothing");
}

// A block may be put into the rest of one that came short, failed, or never had a job: VALID or
// invalid, its data ending there. One that is put behind the last block may lie in the rest of an
// earlier one that reaches further, by the same rule.
void World::MeetNewBlocks() {
  const std::vector<VeskBuffer*> blocks = Blocks();
  for (auto it = blocks.begin(); it != blocks.end(); ++it) {
    if (known_.count(*it) != 0) continue;
    Known known;
    for (auto other = blocks.begin(); other != it; ++other) {
      if (BlockEnd(**other) > (*it)->off) known.made_inside.push_back(*other);
    }
    if (!known.made_inside.empty() && settings_.careful != 0) Break("blocks overlap");
    for (const VeskBuffer* const outer : known.made_inside) {
      const bool is_rest =
          Is(*outer, VeskBuffer::VALID | VeskBuffer::INV) && DataEnd(*outer) <= (*it)->off;
      const bool reached_over_last =
          std::any_of(blocks.begin(), it, [&](const VeskBuffer* between) {
            const auto found = known_.find(between);
            return found != known_.end() && std::count(found->second.made_inside.begin(),
                                                       found->second.made_inside.end(), outer) != 0;
          });
      if (!is_rest && !reached_over_last) {
        Break("a block at " + std::to_string((*it)->off) + " where the one at " +
              std::to_string(outer->off) + " has data");
      }
    }
    known_[*it] = std::move(known);
  }
}

// Two blocks may overlap where `MeetNewBlocks` has seen one put into the other's unused rest. When
// a write to the outer one's first byte then fills that rest, the inner one is out of date: hidden
// as long as the outer one is there, and what is found once that is gone. Any byte that was ever
// written may be met there. The careful caller leaves no unused rest.
void World::CheckOverlaps() {
  const std::vector<VeskBuffer*> blocks = Blocks();
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    for (std::size_t j = i + 1; j < blocks.size(); ++j) {
      const VeskBuffer &outer = *blocks[i], &inner = *blocks[j];
      if (BlockEnd(outer) <= inner.off || inner.blen == 0) continue;
      const auto& allowed = known_[&inner].made_inside;
      if (std::find(allowed.begin(), allowed.end(), &outer) == allowed.end()) {
        Break("blocks at " + std::to_string(outer.off) + " and " + std::to_string(inner.off) +
              " overlap");
      }
      const unsigned long end = std::min(DataEnd(outer), DataEnd(inner));
      for (unsigned long at = inner.off; at < end; ++at) allowed_[at - base_] |= ever_[at - base_];
    }
  }
}

void World::CheckStore() {
  for (std::size_t i = 0; i < settings_.span; ++i) {
    if (!allowed_[i].test(StoredByte(i))) {
      Break("the store has " + std::to_string(StoredByte(i)) + " at " + std::to_string(base_ + i));
    }
  }
}

// ---- the bytes of the file ----------------------------------------------------------------------

void World::Accepted(unsigned long off, const std::vector<unsigned char>& bytes,
                     std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t at = off - base_ + i;
    allowed_[at].reset();
    allowed_[at].set(bytes[i]);
    if (at >= zero_from_) allowed_[at].set(0);
    ever_[at].set(bytes[i]);
  }
  if (count == 0) return;
  NoteMarksBefore(off + count - 1);
  content_end_ = std::max(content_end_, off + count);
}

void World::PerhapsAccepted(unsigned long off, const std::vector<unsigned char>& bytes) {
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    allowed_[off - base_ + i].set(bytes[i]);
    ever_[off - base_ + i].set(bytes[i]);
  }
  NoteMarksBefore(off + bytes.size() - 1);
  content_end_ = std::max(content_end_, off + bytes.size());
}

// The file has grown to `off` or beyond. A mark of its end stays on a block before that until a
// block is appended or the owner takes it off, and a read behind the mark may find a hole.
void World::NoteMarksBefore(unsigned long off) {
  for (const VeskBuffer* const block : Blocks()) {
    const bool may_get_one = Is(*block, VeskBuffer::IOR) && HasEnded(block->job);
    if ((Is(*block, VeskBuffer::END_OF_FILE) || may_get_one) && block->off <= off) {
      MayBeZeroFrom(block->off);
    }
  }
}

void World::MayBeZeroFrom(unsigned long off) {
  if (settings_.careful != 0) return;  // it takes the marks off
  zero_from_ = std::min(zero_from_, off - base_);
  for (std::size_t i = zero_from_; i < settings_.span; ++i) {
    allowed_[i].set(0);
    ever_[i].set(0);
  }
}

void World::CheckRead(const Call& call, const Result& result) {
  if (result.value > call.len) Break("a read of more than was asked for");
  for (std::size_t i = 0; i < result.bytes.size(); ++i) {
    const unsigned char byte = result.bytes[i];
    if (i >= result.value) {
      if (byte != kUntouched) Break("a read that wrote beyond what it returned");
    } else if (!allowed_[call.off - base_ + i].test(byte)) {
      Break("read " + std::to_string(byte) + " at " + std::to_string(call.off + i));
    }
  }
  if ((result.value == 0) != result.eof && result.value == 0) {
    Break("a read of nothing, and no end of file");
  }
  if (result.eof && result.value != 0) Break("an end of file behind bytes");
}

// ---- the end ------------------------------------------------------------------------------------

void World::Settle() {
  store_repaired_ = true;
  GiveMemoryBack();
  in_wait_.clear();
  step_for_wait_ = false;
  wait_how_ = 3;
  doing_ = "settling";
  Tell(doing_);
  for (int round = 0; round < kMostRounds && !over(); ++round) {
    EndAll();
    if (settings_.careful != 0) Collect();
    bool clean = true;
    for (const Part& part : parts_) {
      Call call;
      call.op = Op::kFlush;
      call.stream = part.stream;
      call.flags[0] = true;
      if (Perform(call).code != 0) clean = false;
      call.op = Op::kDirty;
      call.flags[0] = false;
      if (Perform(call).value != 0) clean = false;
    }
    if (clean) break;
  }
  if (over()) return;
  Check();
  CheckJobs();
  CheckStore();
  for (const VeskBuffer* const block : Blocks()) {
    if (!Is(*block, VeskBuffer::VALID | VeskBuffer::INV)) {
      Break("a block that cannot be written back");
    }
  }
}

std::string World::Fingerprint() const {
  std::ostringstream text;
  const auto blocks = Blocks();
  const auto place = [&](const VeskBuffer* block) {
    return std::find(blocks.begin(), blocks.end(), block) - blocks.begin();
  };
  for (const Part& part : parts_) {
    const VeskStream& stream = *streams_[part.stream];
    text << '/' << part.stream << ' ' << part.begin << ' ' << stream.curr_off << ' '
         << stream.curr_len << ' ' << stream.curr_pos << ' '
         << (stream.last_buffer == nullptr ? -1 : place(stream.last_buffer)) << ' '
         << stream.pending_io;
    for (const VeskBuffer* const b : stream.buffers) {
      text << ';' << std::min(b->skip, 5u) << ' ' << b->size << ' ' << b->state << ' ' << b->off
           << ' ' << b->dlen << ' ' << b->blen << ' ' << b->dirty_length << ' ' << b->rc << ' ';
      if (settings_.refresh != 0)
        text << clock_now - static_cast<time_t>(b->ltime) << ' ' << (b->ltime == 0);
      text.write(reinterpret_cast<const char*>(b->bptr), b->dlen);
      if (b->job != nullptr) text << 'j' << HasEnded(b->job) << b->job->return_value;
      const auto known = known_.find(b);
      if (known == known_.end()) continue;
      for (const VeskBuffer* const outer : known->second.made_inside) {
        // One that is gone says no more than that there was one.
        text << 'i' << place(outer);
      }
    }
  }
  for (const Flight& flight : flights_) {
    if (!flight.ended) text << 'f' << flight.off << flight.is_write;
  }
  for (const Step& step : in_wait_) text << 'w' << ToText(step);
  text << VeskJob::allocate_null << vesk::VeskOP::allocate_null << step_for_wait_ << ' '
       << zero_from_ << ' ' << content_end_ << ' ' << writes_ % settings_.values << ' '
       << store_.size() << ' ';
  for (const unsigned char byte : store_) text << byte;
  for (std::size_t i = 0; i < settings_.span; ++i) {
    text << ' ' << std::hash<Bytes>()(allowed_[i]) << ' ' << std::hash<Bytes>()(ever_[i]);
  }
  return text.str();
}

// ---- whole runs ---------------------------------------------------------------------------------

Outcome RunCase(const Case& c, const Faults& faults, bool tells) {
  Outcome outcome;
  World::Name();  // made once, and kept
  const long live_before = LiveAllocations();
  const int jobs_before = VeskJob::live;
  {
    World world(c.settings, faults);
    world.tells = tells;
    for (const Step& step : c.steps) world.Do(step);
    world.Settle();
    const SparedAllocations spared;
    outcome.broken = world.broken();
    outcome.allocation_failed = world.AllocationFailed();
    outcome.job_failed = world.JobFailed();
    outcome.over = world.over();
  }
  const long left = LiveAllocations() - live_before;
  if (outcome.broken.empty() && (left != 0 || VeskJob::live != jobs_before)) {
    outcome.broken = "left in memory: " + std::to_string(left) + " allocations, " +
                     std::to_string(VeskJob::live - jobs_before) + " jobs";
  }
  return outcome;
}

}  // namespace vesk_test
