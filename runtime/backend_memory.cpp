#include "runtime/backend_memory.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <new>
#include <utility>
#include <vector>

#include "vesk/VeskJob.h"

namespace vesk {

namespace {

// As off_t has it.
constexpr auto kLargestFile = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

constexpr std::uint64_t kLoadBytes = std::uint64_t{1}
                                     << 20;  // read from the store behind at a time

std::int64_t NowNs() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<std::chrono::nanoseconds>(now).count();
}

bool IsSame(const FileInfo& one, const FileInfo& other) {
  return one.device == other.device && one.inode == other.inode;
}

VeskJob* NewRead(std::string name, unsigned char* data, std::uint64_t length, std::uint64_t offset,
                 unsigned int* count) {
  auto op = std::make_unique<VeskOP>(OPCODE_READ, 0);
  op->AddString(name);
  op->AddPtr(data);
  op->AddInt(static_cast<int>(length));
  op->AddULong(offset);
  op->AddPtr(count);
  auto* const job = new VeskJob(JOB_TYPE_IO, op.get());
  (void)op.release();  // the job's
  return job;
}

VeskJob* NewWrite(std::string name, unsigned char* data, std::uint64_t length,
                  std::uint64_t offset) {
  auto op = std::make_unique<VeskOP>(OPCODE_WRITE, 0);
  op->AddString(name);
  op->AddPtr(data);
  op->AddULong(length);
  op->AddULong(offset);
  op->AddInt(1);
  auto* const job = new VeskJob(JOB_TYPE_IO, op.get());
  (void)op.release();  // the job's
  return job;
}

}  // namespace

MemoryBackend::MemoryBackend(VeskBackend* behind) : behind_(behind) {
  if (behind_ != nullptr) behind_->ReportEndsTo(*this);
}

void MemoryBackend::Start(JobQueue& jobs) {
  while (!jobs.Empty()) {
    VeskJob* const job = jobs.Pop();
    End(job, Perform(*job));
  }
}

// Without the mutex, which a job that waits for the store behind holds.
void MemoryBackend::CancelAll(int error) {
  cancelled_.store(error, std::memory_order_release);
  if (behind_ != nullptr) behind_->CancelAll(error);
}

int MemoryBackend::Perform(const VeskJob& job) {
  const MutexLock guard(mutex_);
  if (const int error = cancelled_.load(std::memory_order_acquire)) return error;
  try {
    if (job.GetType() == JOB_TYPE_IO) return PerformTransfer(Transfer(job.GetOP()));
    return PerformOnName(NameOperation(job.GetOP()));
  } catch (const std::bad_alloc&) {
    return ENOMEM;
  }
}

// ---- jobs ----

int MemoryBackend::PerformTransfer(const Transfer& transfer) {
  FilePointer file;
  if (const int error = Get(transfer.name, &file)) return error;
  if (!transfer.is_write) {
    Read(*file, transfer);
    return 0;
  }
  if (transfer.length == 0) return 0;
  if (transfer.offset > kLargestFile || transfer.length > kLargestFile - transfer.offset) {
    return EFBIG;
  }
  SetChanged(*file);
  Write(*file, transfer.data, transfer.length, transfer.offset, true);
  return 0;
}

int MemoryBackend::PerformOnName(const NameOperation& operation) {
  switch (operation.code) {
    case OPCODE_STAT: return Stat(operation);
    case OPCODE_OPEN: return Open(operation);
    case OPCODE_CREATE: return Create(operation);
    case OPCODE_TRUNCATE: return Truncate(operation);
    case OPCODE_NEXT_DATA: return NextData(operation);
    case OPCODE_SYNC: return Sync(operation);
    case OPCODE_RENAME: return Rename(operation);
    case OPCODE_REMOVE: return Remove(operation);
    case OPCODE_SET_PERMISSIONS: return SetPermissions(operation);
    default: return ENOTSUP;
  }
}

int MemoryBackend::Stat(const NameOperation& operation) {
  FilePointer file;
  return Find(operation.name, &file, &operation.ResultAs<FileInfo>());
}

int MemoryBackend::Open(const NameOperation& operation) {
  if (behind_ != nullptr) return NameBehind(OPCODE_OPEN, operation.name, operation.number);
  return Known(operation.name) == nullptr ? ENOENT : 0;
}

int MemoryBackend::Create(const NameOperation& operation) {
  // What it is taken in as when it is first used.
  if (behind_ != nullptr) return NameBehind(OPCODE_CREATE, operation.name, operation.number);
  const auto [place, is_new] = files_.emplace(operation.name, nullptr);
  if (!is_new) return EEXIST;
  try {
    place->second = std::make_shared<File>();
  } catch (const std::bad_alloc&) {
    files_.erase(place);
    throw;
  }
  place->second->info.mode = S_IFREG | (static_cast<mode_t>(operation.number) & 07777);
  place->second->info.inode = ++inodes_;
  place->second->info.modified_ns = NowNs();
  return 0;
}

int MemoryBackend::SetPermissions(const NameOperation& operation) {
  FilePointer file;
  FileInfo info;
  if (const int error = Find(operation.name, &file, &info)) return error;
  if (behind_ != nullptr) {
    const int error = NameBehind(OPCODE_SET_PERMISSIONS, operation.name, operation.number);
    if (error != 0) return error;
  }
  if (file != nullptr) {
    file->info.mode = (file->info.mode & S_IFMT) | (static_cast<mode_t>(operation.number) & 07777);
  }
  return 0;
}

int MemoryBackend::Truncate(const NameOperation& operation) {
  FilePointer file;
  if (const int error = Get(operation.name, &file)) return error;
  if (operation.number > kLargestFile) return EFBIG;
  Resize(*file, operation.number);
  return 0;
}

int MemoryBackend::NextData(const NameOperation& operation) {
  FilePointer file;
  if (const int error = Get(operation.name, &file)) return error;
  operation.ResultAs<Extent>() = FindData(*file, operation.number);
  return 0;
}

int MemoryBackend::Sync(const NameOperation& operation) {
  FilePointer file;
  FileInfo info;
  if (const int error = Find(operation.name, &file, &info)) return error;
  if (behind_ == nullptr) return 0;
  if (file == nullptr) return NameBehind(OPCODE_SYNC, operation.name);
  return WriteBack(operation.name, *file);
}

int MemoryBackend::Rename(const NameOperation& operation) {
  std::string to = operation.other;  // copied now: nothing may fail once it is done behind
  if (behind_ == nullptr) {
    if (Known(operation.name) == nullptr) return ENOENT;
  } else {
    if (const int error = Release(operation.name, Content::kGoesOn)) return error;
    if (const int error = Release(to, Content::kMayGo)) return error;
    if (const int error = Behind(NewNameJob(OPCODE_RENAME, operation.name, to))) return error;
  }
  if (operation.name == to) return 0;
  files_.erase(to);
  auto entry = files_.extract(operation.name);
  if (entry.empty() || (behind_ != nullptr && !LeadsTo(to, *entry.mapped()))) return 0;
  entry.key() = std::move(to);
  files_.insert(std::move(entry));
  return 0;
}

int MemoryBackend::Remove(const NameOperation& operation) {
  if (behind_ == nullptr) return files_.erase(operation.name) == 0 ? ENOENT : 0;
  if (const int error = Release(operation.name, Content::kMayGo)) return error;
  const int error = NameBehind(OPCODE_REMOVE, operation.name);
  if (error == 0) files_.erase(operation.name);
  return error;
}

// ---- bytes ----

void MemoryBackend::Read(const File& file, const Transfer& transfer) {
  const std::uint64_t size = file.info.size;
  const std::uint64_t wanted =
      transfer.offset >= size ? 0
                              : std::min<std::uint64_t>(transfer.length, size - transfer.offset);
  for (std::uint64_t done = 0; done < wanted;) {
    const std::uint64_t at = transfer.offset + done;
    const std::uint64_t within = at % kChunkBytes;
    const std::uint64_t count = std::min(wanted - done, kChunkBytes - within);
    const auto place = file.chunks.find(at / kChunkBytes);
    if (place == file.chunks.end()) {
      std::memset(transfer.data + done, 0, count);
    } else {
      std::memcpy(transfer.data + done, place->second->bytes.data() + within, count);
    }
    done += count;
  }
  transfer.StoreCount(wanted);
}

// The time moves on even where the clock has not, or was set back.
void MemoryBackend::SetChanged(File& file) {
  file.changed = true;
  file.info.modified_ns = std::max(NowNs(), file.info.modified_ns + 1);
}

// Where memory ends, the file ends behind what was written so far.
void MemoryBackend::Write(File& file, const unsigned char* data, std::uint64_t length,
                          std::uint64_t offset, bool changed) {
  for (std::uint64_t done = 0; done < length;) {
    const std::uint64_t at = offset + done;
    const std::uint64_t within = at % kChunkBytes;
    const std::uint64_t count = std::min(length - done, kChunkBytes - within);
    auto place = file.chunks.find(at / kChunkBytes);
    if (place == file.chunks.end()) {
      place = file.chunks.emplace(at / kChunkBytes, std::make_unique<Chunk>()).first;
    }
    Chunk& chunk = *place->second;
    std::memcpy(chunk.bytes.data() + within, data + done, count);
    chunk.changed = chunk.changed || changed;
    done += count;
    file.info.size = std::max(file.info.size, offset + done);
  }
}

void MemoryBackend::Resize(File& file, std::uint64_t size) {
  SetChanged(file);
  file.cut = std::min(file.cut, size);
  file.info.size = size;
  const std::uint64_t within = size % kChunkBytes;
  auto beyond = file.chunks.lower_bound(size / kChunkBytes);
  if (beyond != file.chunks.end() && beyond->first == size / kChunkBytes && within != 0) {
    auto& bytes = beyond->second->bytes;
    std::fill(bytes.begin() + static_cast<std::ptrdiff_t>(within), bytes.end(), '\0');
    ++beyond;
  }
  file.chunks.erase(beyond, file.chunks.end());
}

Extent MemoryBackend::FindData(const File& file, std::uint64_t offset) {
  const std::uint64_t size = file.info.size;
  if (offset >= size) return {size, size};
  auto place = file.chunks.lower_bound(offset / kChunkBytes);
  if (place == file.chunks.end()) return {size, size};
  const std::uint64_t begin = std::max(offset, place->first * kChunkBytes);
  std::uint64_t next = place->first;
  for (; place != file.chunks.end() && place->first == next; ++place) ++next;
  return {begin, std::min(next * kChunkBytes, size)};
}

// ---- files ----

MemoryBackend::FilePointer MemoryBackend::Known(const std::string& name) {
  const auto place = files_.find(name);
  return place == files_.end() ? nullptr : place->second;
}

// The file under another name: a link, or a path that is spelled differently.
MemoryBackend::FilePointer MemoryBackend::KnownAs(const FileInfo& info) {
  if (info.inode == 0) return nullptr;  // the store behind does not tell files apart
  for (const auto& [name, file] : files_) {
    if (IsSame(file->info, info)) return file;
  }
  return nullptr;
}

// Whichever name it is in memory under, it is under this one as well afterwards. Null: it is not in
// memory, and `info` is the store's behind.
int MemoryBackend::Find(const std::string& name, FilePointer* file, FileInfo* info) {
  *file = Known(name);
  if (*file == nullptr) {
    if (behind_ == nullptr) return ENOENT;
    if (const int error = StatBehind(name, info)) return error;
    *file = KnownAs(*info);
    if (*file == nullptr) return 0;
    files_.emplace(name, *file);
  }
  *info = (*file)->info;
  return 0;
}

// Taken in, if it is not in memory yet.
int MemoryBackend::Get(const std::string& name, FilePointer* file) {
  FileInfo info;
  if (const int error = Find(name, file, &info)) return error;
  if (*file != nullptr) return 0;
  if (!S_ISREG(info.mode)) return S_ISDIR(info.mode) ? EISDIR : ENOTSUP;
  *file = std::make_shared<File>();
  (*file)->info = info;
  if (const int error = Load(name, **file)) return error;
  files_.emplace(name, *file);
  return 0;
}

// Before a name goes, or leads elsewhere. Other names of its file may be links to it, or hard links
// that stay: the store behind knows, and is asked again. Otherwise a link's file would be taken for
// the next one with its inode number.
int MemoryBackend::Release(const std::string& name, Content content) {
  FilePointer file;
  FileInfo info;
  const int error = Find(name, &file, &info);
  if (error == ENOENT || error == ENOTDIR || error == ELOOP) return 0;  // or a link to nowhere
  if (error != 0) return error;
  if (file == nullptr) return S_ISDIR(info.mode) ? ForgetAll() : 0;
  const auto is_other = [&](const auto& entry) {
    return entry.second == file && entry.first != name;
  };
  const bool has_others = std::any_of(files_.begin(), files_.end(), is_other);
  if (file->changed) {
    const int failed = WriteBack(name, *file);
    // A file that the store has no room for can be removed all the same.
    if (failed != 0 && (has_others || content == Content::kGoesOn)) return failed;
  }
  for (auto place = files_.begin(); place != files_.end();) {
    place = is_other(*place) ? files_.erase(place) : std::next(place);
  }
  return 0;
}

// Before a directory, or a link to one, goes or leads elsewhere: any name may be a path through it.
int MemoryBackend::ForgetAll() {
  for (const auto& [name, file] : files_) {
    if (!file->changed) continue;
    if (const int error = WriteBack(name, *file)) return error;
  }
  files_.clear();
  return 0;
}

int MemoryBackend::Load(const std::string& name, File& file) {
  const std::uint64_t size = file.info.size;
  Extent extent;
  for (std::uint64_t offset = 0; offset < size; offset = extent.end) {
    if (const int error = NextDataBehind(name, offset, &extent)) return error;
    extent.end = std::min(extent.end, size);
    if (extent.begin >= extent.end) return 0;  // a hole to the end
    for (std::uint64_t at = extent.begin; at < extent.end; at += kLoadBytes) {
      const std::uint64_t length = std::min(kLoadBytes, extent.end - at);
      if (const int error = ReadBehind(name, at, length, file)) return error;
    }
  }
  return 0;
}

// Cut first: beyond it the store behind may still hold bytes that are a hole here. Nothing counts
// as unchanged before it has survived the sync, since that reports lost bytes only once.
int MemoryBackend::WriteBack(const std::string& name, File& file) {
  if (!file.changed) return NameBehind(OPCODE_SYNC, name);
  if (file.cut != kNotCut) {
    if (const int error = NameBehind(OPCODE_TRUNCATE, name, file.cut)) return error;
  }
  const std::uint64_t size = file.info.size;
  for (const auto& [number, chunk] : file.chunks) {
    if (!chunk->changed) continue;
    const std::uint64_t offset = number * kChunkBytes;
    const std::uint64_t length = std::min(kChunkBytes, size - offset);
    if (const int error = Behind(NewWrite(name, chunk->bytes.data(), length, offset))) return error;
  }
  if (const int error = NameBehind(OPCODE_TRUNCATE, name, size)) return error;
  if (const int error = NameBehind(OPCODE_SYNC, name)) return error;
  for (const auto& [number, chunk] : file.chunks) chunk->changed = false;
  file.changed = false;
  file.cut = kNotCut;
  return 0;
}

// ---- the store behind ----

int MemoryBackend::StatBehind(const std::string& name, FileInfo* info) {
  const auto result = std::make_shared<FileInfo>();
  const int error = Behind(NewNameJob(OPCODE_STAT, name, {}, 0, result));
  *info = *result;
  return error;
}

// What cannot be told is no.
bool MemoryBackend::LeadsTo(const std::string& name, const File& file) {
  try {
    FileInfo info;
    return StatBehind(name, &info) == 0 && IsSame(info, file.info);
  } catch (const std::bad_alloc&) {
    return false;
  }
}

int MemoryBackend::NextDataBehind(const std::string& name, std::uint64_t offset, Extent* extent) {
  const auto result = std::make_shared<Extent>();
  const int error = Behind(NewNameJob(OPCODE_NEXT_DATA, name, {}, offset, result));
  *extent = *result;
  return error;
}

int MemoryBackend::ReadBehind(const std::string& name, std::uint64_t offset, std::uint64_t length,
                              File& file) {
  std::vector<unsigned char> bytes(length);
  unsigned int count = 0;
  if (const int error = Behind(NewRead(name, bytes.data(), length, offset, &count))) return error;
  if (count < length) return EIO;
  Write(file, bytes.data(), length, offset, false);
  return 0;
}

int MemoryBackend::NameBehind(unsigned int code, const std::string& name, std::uint64_t number) {
  return Behind(NewNameJob(code, name, {}, number));
}

// Sees `job`, whose reference it takes over, through to its end.
int MemoryBackend::Behind(VeskJob* job) {
  int result = cancelled_.load(std::memory_order_acquire);
  if (result == 0) {
    job->RefCountInc();  // for JobEnded: Publish may still be in the job when the wait is over
    behind_->Run(job);
    job->WaitUntilDone();
    result = job->GetReturnValue();
  }
  VeskJob::RefCountDec(job);
  return result == RC_EOF ? EIO : result;  // every read asks for bytes that Stat counted
}

void MemoryBackend::JobEnded(VeskJob* job, int result) {
  job->Publish(result);
  VeskJob::RefCountDec(job);
}

}  // namespace vesk
