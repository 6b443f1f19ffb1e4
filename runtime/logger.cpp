#include "runtime/logger.h"

#include <fcntl.h>
#include <spdlog/details/log_msg.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iterator>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "runtime/settings.h"
#include "vesk/VeskMutex.h"

namespace vesk {

namespace {

using std::chrono::system_clock;

constexpr std::size_t kLongestText = 4096;  // a name may be as long as a path; the rest is short
constexpr unsigned kRingShift = 8;          // of the ring's operations in the mask of wanted ones
constexpr char kAssertionHead[] = "ASSERT failure::\n";

// Sites of the logger's own lines.
constexpr int kSiteHistory = 100, kSiteReopen = 200;

struct Operation {
  const char* name;
  LogOperation bit;
  int priority;  // of the system log
};

constexpr Operation kOperations[] = {{"debug", kLogDebug, LOG_DEBUG},
                                     {"trace", kLogTrace, LOG_DEBUG},
                                     {"info", kLogInfo, LOG_INFO},
                                     {"dump", kLogDump, LOG_NOTICE},
                                     {"error", kLogError, LOG_ERR}};

//   Before   one bit, of an operation
const Operation& Find(LogOperation bit) {
  return *std::find_if(std::begin(kOperations), std::end(kOperations),
                       [bit](const Operation& operation) { return operation.bit == bit; });
}

// 0 when no operation has that name.
LogLevels LevelNamed(std::string_view name) {
  for (const Operation& operation : kOperations) {
    if (name == operation.name) return operation.bit;
  }
  return kLogNothing;
}

std::string_view Trimmed(std::string_view text) {
  const std::size_t begin = text.find_first_not_of(" \t");
  if (begin == std::string_view::npos) return {};
  return text.substr(begin, text.find_last_not_of(" \t") - begin + 1);
}

// The lines of an assertion that the thread has still to write, and where it writes them.
struct Assertion {
  const Logger* logger;
  int site;
  int lines_left;
};
thread_local Assertion assertion = {nullptr, 0, 0};

// A line as the ring keeps it.
struct Record {
  LogOperation operation = kLogError;
  system_clock::time_point time;
  pid_t thread = 0;
  LogSite site;
  std::string text;  // as it came, without newlines at its end
};

// The last records. Slots keep their memory, so a ring that is full takes no more of it.
class Ring {
 public:
  explicit Ring(std::size_t capacity) : capacity_(capacity) {}

  void Keep(const Record& record) {
    if (capacity_ == 0) return;
    if (next_ == slots_.size()) {
      slots_.push_back(record);
    } else {
      slots_[next_] = record;
    }
    next_ = next_ + 1 == capacity_ ? 0 : next_ + 1;
    kept_ = std::min(kept_ + 1, capacity_);
  }

  std::size_t size() const { return kept_; }
  void Clear() { kept_ = 0; }

  // From the oldest, 0, on.
  const Record& operator[](std::size_t at) const {
    const bool wrapped = next_ < kept_ - at;
    return slots_[wrapped ? next_ + (capacity_ - kept_) + at : next_ - (kept_ - at)];
  }

 private:
  const std::size_t capacity_;
  std::vector<Record> slots_;
  std::size_t next_ = 0;  // the slot of the next record
  std::size_t kept_ = 0;  // records in the slots before it
};

void AppendTime(system_clock::time_point time, std::string* out) {
  using std::chrono::duration_cast;
  const auto micros = duration_cast<std::chrono::microseconds>(time.time_since_epoch()).count();
  const auto seconds = static_cast<std::time_t>(micros / 1000000);
  std::tm parts = {};
  gmtime_r(&seconds, &parts);
  char text[40];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + length, sizeof text - length, ".%06dZ", static_cast<int>(micros % 1000000));
  *out += text;
}

void AppendHex(const char* prefix, char byte, std::string* out) {
  static const char kDigits[] = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(byte);
  *out += prefix;
  *out += kDigits[value >> 4];
  *out += kDigits[value & 15];
}

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; }

void AppendPlain(std::string_view text, std::string* out) {
  for (const char c : text) {
    if (IsControl(c)) {
      AppendHex("\\x", c, out);
    } else {
      *out += c;
    }
  }
}

// Bytes of the UTF-8 character that begins `text`, which is not empty; 0 where none does.
std::size_t CharacterLength(std::string_view text) {
  const auto byte = [text](std::size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned lead = byte(0);
  if (lead < 0x80) return 1;
  if (lead < 0xc2 || lead > 0xf4) return 0;
  const std::size_t length = lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
  if (text.size() < length) return 0;
  for (std::size_t at = 1; at < length; ++at) {
    if ((byte(at) & 0xc0) != 0x80) return 0;
  }
  // Longer than need be, half of a surrogate pair, or beyond the last character.
  if (lead == 0xe0 && byte(1) < 0xa0) return 0;
  if (lead == 0xed && byte(1) > 0x9f) return 0;
  if (lead == 0xf0 && byte(1) < 0x90) return 0;
  if (lead == 0xf4 && byte(1) > 0x8f) return 0;
  return length;
}

void AppendJsonString(std::string_view text, std::string* out) {
  *out += '"';
  while (!text.empty()) {
    const char c = text.front();
    const std::size_t length = CharacterLength(text);
    if (length == 0) {
      AppendHex("\\\\x", c, out);
    } else if (IsControl(c)) {
      AppendHex("\\u00", c, out);
    } else {
      if (c == '"' || c == '\\') *out += '\\';
      out->append(text.data(), length);
    }
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  *out += '"';
}

void AppendSiteAndText(const Record& record, std::string* out) {
  AppendPlain(record.site.first, out);
  *out += ':';
  *out += std::to_string(record.site.second);
  *out += ' ';
  AppendPlain(record.text, out);
}

void AppendLine(const Record& record, bool history, std::string* out) {
  AppendTime(record.time, out);
  *out += history ? " history " : " ";
  *out += Find(record.operation).name;
  *out += ' ';
  AppendSiteAndText(record, out);
}

void AppendJsonLine(const Record& record, bool history, std::string* out) {
  *out += "{\"time\":\"";
  AppendTime(record.time, out);
  *out += history ? "\",\"history\":true,\"level\":\"" : "\",\"level\":\"";
  *out += Find(record.operation).name;
  *out += "\",\"file\":";
  AppendJsonString(record.site.first, out);
  *out += ",\"site\":" + std::to_string(record.site.second);
  *out += ",\"thread\":" + std::to_string(record.thread);
  *out += ",\"text\":";
  AppendJsonString(record.text, out);
  *out += '}';
}

bool WriteAll(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// A log file that rotates.
class LogFile {
 public:
  LogFile(std::string name, std::uint64_t size, unsigned count)
      : name_(std::move(name)),
        size_(size == 0 ? std::numeric_limits<std::size_t>::max() : size),
        count_(count) {
    if (count_ == 0) throw std::runtime_error("log file " + name_ + ": at least 1 file is kept");
    Open();
  }

  //   Ends in  return; or std::system_error, std::runtime_error: what was open before stays
  void Open() {
    Prepare();
    spdlog::file_event_handlers events;
    events.after_open = [](const spdlog::filename_t& /*name*/, std::FILE* file) {
      fcntl(fileno(file), F_SETFD, FD_CLOEXEC);
    };
    try {
      sink_ = std::make_unique<Sink>(name_, size_, count_ - 1, false, events);
    } catch (const spdlog::spdlog_ex& error) {
      throw std::runtime_error("log file " + name_ + ": " + error.what());
    }
    sink_->set_pattern("%v");  // lines come finished
  }

  // False when the line is not in the file.
  bool Write(std::string_view line) noexcept {
    try {
      if (sink_ == nullptr) Open();
      sink_->log({{}, {}, spdlog::level::info, {line.data(), line.size()}});
      sink_->flush();
      return true;
    } catch (...) {
      // After a failed rotation the sink has no file, and would write to it: it is never used
      // again.
      sink_ = nullptr;
      return false;
    }
  }

 private:
  using Sink = spdlog::sinks::rotating_file_sink_st;

  // Shows why a file cannot be opened, without the sink's repeated attempts and their pauses. Ends
  // a line that a full disk or a crash has cut; where that fails, so will the next line.
  void Prepare() const {
    const int fd = open(name_.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd < 0) throw std::system_error(errno, std::generic_category(), "log file " + name_);
    struct stat status = {};
    char last = '\n';
    if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0 &&
        pread(fd, &last, 1, status.st_size - 1) == 1 && last != '\n') {
      WriteAll(fd, "\n");
    }
    close(fd);
  }

  const std::string name_;
  const std::size_t size_;
  const unsigned count_;
  std::unique_ptr<Sink> sink_;  // null after a failure, until the next line
};

}  // namespace

// Whatever the mutex guards: the ring and the sinks.
class Logger::Core {
 public:
  explicit Core(const Options& options)
      : to_stderr_(options.to_stderr),
        to_syslog_(options.to_syslog),
        json_(options.json),
        ring_(options.ring_lines) {
    if (!options.file.empty()) file_.emplace(options.file, options.file_size, options.file_count);
    // An assertion may well tell that there is no memory.
    line_.text.reserve(kLongestText);
    out_.reserve(2 * kLongestText);
  }

  void Log(LogOperation operation, const LogSite& site, std::string_view text, bool to_sinks,
           bool to_ring) VESK_EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    Fill(operation, site, text);
    if (to_sinks) WriteLine(line_, false);
    if (to_ring) ring_.Keep(line_);
  }

  // The first line of an assertion and all that led to it.
  void LogAssertion(const LogSite& site, std::string_view text) VESK_EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    WriteHistory("ASSERT failure");
    Fill(kLogError, site, text);
    WriteLine(line_, false);
  }

  void Dump(const std::string& reason) VESK_EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    WriteHistory(reason.c_str());
  }

  bool Reopen() VESK_EXCLUDES(mutex_) {
    const MutexLock lock(mutex_);
    if (!file_) return true;
    try {
      file_->Open();
      return true;
    } catch (const std::exception& error) {
      Fill(kLogError, LogSite("Logger", kSiteReopen), error.what());
      WriteLine(line_, false);
      return false;
    }
  }

  void CountDropped() { ++dropped_; }
  std::uint64_t Dropped() const { return dropped_; }

 private:
  // The time is taken under the mutex, so that it agrees with the order of the lines.
  void Fill(LogOperation operation, const LogSite& site, std::string_view text)
      VESK_REQUIRES(mutex_) {
    line_.operation = operation;
    line_.time = system_clock::now();
    line_.thread = gettid();
    line_.site = site;
    line_.text = text.substr(0, kLongestText - 1);
  }

  void WriteHistory(const char* reason) VESK_REQUIRES(mutex_) {
    const LogSite site("Logger", kSiteHistory);
    char text[kLongestText];
    std::snprintf(text, sizeof text, "history begins, lines: %zu, reason: %s", ring_.size(),
                  reason);
    Fill(kLogDump, site, text);
    WriteLine(line_, false);
    for (std::size_t at = 0; at < ring_.size(); ++at) WriteLine(ring_[at], true);
    ring_.Clear();
    Fill(kLogDump, site, "history ends");
    WriteLine(line_, false);
  }

  // A sink that fails is no reason to leave the others out.
  void WriteLine(const Record& record, bool history) noexcept VESK_REQUIRES(mutex_) {
    try {
      if (to_syslog_) WriteToSystemLog(record, history);
      out_.clear();
      if (json_) {
        AppendJsonLine(record, history, &out_);
      } else {
        AppendLine(record, history, &out_);
      }
      if (file_ && !file_->Write(out_)) ++dropped_;
      out_ += '\n';  // one write(2) a line: those of several processes do not mix
      if (to_stderr_ && !WriteAll(STDERR_FILENO, out_)) ++dropped_;
    } catch (...) {
      ++dropped_;
    }
  }

  // The system log adds the time itself, which is not that of a line of the past.
  void WriteToSystemLog(const Record& record, bool history) VESK_REQUIRES(mutex_) {
    out_.clear();
    if (history) {
      AppendLine(record, true, &out_);
    } else {
      AppendSiteAndText(record, &out_);
    }
    syslog(LOG_DAEMON | SyslogPriority(record.operation), "%s", out_.c_str());
  }

  const bool to_stderr_;
  const bool to_syslog_;
  const bool json_;

  Mutex mutex_;
  std::optional<LogFile> file_ VESK_GUARDED_BY(mutex_);
  Ring ring_ VESK_GUARDED_BY(mutex_);
  Record line_ VESK_GUARDED_BY(mutex_);      // the line in hand; keeps its memory
  std::string out_ VESK_GUARDED_BY(mutex_);  // the line as a sink gets it; keeps its memory

  std::atomic<std::uint64_t> dropped_{0};
};

Logger::Logger(const Options& options)
    : wanted_((options.levels & kLogEverything) | (options.ring_levels & kLogEverything)
                                                      << kRingShift),
      core_(std::make_unique<Core>(options)) {}

Logger::~Logger() = default;

bool Logger::Wants(LogOperation operation) const {
  const LogLevels either = operation | operation << kRingShift;
  return (wanted_.load(std::memory_order_relaxed) & either) != 0;
}

void Logger::Write(LogOperation operation, const LogSite& site, const char* format,
                   va_list arguments) {
  const int error = errno;
  const bool first = operation == kLogError && std::strcmp(format, kAssertionHead) == 0;
  if (first) assertion = {this, site.second, 3};
  const bool asserts = operation == kLogError && assertion.logger == this &&
                       assertion.site == site.second && assertion.lines_left > 0;
  if (asserts) --assertion.lines_left;

  const LogLevels wanted = wanted_.load(std::memory_order_relaxed);
  const bool to_sinks = asserts || (wanted & operation) != 0;
  const bool to_ring = !asserts && (wanted & operation << kRingShift) != 0;
  if (!to_sinks && !to_ring) return;

  char text[kLongestText];
  const int printed = std::vsnprintf(text, sizeof text, format, arguments);
  std::size_t length = std::min(static_cast<std::size_t>(std::max(printed, 0)), sizeof text - 1);
  while (length > 0 && text[length - 1] == '\n') --length;
  try {
    if (printed < 0) throw std::system_error(errno, std::generic_category(), format);
    if (first) {
      core_->LogAssertion(site, {text, length});
    } else {
      core_->Log(operation, site, {text, length}, to_sinks, to_ring);
    }
  } catch (...) {
    core_->CountDropped();
  }
  errno = error;
}

// The variable arguments can be taken up only in the operation itself: the same body each time.
#define VESK_LOG_OPERATION(operation, wanted)                            \
  void Logger::operation(const LogSite& site, const char* format, ...) { \
    if (!(wanted)) return;                                               \
    va_list arguments;                                                   \
    va_start(arguments, format);                                         \
    Write(kLog##operation, site, format, arguments);                     \
    va_end(arguments);                                                   \
  }

VESK_LOG_OPERATION(Debug, Wants(kLogDebug))
VESK_LOG_OPERATION(Trace, Wants(kLogTrace))
VESK_LOG_OPERATION(Info, Wants(kLogInfo))
VESK_LOG_OPERATION(Dump, Wants(kLogDump))
VESK_LOG_OPERATION(Error, true)  // the lines of an assertion always are

#undef VESK_LOG_OPERATION

void Logger::SetLevels(LogLevels levels) { Replace(kLogEverything, levels & kLogEverything); }

void Logger::SetRingLevels(LogLevels levels) {
  Replace(kLogEverything << kRingShift, (levels & kLogEverything) << kRingShift);
}

void Logger::Replace(LogLevels mask, LogLevels levels) {
  LogLevels before = wanted_.load(std::memory_order_relaxed);
  while (!wanted_.compare_exchange_weak(before, (before & ~mask) | levels,
                                        std::memory_order_relaxed)) {
  }
}

void Logger::DumpRing(const std::string& reason) { core_->Dump(reason); }

bool Logger::Reopen() { return core_->Reopen(); }

std::uint64_t Logger::Dropped() const { return core_->Dropped(); }

bool ParseLogLevels(const std::string& text, LogLevels* levels, std::string* why) {
  const std::string_view whole = Trimmed(text);
  if (whole == "off" || whole == "all") {
    *levels = whole == "off" ? kLogNothing : kLogEverything;
    return true;
  }
  LogLevels named = kLogNothing;
  for (std::string_view rest = whole;;) {
    const std::size_t comma = rest.find(',');
    const std::string_view word = Trimmed(rest.substr(0, comma));
    const LogLevels level = LevelNamed(word);
    if (level == kLogNothing) {
      *why = "unknown log level " + QuotedText(std::string(word)) + ": ";
      *why += "use off, all, or a comma list of debug,trace,info,dump,error";
      return false;
    }
    named |= level;
    if (comma == std::string_view::npos) break;
    rest.remove_prefix(comma + 1);
  }
  *levels = named;
  return true;
}

std::string LogLevelsText(LogLevels levels) {
  levels &= kLogEverything;
  if (levels == kLogNothing) return "off";
  if (levels == kLogEverything) return "all";
  std::string text;
  for (const Operation& operation : kOperations) {
    if ((levels & operation.bit) == 0) continue;
    if (!text.empty()) text += ',';
    text += operation.name;
  }
  return text;
}

int SyslogPriority(LogOperation operation) { return Find(operation).priority; }

}  // namespace vesk
