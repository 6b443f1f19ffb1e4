// What the loggers of the tests share: the five operations, led to one.

#ifndef TESTS_SUPPORT_KEEPING_LOGGER_H_
#define TESTS_SUPPORT_KEEPING_LOGGER_H_

#include <cstdarg>

#include "vesk/VeskEnv.h"

namespace vesk_test {

class KeepingLogger : public vesk::VeskLogger {
 public:
  void Debug(const vesk::LogSite& site, const char* format, ...) override
      __attribute__((format(printf, 3, 4)));
  void Trace(const vesk::LogSite& site, const char* format, ...) override
      __attribute__((format(printf, 3, 4)));
  void Info(const vesk::LogSite& site, const char* format, ...) override
      __attribute__((format(printf, 3, 4)));
  void Dump(const vesk::LogSite& site, const char* format, ...) override
      __attribute__((format(printf, 3, 4)));
  void Error(const vesk::LogSite& site, const char* format, ...) override
      __attribute__((format(printf, 3, 4)));

 private:
  // A line of the operation with this name: "Debug", "Trace", "Info", "Dump" or "Error".
  virtual void Keep(const char* operation, const vesk::LogSite& site, const char* format,
                    va_list arguments) __attribute__((format(printf, 4, 0))) = 0;
};

}  // namespace vesk_test

#endif  // TESTS_SUPPORT_KEEPING_LOGGER_H_
