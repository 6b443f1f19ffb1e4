// A logger that writes lines of chosen levels to standard error.

#ifndef RUNTIME_LOG_STDERR_H_
#define RUNTIME_LOG_STDERR_H_

#include <cstdarg>

#include "vesk/VeskEnv.h"

namespace vesk {

// The logger's operations from the most talkative to the gravest.
enum class LogLevel { kDebug, kTrace, kInfo, kDump, kError };

// Writes "<time> <level> <file>:<site> <text>", one line a call, whatever newlines the text ends
// with; other control characters become \xNN, so that a file's name cannot fake a line.
//   Units    time is UTC
//   Ends in  return only; a line that cannot be written is dropped
//   Threads  any; a line is one write(2), so lines of several threads do not mix
class StderrLogger : public VeskLogger {
 public:
  // Lines below `lowest` are discarded.
  explicit StderrLogger(LogLevel lowest) : lowest_(lowest) {}

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

 private:
  static void Write(const char* level, const LogSite& site, const char* format, va_list arguments)
      __attribute__((format(printf, 3, 0)));

  const LogLevel lowest_;
};

}  // namespace vesk

#endif  // RUNTIME_LOG_STDERR_H_
