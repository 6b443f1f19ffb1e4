#include "files/file_handle.h"

#include <algorithm>
#include <cerrno>
#include <limits>
#include <new>
#include <utility>

#include "files/file_handle_private.h"
#include "files/file_system_private.h"

namespace vesk {

namespace {

constexpr std::uint64_t kNoEnd = std::numeric_limits<std::uint64_t>::max();

// Calls `request`; no memory for it is an error like others.
template <typename Request>
Outcome WithMemory(const Request& request) {
  try {
    return request();
  } catch (const std::bad_alloc&) {
    return {ENOMEM, false};
  }
}

}  // namespace

FileHandle::FileHandle(std::unique_ptr<Private> self) : self_(std::move(self)) {}

FileHandle::~FileHandle() {
  OnWriteFailure(nullptr);
  if (self_->closed || self_->Close().error == 0) return;
  self_->files.LetGo(*self_->node);
}

// Whoever hears of a failed write-back by running into it has heard of it. Where there is no memory
// for its text, an error goes without.
Status FileHandle::Private::Failure(const char* what, const Outcome& outcome) {
  if (outcome.write_back) (void)node->failures().TakeNews(&seen);
  try {
    if (node->broken()) {
      return {outcome.error, std::string(what) + " '" + name +
                                 "': a check of the cache has failed, the file is out of service"};
    }
    if (outcome.write_back) return {outcome.error, "write-back of '" + name + "'", true};
    return {outcome.error, std::string(what) + " '" + name + "'"};
  } catch (const std::bad_alloc&) {
    return {outcome.error, "", outcome.write_back};
  }
}

Status FileHandle::ReadAt(void* destination, std::size_t length, std::uint64_t offset,
                          std::size_t* moved) {
  *moved = 0;
  if (self_->closed) return self_->Report("read of", {EBADF, false});
  return self_->Report("read of", WithMemory([&] {
                         return self_->node->ReadAt(self_->ahead,
                                                    static_cast<unsigned char*>(destination),
                                                    length, offset, moved);
                       }));
}

Status FileHandle::ReadAt(const struct iovec* parts, int count, std::uint64_t offset,
                          std::size_t* moved) {
  *moved = 0;
  for (int i = 0; i < count; ++i) {
    std::size_t part = 0;
    Status status = ReadAt(parts[i].iov_base, parts[i].iov_len, offset + *moved, &part);
    *moved += part;
    if (!status.ok() || part < parts[i].iov_len) return status;
  }
  return {};
}

Status FileHandle::WriteAt(const void* source, std::size_t length, std::uint64_t offset,
                           std::size_t* moved) {
  std::size_t ignored = 0;
  std::size_t* const count = moved != nullptr ? moved : &ignored;
  *count = 0;
  if (!self_->CanWrite()) return self_->Report("write to", {EBADF, false});
  self_->discarded = false;
  return self_->Report("write to", WithMemory([&] {
                         return self_->node->WriteAt(static_cast<const unsigned char*>(source),
                                                     length, offset, count);
                       }));
}

Status FileHandle::WriteAt(const struct iovec* parts, int count, std::uint64_t offset,
                           std::size_t* moved) {
  std::size_t all = 0;
  std::uint64_t end = offset;
  bool fits = true;
  for (int i = 0; i < count; ++i) {
    fits = fits && !__builtin_add_overflow(end, parts[i].iov_len, &end) && end <= kMaxFileSize;
  }
  if (moved != nullptr) *moved = 0;
  if (!fits) return self_->Report("write to", {EFBIG, false});
  Status status;
  for (int i = 0; i < count && status.ok(); ++i) {
    std::size_t part = 0;
    status = WriteAt(parts[i].iov_base, parts[i].iov_len, offset + all, &part);
    all += part;
  }
  if (moved != nullptr) *moved = all;
  return status;
}

Status FileHandle::Append(const void* source, std::size_t length, std::uint64_t* offset,
                          std::size_t* moved) {
  std::uint64_t at = 0;
  std::size_t taken = 0;
  Status status = self_->Report(
      "append to", WithMemory([&]() -> Outcome {
        if (!self_->CanWrite()) return {EBADF, false};
        self_->discarded = false;
        return self_->node->Append(static_cast<const unsigned char*>(source), length, &at, &taken);
      }));
  if (offset != nullptr) *offset = at;
  if (moved != nullptr) *moved = taken;
  return status;
}

Status FileHandle::Flush() {
  if (self_->closed) return self_->Report("flush of", {EBADF, false});
  return self_->Report("flush of", WithMemory([&] { return self_->node->Flush(&self_->seen); }));
}

Status FileHandle::Sync() {
  if (self_->closed) return self_->Report("sync of", {EBADF, false});
  return self_->Report("sync of", WithMemory([&] { return self_->node->Sync(&self_->seen); }));
}

Status FileHandle::Truncate(std::uint64_t size) {
  if (!self_->CanWrite()) return self_->Report("truncation of", {EBADF, false});
  return self_->Report("truncation of", WithMemory([&] { return self_->node->Truncate(size); }));
}

std::uint64_t FileHandle::Size() const { return self_->node->size(); }

void FileHandle::Advise(Advice advice, std::uint64_t offset, std::uint64_t length) {
  if (self_->closed) return;
  const std::uint64_t end = offset + std::min(length, kNoEnd - offset);
  try {
    switch (advice) {
      case Advice::kWillNeed: self_->node->FetchAhead(offset, end, nullptr); break;
      case Advice::kDontNeed: self_->node->DropClean(offset, end); break;
      default: self_->ahead.Advise(advice);
    }
  } catch (const std::bad_alloc&) {  // advice can be left
  }
}

Outcome FileHandle::Private::Close() {
  Outcome outcome;
  for (int tries = 0; tries < 3; ++tries) {
    outcome = WithMemory([&] { return files.Close(*node, &seen); });
    if (!outcome.write_back || !discarded) break;  // what was given up is no news
  }
  closed = outcome.error == 0;
  return outcome;
}

Status FileHandle::Close() {
  if (self_->closed) return {};
  Node& node = *self_->node;
  const Outcome outcome = self_->Close();
  if (outcome.error == 0) return {};
  Status status = self_->Report("close of", outcome);
  if (node.dirty() == 0) return status;
  try {
    return {status.error(),
            status.context() + ", " + std::to_string(node.dirty()) + " bytes not in the store",
            status.write_back()};
  } catch (const std::bad_alloc&) {
    return status;
  }
}

void FileHandle::Discard() {
  if (self_->closed) return;
  self_->discarded = true;
  try {
    self_->node->Discard();
  } catch (const std::bad_alloc&) {  // what is left is unsaved still, and Close says so
  }
}

bool FileHandle::Broken() const { return self_->node->broken(); }

const std::string& FileHandle::name() const { return self_->name; }

FileStats FileHandle::GetStats() const {
  FileStats stats = self_->node->GetStats();
  stats.window = self_->ahead.window();
  return stats;
}

void FileHandle::OnWriteFailure(std::function<void(const WriteFailure&)> told) {
  self_->node->failures().Listen(this, std::move(told));
}

}  // namespace vesk
