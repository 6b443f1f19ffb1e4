#include "runtime/descriptor_cache.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace vesk {

namespace {

int Flags(OpenFor opened_for) {
  switch (opened_for) {
    case OpenFor::kRead: return O_RDONLY | O_CLOEXEC;
    case OpenFor::kWrite: return O_WRONLY | O_CLOEXEC;
    case OpenFor::kDirectRead: return O_RDONLY | O_DIRECT | O_CLOEXEC;
    case OpenFor::kDirectWrite: return O_WRONLY | O_DIRECT | O_CLOEXEC;
  }
  return O_RDONLY | O_CLOEXEC;
}

}  // namespace

Descriptor::~Descriptor() { close(fd_); }

int DescriptorCache::Get(const Key& key, std::shared_ptr<const Descriptor>* descriptor) {
  *descriptor = Find(key);
  if (*descriptor != nullptr) return 0;
  std::uint64_t generation = 0;
  {
    const MutexLock guard(mutex_);
    generation = generation_;
  }

  int fd = -1;
  do {
    fd = open(key.first.c_str(), Flags(key.second));
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return errno;
  try {
    *descriptor = std::make_shared<const Descriptor>(fd, key.second);
  } catch (...) {
    close(fd);
    throw;
  }
  Keep(key, *descriptor, generation);
  return 0;
}

void DescriptorCache::Forget(const std::string& name) {
  const MutexLock guard(mutex_);
  ++generation_;
  auto found = by_key_.lower_bound(Key(name, OpenFor::kRead));
  while (found != by_key_.end() && found->first.first == name) {
    entries_.erase(found->second);
    found = by_key_.erase(found);
  }
}

std::shared_ptr<const Descriptor> DescriptorCache::Find(const Key& key) {
  const MutexLock guard(mutex_);
  const auto found = by_key_.find(key);
  if (found == by_key_.end()) return nullptr;
  entries_.splice(entries_.begin(), entries_, found->second);
  return entries_.front().descriptor;
}

void DescriptorCache::Keep(const Key& key, const std::shared_ptr<const Descriptor>& descriptor,
                           std::uint64_t generation) {
  const MutexLock guard(mutex_);
  // A name was forgotten since before the file was opened: it may be this one, and stand for
  // another file by now. The descriptor serves its job only.
  if (generation != generation_) return;
  const auto [place, is_new] = by_key_.try_emplace(key);
  if (!is_new) return;  // another thread was first: this one serves its job only
  try {
    entries_.push_front({key, descriptor});
  } catch (...) {
    by_key_.erase(place);
    throw;
  }
  place->second = entries_.begin();
  if (entries_.size() <= capacity_) return;
  by_key_.erase(entries_.back().key);
  entries_.pop_back();
}

}  // namespace vesk
