#include "files/file.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <new>
#include <utility>
#include <vector>

#include "runtime/clock.h"
#include "runtime/decorator_retry.h"
#include "runtime/request.h"
#include "vesk/VeskBundler.h"
#include "vesk/VeskException.h"

namespace vesk {

namespace {

// Bytes that one request may ask of the cache: its counts are 32 bits wide.
constexpr std::size_t kMaxRequest = 1u << 30;

// Bytes that a file may have: its offsets are signed in the store.
constexpr std::uint64_t kMaxSize = std::numeric_limits<std::int64_t>::max();

// Keeps a stream for the rest of the process: its blocks may be dirty or in flight, so destroying
// it would end the process, or let a job write into freed memory. Kept in reach, so that a leak
// checker tells of other leaks only.
void LeaveInMemory(std::unique_ptr<VeskStream> stream) {
  static Mutex mutex;
  static auto* const left = new std::vector<std::unique_ptr<VeskStream>>;
  if (stream == nullptr) return;
  const MutexLock guard(mutex);
  try {
    left->push_back(nullptr);
    left->back() = std::move(stream);
  } catch (const std::bad_alloc&) {
    (void)stream.release();
  }
}

unsigned int RequestLength(std::size_t length) {
  return static_cast<unsigned int>(std::min(length, kMaxRequest));
}

}  // namespace

using FileLock = Holding<VeskLock>;

File::File(const Services& services, const std::string& name, std::uint64_t size,
           const CacheShape& shape)
    : services_(services),
      name_(name),
      shape_(shape),
      stream_(std::make_unique<VeskStream>(name, &services.bundler, 0, 0, 0)),
      size_(size) {
  if (services_.reaper != nullptr) services_.reaper->Add(name_, *this);
}

File::~File() {
  Close();
  if (services_.reaper != nullptr) services_.reaper->Remove(*this);
  const FileLock guard(lock_);
  if (abandoned_) services_.retry->KeepAgain(name_);
  LeaveInMemory(std::move(stream_));
}

bool File::Broken() const {
  const FileLock guard(lock_);
  return broken_;
}

FileStats File::GetStats() const {
  const FileLock guard(lock_);
  return stats_;
}

int File::LastWriteFailure() const {
  const MutexLock guard(failure_mutex_);
  return write_failure_;
}

void File::OnWriteFailure(std::function<void(const WriteFailure&)> told) {
  const MutexLock guard(failure_mutex_);
  told_ = std::move(told);
}

void File::WriteFails(const WriteFailure& failure) {
  const MutexLock guard(failure_mutex_);
  write_failure_ = failure.error;
  if (told_) told_(failure);
}

void File::Reap() {
  const FileLock guard(lock_);
  if (stream_ != nullptr && !broken_) CollectAll();
}

void File::CollectAll() {
  for (VeskBuffer* const block : stream_->buffers) {
    if (block->job != nullptr) Collect(*block);
  }
  if (!broken_) DropInvalid();
}

// Takes the end of a finished job into its block. A failed write is told to the writer later; a
// block that was fetched in vain is fetched again when somebody asks for it.
void File::Collect(VeskBuffer& block) {
  const bool write = block.GetState(VeskBuffer::IOW) != 0;
  try {
    block.WaitForBuffer(&lock_, &services_.bundler, stream_->name, false, "Reap");
  } catch (const VeskException& failure) {
    if (failure.code == ERR_ASSERT) {
      broken_ = true;
      return;
    }
    if (write) {
      NoteUntold(failure.code);
    } else {
      ++stats_.failed_read_ahead;
    }
  }
}

void File::NoteUntold(int error) {
  if (untold_error_ == 0) untold_error_ = error;
}

// A block whose job failed is invalid and empty: the next write to its first byte would fail a
// check, and if it were made valid again, a later block with the same bytes could outlive it and be
// served after it was written to.
void File::DropInvalid() {
  for (auto it = stream_->buffers.begin(); it != stream_->buffers.end();) {
    VeskBuffer* const block = *it;
    if (block->GetState(VeskBuffer::INV) == 0 || block->job != nullptr) {
      ++it;
      continue;
    }
    it = stream_->buffers.erase(it);
    delete block;
    stream_->last_buffer = nullptr;  // a shortcut, which may have led to it
  }
}

// A stream without blocks covers nothing: it is as new, whatever range it covered before.
void File::ResetEmpty() {
  if (!stream_->buffers.empty()) return;
  stream_->curr_off = 0;
  stream_->curr_len = 0;
}

// Issues `request` until it ends in something else than a wait. While it waits the file may be
// closed or break.
template <typename Request>
File::Outcome File::Serve(const Request& request) {
  Outcome outcome;
  while (outcome.error == 0) {
    if (stream_ == nullptr) outcome.error = EBADF;
    if (broken_) outcome.error = EIO;
    if (outcome.error != 0) break;
    ResetEmpty();
    try {
      outcome.count = request();
      break;
    } catch (const VeskException& failure) {
      if (failure.code == ERR_WAIT) {
        outcome.waited = true;
        outcome.error = RequestScope::Exceeded(services_.clock);
        outcome.limited = outcome.error != 0;
      } else if (failure.code == ERR_ASSERT) {
        broken_ = true;
        outcome.error = EIO;
      } else {
        outcome.error = failure.code;
        DropInvalid();
      }
    }
  }
  return outcome;
}

void File::Count(const Outcome& outcome) {
  ++stats_.requests;
  if (outcome.waited) ++stats_.waited;
}

int File::ReadAt(void* destination, std::size_t length, std::uint64_t offset, std::size_t* moved) {
  *moved = 0;
  const FileLock guard(lock_);
  // Clipped to the size: no block is fetched beyond the end, none is left short behind it.
  if (offset >= size_) return 0;
  const std::size_t wanted = std::min<std::uint64_t>(length, size_ - offset);
  auto* const bytes = static_cast<unsigned char*>(destination);
  while (*moved < wanted) {
    const Outcome outcome = Serve([&]() VESK_REQUIRES(lock_) {
      bool eof = false;  // afresh for each request: a true flag would make the cache invent zeros
      return stream_->Read(&lock_, bytes + *moved, offset + *moved, RequestLength(wanted - *moved),
                           &eof, size_, 0, shape_.block_size, shape_.max_blocks, shape_.read_ahead,
                           nullptr);
    });
    Count(outcome);
    if (outcome.error != 0) {
      // It may be a write-back's: the writer is to hear of it as well.
      if (written_ && !outcome.limited) NoteUntold(outcome.error);
      return outcome.error;
    }
    if (outcome.count == 0) return 0;  // the file in the store has become shorter
    *moved += outcome.count;
  }
  return 0;
}

int File::WriteAt(const void* source, std::size_t length, std::uint64_t offset) {
  if (offset > kMaxSize || length > kMaxSize - offset) return EFBIG;
  const FileLock guard(lock_);
  // The cache takes one kind of pointer for both directions; a write only reads from it.
  auto* const bytes = static_cast<unsigned char*>(const_cast<void*>(source));
  const std::uint64_t limit = std::max(size_, offset + length);
  written_ = true;
  for (std::size_t moved = 0; moved < length;) {
    const Outcome outcome = Serve([&]() VESK_REQUIRES(lock_) {
      return stream_->Write(&lock_, bytes + moved, offset + moved, RequestLength(length - moved),
                            limit, 0, shape_.block_size, shape_.max_blocks, false, nullptr);
    });
    Count(outcome);
    if (outcome.error != 0) return outcome.error;
    moved += outcome.count;
    size_ = std::max(size_, offset + moved);
  }
  return 0;
}

int File::Flush() {
  const FileLock guard(lock_);
  return Drain().error;
}

// Starts every write, then waits until no block is dirty or busy; ends early at the limits of the
// calling thread's request. What has failed is collected before each look, by this thread or by the
// reaper, so that a failed write is told apart from a block fetched ahead in vain; each is met
// once, so the loop ends.
File::Outcome File::Drain() {
  Outcome drained;
  for (bool wait = false;;) {
    const Outcome outcome = Serve([&]() VESK_REQUIRES(lock_) {
      CollectAll();
      if (broken_) throw VeskException(ERR_ASSERT);
      stream_->Flush(&lock_, wait, false, false, false);
      return 0u;
    });
    if (outcome.limited) {  // what has failed so far is told by the next one
      NoteUntold(drained.error);
      return outcome;
    }
    const int collected = std::exchange(untold_error_, 0);
    if (drained.error == 0) drained.error = collected;
    if (drained.error == 0) drained.error = outcome.error;
    if (stream_ == nullptr || broken_) return drained;
    if (outcome.error != 0) continue;
    if (wait) return drained;
    wait = true;
  }
}

int File::Close() {
  const FileLock guard(lock_);
  if (stream_ == nullptr) return 0;
  const Outcome drained = Drain();
  if (drained.limited) return drained.error;
  if (broken_) {
    LeaveInMemory(std::move(stream_));
  } else {
    stream_.reset();
  }
  return drained.error;
}

void File::Discard() {
  if (services_.retry != nullptr) Abandon();
  const FileLock guard(lock_);
  if (stream_ == nullptr || broken_) return;
  for (VeskBuffer* const block : stream_->buffers) {
    if (block->GetState(VeskBuffer::DIRTY) == 0 || block->job != nullptr) continue;
    block->state = VeskBuffer::INV;
    block->dlen = block->dirty_length = 0;
  }
  DropInvalid();
}

// Without the lock: it ends jobs, and whoever is told of an end may want the lock.
void File::Abandon() {
  services_.retry->Abandon(name_);
  bool was_abandoned = false;
  {
    const FileLock guard(lock_);
    was_abandoned = std::exchange(abandoned_, true);
  }
  if (was_abandoned) services_.retry->KeepAgain(name_);  // once is enough
}

}  // namespace vesk
