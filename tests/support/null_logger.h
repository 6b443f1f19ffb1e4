// A logger that keeps nothing.

#ifndef TESTS_SUPPORT_NULL_LOGGER_H_
#define TESTS_SUPPORT_NULL_LOGGER_H_

#include "vesk/VeskEnv.h"

namespace vesk_test {

class NullLogger : public vesk::VeskLogger {
 public:
  void Debug(const vesk::LogSite& /*site*/, const char* /*format*/, ...) override {}
  void Trace(const vesk::LogSite& /*site*/, const char* /*format*/, ...) override {}
  void Info(const vesk::LogSite& /*site*/, const char* /*format*/, ...) override {}
  void Dump(const vesk::LogSite& /*site*/, const char* /*format*/, ...) override {}
  void Error(const vesk::LogSite& /*site*/, const char* /*format*/, ...) override {}
};

}  // namespace vesk_test

#endif  // TESTS_SUPPORT_NULL_LOGGER_H_
