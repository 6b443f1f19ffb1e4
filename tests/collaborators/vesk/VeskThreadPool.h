#pragma once

#include <pthread.h>

#include <map>
#include <string>

namespace vesk {

struct TPMapCompare {
  bool operator()(std::string a, std::string b) const { return a.compare(b) < 0; }
};

struct VeskThreadPool {
  long server_member;
  pthread_mutex_t tp_mutex;
  pthread_cond_t tp_cond;
  std::map<std::string, int, TPMapCompare> pending_streams;
};

}  // namespace vesk
