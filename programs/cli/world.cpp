#include "programs/cli/world.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <system_error>
#include <vector>

#include "runtime/decorator_retry.h"

namespace vesk_cli {

namespace {

std::string Bytes(double bytes) {
  static const char* const kUnits[] = {"bytes", "KiB", "MiB", "GiB", "TiB"};
  std::size_t unit = 0;
  for (; bytes >= 1024 && unit + 1 < std::size(kUnits); ++unit) bytes /= 1024;
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
  return text;
}

std::string Bytes(std::uint64_t bytes) { return Bytes(static_cast<double>(bytes)); }

void PrintRequests(const char* side, const vesk::File* file) {
  if (file == nullptr) return;
  const vesk::FileStats stats = file->GetStats();
  const std::uint64_t hits = stats.requests - stats.waited;
  const double percent =
      stats.requests == 0 ? 0
                          : 100.0 * static_cast<double>(hits) / static_cast<double>(stats.requests);
  std::fprintf(
      stderr, "  %s requests  %8llu   hits %llu (%.1f %%, served by memory at once), %llu waited\n",
      side, static_cast<unsigned long long>(stats.requests), static_cast<unsigned long long>(hits),
      percent, static_cast<unsigned long long>(stats.waited));
}

double Milliseconds(std::uint64_t nanoseconds) { return static_cast<double>(nanoseconds) / 1e6; }

void PrintJobs(const char* side, const vesk::DispatcherStats::Jobs& jobs) {
  std::fprintf(stderr,
               "  %s jobs      %8llu   %s moved from or to storage, %llu failed; "
               "latency p50 %.2f p99 %.2f max %.2f ms\n",
               side, static_cast<unsigned long long>(jobs.ended), Bytes(jobs.bytes).c_str(),
               static_cast<unsigned long long>(jobs.failed), Milliseconds(jobs.latency.p50),
               Milliseconds(jobs.latency.p99), Milliseconds(jobs.latency.max));
}

void PrintRetries(const vesk::RetryDecorator::Totals& retries) {
  const unsigned long long retried = retries.writes.retried + retries.others.retried;
  const unsigned long long recovered = retries.writes.recovered + retries.others.recovered;
  std::fprintf(stderr, "  tried again     %8llu   times, %llu jobs recovered\n", retried,
               recovered);
}

bool IsIgnored(int signal_number) {
  struct sigaction action = {};
  sigaction(signal_number, nullptr, &action);
  return action.sa_handler == SIG_IGN;
}

}  // namespace

World::World(const Options& options, vesk::Settings& settings)
    : options_(options), settings_(settings) {
  const bool copy = options.command == Options::Command::kCopy;
  const auto handle = [this](int signal_number) { Signalled(signal_number); };
  std::vector<int> signals;
  if (copy) {  // reading has nothing to clean up: a signal ends it as it would any program
    for (const int signal_number : {SIGINT, SIGTERM, SIGHUP}) {
      if (!IsIgnored(signal_number)) signals.push_back(signal_number);  // as nohup has it
    }
  }
  if (options.settings_source.HasFile()) signals.push_back(SIGHUP);
  if (!signals.empty()) signals_ = std::make_unique<vesk::SignalWatcher>(signals, handle);
  const vesk::MutexLock guard(reload_mutex_);
  runtime_ = std::make_unique<vesk::VeskRuntime>(settings);
  begin_ = runtime_->clock().Now();
}

World::~World() {
  // From here on nothing is left to be read again: a hangup that comes now changes nothing.
  if (options_.settings_source.HasFile()) signal(SIGHUP, SIG_IGN);
  signals_.reset();
  if (const std::uint64_t lost = runtime_->logger().Dropped()) {
    std::fprintf(stderr, "vesk: %llu lines could not be written to the log\n",
                 static_cast<unsigned long long>(lost));
  }
}

vesk::RequestLimits World::LeavingLimits() {
  const auto patience =
      std::chrono::milliseconds(settings_.shutdown_timeout_ms.load(std::memory_order_relaxed));
  return {runtime_->clock().Now() + patience, nullptr};
}

vesk::CacheShape World::shape() const {
  return {settings_.block_size, settings_.max_blocks, settings_.read_ahead};
}

void World::Signalled(int signal_number) {
  if (signal_number == SIGHUP && options_.settings_source.HasFile()) {
    ReloadSettings();
    return;
  }
  const vesk::Clock::Time now = vesk::Clock::System().Now();
  if (interrupted_by_ == 0) {
    interrupted_at_ = now;
    interrupted_by_ = signal_number;
    cancel_.Cancel();
  } else if (now - interrupted_at_.load() >= std::chrono::seconds(1)) {
    // Not sooner: a shell or a supervisor may send the same signal to process and group at once.
    _exit(128 + signal_number);
  }
}

void World::ReloadSettings() {
  const vesk::MutexLock guard(reload_mutex_);
  for (const std::string& line : options_.settings_source.Reload(&settings_).Lines()) {
    std::fprintf(stderr, "vesk: %s\n", line.c_str());
  }
  if (runtime_ != nullptr)
    runtime_->SettingsChanged();  // else it is made with the new values, or not
}

int World::Fail(const std::string& what, const std::string& name, const std::string& reason) {
  std::fprintf(stderr, "vesk: cannot %s '%s': %s\n", what.c_str(), name.c_str(), reason.c_str());
  return kExitFailed;
}

int World::Fail(const std::string& what, const std::string& name, int error) {
  return Fail(what, name, std::generic_category().message(error));
}

int World::Fail(const std::string& what, const std::string& name, const vesk::File& file,
                int error) {
  if (!file.Broken()) return Fail(what, name, error);
  return Fail(what, name,
              "the cache failed a check of its own, perhaps for lack of memory "
              "(--log-levels error shows which)");
}

int World::CheckSource(const std::string& name, vesk::FileInfo* info) {
  if (const int error = store().Stat(name, info)) return Fail("read", name, error);
  if (S_ISDIR(info->mode)) return Fail("read", name, EISDIR);
  if (!S_ISREG(info->mode)) return Fail("read", name, std::string("Not a regular file"));
  if (const int error = store().Open(name, vesk::Access::kRead)) {
    return Fail("read", name, error);
  }
  return kExitOk;
}

void World::Report(const std::string& verb, std::uint64_t bytes, const vesk::File* reader,
                   const vesk::File* writer) {
  using Seconds = std::chrono::duration<double>;
  const double seconds = Seconds(runtime_->clock().Now() - begin_).count();
  std::fprintf(stderr, "%s %s in %.2f s (%s/s)\n", verb.c_str(), Bytes(bytes).c_str(), seconds,
               Bytes(static_cast<double>(bytes) / std::max(seconds, 1e-6)).c_str());
  PrintRequests("read ", reader);
  PrintRequests("write", writer);
  const vesk::DispatcherStats stats = runtime_->dispatcher().GetStats();
  std::fprintf(stderr, "  storage         %s\n", runtime_->backend_name().c_str());
  PrintJobs("read ", stats.reads);
  if (writer != nullptr) PrintJobs("write", stats.writes);
  std::fprintf(stderr, "  on names        %8llu   jobs; at most %llu jobs in flight at once\n",
               static_cast<unsigned long long>(stats.names.ended),
               static_cast<unsigned long long>(stats.max_depth));
  for (const auto& [tag, waits] : stats.waits) {
    std::fprintf(stderr, "  waits           %8llu   for \"%s\", %.1f ms in all\n",
                 static_cast<unsigned long long>(waits.count), tag.c_str(),
                 Milliseconds(waits.nanoseconds));
  }
  if (runtime_->retry() != nullptr) PrintRetries(runtime_->retry()->GetTotals());
}

std::size_t ChunkSize(const vesk::CacheShape& shape) {
  constexpr std::size_t kLeast = 64u << 10;  // small blocks are not a reason for small requests
  return std::max<std::size_t>(shape.block_size, kLeast);
}

}  // namespace vesk_cli
