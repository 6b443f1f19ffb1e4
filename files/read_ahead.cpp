#include "files/read_ahead.h"

#include <algorithm>
#include <chrono>

namespace vesk {

namespace {

constexpr unsigned kFirstBlocks = 4;
constexpr std::uint64_t kFirstBytes = 256u << 10;
constexpr std::uint64_t kSmallestStep = 32u << 10;  // smaller blocks are asked for in batches
constexpr unsigned kFollowsToConfirm = 2;
constexpr std::uint64_t kFar = std::numeric_limits<std::uint64_t>::max();

// Offsets may be anywhere: sums stop at the largest number, differences at 0.
std::uint64_t Add(std::uint64_t a, std::uint64_t b) { return b > kFar - a ? kFar : a + b; }
std::uint64_t Sub(std::uint64_t a, std::uint64_t b) { return a > b ? a - b : 0; }
std::uint64_t Times(std::uint64_t factor, std::uint64_t a) {
  return a > kFar / factor ? kFar : factor * a;
}

// How far from where it was expected a read may begin: threads, kernels and networks reorder, and
// readers leave out what they need not see.
std::uint64_t NearUnconfirmed(std::uint64_t length) { return Times(2, length); }
std::uint64_t NearConfirmed(std::uint64_t length) { return Times(4, length); }

double Seconds(Clock::Duration time) { return std::chrono::duration<double>(time).count(); }

}  // namespace

ReadAhead::ReadAhead(unsigned block_size, unsigned max_blocks)
    : block_size_(block_size), max_blocks_(max_blocks) {
  const MutexLock hold(mutex_);
  Publish();
}

FetchWindow ReadAhead::OnRead(std::uint64_t offset, std::uint64_t length, bool missed,
                              std::uint64_t size, Clock::Time now, Clock::Duration latency) {
  if (length == 0 || offset >= size) return {};
  const std::uint64_t end = offset + std::min(length, size - offset);
  const Read read{offset, end, end - offset, missed, size, now, latency};
  const MutexLock hold(mutex_);
  const FetchWindow window = Decide(read);
  first_ = false;
  Publish();
  return window;
}

void ReadAhead::Shrink() {
  const MutexLock hold(mutex_);
  for (Run& run : runs_) run.window = Halved(run.window);
  Publish();
}

void ReadAhead::Advise(Advice advice) {
  if (advice == Advice::kWillNeed || advice == Advice::kDontNeed) return;
  const MutexLock hold(mutex_);
  advice_ = advice;
  for (Run& run : runs_) {
    if (Limit() == 0) run = Run();
    run.window = Clamp(run.window);
  }
  Publish();
}

// ---- numbers of blocks ----

std::uint64_t ReadAhead::RoundUp(std::uint64_t bytes) const {
  return BlockOf(Add(bytes, block_size_ - 1));
}

// No window is above it; 0: nothing is ever fetched ahead.
std::uint64_t ReadAhead::Limit() const {
  switch (advice_) {
    case Advice::kRandom: return 0;
    case Advice::kSequential:
      return block_size_ * std::min(FileSystemOptions::kMaxReadAhead, 2 * max_blocks_);
    default: return block_size_ * max_blocks_;
  }
}

std::uint64_t ReadAhead::Clamp(std::uint64_t window) const {
  return std::min(std::max(RoundUp(window), block_size_), Limit());
}

std::uint64_t ReadAhead::FirstWindow() const {
  return Clamp(std::max(kFirstBlocks * block_size_, kFirstBytes));
}

std::uint64_t ReadAhead::Halved(std::uint64_t window) const {
  return std::max(BlockOf(window / 2), block_size_);
}

// What is asked for at once at least, in the middle of a file.
std::uint64_t ReadAhead::Step(std::uint64_t window) const {
  return std::max(block_size_, std::min(kSmallestStep, window / 4));
}

// ---- where a run is ----

std::uint64_t ReadAhead::BlockEnd(const Run& run) const { return Add(run.block, block_size_); }

// Where the block begins with which the window lacks a step.
std::uint64_t ReadAhead::RefillAt(const Run& run) const {
  const std::uint64_t block_end = RoundUp(Sub(Add(run.ahead_end, Step(run.window)), run.window));
  return std::max(BlockEnd(run), Sub(block_end, block_size_));
}

// Where the next read is expected that is told of. Hits before it are not.
std::uint64_t ReadAhead::Expected(const Run& run) const {
  return run.skipped ? run.end : RefillAt(run);
}

// A read of `length` bytes that begins beyond it belongs to another reader.
std::uint64_t ReadAhead::ReachOf(const Run& run, std::uint64_t length) const {
  const std::uint64_t window_end = std::max(run.ahead_end, Add(BlockEnd(run), run.window));
  return Add(window_end, std::max(run.window, NearConfirmed(length)));
}

// A late read of a confirmed run, of bytes before the block being read. Others have none.
bool ReadAhead::IsBehind(const Run& run, const Read& read) const {
  return read.last() < run.block &&
         read.offset >= Sub(run.block, std::max(run.window, NearConfirmed(read.length)));
}

// How far the read is from where the run goes on; kFar: it is none of its reads.
std::uint64_t ReadAhead::Distance(const Run& run, const Read& read) const {
  if (run.state == State::kFree) return kFar;
  if (run.state == State::kUnconfirmed) {
    const std::uint64_t gap = read.offset > run.end ? read.offset - run.end : run.end - read.offset;
    return gap <= NearUnconfirmed(read.length) ? gap : kFar;
  }
  if (read.last() < run.block || read.offset > ReachOf(run, read.length)) return kFar;
  return Sub(read.offset, BlockEnd(run));
}

// Two readers may be close together: the one that the read fits best is taken.
ReadAhead::Run* ReadAhead::Nearest(const Read& read) {
  Run* nearest = nullptr;
  std::uint64_t least = kFar;
  for (Run& run : runs_) {
    const std::uint64_t distance = Distance(run, read);
    if (distance >= least) continue;
    least = distance;
    nearest = &run;
  }
  return nearest;
}

// ---- what a read does ----

FetchWindow ReadAhead::Decide(const Read& read) {
  if (Limit() == 0) return {};
  Run* const run = Nearest(read);
  if (run == nullptr) return Begin(read);
  run->used = ++calls_;
  return run->state == State::kConfirmed ? Follow(*run, read) : Continue(*run, read);
}

FetchWindow ReadAhead::Begin(const Read& read) {
  const bool behind =
      std::any_of(runs_.begin(), runs_.end(), [&](const Run& run) { return IsBehind(run, read); });
  const bool at_once =
      (first_ && read.offset == 0) || (read.missed && advice_ == Advice::kSequential && !behind);
  if (!read.missed && !at_once) return {};
  // A late miss begins a run as well: it may be a second reader, close behind the first.
  Run& run = *std::min_element(runs_.begin(), runs_.end(),
                               [](const Run& a, const Run& b) { return a.used < b.used; });
  run = Run();
  run.state = State::kUnconfirmed;
  run.used = ++calls_;
  run.begin = read.offset;
  run.end = read.end;
  run.length = run.read = read.length;
  if (!at_once) return {};
  return Confirm(run, read, FirstWindow(), read.missed ? BlockOf(read.offset) : read.end);
}

FetchWindow ReadAhead::Continue(Run& run, const Read& read) {
  const std::uint64_t begin = std::min(run.begin, read.offset);
  const std::uint64_t end = std::max(run.end, read.end);
  // Bytes read again are no sign of a sequence; those that an earlier read left out are.
  const bool adds = end > run.end || Add(run.read, read.length) <= end - begin;
  if (!adds) return {};
  run.begin = begin;
  run.end = end;
  run.length = read.length;
  run.read = Add(run.read, read.length);
  ++run.follows;
  const std::uint64_t from = read.missed ? read.offset : read.end;
  if (advice_ == Advice::kSequential) return Confirm(run, read, FirstWindow(), from);
  if (run.follows < kFollowsToConfirm) return {};
  return Confirm(run, read, Clamp(Times(2, end - begin)), from);
}

FetchWindow ReadAhead::Confirm(Run& run, const Read& read, std::uint64_t window,
                               std::uint64_t from) {
  run.state = State::kConfirmed;
  run.block = BlockOf(run.end - 1);
  run.window = window;
  run.ahead_end = from;
  return Refill(run, read.size);
}

FetchWindow ReadAhead::Follow(Run& run, const Read& read) {
  const bool orderly = read.offset <= Add(Expected(run), NearConfirmed(read.length));
  const bool skips_again = run.skipped && !orderly;
  run.skipped = !orderly;
  run.end = read.end;
  run.length = read.length;
  run.block = std::max(run.block, BlockOf(read.last()));
  if (read.missed && read.offset < run.ahead_end) {
    run.ahead_end = BlockOf(read.offset);  // it was dropped before it was read
  } else {
    run.ahead_end = std::max(run.ahead_end, read.missed ? read.offset : read.end);
  }
  if (skips_again) {
    Distrust(run, read);
    return {};
  }
  if (orderly) Adapt(run, read);
  const bool lacks_step = Add(BlockEnd(run), run.window) >= Add(run.ahead_end, Step(run.window));
  return lacks_step ? Refill(run, read.size) : FetchWindow();  // after a miss it does
}

// A second gap before the reader went on after the first: it looks like random reads that happen to
// be near. Without this a window would catch a part of them, grow with it, and catch more.
void ReadAhead::Distrust(Run& run, const Read& read) {
  if (run.window > block_size_) {
    run.window = Halved(run.window);
    return;
  }
  const std::uint64_t used = run.used;
  run = Run();
  run.state = State::kUnconfirmed;
  run.used = used;
  run.begin = read.offset;
  run.end = read.end;
  run.length = run.read = read.length;
}

void ReadAhead::Adapt(Run& run, const Read& read) {
  if (!run.timing) {  // not since the run began: that time was a wait for the first fetch
    run.timing = true;
    run.since = read.now;
    run.since_block = run.block;
  } else if (read.latency > Clock::Duration::zero() && read.now - run.since >= read.latency &&
             run.block > run.since_block) {
    Measure(run, read);
  }
  if (run.speed <= 0) run.window = Clamp(2 * run.window);
}

// A reader that waits for the store comes in bursts, one per fetch. Measured over less time than
// that, its speed would be that of memory or nothing.
void ReadAhead::Measure(Run& run, const Read& read) {
  const double speed =
      static_cast<double>(run.block - run.since_block) / Seconds(read.now - run.since);
  run.speed = run.speed > 0 ? (run.speed + speed) / 2 : speed;
  run.since = read.now;
  run.since_block = run.block;
  const double wanted =
      std::min(2 * Seconds(read.latency) * run.speed, static_cast<double>(Limit()));
  const std::uint64_t target = Clamp(static_cast<std::uint64_t>(wanted));
  if (target >= run.window) {
    run.window = std::min(target, 2 * run.window);
  } else {  // slowly, since one pause of the reader says little
    const std::uint64_t less = std::max(BlockOf(run.window / 4), block_size_);
    run.window = std::max(target, run.window - less);
  }
}

FetchWindow ReadAhead::Refill(Run& run, std::uint64_t size) const {
  const FetchWindow window{run.ahead_end, std::min(size, Add(BlockEnd(run), run.window))};
  if (window.Empty()) return {};
  run.ahead_end = window.to;
  return window;
}

void ReadAhead::Publish() {
  std::uint64_t largest = 0;
  for (std::size_t i = 0; i < kRuns; ++i) {
    const Run& run = runs_[i];
    std::uint64_t from = kFar;
    std::uint64_t to = 0;
    if (run.state == State::kUnconfirmed) {  // onwards only: a hit is not to be heard of twice
      from = run.end;
      to = Add(run.end, Add(NearUnconfirmed(run.length), 1));
    } else if (run.state == State::kConfirmed) {
      from = Expected(run);
      to = Add(ReachOf(run, run.length), 1);
      largest = std::max(largest, run.window);
    } else if (first_ && Limit() > 0) {  // the first read is heard of, wherever it is
      from = 0;
      to = kFar;
    }
    triggers_[i].from.store(from, std::memory_order_relaxed);
    triggers_[i].to.store(to, std::memory_order_relaxed);
  }
  window_.store(largest, std::memory_order_relaxed);
}

}  // namespace vesk
