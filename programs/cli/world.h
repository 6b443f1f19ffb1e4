// Everything a command stands on, brought up and taken down in the right order.

#ifndef PROGRAMS_CLI_WORLD_H_
#define PROGRAMS_CLI_WORLD_H_

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "files/file_system.h"
#include "programs/cli/options.h"
#include "programs/cli/progress.h"
#include "runtime/runtime.h"
#include "runtime/signals.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskJob.h"

namespace vesk_cli {

// Bytes that a command moves at a time: many enough for a request to cost nothing beside them, few
// enough to be moved soon.
constexpr std::size_t kChunkSize = 256u << 10;

// A job of the command itself; unlike the store's operations it can be waited for once more when
// the calling thread's request (RequestScope) has met its limits.
class OwnJob {
 public:
  //   Owns     the caller's reference to `job`; borrows `bundler`
  OwnJob(vesk::VeskBundler& bundler, vesk::VeskJob* job) : bundler_(bundler), job_(job) {
    bundler.SubmitJob(job);
  }
  ~OwnJob() { vesk::VeskJob::RefCountDec(job_); }
  OwnJob(const OwnJob&) = delete;
  OwnJob& operator=(const OwnJob&) = delete;

  //   Units    `tag` as for VeskBundler::WaitForJob
  //   Ends in  what the job ended in; ETIMEDOUT or ECANCELED when it has not
  int Wait(const char* tag);

 private:
  vesk::VeskBundler& bundler_;
  vesk::VeskJob* const job_;
};

class World {
 public:
  //   Ends in  what the constructors of VeskRuntime and FileSystem throw
  //            std::invalid_argument: the log would go into a file of the command
  World(const Options& options, vesk::Settings& settings);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  vesk::VeskRuntime& runtime() { return *runtime_; }
  vesk::Store& store() { return runtime_->store(); }
  vesk::FileSystem& files() { return *files_; }
  const Options& options() const { return options_; }
  const vesk::Settings& settings() const { return settings_; }

  // For a request that begins now.
  vesk::RequestLimits NewLimits() { return runtime_->NewLimits(&cancel_); }

  // A copy is called off by SIGINT, SIGTERM and SIGHUP, so that it can clean up: the signal, 0:
  // none. A second one, a second or more later, ends the program at once. SIGHUP re-reads the
  // configuration instead where there is one.
  int interrupted_by() const { return interrupted_by_; }

  // For cleaning up: a store that does not answer holds that up, all of it together, no longer than
  // the setting shutdown-timeout. Not inside a scope with NewLimits, whose limits would hold as
  // well; none of these follows.
  vesk::RequestLimits LeavingLimits();

  // Calls off every request that has NewLimits, for another reason than a signal.
  void CallOff() { cancel_.Cancel(); }

  // Opens the source, which is to be told of as what could not be `what`. `*info`: the file as the
  // store had it before, so that no change after this goes unseen.
  int OpenSource(const std::string& what, std::unique_ptr<vesk::FileHandle>* file,
                 vesk::FileInfo* info);

  // Looks at the source once more, past the cache: what was read of a file that is no longer as in
  // `before` may be parts of several states, and a file may hide its bytes behind a size of 0.
  // `consequence` ends the message.
  int CheckSource(const vesk::FileInfo& before, const std::string& consequence);

  // Writes "vesk: cannot <what> '<name>': <reason>" to standard error; returns kExitFailed.
  int Fail(const std::string& what, const std::string& name, const std::string& reason);
  // Inside the scope in which the request failed: its own limits are told as such.
  int Fail(const std::string& what, const std::string& name, int error);

  // The same for a request to `file`, whose own failures are told apart from the store's.
  int Fail(const std::string& what, const std::string& name, const vesk::FileHandle& file,
           const vesk::Status& status);

  // Writes "vesk: <text>" to standard error, on one line whatever is in a name.
  void Say(const std::string& text) {
    status_line_.Print("vesk: " + vesk::PrintableText(text, text.size()));
  }

  // Somebody is there to watch a copy, or it was asked for.
  bool ShowsProgress() const;
  StatusLine& status_line() { return status_line_; }

  // Time since the program was up.
  vesk::Clock::Duration Elapsed() { return runtime_->clock().Now() - begin_; }

  // Tells what happened, for someone who has never seen the cache: what memory answered, jobs,
  // waits. `written` is null where nothing was.
  void Report(const vesk::FileStats& read, const vesk::FileStats* written);

 private:
  std::string Reason(int error);
  int ReadFirstByte(bool* is_there);
  void Signalled(int signal_number);
  void ReloadSettings();

  const Options& options_;
  vesk::Settings& settings_;
  StatusLine status_line_{stderr};
  vesk::CancelToken cancel_;
  std::atomic<int> interrupted_by_{0};
  std::atomic<vesk::Clock::Time> interrupted_at_{};
  vesk::Clock::Time begin_;
  std::optional<vesk::Clock::Time> leave_by_;  // once something is cleaned up
  vesk::Mutex reload_mutex_;  // held while the runtime is made, and while settings are read again
  std::unique_ptr<vesk::VeskRuntime> runtime_;
  std::unique_ptr<vesk::FileSystem> files_;
  std::unique_ptr<vesk::SignalWatcher>
      signals_;  // made before all other threads, ended before them
};

}  // namespace vesk_cli

#endif  // PROGRAMS_CLI_WORLD_H_
