// How files are cached and opened, and what can be asked about them.

#ifndef FILES_OPTIONS_H_
#define FILES_OPTIONS_H_

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "runtime/clock.h"
#include "runtime/settings.h"

namespace vesk {

struct FileSystemOptions {
  // A stream refuses larger blocks (100 MiB and more) and 100 and more blocks ahead of a reader.
  static constexpr unsigned int kMaxBlockSize = (100u << 20) - 1;
  static constexpr unsigned int kMaxReadAhead = 99;

  // Bytes that all blocks of all files take together at most, those in flight and those whose
  // write-back fails included. At least 1; less than a block makes the blocks smaller.
  std::uint64_t memory = std::uint64_t{256} << 20;
  unsigned int block_size = 256u << 10;  // bytes of a sequential transfer, 1 to kMaxBlockSize
  unsigned int read_ahead = 8;           // blocks ahead of a reader at most; 0: none, ever

  // Bytes not yet in the store: from the first limit on they are written out and writers are slowed
  // down, at the second one writers wait. Both are cut to half of the memory and all of it.
  std::uint64_t dirty_soft = std::uint64_t{64} << 20;
  std::uint64_t dirty_hard = std::uint64_t{128} << 20;
  Clock::Duration dirty_age = std::chrono::seconds(5);  // older bytes are written out

  // What to do when the store cannot tell whether its file has changed.
  UnknownPolicy when_unknown = UnknownPolicy::kServe;
  // How long a request waits to be told whether the file has changed; then the store "cannot tell".
  Clock::Duration check_patience = std::chrono::seconds(1);

  // False: no thread; whoever owns the file system calls Tend() now and then.
  bool background = true;
};

struct OpenOptions {
  bool write = false;      // false: WriteAt and the like end in EBADF
  bool create = false;     // make the file when there is none; needs `write`
  bool exclusive = false;  // with `create`: EEXIST when there is one
  bool truncate = false;   // begin with no bytes; needs `write`
  mode_t permissions = 0644;
};

enum class Advice {
  kNormal,      // read ahead of what looks sequential
  kSequential,  // twice as far, and from the first request on
  kRandom,      // never
  kWillNeed,    // fetch the range now, as far as clean blocks make room
  kDontNeed,    // drop the range, but for what is not in the store yet
};

// What the store last said about a file.
enum class Freshness { kKnown, kChanged, kGone, kUnknown };

//   Units    bytes, requests
struct FileStats {
  std::string name;  // empty: all files together
  std::uint64_t size = 0;
  std::uint64_t cached = 0;     // held in blocks
  std::uint64_t dirty = 0;      // not in the store yet, those on their way included
  std::uint64_t in_flight = 0;  // held by blocks with a job
  std::uint64_t parked = 0;     // of those, in writes that have failed and are tried again
  Clock::Duration oldest_dirty{};
  int last_error = 0;           // of a write-back or sync, since the file was opened; 0: none
  std::uint64_t hits = 0;       // pieces of requests answered from memory at once
  std::uint64_t misses = 0;     // pieces that had to wait for the store
  std::uint64_t fetched = 0;    // bytes that came from the store
  std::uint64_t returned = 0;   // bytes handed to readers
  std::uint64_t window = 0;     // bytes ahead of the reader that is furthest ahead
  std::uint64_t streams = 0;    // ranges that the file is divided into
  std::uint64_t turns = 0;      // requests that had to take the file's turn to be served
  std::uint64_t repeats = 0;    // most tries again of a piece before it was served or took the turn
  std::uint64_t throttled = 0;  // writes slowed down or stopped by the limits for dirty bytes
  Clock::Duration throttled_time{};
  Freshness freshness = Freshness::kKnown;
};

}  // namespace vesk

#endif  // FILES_OPTIONS_H_
