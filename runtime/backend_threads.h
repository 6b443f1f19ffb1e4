// The default backend: files of the operating system, moved by threads with pread and pwrite.

#ifndef RUNTIME_BACKEND_THREADS_H_
#define RUNTIME_BACKEND_THREADS_H_

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "runtime/backend.h"
#include "runtime/descriptor_cache.h"
#include "runtime/job_queue.h"
#include "runtime/transfer.h"

namespace vesk {

// Names are paths. A transfer is carried on over short counts and interruptions until it is
// complete, the file ends (a read), or it fails.
class ThreadsBackend : public VeskBackend {
 public:
  struct Options {
    std::size_t threads = 4;       // at least 1
    std::size_t descriptors = 64;  // kept open at most, at least 1
  };

  //   Ends in  std::system_error when a thread cannot be started
  explicit ThreadsBackend(const Options& options);

  // Runs what is queued, then ends the threads.
  ~ThreadsBackend() override;

  void Start(VeskJob* job) override;
  void Run(VeskJob* job) override;

  int Stat(const std::string& name, FileInfo* info) override;
  int Open(const std::string& name, Access access) override;
  int Create(const std::string& name, mode_t permissions) override;
  int Truncate(const std::string& name, std::uint64_t size) override;
  int NextData(const std::string& name, std::uint64_t offset, Extent* extent) override;
  int Sync(const std::string& name) override;
  int Rename(const std::string& from, const std::string& to) override;
  int Remove(const std::string& name) override;

 private:
  void Work();
  void EndThreads();
  int Perform(const Transfer& transfer);

  DescriptorCache descriptors_;
  std::mutex mutex_;
  std::condition_variable work_;
  JobQueue queue_;       // guarded by mutex_; holds a reference to each job
  bool ending_ = false;  // guarded by mutex_
  std::vector<std::thread> threads_;
};

}  // namespace vesk

#endif  // RUNTIME_BACKEND_THREADS_H_
