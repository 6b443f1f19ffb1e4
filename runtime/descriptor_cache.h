// Open file descriptors by name, kept for the next job, no more than a bound.

#ifndef RUNTIME_DESCRIPTOR_CACHE_H_
#define RUNTIME_DESCRIPTOR_CACHE_H_

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "vesk/VeskMutex.h"

namespace vesk {

// How a file is opened; the direct ones go past the page cache.
enum class OpenFor { kRead, kWrite, kDirectRead, kDirectWrite };

// An open file descriptor.
class Descriptor {
 public:
  explicit Descriptor(int fd, OpenFor opened_for = OpenFor::kRead)
      : fd_(fd), opened_for_(opened_for) {}
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int fd() const { return fd_; }
  bool IsDirect() const {
    return opened_for_ == OpenFor::kDirectRead || opened_for_ == OpenFor::kDirectWrite;
  }

 private:
  const int fd_;
  const OpenFor opened_for_;
};

// The least recently used descriptor goes first; one that a transfer still uses is closed after it.
//   Threads  any; files are opened outside the mutex, so a slow open holds nobody up
class DescriptorCache {
 public:
  using Key = std::pair<std::string, OpenFor>;

  //   Before   capacity > 0
  explicit DescriptorCache(std::size_t capacity) : capacity_(capacity) {}

  //   Ends in  0 and `*descriptor`, or open(2)'s errno
  int Get(const Key& key, std::shared_ptr<const Descriptor>* descriptor);

  // What is open already, or null.
  std::shared_ptr<const Descriptor> Find(const Key& key);

  // The name stands for another file, or for none, from now on.
  void Forget(const std::string& name);

 private:
  struct Entry {
    Key key;
    std::shared_ptr<const Descriptor> descriptor;
  };
  using Entries = std::list<Entry>;  // most recently used first

  void Keep(const Key& key, const std::shared_ptr<const Descriptor>& descriptor,
            std::uint64_t generation);

  const std::size_t capacity_;
  Mutex mutex_;
  std::uint64_t generation_ VESK_GUARDED_BY(mutex_) = 0;  // counts Forget
  Entries entries_ VESK_GUARDED_BY(mutex_);
  std::map<Key, Entries::iterator> by_key_ VESK_GUARDED_BY(mutex_);
};

}  // namespace vesk

#endif  // RUNTIME_DESCRIPTOR_CACHE_H_
