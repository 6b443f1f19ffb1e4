// Where jobs run: the interface between the dispatcher and a store of named files.

#ifndef RUNTIME_BACKEND_H_
#define RUNTIME_BACKEND_H_

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace vesk {

class VeskJob;

// A store of named files.
//   Units    bytes
//   Ends in  the operations on names return 0 or a positive errno value; a transfer's end is told
//            by its job alone
//   Threads  any, several at once
class VeskBackend {
 public:
  enum class Access { kRead, kWrite };

  struct FileInfo {
    std::uint64_t size = 0;
    mode_t mode = 0;  // type and permissions, as stat(2) reports them
    dev_t device = 0;
    ino_t inode = 0;
  };

  // A run of a file that holds data; what lies before it reads as zeros.
  struct Extent {
    std::uint64_t begin = 0;
    std::uint64_t end = 0;
  };

  virtual ~VeskBackend() = default;

  // Takes the job in and returns soon. Some thread claims it (VeskJob::Claim), performs the
  // transfer whole, and ends it with VeskJob::Complete: 0, RC_EOF, or a positive errno value, never
  // 1000 or 1001. A job that another thread has claimed is left alone.
  virtual void Start(VeskJob* job) = 0;

  // Performs a transfer in the calling thread and ends it.
  //   Before   the caller has claimed the job
  virtual void Run(VeskJob* job) = 0;

  virtual int Stat(const std::string& name, FileInfo* info) = 0;

  // Tells whether the file can be opened for this access, before a job finds out.
  virtual int Open(const std::string& name, Access access) = 0;

  // Makes an empty file with exactly these permissions.
  //   Ends in  EEXIST when the name is taken
  virtual int Create(const std::string& name, mode_t permissions) = 0;

  // Sets the length; a longer file reads as zeros from its old end on.
  virtual int Truncate(const std::string& name, std::uint64_t size) = 0;

  // The first run of data that ends beyond `offset`, cut to begin at `offset`; empty (begin = end =
  // size of the file) when none follows. A store that cannot tell reports everything as data.
  virtual int NextData(const std::string& name, std::uint64_t offset, Extent* extent) = 0;

  // Returns when the file's bytes and length, as written so far, survive a crash.
  virtual int Sync(const std::string& name) = 0;

  // Gives the file the name `to`, replacing what had it, and makes that survive a crash.
  virtual int Rename(const std::string& from, const std::string& to) = 0;

  virtual int Remove(const std::string& name) = 0;
};

}  // namespace vesk

#endif  // RUNTIME_BACKEND_H_
