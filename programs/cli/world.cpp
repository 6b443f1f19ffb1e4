#include "programs/cli/world.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <map>
#include <system_error>

#include "runtime/log_null.h"
#include "runtime/log_stderr.h"

namespace vesk_cli {

namespace {

std::unique_ptr<vesk::VeskLogger> MakeLogger(const std::string& level) {
  static const std::map<std::string, vesk::LogLevel> kLevels = {{"debug", vesk::LogLevel::kDebug},
                                                                {"trace", vesk::LogLevel::kTrace},
                                                                {"info", vesk::LogLevel::kInfo},
                                                                {"dump", vesk::LogLevel::kDump},
                                                                {"error", vesk::LogLevel::kError}};
  const auto found = kLevels.find(level);
  if (found == kLevels.end()) return std::make_unique<vesk::NullLogger>();
  return std::make_unique<vesk::StderrLogger>(found->second);
}

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

void PrintJobs(const char* side, const vesk::DispatcherStats::Transfers& jobs) {
  std::fprintf(stderr, "  %s jobs      %8llu   %s moved from or to storage, %llu failed\n", side,
               static_cast<unsigned long long>(jobs.jobs), Bytes(jobs.bytes).c_str(),
               static_cast<unsigned long long>(jobs.failed));
}

}  // namespace

World::World(const Options& options)
    : options_(options),
      logger_(MakeLogger(options.trace)),
      env_{nullptr, logger_.get(), &settings_},
      backend_(vesk::ThreadsBackend::Options{}),
      bundler_(backend_) {
  settings_.refresh_interval = options.refresh_seconds;
  vesk::gEnv = &env_;
}

World::~World() { vesk::gEnv = nullptr; }

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
              "(--trace error shows which)");
}

int World::CheckSource(const std::string& name, vesk::VeskBackend::FileInfo* info) {
  if (const int error = backend_.Stat(name, info)) return Fail("read", name, error);
  if (S_ISDIR(info->mode)) return Fail("read", name, EISDIR);
  if (!S_ISREG(info->mode)) return Fail("read", name, std::string("Not a regular file"));
  if (const int error = backend_.Open(name, vesk::VeskBackend::Access::kRead)) {
    return Fail("read", name, error);
  }
  return kExitOk;
}

void World::Report(const std::string& verb, std::uint64_t bytes, const vesk::File* reader,
                   const vesk::File* writer) const {
  using Seconds = std::chrono::duration<double>;
  const double seconds = Seconds(std::chrono::steady_clock::now() - begin_).count();
  std::fprintf(stderr, "%s %s in %.2f s (%s/s)\n", verb.c_str(), Bytes(bytes).c_str(), seconds,
               Bytes(static_cast<double>(bytes) / std::max(seconds, 1e-6)).c_str());
  PrintRequests("read ", reader);
  PrintRequests("write", writer);
  const vesk::DispatcherStats stats = bundler_.GetStats();
  PrintJobs("read ", stats.reads);
  if (writer != nullptr) PrintJobs("write", stats.writes);
  for (const auto& [tag, waits] : stats.waits) {
    std::fprintf(stderr, "  waits           %8llu   for \"%s\", %.1f ms in all\n",
                 static_cast<unsigned long long>(waits.count), tag.c_str(),
                 1000 * Seconds(waits.time).count());
  }
}

std::size_t ChunkSize(const vesk::CacheShape& shape) {
  constexpr std::size_t kLeast = 64u << 10;  // small blocks are not a reason for small requests
  return std::max<std::size_t>(shape.block_size, kLeast);
}

}  // namespace vesk_cli
