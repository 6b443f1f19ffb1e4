// All open files over one store.

#ifndef FILES_FILE_SYSTEM_H_
#define FILES_FILE_SYSTEM_H_

#include <memory>
#include <string>
#include <vector>

#include "files/file_handle.h"
#include "files/options.h"
#include "files/status.h"
#include "runtime/services.h"

namespace vesk {

class Store;
struct Settings;

//   Owns     the open files' bytes. Borrows services and store, which outlive it
//   Threads  any
//
//     vesk::VeskRuntime runtime(settings);
//     vesk::FileSystem files(runtime.services(), runtime.store());
//     std::unique_ptr<vesk::FileHandle> file;
//     vesk::Status status = files.Open("a.bin", {}, &file);
//     if (status.ok()) status = file->ReadAt(buffer, sizeof buffer, 0, &count);
class FileSystem {
 public:
  //   Ends in  std::invalid_argument: an option out of its range, the text says what would be right
  //            std::system_error: no thread can be had
  FileSystem(const Services& services, Store& store, const FileSystemOptions& options = {});

  // Every file is flushed, as far as the calling thread's limits (RequestScope) allow. What cannot
  // be stored by then keeps its memory, which jobs may still use; a line of the log says how much,
  // but for files that are out of service.
  //   Before   every handle is destroyed
  ~FileSystem();
  FileSystem(const FileSystem&) = delete;
  FileSystem& operator=(const FileSystem&) = delete;

  // Names of one file, relative and absolute, links of either kind, all meet in the same bytes,
  // where the store tells files apart (FileInfo's device and inode); else each name is a file.
  //   Ends in  EISDIR, EINVAL: not a regular file; otherwise the store's error
  Status Open(const std::string& name, const OpenOptions& options,
              std::unique_ptr<FileHandle>* handle);

  // Gives the file the name `to`, replacing what had it. An open file is flushed first, and its
  // handles go on with the new name. The handles of a replaced file end in ESTALE.
  //   Ends in  ETIMEDOUT, ECANCELED: it goes on by itself, unless it waited for something else.
  //   Until
  //            its outcome is known, requests to these files and opens of any wait for that
  //            ENOMEM: it may have taken place all the same; then the handles end in EIO, and the
  //            files can be opened afresh when these are gone (both so for Remove)
  Status Rename(const std::string& from, const std::string& to);

  // The handles of an open file end in ESTALE afterwards; its unsaved bytes are given up.
  Status Remove(const std::string& name);

  // Makes everything in all files durable; the first failure.
  Status SyncAll();

  // One round of what the thread in the background does: writes out what is dirty and old, or
  // beyond the limits, and learns what came of a Rename or Remove that has outlasted its request.
  // Waits for nothing but for what the store says of a name, a second at most.
  void Tend();

  FileStats GetStats() const;               // all open files together
  std::vector<FileStats> GetFiles() const;  // each open file, by name

  // Bytes of blocks now, and at most so far: never above FileSystemOptions::memory.
  std::uint64_t memory_used() const;
  std::uint64_t memory_peak() const;

 private:
  friend class Inspector;  // as Node's
  friend class FileHandle;

  struct Private;
  const std::unique_ptr<Private> self_;
};

// What the settings say.
FileSystemOptions OptionsFrom(const Settings& settings);

}  // namespace vesk

#endif  // FILES_FILE_SYSTEM_H_
