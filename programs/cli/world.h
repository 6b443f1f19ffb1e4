// Everything a command stands on, brought up and taken down in the right order.

#ifndef PROGRAMS_CLI_WORLD_H_
#define PROGRAMS_CLI_WORLD_H_

#include <chrono>
#include <memory>
#include <string>

#include "files/file.h"
#include "programs/cli/options.h"
#include "runtime/backend_threads.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskEnv.h"

namespace vesk_cli {

// One at a time: it sets gEnv.
class World {
 public:
  explicit World(const Options& options);
  ~World();
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  vesk::VeskBackend& backend() { return backend_; }
  vesk::VeskBundler& bundler() { return bundler_; }
  const Options& options() const { return options_; }

  // Writes "vesk: cannot <what> '<name>': <reason>" to standard error; returns kExitFailed.
  static int Fail(const std::string& what, const std::string& name, const std::string& reason);
  static int Fail(const std::string& what, const std::string& name, int error);

  // The same for a request to `file`, whose own failures are told apart from the store's.
  static int Fail(const std::string& what, const std::string& name, const vesk::File& file,
                  int error);

  // A regular file that can be read. 0, or the exit status after a message.
  int CheckSource(const std::string& name, vesk::VeskBackend::FileInfo* info);

  // Tells what happened, for someone who has never seen the cache: `verb` bytes, time, requests
  // answered from memory, jobs, waits. `reader` and `writer` may be null.
  void Report(const std::string& verb, std::uint64_t bytes, const vesk::File* reader,
              const vesk::File* writer) const;

 private:
  const Options& options_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  const std::unique_ptr<vesk::VeskLogger> logger_;
  vesk::VeskSettings settings_;
  vesk::VeskEnv env_;
  vesk::ThreadsBackend backend_;
  vesk::VeskBundler bundler_;
};

// Bytes that a command moves at a time.
std::size_t ChunkSize(const vesk::CacheShape& shape);

}  // namespace vesk_cli

#endif  // PROGRAMS_CLI_WORLD_H_
