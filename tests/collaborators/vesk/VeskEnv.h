#pragma once

#include <string>
#include <utility>

namespace vesk {

using LogSite = std::pair<std::string, int>;
struct VeskThreadPool;

class VeskLogger {
 public:
  virtual void Debug(const LogSite& site, const char* format, ...)
      __attribute__((format(printf, 3, 4))) = 0;
  virtual void Trace(const LogSite& site, const char* format, ...)
      __attribute__((format(printf, 3, 4))) = 0;
  virtual void Info(const LogSite& site, const char* format, ...)
      __attribute__((format(printf, 3, 4))) = 0;
  virtual void Dump(const LogSite& site, const char* format, ...)
      __attribute__((format(printf, 3, 4))) = 0;
  virtual void Error(const LogSite& site, const char* format, ...)
      __attribute__((format(printf, 3, 4))) = 0;
  virtual ~VeskLogger() {}
};

struct VeskSettings {
  int refresh_interval;
};

// Other members around those that the cache uses, as a server's own environment has them.
struct VeskEnv {
  long server_member;
  VeskThreadPool* thread_pool;
  long another_server_member;
  VeskLogger* logger;
  VeskSettings* settings;
};

extern VeskEnv* gEnv;

}  // namespace vesk
