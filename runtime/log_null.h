// A logger that keeps nothing.

#ifndef RUNTIME_LOG_NULL_H_
#define RUNTIME_LOG_NULL_H_

#include "vesk/VeskEnv.h"

namespace vesk {

class NullLogger : public VeskLogger {
 public:
  void Debug(const LogSite& /*site*/, const char* /*format*/, ...) override {}
  void Trace(const LogSite& /*site*/, const char* /*format*/, ...) override {}
  void Info(const LogSite& /*site*/, const char* /*format*/, ...) override {}
  void Dump(const LogSite& /*site*/, const char* /*format*/, ...) override {}
  void Error(const LogSite& /*site*/, const char* /*format*/, ...) override {}
};

}  // namespace vesk

#endif  // RUNTIME_LOG_NULL_H_
