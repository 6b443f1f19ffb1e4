// Everything that the cache and the layer above it stand on, as one object.

#ifndef RUNTIME_RUNTIME_H_
#define RUNTIME_RUNTIME_H_

#include <memory>
#include <string>

#include "runtime/clock.h"
#include "runtime/dispatcher.h"
#include "runtime/logger.h"
#include "runtime/reaper.h"
#include "runtime/request.h"
#include "runtime/services.h"
#include "runtime/settings.h"
#include "runtime/store.h"
#include "vesk/VeskBundler.h"

namespace vesk {

// A server is up with
//
//     vesk::Settings settings;
//     settings.store = "posix,retry";
//     vesk::VeskRuntime runtime(settings);
//     vesk::FileSystem files(runtime.services(), runtime.store(), vesk::OptionsFrom(settings));
//     std::unique_ptr<vesk::FileHandle> file;
//     if (files.Open("a.bin", {}, &file).ok()) { ... file->ReadAt(...
//
// Logger, store (as `settings.store` describes it), dispatcher and reaper are made in this order
// and taken down in the opposite one; gEnv is set from the constructor to the destructor.
//   Owns     all of its parts; borrows settings and clock, which outlive it
//   Before   one object at a time; every file system is destroyed before it is
//   Threads  made and destroyed by one thread; everything in between from any
class VeskRuntime {
 public:
  //   Ends in  std::invalid_argument: `settings.store` cannot be understood or had here, the text
  //            says what would be right; std::system_error, std::runtime_error: a thread or the log
  //            file cannot be had
  explicit VeskRuntime(Settings& settings, Clock& clock = Clock::System());

  // Stop, for who has not called it.
  ~VeskRuntime();

  VeskRuntime(const VeskRuntime&) = delete;
  VeskRuntime& operator=(const VeskRuntime&) = delete;

  Store& store();
  VeskBundler& bundler();
  Dispatcher& dispatcher() { return bundler().dispatcher(); }
  Logger& logger();
  Reaper& reaper();
  RetryDecorator* retry();  // null: the store has none
  Clock& clock() { return clock_; }

  // What the store turned out to be: "io_uring", "threads" or "memory".
  const std::string& backend_name() const;

  // For a FileSystem.
  Services services();

  // Limits for a request that begins now: the setting request-timeout, and `cancel`, which may be
  // null.
  RequestLimits NewLimits(CancelToken* cancel = nullptr);

  // Call after live settings were changed: takes over those that are not read afresh at each use.
  void SettingsChanged();

  // Waits for every job, for as long as the setting shutdown-timeout; then ends what has not
  // reached the store (ESHUTDOWN), and waits as long again for the rest. No job starts from now on.
  //   After    true: all is taken down. False: jobs are stuck inside the store; a line of the log
  //   says
  //            how many, and what they use is left in memory
  bool Stop();

 private:
  struct Parts;

  Settings& settings_;
  Clock& clock_;
  std::unique_ptr<Parts> parts_;
  bool stopped_ = false;
};

}  // namespace vesk

#endif  // RUNTIME_RUNTIME_H_
