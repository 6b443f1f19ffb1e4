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
  if (stream_ == nullptr || broken_) return;
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
    } else if (write) {
      if (untold_error_ == 0) untold_error_ = failure.code;
    } else {
      ++stats_.failed_read_ahead;
    }
  }
}

// Issues `request` until it ends in something else than a wait.
File::Outcome File::Serve(const std::function<unsigned int()>& request) {
  Outcome outcome;
  if (stream_ == nullptr) outcome.error = EBADF;
  if (broken_) outcome.error = EIO;
  while (outcome.error == 0) {
    try {
      outcome.count = request();
      break;
    } catch (const VeskException& failure) {
      if (failure.code == ERR_WAIT) {
        outcome.waited = true;
        outcome.error = RequestScope::Exceeded(services_.clock);
      } else if (failure.code == ERR_ASSERT) {
        broken_ = true;
        outcome.error = EIO;
      } else {
        outcome.error = failure.code;
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
      const bool limited = RequestScope::Exceeded(services_.clock) == outcome.error;
      if (written_ && !limited) untold_error_ = outcome.error;
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
  return Drain();
}

// Starts every write, then waits until no block is dirty or busy. Each failed job is met once: its
// block is invalid from then on and passed over, so the loop ends; it ends early at the limits of
// the calling thread's request.
int File::Drain() {
  int first_error = std::exchange(untold_error_, 0);
  for (bool wait = false;;) {
    const int error = Serve([&]() VESK_REQUIRES(lock_) {
                        stream_->Flush(&lock_, wait, false, false, false);
                        return 0u;
                      }).error;
    if (error != 0 && error == RequestScope::Exceeded(services_.clock)) {
      untold_error_ = first_error;  // to be told by the next one
      return error;
    }
    if (first_error == 0) first_error = error;
    if (stream_ == nullptr || broken_) return first_error;
    if (error != 0) continue;
    if (wait) return first_error;
    wait = true;
  }
}

int File::Close() {
  const FileLock guard(lock_);
  if (stream_ == nullptr) return 0;
  const int error = Drain();
  if (error != 0 && error == RequestScope::Exceeded(services_.clock)) return error;
  if (broken_) {
    (void)stream_.release();  // see the destructor
  } else {
    stream_.reset();
  }
  return error;
}

void File::Discard() {
  {
    const FileLock guard(lock_);
    if (stream_ == nullptr || broken_) return;
    for (VeskBuffer* const block : stream_->buffers) {
      if (block->GetState(VeskBuffer::DIRTY) == 0 || block->job != nullptr) continue;
      block->state = VeskBuffer::VALID;  // and empty, as a new block
      block->dlen = block->dirty_length = 0;
    }
  }
  if (services_.retry != nullptr) services_.retry->Discard(name_);
}

}  // namespace vesk
