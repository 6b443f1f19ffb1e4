// An open file: what programs read and write through.

#ifndef FILES_FILE_HANDLE_H_
#define FILES_FILE_HANDLE_H_

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "files/options.h"
#include "files/status.h"
#include "runtime/write_failure.h"

namespace vesk {

class Node;
class ReadAhead;

// A handle of an open file; FileSystem::Open makes it. All handles of a file, by whatever name it
// was opened, share one set of bytes: what one writes the others read at once.
//   Units    bytes; offsets from the start of the file
//   Threads  any, many at once; Close and the destructor last
//
// What a success means:
//   WriteAt   the bytes are in the cache: every later read through any handle sees them. A crash of
//             the process loses them.
//   Flush     everything written before, through any handle, is on its way to the store.
//   Sync      everything written before, through any handle, is in the store, and the store has
//             made it durable: it survives a crash of the machine.
//   Close     everything written before has reached the store, which has not been asked to make it
//             durable.
// And none of the last three says so while this handle has not been told of a write-back that
// failed since it was opened. Each handle is told once, by the next of these calls; the bytes are
// kept and tried again meanwhile, until the store takes them or Discard gives them up. After a
// failure was told a later success means what it says above; but for bytes that had reached the
// store before its sync failed, which the system may have dropped.
//
// Every request ends within the calling thread's limits (RequestScope): ETIMEDOUT, ECANCELED. A
// WriteAt that ends in an error may have taken a part (`*moved`); nothing that was taken is lost.
//   EIO      with Broken(): the cache failed a check of its own, perhaps because memory ran out in
//            the middle of a change. The file is out of service, what was not stored is lost, and
//            Close says so too; when all of its handles are gone it can be opened afresh. Otherwise
//            the store's error.
//   EBADF    closed, or not opened for this
//   ESTALE   the file was removed or replaced through this file system, or is gone from the store;
//            or the store cannot tell, and the policy is to fail then
//   ENOMEM   no memory for the request; nothing is lost
class FileHandle {
 public:
  // Closes; an error has nobody left to hear it, so a writer calls Close itself. What cannot be
  // stored within the calling thread's limits stays in the file system, which goes on trying.
  ~FileHandle();
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;

  // Reads up to `length` bytes; fewer only where the file ends, or with an error.
  Status ReadAt(void* destination, std::size_t length, std::uint64_t offset, std::size_t* moved);
  Status ReadAt(const struct iovec* parts, int count, std::uint64_t offset, std::size_t* moved);

  // Writes all bytes, unless it ends in an error. The file grows as needed; a gap reads as zeros.
  //   Ends in  EFBIG, nothing written: the file would grow beyond 2^63 - 1 bytes
  //            the failure of the write-back that the bytes would have to wait for
  Status WriteAt(const void* source, std::size_t length, std::uint64_t offset,
                 std::size_t* moved = nullptr);
  Status WriteAt(const struct iovec* parts, int count, std::uint64_t offset,
                 std::size_t* moved = nullptr);

  // Writes at the end of the file, in one piece beside other writers; `*offset` tells where, and
  // `*moved` how much, also when it ends in an error.
  Status Append(const void* source, std::size_t length, std::uint64_t* offset = nullptr,
                std::size_t* moved = nullptr);

  Status Flush();
  Status Sync();

  // Sets the length; a longer file reads as zeros from its old end on. What was written is stored
  // first. Others' requests wait meanwhile. One that meets its limits may take place all the same:
  // reads and writes that follow wait, within theirs, until it has or has failed.
  Status Truncate(std::uint64_t size);

  std::uint64_t Size() const;

  // Never fails: kWillNeed and kDontNeed do what can be done without waiting for the store. The
  // other three hold for this handle, whatever the range.
  void Advise(Advice advice, std::uint64_t offset = 0, std::uint64_t length = 0);

  // After an error the handle is still open: bytes are unsaved (the context says how many), and
  // Close may be tried again, or Discard called first.
  Status Close();

  // Gives up every byte of the file that has not reached the store, for all its handles. What is on
  // its way may still arrive. Without memory for it some may be left: then Close says so.
  void Discard();

  // The cache failed a check of its own: every later request ends in EIO.
  bool Broken() const;

  const std::string& name() const;  // as it was opened
  FileStats GetStats() const;

  // `told` is called at each report of the runtime (its retry) of a failing write-back of the file,
  // by whatever thread meets it, which may hold locks: it takes none and returns soon. One listener
  // a handle; empty: none.
  void OnWriteFailure(std::function<void(const WriteFailure&)> told);

 private:
  friend class FileSystem;

  struct Private;
  explicit FileHandle(std::unique_ptr<Private> self);

  const std::unique_ptr<Private> self_;
};

}  // namespace vesk

#endif  // FILES_FILE_HANDLE_H_
