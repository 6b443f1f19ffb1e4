// One open file over the cache: takes the stream's lock, repeats what had to wait, speaks errno.

#ifndef FILES_FILE_H_
#define FILES_FILE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "runtime/reaper.h"
#include "runtime/services.h"
#include "vesk/VeskLock.h"
#include "vesk/VeskMutex.h"
#include "vesk/VeskStream.h"

namespace vesk {

// How a file is cached.
//   Units    bytes, blocks
struct CacheShape {
  // A stream refuses larger blocks (100 MiB and more) and 100 and more blocks ahead of a reader.
  static constexpr unsigned int kMaxBlockSize = (100u << 20) - 1;
  static constexpr unsigned int kMaxReadAhead = 99;

  unsigned int block_size = 256u << 10;  // 1 to kMaxBlockSize
  unsigned int max_blocks = 32;          // at least 1
  unsigned int read_ahead = 8;           // blocks ahead of a sequential reader, 0 to kMaxReadAhead
};

// What a file's requests met.
struct FileStats {
  std::uint64_t requests = 0;  // answered by the cache: a ReadAt or WriteAt takes one or more
  std::uint64_t waited = 0;    // of them, those that waited for storage at least once
  std::uint64_t failed_read_ahead =
      0;  // blocks fetched ahead in vain; fetched again when asked for
};

// An open file.
//   Units    bytes; offsets and lengths in the file
//   Owns     its stream. Borrows the services, which outlive it
//   Ends in  0 or a positive errno value. A write is taken when the cache has it; its fate in the
//            store is told by a later WriteAt, Flush or Close, once. EIO with Broken() set:
//            the cache failed a check of its own, and the file is of no more use. ETIMEDOUT or
//            ECANCELED: the calling thread's request (RequestScope) met its limits; a WriteAt may
//            have taken a part, and nothing that was taken is lost
//   Threads  any; one request at a time is inside the cache, and waits let others in
// Life: created with the file's size -> ReadAt, WriteAt, Flush -> Close.
class File final : private CachedFile {
 public:
  // `name` and `size` are those of an existing file in the store.
  File(const Services& services, const std::string& name, std::uint64_t size,
       const CacheShape& shape);

  // Closes; an error has nobody left to hear it, so a writer calls Close itself. What cannot be
  // closed within the calling thread's limits keeps its memory, which jobs may still use.
  ~File();

  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // Reads up to `length` bytes into `*moved`; fewer only where the file ends.
  int ReadAt(void* destination, std::size_t length, std::uint64_t offset, std::size_t* moved);

  // Writes all `length` bytes into the cache. The file grows as needed; a gap reads as zeros.
  //   Ends in  EFBIG, nothing written, when the file would grow beyond 2^63 - 1 bytes
  int WriteAt(const void* source, std::size_t length, std::uint64_t offset);

  // Returns when everything written has reached the store, or the first failure met. It makes
  // nothing durable: that is Store::Sync.
  int Flush();

  // Flush, then lets the cache go. Bytes that could not be stored are lost, and the error is the
  // report of that. ETIMEDOUT or ECANCELED: the file is still open, nothing is lost.
  int Close();

  // Gives up every byte that has not reached the store: dirty blocks are emptied, and until the
  // file is gone a write-back that fails is not kept. What is on its way may still arrive.
  void Discard();

  // The cache failed a check of its own: every later request ends in EIO.
  bool Broken() const;

  // Why a write-back failed last; 0: none has failed since the file was opened. Its bytes may be
  // kept and tried again, or stored by now.
  int LastWriteFailure() const;

  // `told` is called at each report of a failing write-back, by whatever thread meets it, which may
  // hold locks: it takes none and returns soon (CancelToken::Cancel is such a thing).
  void OnWriteFailure(std::function<void(const WriteFailure&)> told);

  FileStats GetStats() const;

 private:
  // What became of one request to the cache.
  struct Outcome {
    int error = 0;
    unsigned int count = 0;  // what the request returned
    bool waited = false;
    bool limited = false;  // `error` says that the calling thread's limits were met, and no more
  };

  void Reap() override;
  void WriteFails(const WriteFailure& failure) override;

  template <typename Request>
  Outcome Serve(const Request& request) VESK_REQUIRES(lock_);
  void Count(const Outcome& outcome) VESK_REQUIRES(lock_);
  void CollectAll() VESK_REQUIRES(lock_);
  void Collect(VeskBuffer& block) VESK_REQUIRES(lock_);
  void DropInvalid() VESK_REQUIRES(lock_);
  void ResetEmpty() VESK_REQUIRES(lock_);
  void NoteUntold(int error) VESK_REQUIRES(lock_);
  Outcome Drain() VESK_REQUIRES(lock_);
  void Abandon();

  const Services services_;
  const std::string name_;
  const CacheShape shape_;

  mutable VeskLock lock_;
  std::unique_ptr<VeskStream> stream_ VESK_GUARDED_BY(lock_);  // null once closed
  std::uint64_t size_ VESK_GUARDED_BY(lock_);
  bool written_ VESK_GUARDED_BY(lock_) = false;
  int untold_error_ VESK_GUARDED_BY(lock_) = 0;  // an error that a writer has not been told yet
  bool broken_ VESK_GUARDED_BY(lock_) = false;
  bool abandoned_ VESK_GUARDED_BY(lock_) = false;  // by Discard, at the retry decorator
  FileStats stats_ VESK_GUARDED_BY(lock_);

  mutable Mutex failure_mutex_;  // taken last of all
  int write_failure_ VESK_GUARDED_BY(failure_mutex_) = 0;
  std::function<void(const WriteFailure&)> told_ VESK_GUARDED_BY(failure_mutex_);
};

}  // namespace vesk

#endif  // FILES_FILE_H_
