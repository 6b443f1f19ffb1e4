// The logger of a server: chosen operations go to standard error, a file, the system log; the last
// lines are kept in memory and written out when an assertion fires.

#ifndef RUNTIME_LOGGER_H_
#define RUNTIME_LOGGER_H_

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "vesk/VeskEnv.h"

namespace vesk {

// The operations of VeskLogger. Each is on or off by itself: none is graver than another.
enum LogOperation : unsigned {
  kLogDebug = 1,
  kLogTrace = 2,
  kLogInfo = 4,
  kLogDump = 8,
  kLogError = 16
};

using LogLevels = unsigned;  // a set of operations, as bits
constexpr LogLevels kLogNothing = 0;
constexpr LogLevels kLogEverything = 31;

// "off", "all", or a list such as "debug,error"; blanks around a word do not count.
//   Ends in  true and `*levels`; or false and `*why`, which lists the right words
bool ParseLogLevels(const std::string& text, LogLevels* levels, std::string* why);

// The set as ParseLogLevels takes it.
std::string LogLevelsText(LogLevels levels);

// The system log's priority for lines of an operation.
int SyslogPriority(LogOperation operation);

// One line a call, whatever newlines the text ends with; other control characters are escaped, so
// that a file's name cannot fake a line. A text is cut at 4095 bytes. Time is UTC.
//   text    <time> <level> <file>:<site> <text>                      control characters as \xNN
//   JSON    {"time":...,"level":...,"file":...,"site":...,"thread":...,"text":...}
//           always valid: bytes that are not UTF-8 as \xNN, control characters as \u00NN
//   syslog  <file>:<site> <text>; priority by operation, facility "daemon", never JSON; history as
//           text, since the system log adds a time that is not the line's
//
// Assertions: Error with the format "ASSERT failure::\n" is the first of the three lines of a
// failed check. Before it the ring is written to every sink, between a line that tells how many
// follow and one that ends them, each marked `history` behind its time; then the three lines
// follow. All that whatever the levels. What was written leaves the ring, and the three lines do
// not enter it, so the next assertion shows what came since.
//
//   Ends in  return only, errno as it was; a sink that fails drops its line and is tried again with
//            the next one
//   Threads  any; one mutex, a leaf: calls nothing that calls back. Lines appear in one order in
//            all sinks and in the ring, and their times in that order too. A sink that blocks holds
//            up every thread with a line to write; a discarded line takes no mutex. Not for signal
//            handlers, DumpRing and Reopen neither
class Logger : public VeskLogger {
 public:
  struct Options {
    LogLevels levels = kLogError;  // to the sinks
    LogLevels ring_levels = kLogInfo | kLogDump | kLogError;
    std::size_t ring_lines = 1000;  // memory is taken as lines come, some 4 KiB each at most

    // A program whose standard error may be a pipe ignores SIGPIPE, as every server does.
    bool to_stderr = true;

    // Appended to; empty: none. Each line is handed to the system at once, so a program that dies
    // loses none. Rotated files are named "log.1.txt" after "log.txt", the highest number is the
    // oldest; renaming needs a directory that may be written to, a file that cannot be renamed is
    // emptied instead.
    std::string file;
    std::uint64_t file_size = std::uint64_t{16} << 20;  // bytes; 0: never rotated from here
    unsigned file_count = 4;                            // files kept in all, at least 1

    bool json = false;  // lines of file and standard error as JSON
    bool to_syslog = false;
  };

  //   Ends in  std::system_error or std::runtime_error that names the file which cannot be opened
  explicit Logger(const Options& options);
  ~Logger() override;

  void Debug(const LogSite& site, const char* format, ...) override
      __attribute__((format(printf, 3, 4)));
  void Trace(const LogSite& site, const char* format, ...) override
      __attribute__((format(printf, 3, 4)));
  void Info(const LogSite& site, const char* format, ...) override
      __attribute__((format(printf, 3, 4)));
  void Dump(const LogSite& site, const char* format, ...) override
      __attribute__((format(printf, 3, 4)));
  void Error(const LogSite& site, const char* format, ...) override
      __attribute__((format(printf, 3, 4)));

  // Hold for lines that begin afterwards; take no mutex.
  void SetLevels(LogLevels levels);
  void SetRingLevels(LogLevels levels);

  // Writes the ring to every sink as an assertion does, and empties it. `reason` is quoted.
  void DumpRing(const std::string& reason);

  // Opens the log file anew by its name, for whoever has renamed it.
  //   Ends in  true; or false, with a line to all sinks that says why: the file so far stays in use
  bool Reopen();

  // Lines that a sink did not take, counted for each sink. The system log tells nobody of its own.
  std::uint64_t Dropped() const;

 private:
  class Core;

  bool Wants(LogOperation operation) const;
  void Replace(LogLevels mask, LogLevels levels);
  void Write(LogOperation operation, const LogSite& site, const char* format, va_list arguments)
      __attribute__((format(printf, 4, 0)));

  std::atomic<LogLevels> wanted_;  // of the sinks, and shifted up those of the ring
  const std::unique_ptr<Core> core_;
};

}  // namespace vesk

#endif  // RUNTIME_LOGGER_H_
