#include "runtime/runtime.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string>

#include "runtime/decorator_retry.h"
#include "runtime/request.h"
#include "runtime/store_spec.h"
#include "vesk/VeskEnv.h"
#include "vesk/VeskThreadPool.h"

namespace vesk {

namespace {

LogSite At(int line) { return {"VeskRuntime", line}; }

Logger::Options LogOptions(const Settings& settings) {
  Logger::Options options;
  options.levels = settings.log_levels.load(std::memory_order_relaxed);
  options.ring_levels = settings.log_ring_levels.load(std::memory_order_relaxed);
  options.ring_lines = settings.log_ring_lines;
  options.to_stderr = settings.log_stderr;
  options.file = settings.log_file;
  options.file_size = settings.log_file_size;
  options.file_count = settings.log_file_count;
  options.json = settings.log_format == LogFormat::kJson;
  options.to_syslog = settings.log_syslog;
  return options;
}

StoreSpec ParsedSpec(const std::string& text) {
  StoreSpec spec;
  std::string why;
  if (!ParseStoreSpec(text, &spec, &why)) throw std::invalid_argument("store: " + why);
  return spec;
}

Clock::Duration Milliseconds(const std::atomic<std::int64_t>& setting) {
  return std::chrono::milliseconds(setting.load(std::memory_order_relaxed));
}

}  // namespace

// In the order of their making.
struct VeskRuntime::Parts {
  Parts(Settings& settings, Clock& clock)
      : logger(LogOptions(settings)),
        stack(ParsedSpec(settings.store), settings, clock, logger),
        bundler(stack.top(), clock),
        store(bundler),
        reaper(pool, settings.reaper_threads),
        env{&pool, &logger, &settings} {
    bundler.dispatcher().OnEnd([this](const std::string& name) { reaper.JobEnded(name); });
    if (stack.retry() == nullptr) return;
    stack.retry()->OnWriteFailure([this](const WriteFailure& failure) {
      logger.Error(At(100), "%s write-back O:%llu L:%llu fails with errno %d, %s\n",
                   failure.name.c_str(), static_cast<unsigned long long>(failure.offset),
                   static_cast<unsigned long long>(failure.length), failure.error,
                   failure.given_up ? "no longer kept by the runtime" : "kept and tried again");
      reaper.WriteFails(failure);
    });
    stack.retry()->OnWriteRecovered([this](const std::string& name) {
      logger.Info(At(101), "%s write-backs have recovered\n", name.c_str());
    });
  }

  Logger logger;
  StoreStack stack;
  VeskBundler bundler;
  Store store;
  VeskThreadPool pool;
  Reaper reaper;
  VeskEnv env;
};

VeskRuntime::VeskRuntime(Settings& settings, Clock& clock)
    : settings_(settings), clock_(clock), parts_(std::make_unique<Parts>(settings, clock)) {
  gEnv = &parts_->env;
}

VeskRuntime::~VeskRuntime() {
  if (!Stop()) (void)parts_.release();  // stuck jobs may still use it
  gEnv = nullptr;
}

bool VeskRuntime::Stop() {
  if (stopped_) return true;
  const Clock::Duration patience = Milliseconds(settings_.shutdown_timeout_ms);
  const Clock::Time deadline = clock_.Now() + patience;
  stopped_ = dispatcher().Shutdown(deadline, deadline + patience);
  if (!stopped_) {
    logger().Error(At(102), "%llu jobs are stuck in the store at the end\n",
                   static_cast<unsigned long long>(dispatcher().GetStats().depth));
  }
  return stopped_;
}

Store& VeskRuntime::store() { return parts_->store; }
VeskBundler& VeskRuntime::bundler() { return parts_->bundler; }
Logger& VeskRuntime::logger() { return parts_->logger; }
Reaper& VeskRuntime::reaper() { return parts_->reaper; }
RetryDecorator* VeskRuntime::retry() { return parts_->stack.retry(); }
const std::string& VeskRuntime::backend_name() const { return parts_->stack.backend_name(); }

Services VeskRuntime::services() { return {bundler(), clock_, &reaper(), retry()}; }

RequestLimits VeskRuntime::NewLimits(CancelToken* cancel) {
  const Clock::Duration timeout = Milliseconds(settings_.request_timeout_ms);
  RequestLimits limits;
  limits.cancel = cancel;
  if (timeout > Clock::Duration::zero()) limits.deadline = clock_.Now() + timeout;
  return limits;
}

void VeskRuntime::SettingsChanged() {
  logger().SetLevels(settings_.log_levels.load(std::memory_order_relaxed));
  logger().SetRingLevels(settings_.log_ring_levels.load(std::memory_order_relaxed));
}

}  // namespace vesk
