#include "files/file.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <utility>

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
  // Its blocks may be dirty or in flight, and destroying those would end the process. Their memory
  // stays: jobs may still move bytes there.
  (void)stream_.release();
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
    Mend();
  }
}

void File::NoteUntold(int error) {
  if (untold_error_ == 0) untold_error_ = error;
}

// A block whose job failed is invalid, and the next write to its first byte would fail a check. It
// is made an empty block of great age, so that the cache drops it as soon as a request meets it.
// Not the first one: a stream whose only block was dropped must not be asked for what lies before
// it.
void File::Mend() {
  for (VeskBuffer* const block : stream_->buffers) {
    if (block->GetState(VeskBuffer::INV) == 0 || block->job != nullptr) continue;
    block->state = VeskBuffer::VALID;
    block->rc = 0;
    if (block != stream_->buffers.front()) block->ltime = 1;  // 0 would be none
  }
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
        Mend();
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
    if (outcome.limited) return outcome;  // what has failed so far is told by the next one
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
    (void)stream_.release();  // see the destructor
  } else {
    stream_.reset();
  }
  return drained.error;
}

void File::Discard() {
  bool abandon = false;
  {
    const FileLock guard(lock_);
    if (stream_ == nullptr || broken_) return;
    for (VeskBuffer* const block : stream_->buffers) {
      if (block->GetState(VeskBuffer::DIRTY) == 0 || block->job != nullptr) continue;
      block->state = VeskBuffer::VALID;  // and empty, as a new block
      block->dlen = block->dirty_length = 0;
    }
    abandon = services_.retry != nullptr && !abandoned_;
    abandoned_ = abandoned_ || abandon;
  }
  // Without the lock: it ends jobs, and whoever is told of an end may want the lock.
  if (abandon) services_.retry->Abandon(name_);
}

}  // namespace vesk
