// Keeps every log line, and for the whole run of the program the set of sites that logged.

#ifndef TESTS_SUPPORT_RECORDING_LOGGER_H_
#define TESTS_SUPPORT_RECORDING_LOGGER_H_

#include <cstdarg>
#include <set>
#include <string>
#include <vector>

#include "tests/support/keeping_logger.h"

namespace vesk_test {

class RecordingLogger : public KeepingLogger {
 public:
  // One string a line: "<operation> <site> <text>", for example "Debug 520 f Finding buffer ...\n".
  std::vector<std::string> lines;

  // Sites that have logged anywhere in this program, in any logger.
  static std::set<int>& SitesReached();

  // Lines also go to standard error; for tests that end the process.
  bool echo = false;

 private:
  void Keep(const char* operation, const vesk::LogSite& site, const char* format,
            va_list arguments) override __attribute__((format(printf, 4, 0)));
};

}  // namespace vesk_test

#endif  // TESTS_SUPPORT_RECORDING_LOGGER_H_
