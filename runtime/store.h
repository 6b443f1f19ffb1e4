// A store's names, for callers that can wait.

#ifndef RUNTIME_STORE_H_
#define RUNTIME_STORE_H_

#include <memory>
#include <string>

#include "runtime/name_operation.h"

namespace vesk {

class VeskBundler;

// Each operation is a job, waited for by the calling thread with no lock given up.
//   Units    bytes
//   Owns     borrows the dispatcher, which outlives it
//   Ends in  0 or a positive errno value; ENOTSUP where the store has no such operation. ETIMEDOUT
//            or ECANCELED when the calling thread's request (RequestScope) has met its limits: then
//            the operation may or may not take place, now or later
//   Before   the calling thread holds no VeskLock: the operation may take as long as the store does
//   Threads  any
class Store {
 public:
  explicit Store(VeskBundler& bundler) : bundler_(bundler) {}

  int Stat(const std::string& name, FileInfo* info);

  // Tells whether the file can be opened for this access, before a transfer finds out.
  int Open(const std::string& name, Access access);

  // Makes an empty file with exactly these permissions.
  //   Ends in  EEXIST when the name is taken
  int Create(const std::string& name, mode_t permissions);

  // Gives the file exactly these permissions. Whoever has it open goes on as before.
  int SetPermissions(const std::string& name, mode_t permissions);

  // Sets the length; a longer file reads as zeros from its old end on.
  int Truncate(const std::string& name, std::uint64_t size);

  // The first run of data that ends beyond `offset`, cut to begin at `offset`; empty (begin = end =
  // size of the file) when none follows. A store that cannot tell reports everything as data.
  int NextData(const std::string& name, std::uint64_t offset, Extent* extent);

  // Returns when the file's bytes and length, as written so far, survive a crash.
  int Sync(const std::string& name);

  // Gives the file the name `to`, replacing what had it, and makes that survive a crash.
  int Rename(const std::string& from, const std::string& to);

  int Remove(const std::string& name);

 private:
  int Await(VeskJob* job, const char* tag);

  VeskBundler& bundler_;
};

}  // namespace vesk

#endif  // RUNTIME_STORE_H_
