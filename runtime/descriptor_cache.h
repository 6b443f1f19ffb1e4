// Open file descriptors by name, kept for the next job, no more than a bound.

#ifndef RUNTIME_DESCRIPTOR_CACHE_H_
#define RUNTIME_DESCRIPTOR_CACHE_H_

#include <cstddef>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "runtime/backend.h"

namespace vesk {

// An open file descriptor.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd_(fd) {}
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int fd() const { return fd_; }

 private:
  const int fd_;
};

// The least recently used descriptor goes first; one that a transfer still uses is closed after it.
//   Threads  any; files are opened outside the mutex, so a slow open holds nobody up
class DescriptorCache {
 public:
  //   Before   capacity > 0
  explicit DescriptorCache(std::size_t capacity) : capacity_(capacity) {}

  //   Ends in  0 and `*descriptor`, or open(2)'s errno
  int Get(const std::string& name, VeskBackend::Access access,
          std::shared_ptr<const Descriptor>* descriptor);

  // The name stands for another file, or for none, from now on.
  void Forget(const std::string& name);

 private:
  using Key = std::pair<std::string, VeskBackend::Access>;
  struct Entry {
    Key key;
    std::shared_ptr<const Descriptor> descriptor;
  };
  using Entries = std::list<Entry>;  // most recently used first

  std::shared_ptr<const Descriptor> Find(const Key& key);
  void Keep(const Key& key, const std::shared_ptr<const Descriptor>& descriptor);

  const std::size_t capacity_;
  std::mutex mutex_;
  Entries entries_;                          // guarded by mutex_
  std::map<Key, Entries::iterator> by_key_;  // guarded by mutex_
};

}  // namespace vesk

#endif  // RUNTIME_DESCRIPTOR_CACHE_H_
