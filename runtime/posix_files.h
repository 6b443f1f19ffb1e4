// The operating system's files: how one job is performed on them in the calling thread.

#ifndef RUNTIME_POSIX_FILES_H_
#define RUNTIME_POSIX_FILES_H_

#include <cstddef>
#include <cstdint>
#include <memory>

#include "runtime/descriptor_cache.h"
#include "runtime/name_operation.h"
#include "runtime/transfer.h"

namespace vesk {

// Names are paths.
//   Ends in  0 or a positive errno value
//   Threads  any, several at once
class PosixFiles {
 public:
  struct Options {
    std::size_t descriptors = 64;  // kept open at most, at least 1
    bool direct = false;           // past the page cache (O_DIRECT), where offset and length allow
  };

  explicit PosixFiles(const Options& options);

  // Performs any job whole; ENOTSUP for an operation that it does not know.
  int Perform(const VeskJob& job);

  // True: a read was performed from memory alone, without waiting for a device, and `*result` is
  // what it ended in. False: nothing was done, or bytes were moved that Perform moves again.
  bool TryPerform(const VeskJob& job, int* result);

  // The descriptor that a transfer uses.
  int Get(const Transfer& transfer, std::shared_ptr<const Descriptor>* file);

  // The same, when the transfer can begin at once in the memory that it names. Null: the file has
  // to be opened first, which may block, or O_DIRECT asks for other memory.
  std::shared_ptr<const Descriptor> Find(const Transfer& transfer);

 private:
  // Transfers at this place and of this length may go past the page cache.
  bool IsDirect(const Transfer& transfer) const;

  int PerformTransfer(const Transfer& transfer);
  int PerformOnName(const NameOperation& operation);

  int Stat(const NameOperation& operation);
  int Open(const NameOperation& operation);
  int Create(const NameOperation& operation);
  int SetPermissions(const NameOperation& operation);
  int Truncate(const NameOperation& operation);
  int NextData(const NameOperation& operation);
  int Sync(const NameOperation& operation);
  int Rename(const NameOperation& operation);
  int Remove(const NameOperation& operation);
  void ForgetIfReplaced(const std::string& name, const FileInfo& info);

  const bool direct_;
  DescriptorCache descriptors_;
};

}  // namespace vesk

#endif  // RUNTIME_POSIX_FILES_H_
