// A regular file that has a name and stands on no disk.

#ifndef FUZZ_MEMORY_FILE_H_
#define FUZZ_MEMORY_FILE_H_

#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "fuzz/fuzz.h"

namespace vesk_fuzz {

class MemoryFile {
 public:
  MemoryFile() : fd_(memfd_create("fuzz", MFD_CLOEXEC)) { Require(fd_ >= 0, "memfd_create"); }
  ~MemoryFile() { close(fd_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  std::string name() const { return "/proc/self/fd/" + std::to_string(fd_); }

  void Write(const std::string& bytes) const {
    Require(ftruncate(fd_, 0) == 0, "ftruncate");
    Require(pwrite(fd_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
            "pwrite");
  }

  std::string Read() const {
    struct stat status = {};
    Require(fstat(fd_, &status) == 0, "fstat");
    std::string bytes(static_cast<std::size_t>(status.st_size), '\0');
    Require(pread(fd_, bytes.data(), bytes.size(), 0) == status.st_size, "pread");
    return bytes;
  }

 private:
  const int fd_;
};

}  // namespace vesk_fuzz

#endif  // FUZZ_MEMORY_FILE_H_
