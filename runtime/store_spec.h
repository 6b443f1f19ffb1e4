// A store and what stands in front of it, described by one line of text.

#ifndef RUNTIME_STORE_SPEC_H_
#define RUNTIME_STORE_SPEC_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "runtime/backend.h"
#include "runtime/clock.h"
#include "runtime/decorator_faults.h"
#include "runtime/decorator_latency.h"
#include "runtime/decorator_retry.h"
#include "vesk/VeskEnv.h"

namespace vesk {

struct Settings;

struct RetryOptions {
  std::optional<std::uint64_t> seed;  // none: one that no other server has
};

struct StoreSpec {
  enum class Backend { kAuto, kPosix, kUring, kMemory };
  using Decorator = std::variant<LatencyDecorator::Options, FaultRule, RetryOptions>;

  Backend backend = Backend::kAuto;
  std::vector<Decorator> decorators;  // each stands in front of those before it
};

// Reads a description: items joined by ',', as in
//   posix,latency=2ms,fault=write:EIO:every=100,retry
// First the backend:
//   auto     io_uring where the kernel offers it, otherwise posix
//   posix    the operating system's files, moved by threads
//   uring    the same files, moved by io_uring
//   memory   bytes in memory in front of the same files (MemoryBackend)
// Then decorators, each in front of all that stands before it; the same one may stand there twice:
//   latency=TIME[:jitter=TIME][:bandwidth=SIZE][:seed=N]     SIZE bytes a second, at least 1K
//   fault=OPERATIONS:EFFECT[:KEY=VALUE]...                   a rule of FaultsDecorator
//   retry[:seed=N]                                           RetryDecorator
// OPERATIONS are read, write, stat, open, create, truncate, nextdata, sync, rename, remove,
// setpermissions, transfers (read and write) or all, several joined by '+'. EFFECT is `short` (of
// reads), `never`, or an error by its name, as ENOSPC. KEYs are name=PATTERN, after=N, one of
// nth=N, every=N and chance=P (P from 0 to 1), seed=N, times=N and for=TIME. In a PATTERN a '?'
// stands for the ',' and
// ':' that it cannot have. Sizes and times are written as those of the settings; a time needs its
// unit.
//   After    true and `*spec`; or false, `*spec` unchanged, and what is wrong and what would be
//            right in `*why`, on one line
bool ParseStoreSpec(const std::string& text, StoreSpec* spec, std::string* why);

// The backends that a description stands for.
//   Owns     them all; borrows settings, clock and logger, which outlive it
//   Before   every job has ended when it is destroyed
class StoreStack {
 public:
  // The logger is told what `auto` has come to.
  //   Ends in  std::invalid_argument: the description asks for what cannot be had here, the text
  //            says why and what could; std::system_error: a thread cannot be started
  StoreStack(const StoreSpec& spec, const Settings& settings, Clock& clock, VeskLogger& logger);
  StoreStack(const StoreStack&) = delete;
  StoreStack& operator=(const StoreStack&) = delete;

  VeskBackend& top() { return *backends_.all.back(); }

  // The outermost one, or null.
  RetryDecorator* retry() { return retry_; }

  // "io_uring", "threads" or "memory".
  const std::string& backend_name() const { return backend_name_; }

 private:
  // Destroys from the outside in.
  struct Backends {
    Backends() = default;
    ~Backends();
    Backends(const Backends&) = delete;
    Backends& operator=(const Backends&) = delete;

    std::vector<std::unique_ptr<VeskBackend>> all;  // each borrows the one before it
  };

  void AddAuto(const Settings& settings, VeskLogger& logger);
  void AddUring(const Settings& settings);
  std::string TryUring(const Settings& settings);
  void AddThreads(const Settings& settings);
  void AddMemory(const Settings& settings);
  void AddDecorator(const StoreSpec::Decorator& decorator, const Settings& settings, Clock& clock);

  Backends backends_;
  std::string backend_name_;
  RetryDecorator* retry_ = nullptr;
};

}  // namespace vesk

#endif  // RUNTIME_STORE_SPEC_H_
