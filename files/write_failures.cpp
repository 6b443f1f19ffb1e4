#include "files/write_failures.h"

#include <new>
#include <utility>

namespace vesk {

namespace {

CancelToken* CurrentToken() {
  const RequestLimits* const limits = RequestScope::Current();
  return limits == nullptr ? nullptr : limits->cancel;
}

}  // namespace

WriteFailures::Watch::Watch(WriteFailures& failures)
    : failures_(failures), token_(CurrentToken()), scope_({Clock::kNever, &token_}) {
  const MutexLock guard(failures.mutex_);
  next_ = failures.watches_;
  failures.watches_ = this;
}

WriteFailures::Watch::~Watch() {
  const MutexLock guard(failures_.mutex_);
  Watch** link = &failures_.watches_;
  while (*link != this) link = &(*link)->next_;
  *link = next_;
}

void WriteFailures::Tell(const WriteFailure& failure) {
  const MutexLock guard(mutex_);
  bool told = false;
  try {
    int& error = failing_[failure.offset];
    told = failure.given_up && error == failure.error;  // by its owner's will: no news
    error = failure.error;
  } catch (const std::bad_alloc&) {  // then its end tells of it once more
  }
  if (!told) Raise(failure.error);
  for (const auto& [who, listener] : listeners_) listener(failure);
}

void WriteFailures::Ended(std::uint64_t offset, int error) {
  const MutexLock guard(mutex_);
  const auto failing = failing_.find(offset);
  const bool told = failing != failing_.end() && failing->second == error;
  if (failing != failing_.end()) failing_.erase(failing);
  if (!told) Raise(error);
}

void WriteFailures::Succeeded(std::uint64_t offset) {
  const MutexLock guard(mutex_);
  failing_.erase(offset);
}

void WriteFailures::Note(int error) {
  const MutexLock guard(mutex_);
  Raise(error);
}

void WriteFailures::Raise(int error) {
  last_error_.store(error, std::memory_order_relaxed);
  count_.fetch_add(1);
  for (Watch* watch = watches_; watch != nullptr; watch = watch->next_) watch->token_.Cancel();
}

int WriteFailures::At(std::uint64_t offset) const {
  const MutexLock guard(mutex_);
  const auto failing = failing_.find(offset);
  return failing == failing_.end() ? 0 : failing->second;
}

int WriteFailures::Any() const {
  const MutexLock guard(mutex_);
  return failing_.empty() ? 0 : failing_.begin()->second;
}

int WriteFailures::TakeNews(Seen* seen) const {
  const MutexLock guard(mutex_);
  const std::uint64_t count = count_.load();
  return seen->exchange(count) == count ? 0 : last_error_.load(std::memory_order_relaxed);
}

void WriteFailures::Listen(const void* who, Listener listener) {
  const MutexLock guard(mutex_);
  if (listener) {
    listeners_[who] = std::move(listener);
  } else {
    listeners_.erase(who);
  }
}

}  // namespace vesk
