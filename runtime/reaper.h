// Threads that collect the finished jobs nobody waits for, and who is told of failing write-backs.

#ifndef RUNTIME_REAPER_H_
#define RUNTIME_REAPER_H_

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "runtime/thread.h"
#include "runtime/write_failure.h"
#include "vesk/VeskMutex.h"
#include "vesk/VeskThreadPool.h"

namespace vesk {

// An open file, as the reaper sees it.
class CachedFile {
 public:
  // Collects every finished job of the file's blocks, under the file's lock; errors stay with the
  // file, which tells them to whoever writes to it.
  //   Threads  a reaper thread, which holds no mutex; one call at a time
  virtual void Reap() = 0;

  // A write-back of the file fails.
  //   Threads  any, with any file's lock held: takes no VeskLock, and calls neither the reaper nor
  //            anything that takes one
  virtual void WriteFails(const WriteFailure& failure) = 0;

 protected:
  ~CachedFile() = default;
};

// The threads of a VeskThreadPool. A file is looked at when the cache has marked its name, and
// again after each of its jobs has ended that no thread is sure to collect: so no finished job
// stays uncollected, and nothing is looked at while nothing happens.
//   Owns     its threads; borrows the pool, which outlives it, and the files that were added
//   Threads  any
class Reaper {
 public:
  //   Before   threads > 0
  //   Ends in  std::system_error when a thread cannot be started
  Reaper(VeskThreadPool& pool, std::size_t threads);

  // Looks once more at what is marked, then ends the threads.
  ~Reaper();
  Reaper(const Reaper&) = delete;
  Reaper& operator=(const Reaper&) = delete;

  // From now on `file` is called for `name`. Several files may have one name.
  void Add(const std::string& name, CachedFile& file);

  // Returns when no call of `file` is running; none comes later.
  //   Before   the calling thread does not hold the file's lock, which a running call may wait for
  void Remove(CachedFile& file);

  // A job of this file has ended: what the dispatcher's OnEnd is connected to.
  void JobEnded(const std::string& name);

  // What the retry decorator's OnWriteFailure is connected to.
  void WriteFails(const WriteFailure& failure);

  struct Stats {
    std::uint64_t wakeups = 0;  // of threads that had slept
    std::uint64_t looks = 0;    // calls of CachedFile::Reap
  };
  Stats GetStats() const;

 private:
  struct Entry {
    CachedFile* file;
    bool reaping = false;  // its Reap is running
    bool again = false;    // and another look is due after it
  };
  using Files = std::multimap<std::string, Entry>;

  void Work();
  bool NextName(std::string* name);
  void ReapAll(const std::string& name);
  void ReapEvery();
  void Reap(Entry& entry) VESK_REQUIRES(mutex_);
  void EndThreads();

  VeskThreadPool& pool_;

  // Guarded by the pool's tp_mutex.
  bool ending_ = false;
  bool forgot_names_ = false;  // for lack of memory: every file has to be looked at
  std::uint64_t wakeups_ = 0;

  mutable Mutex mutex_;
  Condition left_;
  Files files_ VESK_GUARDED_BY(mutex_);
  std::uint64_t looks_ VESK_GUARDED_BY(mutex_) = 0;

  std::vector<Thread> threads_;
};

}  // namespace vesk

#endif  // RUNTIME_REAPER_H_
