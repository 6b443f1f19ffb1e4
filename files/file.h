// One open file over the cache: takes the stream's lock, repeats what had to wait, speaks errno.

#ifndef FILES_FILE_H_
#define FILES_FILE_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "vesk/VeskLock.h"
#include "vesk/VeskStream.h"

namespace vesk {

class VeskBundler;

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
};

// An open file.
//   Units    bytes; offsets and lengths in the file
//   Owns     its stream. Borrows the dispatcher, which outlives it
//   Ends in  0 or a positive errno value. A write is taken when the cache has it; what becomes of
//   it
//            in the store is told by a later WriteAt, Flush or Close, once. EIO with Broken() set:
//            the cache failed a check of its own, and the file is of no more use
//   Threads  any; one request at a time is inside the cache, and waits let others in
// Life: created with the file's size -> ReadAt, WriteAt, Flush -> Close.
class File {
 public:
  // `name` and `size` are those of an existing file in the store.
  File(VeskBundler& bundler, const std::string& name, std::uint64_t size, const CacheShape& shape);

  // Closes; an error has nobody left to hear it, so a writer calls Close itself.
  ~File();

  File(const File&) = delete;
  File& operator=(const File&) = delete;

  // Reads up to `length` bytes into `*moved`; fewer only where the file ends.
  int ReadAt(void* destination, std::size_t length, std::uint64_t offset, std::size_t* moved);

  // Writes all `length` bytes into the cache. The file grows as needed; a gap reads as zeros.
  //   Ends in  EFBIG, nothing written, when the file would grow beyond 2^63 - 1 bytes
  int WriteAt(const void* source, std::size_t length, std::uint64_t offset);

  // Returns when everything written has reached the store, or the first failure met. It makes
  // nothing durable: that is VeskBackend::Sync.
  int Flush();

  // Flush, then lets the cache go. The file is closed whatever it returns: bytes that could not be
  // stored are lost, and the error is the report of that.
  int Close();

  // The cache failed a check of its own: every later request ends in EIO.
  bool Broken() const;

  FileStats GetStats() const;

 private:
  // What became of one request to the cache.
  struct Outcome {
    int error = 0;
    unsigned int count = 0;  // what the request returned
    bool waited = false;
  };

  Outcome Serve(const std::function<unsigned int()>& request);
  void Count(const Outcome& outcome);
  int Drain();

  mutable VeskLock lock_;  // guards all below
  const CacheShape shape_;
  std::unique_ptr<VeskStream> stream_;  // null once closed
  std::uint64_t size_;
  bool written_ = false;
  int met_by_reader_ = 0;  // an error that a writer has not been told yet
  bool broken_ = false;
  FileStats stats_;
};

}  // namespace vesk

#endif  // FILES_FILE_H_
