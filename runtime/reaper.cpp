#include "runtime/reaper.h"

#include <new>

namespace vesk {

namespace {

// A pthread mutex from here to the end of the scope.
class PoolLock {
 public:
  explicit PoolLock(VeskThreadPool& pool) : mutex_(pool.tp_mutex) { pthread_mutex_lock(&mutex_); }
  ~PoolLock() { pthread_mutex_unlock(&mutex_); }
  PoolLock(const PoolLock&) = delete;
  PoolLock& operator=(const PoolLock&) = delete;

 private:
  pthread_mutex_t& mutex_;
};

}  // namespace

Reaper::Reaper(VeskThreadPool& pool, std::size_t threads) : pool_(pool) {
  try {
    threads_.reserve(threads);
    for (std::size_t i = 0; i < threads; ++i) threads_.emplace_back([this] { Work(); });
  } catch (...) {
    EndThreads();
    throw;
  }
}

Reaper::~Reaper() { EndThreads(); }

void Reaper::EndThreads() {
  {
    const PoolLock guard(pool_);
    ending_ = true;
    pthread_cond_broadcast(&pool_.tp_cond);
  }
  for (Thread& thread : threads_) thread.join();
}

void Reaper::Add(const std::string& name, CachedFile& file) {
  const MutexLock guard(mutex_);
  files_.emplace(name, Entry{&file});
}

void Reaper::Remove(CachedFile& file) {
  const MutexLock guard(mutex_);
  for (auto entry = files_.begin(); entry != files_.end();) {
    if (entry->second.file != &file) {
      ++entry;
      continue;
    }
    entry->second.again = false;
    while (entry->second.reaping) left_.Wait(mutex_);
    entry = files_.erase(entry);
  }
}

void Reaper::JobEnded(const std::string& name) {
  const PoolLock guard(pool_);
  try {
    pool_.pending_streams[name] = 1;
  } catch (const std::bad_alloc&) {
    forgot_names_ = true;
  }
  pthread_cond_signal(&pool_.tp_cond);
}

void Reaper::WriteFails(const WriteFailure& failure) {
  const MutexLock guard(mutex_);
  const auto [begin, end] = files_.equal_range(failure.name);
  // The files take no lock but a small one of their own.
  for (auto entry = begin; entry != end; ++entry) entry->second.file->WriteFails(failure);
}

void Reaper::Work() {
  std::string name;
  while (NextName(&name)) {
    if (name.empty()) {
      ReapEvery();
    } else {
      ReapAll(name);
    }
  }
}

// Takes a marked name out; empty: any file may have something to collect. False: the reaper ends.
bool Reaper::NextName(std::string* name) {
  const PoolLock guard(pool_);
  while (pool_.pending_streams.empty() && !forgot_names_) {
    if (ending_) return false;
    pthread_cond_wait(&pool_.tp_cond, &pool_.tp_mutex);
    ++wakeups_;
  }
  name->clear();
  if (forgot_names_) {
    forgot_names_ = false;
    return true;
  }
  const auto first = pool_.pending_streams.begin();
  try {
    *name = first->first;
  } catch (const std::bad_alloc&) {  // then all are looked at, this one with them
  }
  pool_.pending_streams.erase(first);
  return true;
}

void Reaper::ReapAll(const std::string& name) {
  const MutexLock guard(mutex_);
  for (auto entry = files_.lower_bound(name); entry != files_.end() && entry->first == name;
       ++entry) {
    Reap(entry->second);  // the entry stays while it is called
  }
}

void Reaper::ReapEvery() {
  const MutexLock guard(mutex_);
  for (auto& [name, entry] : files_) Reap(entry);
}

void Reaper::Reap(Entry& entry) {
  if (entry.reaping) {  // by another thread, which may have passed the job already
    entry.again = true;
    return;
  }
  entry.reaping = true;
  do {
    entry.again = false;
    ++looks_;
    mutex_.unlock();
    entry.file->Reap();
    mutex_.lock();
  } while (entry.again);
  entry.reaping = false;
  left_.WakeAll();
}

Reaper::Stats Reaper::GetStats() const {
  Stats stats;
  {
    const PoolLock guard(pool_);
    stats.wakeups = wakeups_;
  }
  const MutexLock guard(mutex_);
  stats.looks = looks_;
  return stats;
}

}  // namespace vesk
