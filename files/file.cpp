#include "files/file.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <utility>

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

File::File(VeskBundler& bundler, const std::string& name, std::uint64_t size,
           const CacheShape& shape)
    : shape_(shape), stream_(std::make_unique<VeskStream>(name, &bundler, 0, 0, 0)), size_(size) {}

File::~File() { Close(); }

bool File::Broken() const {
  const std::lock_guard<VeskLock> guard(lock_);
  return broken_;
}

FileStats File::GetStats() const {
  const std::lock_guard<VeskLock> guard(lock_);
  return stats_;
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
  const std::lock_guard<VeskLock> guard(lock_);
  // Clipped to the size: no block is fetched beyond the end, none is left short behind it.
  if (offset >= size_) return 0;
  const std::size_t wanted = std::min<std::uint64_t>(length, size_ - offset);
  auto* const bytes = static_cast<unsigned char*>(destination);
  while (*moved < wanted) {
    const Outcome outcome = Serve([&] {
      bool eof = false;  // afresh for each request: a true flag would make the cache invent zeros
      return stream_->Read(&lock_, bytes + *moved, offset + *moved, RequestLength(wanted - *moved),
                           &eof, size_, 0, shape_.block_size, shape_.max_blocks, shape_.read_ahead,
                           nullptr);
    });
    Count(outcome);
    if (outcome.error != 0) {
      // It may be a write-back's: the writer is to hear of it as well.
      if (written_) met_by_reader_ = outcome.error;
      return outcome.error;
    }
    if (outcome.count == 0) return 0;  // the file in the store has become shorter
    *moved += outcome.count;
  }
  return 0;
}

int File::WriteAt(const void* source, std::size_t length, std::uint64_t offset) {
  if (offset > kMaxSize || length > kMaxSize - offset) return EFBIG;
  const std::lock_guard<VeskLock> guard(lock_);
  // The cache takes one kind of pointer for both directions; a write only reads from it.
  auto* const bytes = static_cast<unsigned char*>(const_cast<void*>(source));
  const std::uint64_t limit = std::max(size_, offset + length);
  written_ = true;
  for (std::size_t moved = 0; moved < length;) {
    const Outcome outcome = Serve([&] {
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
  const std::lock_guard<VeskLock> guard(lock_);
  return Drain();
}

// Starts every write, then waits until no block is dirty or busy. Each failed job is met once: its
// block is invalid from then on and passed over, so the loop ends.
int File::Drain() {
  int first_error = std::exchange(met_by_reader_, 0);
  for (bool wait = false;;) {
    const int error = Serve([&] {
                        stream_->Flush(&lock_, wait, false, false, false);
                        return 0u;
                      }).error;
    if (first_error == 0) first_error = error;
    if (stream_ == nullptr || broken_) return first_error;
    if (error != 0) continue;
    if (wait) return first_error;
    wait = true;
  }
}

int File::Close() {
  const std::lock_guard<VeskLock> guard(lock_);
  if (stream_ == nullptr) return 0;
  const int error = Drain();
  if (broken_) {
    // Its blocks may be dirty or in flight, and destroying those would end the process. Their
    // memory stays: jobs may still move bytes there.
    stream_.release();  // NOLINT(bugprone-unused-return-value): kept on purpose
  } else {
    stream_.reset();
  }
  return error;
}

}  // namespace vesk
