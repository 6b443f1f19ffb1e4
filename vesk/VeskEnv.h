// The environment of the cache: logger, settings, thread pool, reached through one global pointer.

#ifndef VESK_VESKENV_H_
#define VESK_VESKENV_H_

#include <atomic>
#include <string>
#include <utility>

namespace vesk {

struct VeskThreadPool;

// Where a log line comes from: the source file's base name and the site's own stable number.
using LogSite = std::pair<std::string, int>;

// Receives every log line, unfiltered; what is kept is the logger's decision.
//   Units    `format` and its arguments are printf's; each argument has exactly the type that its
//            conversion names
//   Owns     nothing: `site`, `format` and the arguments are read before the call returns
//   Ends in  return only; a sink that fails drops the line
//   Threads  any thread, several at once; called with the caller's VeskLock held, so an operation
//            neither takes a VeskLock nor calls into the cache
// The five operations keep this order: programs that were built against another version of this
// class rely on it.
class VeskLogger {
 public:
  // Decisions of the cache on one stream; by convention the line begins with the file's name.
  virtual void Debug(const LogSite& site, const char* format, ...)
      __attribute__((format(printf, 3, 4))) = 0;
  // Life of I/O jobs: created, waited for, done.
  virtual void Trace(const LogSite& site, const char* format, ...)
      __attribute__((format(printf, 3, 4))) = 0;
  // For the layers around the cache; the cache itself never calls it.
  virtual void Info(const LogSite& site, const char* format, ...)
      __attribute__((format(printf, 3, 4))) = 0;
  // Dumps of blocks and streams.
  virtual void Dump(const LogSite& site, const char* format, ...)
      __attribute__((format(printf, 3, 4))) = 0;
  // Failed checks (three lines each) and failed jobs.
  virtual void Error(const LogSite& site, const char* format, ...)
      __attribute__((format(printf, 3, 4))) = 0;
  virtual ~VeskLogger() = default;
};

// What can be set while requests run.
struct VeskSettings {
  // Seconds that a clean block may be served after its last job; 0 switches both the age check and
  // read-ahead off. Read afresh by every request.
  std::atomic<int> refresh_interval{0};
};

// Everything the cache reaches through `gEnv`. All three are borrowed.
struct VeskEnv {
  VeskThreadPool* thread_pool;  // null: finished jobs are only collected by later requests
  VeskLogger* logger;           // never null while a stream exists
  VeskSettings* settings;       // never null while a stream exists
};

// Null until the surrounding program sets it, which it does before the first stream exists; it
// stays until the last one is gone. The cache reads it afresh at each use and never changes it.
extern VeskEnv* gEnv;

}  // namespace vesk

#endif  // VESK_VESKENV_H_
