#include "runtime/descriptor_cache.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace vesk {

Descriptor::~Descriptor() { close(fd_); }

int DescriptorCache::Get(const std::string& name, VeskBackend::Access access,
                         std::shared_ptr<const Descriptor>* descriptor) {
  const Key key(name, access);
  *descriptor = Find(key);
  if (*descriptor != nullptr) return 0;

  const int flags = (access == VeskBackend::Access::kWrite ? O_WRONLY : O_RDONLY) | O_CLOEXEC;
  int fd = -1;
  do {
    fd = open(name.c_str(), flags);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return errno;
  *descriptor = std::make_shared<const Descriptor>(fd);
  Keep(key, *descriptor);
  return 0;
}

void DescriptorCache::Forget(const std::string& name) {
  const std::lock_guard<std::mutex> guard(mutex_);
  for (const auto access : {VeskBackend::Access::kRead, VeskBackend::Access::kWrite}) {
    const auto found = by_key_.find(Key(name, access));
    if (found == by_key_.end()) continue;
    entries_.erase(found->second);
    by_key_.erase(found);
  }
}

std::shared_ptr<const Descriptor> DescriptorCache::Find(const Key& key) {
  const std::lock_guard<std::mutex> guard(mutex_);
  const auto found = by_key_.find(key);
  if (found == by_key_.end()) return nullptr;
  entries_.splice(entries_.begin(), entries_, found->second);
  return entries_.front().descriptor;
}

void DescriptorCache::Keep(const Key& key, const std::shared_ptr<const Descriptor>& descriptor) {
  const std::lock_guard<std::mutex> guard(mutex_);
  if (by_key_.count(key) != 0) return;  // another thread was first: this one serves its job only
  entries_.push_front({key, descriptor});
  by_key_[key] = entries_.begin();
  if (entries_.size() <= capacity_) return;
  by_key_.erase(entries_.back().key);
  entries_.pop_back();
}

}  // namespace vesk
