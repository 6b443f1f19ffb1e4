#include "runtime/log_stderr.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>

namespace vesk {

namespace {

constexpr std::size_t kLongestText = 4096;  // a name may be as long as a path; the rest is short

std::string TimeNow() {
  using std::chrono::duration_cast;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  const auto micros = duration_cast<std::chrono::microseconds>(now).count();
  const auto seconds = static_cast<std::time_t>(micros / 1000000);
  std::tm parts = {};
  gmtime_r(&seconds, &parts);
  char text[40];
  const std::size_t length = std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &parts);
  std::snprintf(text + length, sizeof text - length, ".%06dZ", static_cast<int>(micros % 1000000));
  return text;
}

// The text as part of one line.
std::string OneLine(std::string text) {
  while (!text.empty() && text.back() == '\n') text.pop_back();
  std::string line;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      line += c;
      continue;
    }
    char escaped[5];
    std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
    line += escaped;
  }
  return line;
}

}  // namespace

void StderrLogger::Write(const char* level, const LogSite& site, const char* format,
                         va_list arguments) {
  char text[kLongestText];
  if (std::vsnprintf(text, sizeof text, format, arguments) < 0) return;
  const std::string line = TimeNow() + ' ' + level + ' ' + site.first + ':' +
                           std::to_string(site.second) + ' ' + OneLine(text) + '\n';
  // Nobody is there to be told that the log's own sink has failed.
  [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, line.data(), line.size());
}

// The variable arguments can be taken up only in the operation itself: five times the same body.
#define VESK_LOG_OPERATION(operation, level, text)                             \
  void StderrLogger::operation(const LogSite& site, const char* format, ...) { \
    if ((level) < lowest_) return;                                             \
    va_list arguments;                                                         \
    va_start(arguments, format);                                               \
    Write(text, site, format, arguments);                                      \
    va_end(arguments);                                                         \
  }

VESK_LOG_OPERATION(Debug, LogLevel::kDebug, "debug")
VESK_LOG_OPERATION(Trace, LogLevel::kTrace, "trace")
VESK_LOG_OPERATION(Info, LogLevel::kInfo, "info")
VESK_LOG_OPERATION(Dump, LogLevel::kDump, "dump")
VESK_LOG_OPERATION(Error, LogLevel::kError, "error")

}  // namespace vesk
