// Everything a command stands on, brought up and taken down in the right order.

#ifndef PROGRAMS_CLI_WORLD_H_
#define PROGRAMS_CLI_WORLD_H_

#include <atomic>
#include <memory>
#include <string>

#include "files/file.h"
#include "programs/cli/options.h"
#include "runtime/runtime.h"
#include "runtime/signals.h"

namespace vesk_cli {

class World {
 public:
  //   Ends in  what VeskRuntime's constructor throws
  World(const Options& options, vesk::Settings& settings);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  vesk::VeskRuntime& runtime() { return *runtime_; }
  vesk::Store& store() { return runtime_->store(); }
  const Options& options() const { return options_; }
  vesk::CacheShape shape() const;

  // For a request that begins now.
  vesk::RequestLimits NewLimits() { return runtime_->NewLimits(&cancel_); }

  // A copy is called off by SIGINT, SIGTERM and SIGHUP, so that it can clean up: the signal, 0:
  // none. A second one, a second or more later, ends the program at once. SIGHUP re-reads the
  // configuration instead where there is one.
  int interrupted_by() const { return interrupted_by_; }

  // For cleaning up: a store that does not answer holds that up no longer than the setting
  // shutdown-timeout. Not inside a scope with NewLimits, whose limits would hold as well.
  vesk::RequestLimits LeavingLimits();

  // Calls off every request that has NewLimits, for another reason than a signal.
  void CallOff() { cancel_.Cancel(); }

  // Writes "vesk: cannot <what> '<name>': <reason>" to standard error; returns kExitFailed.
  static int Fail(const std::string& what, const std::string& name, const std::string& reason);
  static int Fail(const std::string& what, const std::string& name, int error);

  // The same for a request to `file`, whose own failures are told apart from the store's.
  static int Fail(const std::string& what, const std::string& name, const vesk::File& file,
                  int error);

  // A regular file that can be read. 0, or the exit status after a message.
  int CheckSource(const std::string& name, vesk::FileInfo* info);

  // Tells what happened, for someone who has never seen the cache: `verb` bytes, time, requests
  // answered from memory, jobs, waits. `reader` and `writer` may be null.
  void Report(const std::string& verb, std::uint64_t bytes, const vesk::File* reader,
              const vesk::File* writer);

 private:
  void Signalled(int signal_number);
  void ReloadSettings();

  const Options& options_;
  vesk::Settings& settings_;
  vesk::CancelToken cancel_;
  std::atomic<int> interrupted_by_{0};
  std::atomic<vesk::Clock::Time> interrupted_at_{};
  vesk::Clock::Time begin_;
  vesk::Mutex reload_mutex_;  // held while the runtime is made, and while settings are read again
  std::unique_ptr<vesk::VeskRuntime> runtime_;
  std::unique_ptr<vesk::SignalWatcher>
      signals_;  // made before all other threads, ended before them
};

// Bytes that a command moves at a time.
std::size_t ChunkSize(const vesk::CacheShape& shape);

}  // namespace vesk_cli

#endif  // PROGRAMS_CLI_WORLD_H_
