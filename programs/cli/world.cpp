#include "programs/cli/world.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "runtime/decorator_retry.h"

namespace vesk_cli {

namespace {

unsigned long long Number(std::uint64_t value) { return value; }

// "97.2 %" of what `part` and `rest` are together.
std::string Share(std::uint64_t part, std::uint64_t rest) {
  const double all = static_cast<double>(part) + static_cast<double>(rest);
  char text[32];
  std::snprintf(text, sizeof text, "%.1f %%",
                all > 0 ? 100.0 * static_cast<double>(part) / all : 0.0);
  return text;
}

void PrintPieces(const char* side, const vesk::FileStats& stats) {
  std::fprintf(stderr, "  %s hits      %8llu   (%s, served by memory at once), %llu missed\n", side,
               Number(stats.hits), Share(stats.hits, stats.misses).c_str(), Number(stats.misses));
}

// How many bytes came from the store for each one that was wanted.
void PrintFetched(const vesk::FileStats& stats) {
  if (stats.returned == 0) return;
  std::fprintf(stderr, "  fetched         %8.2f   of what was read: %s for %s\n",
               static_cast<double>(stats.fetched) / static_cast<double>(stats.returned),
               BytesText(stats.fetched).c_str(), BytesText(stats.returned).c_str());
}

double Milliseconds(std::uint64_t nanoseconds) { return static_cast<double>(nanoseconds) / 1e6; }

void PrintThrottled(const vesk::FileStats& stats) {
  if (stats.throttled == 0) return;
  const std::chrono::duration<double, std::milli> time = stats.throttled_time;
  std::fprintf(stderr, "  writes held up  %8llu   times, the store being slower; %.1f ms in all\n",
               Number(stats.throttled), time.count());
}

void PrintJobs(const char* side, const vesk::DispatcherStats::Jobs& jobs) {
  std::fprintf(stderr,
               "  %s jobs      %8llu   %s moved from or to storage, %llu failed; "
               "latency p50 %.2f p99 %.2f max %.2f ms\n",
               side, Number(jobs.ended), BytesText(jobs.bytes).c_str(), Number(jobs.failed),
               Milliseconds(jobs.latency.p50), Milliseconds(jobs.latency.p99),
               Milliseconds(jobs.latency.max));
}

void PrintRetries(const vesk::RetryDecorator::Totals& retries) {
  const unsigned long long retried = retries.writes.retried + retries.others.retried;
  const unsigned long long recovered = retries.writes.recovered + retries.others.recovered;
  std::fprintf(stderr, "  tried again     %8llu   times, %llu jobs recovered\n", retried,
               recovered);
}

// Where the store tells no time or no inode, that is 0 both times.
bool IsUnchanged(const vesk::FileInfo& before, const vesk::FileInfo& now) {
  return before.device == now.device && before.inode == now.inode && before.size == now.size &&
         before.modified_ns == now.modified_ns;
}

// Also where neither is there yet.
bool IsSameFile(const std::string& one, const std::string& other) {
  namespace fs = std::filesystem;
  if (one.empty() || other.empty()) return false;
  std::error_code unknown;
  return fs::equivalent(one, other, unknown) || fs::absolute(one, unknown).lexically_normal() ==
                                                    fs::absolute(other, unknown).lexically_normal();
}

bool IsIgnored(int signal_number) {
  struct sigaction action = {};
  sigaction(signal_number, nullptr, &action);
  return action.sa_handler == SIG_IGN;
}

}  // namespace

int OwnJob::Wait(const char* tag) {
  bundler_.WaitForJob(job_, nullptr, tag);
  if (job_->GetJobState() == vesk::JOB_STATE_DONE) return job_->GetReturnValue();
  return vesk::RequestScope::Exceeded(bundler_.dispatcher().clock());
}

World::World(const Options& options, vesk::Settings& settings)
    : options_(options), settings_(settings) {
  for (const std::string& name : {options.source, options.destination}) {
    // Opening it would add to the file, and the copy would have its lines.
    if (IsSameFile(settings.log_file, name)) {
      throw std::invalid_argument("log-file: it is the file '" +
                                  vesk::PrintableText(name, name.size()) + "' of the command");
    }
  }
  const bool copy = options.command == Options::Command::kCopy;
  const auto handle = [this](int signal_number) { Signalled(signal_number); };
  std::vector<int> signals;
  // What is told goes unheard then, and the copy is still wanted.
  if (copy) signal(SIGPIPE, SIG_IGN);
  if (copy) {  // reading has nothing to clean up: a signal ends it as it would any program
    for (const int signal_number : {SIGINT, SIGTERM, SIGHUP}) {
      if (!IsIgnored(signal_number)) signals.push_back(signal_number);  // as nohup has it
    }
  }
  if (options.settings_source.HasFile()) signals.push_back(SIGHUP);
  if (!signals.empty()) signals_ = std::make_unique<vesk::SignalWatcher>(signals, handle);
  const vesk::MutexLock guard(reload_mutex_);
  runtime_ = std::make_unique<vesk::VeskRuntime>(settings);
  files_ = std::make_unique<vesk::FileSystem>(runtime_->services(), runtime_->store(),
                                              vesk::OptionsFrom(settings));
  begin_ = runtime_->clock().Now();
}

World::~World() {
  // From here on nothing is left to be read again: a hangup that comes now changes nothing.
  if (options_.settings_source.HasFile()) signal(SIGHUP, SIG_IGN);
  signals_.reset();
  {
    const vesk::RequestScope scope(LeavingLimits());
    files_.reset();
  }
  if (const std::uint64_t lost = runtime_->logger().Dropped()) {
    std::fprintf(stderr, "vesk: %llu lines could not be written to the log\n", Number(lost));
  }
}

vesk::RequestLimits World::LeavingLimits() {
  if (!leave_by_) {
    leave_by_ =
        runtime_->clock().Now() +
        std::chrono::milliseconds(settings_.shutdown_timeout_ms.load(std::memory_order_relaxed));
  }
  return {*leave_by_, nullptr};
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
    Say(line);
  }
  if (runtime_ != nullptr)
    runtime_->SettingsChanged();  // else it is made with the new values, or not
}

int World::OpenSource(const std::string& what, std::unique_ptr<vesk::FileHandle>* file,
                      vesk::FileInfo* info) {
  const std::string& name = options_.source;
  if (const int error = store().Stat(name, info)) return Fail(what, name, error);
  const vesk::Status status = files_->Open(name, {}, file);
  if (status.ok()) return kExitOk;
  if (status.error() == EINVAL) return Fail(what, name, std::string("Not a regular file"));
  return Fail(what, name, status.error());
}

int World::CheckSource(const vesk::FileInfo& before, const std::string& consequence) {
  const std::string& name = options_.source;
  vesk::FileInfo now;
  bool more = false;
  int error = store().Stat(name, &now);
  if (error == 0 && now.size == 0) error = ReadFirstByte(&more);
  if (error != 0) return Fail("read", name, error);
  if (!IsUnchanged(before, now)) {
    return Fail("read", name, "The file changed meanwhile; " + consequence);
  }
  if (more) return Fail("read", name, "The file has more bytes than its size says; " + consequence);
  return kExitOk;
}

// The cache reads nothing behind the size.
int World::ReadFirstByte(bool* is_there) {
  struct Piece {
    unsigned char byte = 0;
    unsigned int count = 0;
  };
  const auto piece = std::make_shared<Piece>();  // the job's too: it may outlive the request
  std::string name = options_.source;
  auto op = std::make_unique<vesk::VeskOP>(vesk::OPCODE_READ, 0);
  op->AddString(name);
  op->AddShared(std::shared_ptr<void>(piece, &piece->byte));
  op->AddInt(1);
  op->AddULong(0);
  op->AddPtr(&piece->count);
  auto* const job = new vesk::VeskJob(vesk::JOB_TYPE_IO, op.get());
  (void)op.release();  // the job's
  const int error = OwnJob(runtime_->bundler(), job).Wait("Read-first-byte");
  *is_there = error == 0 && piece->count > 0;
  return error == vesk::RC_EOF ? 0 : error;
}

int World::Fail(const std::string& what, const std::string& name, const std::string& reason) {
  Say("cannot " + what + " '" + name + "': " + reason);
  return kExitFailed;
}

int World::Fail(const std::string& what, const std::string& name, int error) {
  return Fail(what, name, Reason(error));
}

std::string World::Reason(int error) {
  if (error == ECANCELED && interrupted_by_ != 0) return "Interrupted";
  if (error != ETIMEDOUT || vesk::RequestScope::Exceeded(runtime_->clock()) == 0) {
    return std::generic_category().message(error);
  }
  const vesk::Setting& limit =
      *vesk::FindSetting(leave_by_ ? "shutdown-timeout" : "request-timeout");
  return "It took longer than " + limit.name + " (" + vesk::ValueText(limit, settings_) + ')';
}

int World::Fail(const std::string& what, const std::string& name, const vesk::FileHandle& file,
                const vesk::Status& status) {
  if (!file.Broken()) return Fail(what, name, status.error());
  return Fail(what, name,
              "the cache failed a check of its own, perhaps for lack of memory "
              "(--log-levels error shows which)");
}

bool World::ShowsProgress() const {
  if (options_.progress != "auto") return options_.progress == "always";
  // Not among lines of a log, and not where a line cannot be written over.
  const bool logs = settings_.log_stderr && settings_.log_levels != vesk::kLogNothing;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): nobody changes the environment
  const char* const terminal = std::getenv("TERM");
  const bool dumb = terminal != nullptr && std::string(terminal) == "dumb";
  return isatty(STDERR_FILENO) == 1 && !logs && !dumb;
}

void World::Report(const vesk::FileStats& read, const vesk::FileStats* written) {
  PrintPieces("read ", read);
  PrintFetched(read);
  if (written != nullptr) {
    PrintPieces("write", *written);
    PrintThrottled(*written);
  }
  std::fprintf(stderr, "  memory          %8s   of %s, at most\n",
               BytesText(files_->memory_peak()).c_str(), BytesText(settings_.memory).c_str());
  const vesk::DispatcherStats stats = runtime_->dispatcher().GetStats();
  std::fprintf(stderr, "  storage         %s\n", runtime_->backend_name().c_str());
  PrintJobs("read ", stats.reads);
  if (written != nullptr) PrintJobs("write", stats.writes);
  std::fprintf(stderr, "  on names        %8llu   jobs; at most %llu jobs in flight at once\n",
               Number(stats.names.ended), Number(stats.max_depth));
  for (const auto& [tag, waits] : stats.waits) {
    std::fprintf(stderr, "  waits           %8llu   for \"%s\", %.1f ms in all\n",
                 Number(waits.count), tag.c_str(), Milliseconds(waits.nanoseconds));
  }
  if (runtime_->retry() != nullptr) PrintRetries(runtime_->retry()->GetTotals());
}

}  // namespace vesk_cli
