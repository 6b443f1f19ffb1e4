#include "runtime/backend_threads.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <new>

#include "vesk/VeskJob.h"

namespace vesk {

namespace {

// Calls until it is not interrupted by a signal.
template <typename Call>
auto Uninterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR) result = call();
  return result;
}

// 0, or why the last system call failed; never 0 for a failure.
int ErrnoOf(long result) {
  if (result >= 0) return 0;
  return errno != 0 ? errno : EIO;
}

int ReadAll(int fd, const Transfer& transfer) {
  std::size_t done = 0;
  while (done < transfer.length) {
    const ssize_t count = Uninterrupted([&] {
      return pread(fd, transfer.data + done, transfer.length - done,
                   static_cast<off_t>(transfer.offset + done));
    });
    if (count < 0) return ErrnoOf(count);
    if (count == 0) break;  // the file ends here: the count tells
    done += static_cast<std::size_t>(count);
  }
  transfer.StoreCount(done);
  return 0;
}

int WriteAll(int fd, const Transfer& transfer) {
  std::size_t done = 0;
  while (done < transfer.length) {
    const ssize_t count = Uninterrupted([&] {
      return pwrite(fd, transfer.data + done, transfer.length - done,
                    static_cast<off_t>(transfer.offset + done));
    });
    if (count < 0) return ErrnoOf(count);
    if (count == 0) return EIO;  // nothing written and no reason given: never report success
    done += static_cast<std::size_t>(count);
  }
  return 0;
}

std::string DirectoryOf(const std::string& name) {
  const std::size_t slash = name.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : name.substr(0, slash);
}

// Makes a new or changed directory entry survive a crash.
int SyncDirectory(const std::string& directory) {
  const int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return errno;
  const Descriptor descriptor(fd);
  const int error = ErrnoOf(Uninterrupted([&] { return fsync(fd); }));
  return error == EINVAL ? 0 : error;  // a file system without such a thing has nothing to lose
}

}  // namespace

ThreadsBackend::ThreadsBackend(const Options& options) : descriptors_(options.descriptors) {
  try {
    threads_.reserve(options.threads);
    for (std::size_t i = 0; i < options.threads; ++i) threads_.emplace_back([this] { Work(); });
  } catch (...) {
    EndThreads();
    throw;
  }
}

ThreadsBackend::~ThreadsBackend() { EndThreads(); }

void ThreadsBackend::EndThreads() {
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    ending_ = true;
  }
  work_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

void ThreadsBackend::Start(VeskJob* job) {
  job->RefCountInc();  // the queue's: a waiter may run the job and let it go while it is queued
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    queue_.Push(job);
  }
  work_.notify_one();
}

void ThreadsBackend::Work() {
  std::unique_lock<std::mutex> guard(mutex_);
  for (;;) {
    work_.wait(guard, [this] { return ending_ || !queue_.Empty(); });
    if (queue_.Empty()) return;
    VeskJob* const job = queue_.Pop();
    guard.unlock();
    if (job->Claim()) Run(job);
    VeskJob::RefCountDec(job);
    guard.lock();
  }
}

void ThreadsBackend::Run(VeskJob* job) {
  int result = ENOMEM;
  try {
    result = Perform(Transfer(job->GetOP()));
  } catch (const std::bad_alloc&) {  // no memory for a descriptor's entry: the job fails, no more
  }
  job->Complete(result);
}

int ThreadsBackend::Perform(const Transfer& transfer) {
  std::shared_ptr<const Descriptor> file;
  const Access access = transfer.is_write ? Access::kWrite : Access::kRead;
  if (const int error = descriptors_.Get(transfer.name, access, &file)) return error;
  return transfer.is_write ? WriteAll(file->fd(), transfer) : ReadAll(file->fd(), transfer);
}

int ThreadsBackend::Stat(const std::string& name, FileInfo* info) {
  struct stat status = {};
  if (const int error = ErrnoOf(stat(name.c_str(), &status))) return error;
  info->size = static_cast<std::uint64_t>(status.st_size);
  info->mode = status.st_mode;
  info->device = status.st_dev;
  info->inode = status.st_ino;
  return 0;
}

int ThreadsBackend::Open(const std::string& name, Access access) {
  std::shared_ptr<const Descriptor> file;
  return descriptors_.Get(name, access, &file);
}

int ThreadsBackend::Create(const std::string& name, mode_t permissions) {
  const int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, permissions);
  if (fd < 0) return errno;
  const Descriptor file(fd);
  return ErrnoOf(fchmod(fd, permissions));  // open took the process's umask off
}

int ThreadsBackend::Truncate(const std::string& name, std::uint64_t size) {
  return ErrnoOf(Uninterrupted([&] { return truncate(name.c_str(), static_cast<off_t>(size)); }));
}

int ThreadsBackend::NextData(const std::string& name, std::uint64_t offset, Extent* extent) {
  std::shared_ptr<const Descriptor> file;
  if (const int error = descriptors_.Get(name, Access::kRead, &file)) return error;
  struct stat status = {};
  if (const int error = ErrnoOf(fstat(file->fd(), &status))) return error;
  const auto size = static_cast<std::uint64_t>(status.st_size);

  *extent = {size, size};
  if (offset >= size) return 0;
  const off_t begin = lseek(file->fd(), static_cast<off_t>(offset), SEEK_DATA);
  if (begin < 0) {
    if (errno == ENXIO) return 0;       // a hole to the end
    if (errno != EINVAL) return errno;  // EINVAL: this file system cannot tell
    *extent = {offset, size};
    return 0;
  }
  const off_t end = lseek(file->fd(), begin, SEEK_HOLE);
  if (end < 0) return errno;
  *extent = {static_cast<std::uint64_t>(begin), static_cast<std::uint64_t>(end)};
  return 0;
}

int ThreadsBackend::Sync(const std::string& name) {
  std::shared_ptr<const Descriptor> file;
  if (const int error = descriptors_.Get(name, Access::kWrite, &file)) return error;
  return ErrnoOf(Uninterrupted([&] { return fsync(file->fd()); }));
}

int ThreadsBackend::Rename(const std::string& from, const std::string& to) {
  if (const int error = ErrnoOf(rename(from.c_str(), to.c_str()))) return error;
  descriptors_.Forget(from);
  descriptors_.Forget(to);
  return SyncDirectory(DirectoryOf(to));
}

int ThreadsBackend::Remove(const std::string& name) {
  descriptors_.Forget(name);
  return ErrnoOf(unlink(name.c_str()));
}

}  // namespace vesk
