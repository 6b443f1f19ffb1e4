// What a waiting user is shown of a transfer.

#ifndef PROGRAMS_CLI_PROGRESS_H_
#define PROGRAMS_CLI_PROGRESS_H_

#include <cstdint>
#include <cstdio>
#include <deque>
#include <string>

#include "runtime/clock.h"
#include "vesk/VeskMutex.h"

namespace vesk_cli {

// "1023 bytes", "976.6 KiB": powers of 1024.
std::string BytesText(double bytes);
std::string BytesText(std::uint64_t bytes);

// How far a transfer has come.
//   Units    bytes
struct Moved {
  std::uint64_t done = 0;     // of the file, from its start; holes that were passed over included
  std::uint64_t data = 0;     // of those, moved
  std::uint64_t unsaved = 0;  // of those, taken by the cache and not in the store yet
};

// Puts into words how far a transfer has come, how fast it is, and how long it will take. Takes
// numbers and times, prints nothing.
//   Threads  one at a time
class Progress {
 public:
  using Time = vesk::Clock::Time;
  using Duration = vesk::Clock::Duration;

  // The rate is that of the last so many seconds: long enough for a store that answers in bursts,
  // short enough to follow one that has become slow.
  static constexpr Duration kWindow = std::chrono::seconds(5);

  // Of `total` bytes, the first of which was waited for from `begin` on.
  Progress(std::uint64_t total, Time begin);

  // One line without its end, " 123.4 MiB of 256.0 MiB   48 %    35.1 MiB/s  ETA 0:03"; when all
  // is done the time left gives way to what has to be flushed. What has no place in `columns` less
  // one (terminals wrap a line that fills them) is left out; all of it, in the end.
  //   Before   `now` and `moved` do not go back
  std::string Line(const Moved& moved, Time now, unsigned columns);

 private:
  struct Sample {
    Time time;
    std::uint64_t data;
  };

  double Rate(std::uint64_t data, Time now);

  const std::uint64_t total_;
  std::deque<Sample> samples_;  // those of the window, and the last one before it; never empty
};

// The line at the end: "Copied 976.6 KiB in 0.51 s (1.9 MiB/s)".
std::string Summary(const std::string& verb, const Moved& moved, vesk::Clock::Duration time);

// The last line of a terminal, written over and over.
//   Owns     borrows the stream
//   Threads  any
class StatusLine {
 public:
  explicit StatusLine(std::FILE* stream) : stream_(stream) {}
  StatusLine(const StatusLine&) = delete;
  StatusLine& operator=(const StatusLine&) = delete;

  // Shows `text`, of one line, in the place of what was shown. Empty: nothing is shown any more.
  void Show(const std::string& text);

  // Prints `line` to stay; what was shown goes, until the next Show.
  void Print(const std::string& line);

 private:
  void Put(const std::string& text) VESK_REQUIRES(mutex_);

  std::FILE* const stream_;
  vesk::Mutex mutex_;
  bool shown_ VESK_GUARDED_BY(mutex_) = false;  // something is
};

// Columns of the terminal behind `fd`: what the environment says (COLUMNS), else the terminal, else
// 80.
unsigned TerminalColumns(int fd);

}  // namespace vesk_cli

#endif  // PROGRAMS_CLI_PROGRESS_H_
