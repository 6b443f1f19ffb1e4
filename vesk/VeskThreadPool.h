// The record that the cache shares with the threads that collect finished jobs.

#ifndef VESK_VESKTHREADPOOL_H_
#define VESK_VESKTHREADPOOL_H_

#include <pthread.h>

#include <map>
#include <string>

namespace vesk {

// Order of the marked names: bytes compared without sign; of two that share a prefix, the shorter
// one first.
struct TPMapCompare {
  // By value: the shape is shared with the headers of other servers.
  // NOLINTNEXTLINE(performance-unnecessary-value-param)
  bool operator()(std::string a, std::string b) const { return a.compare(b) < 0; }
};

// The streams whose blocks have jobs that nobody waits for. The cache marks a stream's name and
// signals; a pool of threads takes the names and collects the jobs once they have ended.
//   Threads  `pending_streams` is guarded by `tp_mutex`; `tp_cond` is signalled while it is held
struct VeskThreadPool {
  VeskThreadPool() {
    pthread_mutex_init(&tp_mutex, nullptr);
    pthread_cond_init(&tp_cond, nullptr);
  }
  ~VeskThreadPool() {
    pthread_cond_destroy(&tp_cond);
    pthread_mutex_destroy(&tp_mutex);
  }
  VeskThreadPool(const VeskThreadPool&) = delete;
  VeskThreadPool& operator=(const VeskThreadPool&) = delete;

  pthread_mutex_t tp_mutex;
  pthread_cond_t tp_cond;
  std::map<std::string, int, TPMapCompare> pending_streams;  // file name -> 1
};

}  // namespace vesk

#endif  // VESK_VESKTHREADPOOL_H_
