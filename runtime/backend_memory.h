// A backend whose files are bytes in memory, alone or in front of another store.

#ifndef RUNTIME_BACKEND_MEMORY_H_
#define RUNTIME_BACKEND_MEMORY_H_

#include <array>
#include <atomic>
#include <cstdint>
#include <limits>
#include <map>
#include <memory>
#include <string>

#include "runtime/backend.h"
#include "runtime/name_operation.h"
#include "runtime/transfer.h"
#include "vesk/VeskMutex.h"

namespace vesk {

// Every job ends inside Start or Run, in the calling thread. Holes take no memory, so a file may be
// far larger than what was written to it, up to the largest offset that there is (EFBIG). Anybody
// may open anything: permissions are only told.
//
// With a store behind it, that one decides which names there are and who may open them. A file's
// content is taken in whole when its bytes or its length are first asked for or changed, and lives
// here from then on:
//   Create, Remove, Rename, Open, Stat,   carried out behind; what Stat tells of a file that is in
//   SetPermissions                        memory is its size and last change here
//   Write, Truncate                       change memory alone
//   Sync; Rename and Remove, for the      bring what has changed to the store behind, and make that
//   files that they concern               survive a crash
// After a successful Sync both hold the same bytes. After a failed one everything that had changed
// still counts as changed, and the next one writes it again. What was not synced goes with this
// object.
// All names of a file, links of either kind included, lead to the same bytes, where the store
// behind tells files apart (FileInfo's device and inode); a file that loses one goes on under the
// others. Where a file that is removed or replaced cannot be brought to the store behind, the name
// stays if others are in use here; otherwise what was not synced goes with it.
//   Owns     borrows `behind`, which outlives it, and which nobody else changes meanwhile
//   Ends in  for a job, an error of the store behind included, wherever that store was needed: its
//            error (EIO for bytes that are missing although its Stat counted them). EISDIR, ENOTSUP
//            for the bytes of a name that is no regular file; ENOMEM
//   Threads  any; one job at a time, and the others wait while it waits for the store behind
class MemoryBackend final : public VeskBackend, private EndHandler {
 public:
  explicit MemoryBackend(VeskBackend* behind = nullptr);

  void Start(JobQueue& jobs) override;

  // Does not wait for the job that is being carried out.
  void CancelAll(int error) override;

 private:
  static constexpr std::uint64_t kChunkBytes = std::uint64_t{64} << 10;
  static constexpr std::uint64_t kNotCut = std::numeric_limits<std::uint64_t>::max();

  struct Chunk {
    std::array<unsigned char, kChunkBytes> bytes{};  // zeros beyond the end of the file
    bool changed = false;
  };

  // What has changed is relative to the store behind, as the last successful Sync left it.
  struct File {
    FileInfo info;
    std::map<std::uint64_t, std::unique_ptr<Chunk>> chunks;  // by offset / kChunkBytes
    bool changed = false;                                    // anything at all
    std::uint64_t cut = kNotCut;  // the least length since then: beyond it all is new or a hole
  };
  using FilePointer = std::shared_ptr<File>;  // several names may stand for one file

  enum class Content { kGoesOn, kMayGo };  // of a file that loses a name

  int Perform(const VeskJob& job);
  int PerformTransfer(const Transfer& transfer) VESK_REQUIRES(mutex_);
  int PerformOnName(const NameOperation& operation) VESK_REQUIRES(mutex_);

  int Stat(const NameOperation& operation) VESK_REQUIRES(mutex_);
  int Open(const NameOperation& operation) VESK_REQUIRES(mutex_);
  int Create(const NameOperation& operation) VESK_REQUIRES(mutex_);
  int SetPermissions(const NameOperation& operation) VESK_REQUIRES(mutex_);
  int Truncate(const NameOperation& operation) VESK_REQUIRES(mutex_);
  int NextData(const NameOperation& operation) VESK_REQUIRES(mutex_);
  int Sync(const NameOperation& operation) VESK_REQUIRES(mutex_);
  int Rename(const NameOperation& operation) VESK_REQUIRES(mutex_);
  int Remove(const NameOperation& operation) VESK_REQUIRES(mutex_);

  static void SetChanged(File& file);
  static void Read(const File& file, const Transfer& transfer);
  static void Write(File& file, const unsigned char* data, std::uint64_t length,
                    std::uint64_t offset, bool changed);
  static void Resize(File& file, std::uint64_t size);
  static Extent FindData(const File& file, std::uint64_t offset);

  FilePointer Known(const std::string& name) VESK_REQUIRES(mutex_);
  FilePointer KnownAs(const FileInfo& info) VESK_REQUIRES(mutex_);
  int Find(const std::string& name, FilePointer* file, FileInfo* info) VESK_REQUIRES(mutex_);
  int Get(const std::string& name, FilePointer* file) VESK_REQUIRES(mutex_);
  int Release(const std::string& name, Content content) VESK_REQUIRES(mutex_);
  int ForgetAll() VESK_REQUIRES(mutex_);
  int Load(const std::string& name, File& file) VESK_REQUIRES(mutex_);
  int WriteBack(const std::string& name, File& file) VESK_REQUIRES(mutex_);

  int StatBehind(const std::string& name, FileInfo* info);
  bool LeadsTo(const std::string& name, const File& file);
  int NextDataBehind(const std::string& name, std::uint64_t offset, Extent* extent);
  int ReadBehind(const std::string& name, std::uint64_t offset, std::uint64_t length, File& file);
  int NameBehind(unsigned int code, const std::string& name, std::uint64_t number = 0);
  int Behind(VeskJob* job);
  void JobEnded(VeskJob* job, int result) override;

  VeskBackend* const behind_;
  std::atomic<int> cancelled_{0};  // what jobs end with instead of being carried out
  Mutex mutex_;
  std::map<std::string, FilePointer> files_ VESK_GUARDED_BY(mutex_);
  ino_t inodes_ VESK_GUARDED_BY(mutex_) = 0;  // given away so far
};

}  // namespace vesk

#endif  // RUNTIME_BACKEND_MEMORY_H_
