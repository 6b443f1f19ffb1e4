// The default backend: files of the operating system, moved by threads with pread and pwrite.

#ifndef RUNTIME_BACKEND_THREADS_H_
#define RUNTIME_BACKEND_THREADS_H_

#include <cstddef>
#include <memory>
#include <thread>
#include <vector>

#include "runtime/backend.h"
#include "runtime/posix_files.h"
#include "vesk/VeskMutex.h"

namespace vesk {

// A batch is first tried in the calling thread, without blocking: what the page cache holds is read
// at once, the rest goes to the threads.
class ThreadsBackend : public VeskBackend {
 public:
  struct Options {
    std::size_t threads = 4;  // at least 1
    PosixFiles::Options files;
  };

  //   Ends in  std::system_error when a thread cannot be started
  explicit ThreadsBackend(const Options& options);

  // The same, over files that others use too.
  ThreadsBackend(std::size_t threads, std::shared_ptr<PosixFiles> files);

  // Runs what is queued, then ends the threads.
  ~ThreadsBackend() override;

  void Start(JobQueue& jobs) override;
  void Run(VeskJob* job) override;
  bool Withdraw(VeskJob* job) override;
  void CancelAll(int error) override;

 private:
  bool Cancelled();
  void Work();
  void EndThreads();

  const std::shared_ptr<PosixFiles> files_;
  Mutex mutex_;
  Condition work_;
  JobQueue queue_ VESK_GUARDED_BY(mutex_);
  int cancelled_ VESK_GUARDED_BY(mutex_) = 0;  // what jobs end with instead of being performed
  bool ending_ VESK_GUARDED_BY(mutex_) = false;
  std::vector<std::thread> threads_;
};

}  // namespace vesk

#endif  // RUNTIME_BACKEND_THREADS_H_
