// What a run of the driver is made of: settings, and steps that mean something in any order.
//
// Both have a text form, one line together, so that a case that was found is kept as one line:
//   block=4 maxbufs=2 ... | write 0 3 0 | flush 1 0 0 | end 0 0 0

#ifndef TESTS_EXHAUSTIVE_STEPS_H_
#define TESTS_EXHAUSTIVE_STEPS_H_

#include <array>
#include <cstddef>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace vesk_test {

struct Settings {
  unsigned int base = 0;      // which of kBases the file's first cached byte lies at
  unsigned int span = 24;     // bytes from there that may be cached
  unsigned int stored = 12;   // bytes that the store has at first
  unsigned int block = 4;     // bytes of a new block
  unsigned int maxbufs = 3;   // blocks above which an old one is dropped
  unsigned int ahead = 0;     // blocks kept ahead of a reader
  unsigned int refresh = 0;   // refresh_interval
  unsigned int covered = 0;   // bytes that the stream covers at first
  unsigned int pool = 1;      // a thread pool is there
  unsigned int careful = 0;   // the caller takes the ends of jobs itself, before the cache does
  unsigned int lies = 0;      // the store may tell of an end of file, or come short, where none is
  unsigned int values = 250;  // bytes that writes choose from
};

constexpr std::array<unsigned long, 4> kBases = {0, 0xfffffffaUL, (1UL << 40) + 1, 1UL << 62};

enum class Kind : std::uint8_t {
  kRead,       // a: offset, b: length, c: what a wait does
  kReadAll,    // the same, repeated until it is served
  kWrite,      // a: offset, b: length, c: what a wait does, and the write mode
  kWriteAll,   // the same, repeated until it is served
  kReadAhead,  // a: offset, b: blocks more or fewer than the settings say
  kFlush,      // a: bits of wait, write mode, ignore reads, current only; c: what a wait does
  kDirty,      // a: ignore reads
  kShrink,     // a: offset, b: most blocks, c: what a wait does
  kTruncate,   // a: new length
  kSplit,      // a: offset
  kAllocate,   // a: which gap, b: length, c: left empty, written, or read
  kEnd,        // a: which of the jobs in flight, b: how it ends, c: bytes
  kClock,      // a: seconds, b: forward or back
  kRemoveEof,
  kLength,
  kReap,  // a: which block; its job's end is taken, as by a thread that is woken by it
  kDump,
  kNoMemory,  // a: for the next operation of the cache, or for its next job
  kInWait,  // the next step is taken inside the next wait, by a thread that had the lock meanwhile
};
constexpr unsigned int kKinds = 19;

struct Step {
  Kind kind = Kind::kRead;
  std::uint8_t a = 0, b = 0, c = 0;
};

using Steps = std::vector<Step>;

struct Case {
  Settings settings;
  Steps steps;
};

// Brings any numbers into the bounds between which a run is meaningful, and short.
Settings Valid(Settings settings);

std::string ToText(const Step& step);
std::string ToText(const Case& c);
// Throws std::invalid_argument at a word that it does not know.
Case FromText(const std::string& text);

Case RandomCase(std::mt19937& random);

// Any bytes are a case; a few select the settings, each four of the rest are a step.
Case FromBytes(const std::uint8_t* bytes, std::size_t count);

}  // namespace vesk_test

#endif  // TESTS_EXHAUSTIVE_STEPS_H_
