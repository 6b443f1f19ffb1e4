#include "simulation/store.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "runtime/name_operation.h"
#include "runtime/transfer.h"
#include "simulation/fibers.h"

namespace vesk_simulation {

using vesk::VeskJob;

namespace {

// What the store itself needs does not fail.
class Unfailing {
 public:
  Unfailing() : before_(std::exchange(Fibers::MayFail(), false)) {}
  ~Unfailing() { Fibers::MayFail() = before_; }
  Unfailing(const Unfailing&) = delete;
  Unfailing& operator=(const Unfailing&) = delete;

 private:
  const bool before_;
};

bool IsTransfer(const VeskJob& job) { return job.GetType() == vesk::JOB_TYPE_IO; }

bool Overlap(const VeskJob& one, const VeskJob& other) {
  if (!IsTransfer(one) || !IsTransfer(other)) return false;
  const vesk::Transfer a(one.GetOP());
  const vesk::Transfer b(other.GetOP());
  return (a.is_write || b.is_write) && a.name == b.name && a.offset < b.offset + b.length &&
         b.offset < a.offset + a.length;
}

std::string Describe(const VeskJob& job) {
  const vesk::Transfer transfer(job.GetOP());
  return std::string(transfer.is_write ? "write" : "read") + " of [" +
         std::to_string(transfer.offset) + ", " +
         std::to_string(transfer.offset + transfer.length) + ")";
}

void Lay(std::string& file, std::uint64_t offset, const std::string& bytes) {
  if (file.size() < offset + bytes.size()) file.resize(offset + bytes.size(), '\0');
  file.replace(offset, bytes.size(), bytes);
}

}  // namespace

// ---- jobs ----

void SimulatedStore::Start(vesk::JobQueue& jobs) {
  vesk::JobQueue refused;
  while (!jobs.Empty()) {
    if (cancelled_ != 0) {
      refused.Push(jobs.Pop());
    } else {
      Take(jobs.Pop());
    }
  }
  while (!refused.Empty()) End(refused.Pop(), cancelled_);
}

void SimulatedStore::Take(VeskJob* job) {
  const Unfailing unfailing;
  ++counts_.jobs;
  for (const VeskJob* const other : waiting_) {
    if (overlap_.empty() && Overlap(*job, *other)) {
      overlap_ = Describe(*other) + " and " + Describe(*job) + " are in the store at once";
    }
  }
  waiting_.push_back(job);
}

bool SimulatedStore::Withdraw(VeskJob* job) {
  if (!withdraws_) return false;
  const auto place = std::find(waiting_.begin(), waiting_.end(), job);
  if (place == waiting_.end()) return false;
  waiting_.erase(place);
  return true;
}

void SimulatedStore::CancelAll(int error) {
  cancelled_ = error;
  std::vector<VeskJob*> waiting;
  {
    const Unfailing unfailing;
    waiting = std::exchange(waiting_, {});
  }
  for (VeskJob* const job : waiting) End(job, error);
  const Unfailing unfailing;
  waiting = {};
}

void SimulatedStore::EndOne(std::size_t index, Ending how, int error) {
  VeskJob* const job = waiting_[index];
  waiting_.erase(waiting_.begin() + static_cast<std::ptrdiff_t>(index));
  int result = error;
  {
    const Unfailing unfailing;
    // Nobody could tell what the file is called.
    const bool renames = !IsTransfer(*job) && job->GetOP().GetOpcode() == vesk::OPCODE_RENAME;
    if (renames && how == Ending::kFailsBehind) how = Ending::kFails;
    switch (how) {
      case Ending::kWell: result = Perform(*job); break;
      case Ending::kFails: ++counts_.failed; break;
      case Ending::kTears:
        ++counts_.torn;
        Tear(*job);
        break;
      case Ending::kFailsBehind:
        ++counts_.failed_behind;
        (void)Perform(*job);
        break;
    }
  }
  End(job, result);
}

// ---- what they do ----

int SimulatedStore::Perform(const VeskJob& job) {
  return IsTransfer(job) ? Transfer(job) : OnName(job);
}

int SimulatedStore::Transfer(const VeskJob& job) {
  const vesk::Transfer transfer(job.GetOP());
  File* const file = Lookup(transfer.name);
  if (file == nullptr) return ENOENT;
  if (transfer.is_write) {
    if (Lies(Lie::kWrite)) return 0;
    Write(*file, transfer.offset,
          std::string(reinterpret_cast<const char*>(transfer.data), transfer.length));
    return 0;
  }
  const std::uint64_t from = std::min<std::uint64_t>(transfer.offset, file->bytes.size());
  const std::size_t count = std::min<std::size_t>(transfer.length, file->bytes.size() - from);
  std::memcpy(transfer.data, file->bytes.data() + from, count);
  if (count > 0 && Lies(Lie::kRead)) transfer.data[count / 2] ^= 1;
  transfer.StoreCount(count);
  return count == 0 ? vesk::RC_EOF : 0;  // short of all, it is an end like others
}

void SimulatedStore::Tear(const VeskJob& job) {
  if (!IsTransfer(job)) return;
  const vesk::Transfer transfer(job.GetOP());
  File* const file = Lookup(transfer.name);
  if (file == nullptr || !transfer.is_write) return;
  Write(*file, transfer.offset,
        std::string(reinterpret_cast<const char*>(transfer.data), transfer.length / 2));
}

int SimulatedStore::OnName(const VeskJob& job) {
  const vesk::NameOperation operation(job.GetOP());
  File* const file = Lookup(operation.name);
  if (operation.code == vesk::OPCODE_CREATE) {
    if (file != nullptr) return EEXIST;
    Put(operation.name, "");
    return 0;
  }
  if (file == nullptr) return ENOENT;
  switch (operation.code) {
    case vesk::OPCODE_STAT:
      operation.ResultAs<vesk::FileInfo>() = {file->bytes.size(), S_IFREG | 0644, 1, file->inode,
                                              file->modified};
      return 0;
    case vesk::OPCODE_OPEN: return 0;
    case vesk::OPCODE_TRUNCATE: Resize(*file, operation.number); return 0;
    case vesk::OPCODE_SYNC:
      if (lie_ == Lie::kSync) return 0;
      file->durable = file->bytes;
      file->changes.clear();
      return 0;
    case vesk::OPCODE_RENAME:
      files_[operation.other] = files_[operation.name];
      files_.erase(operation.name);
      return 0;
    case vesk::OPCODE_REMOVE: files_.erase(operation.name); return 0;
    default: return ENOTSUP;
  }
}

void SimulatedStore::Write(File& file, std::uint64_t offset, const std::string& bytes) {
  file.modified = ++changes_;
  file.changes.push_back({offset, bytes, false});
  Lay(file.bytes, offset, bytes);
}

void SimulatedStore::Resize(File& file, std::uint64_t size) {
  file.modified = ++changes_;
  file.changes.push_back({size, "", true});
  file.bytes.resize(size, '\0');
}

void SimulatedStore::Put(const std::string& name, const std::string& bytes) {
  auto file = std::make_shared<File>();
  file->inode = ++inodes_;
  file->modified = ++changes_;
  file->bytes = file->durable = bytes;
  files_[name] = std::move(file);
}

const SimulatedStore::File& SimulatedStore::Find(std::uint64_t inode) const {
  for (const auto& [name, file] : files_) {
    if (file->inode == inode) return *file;
  }
  throw std::logic_error("a file is gone from the store");
}

SimulatedStore::File* SimulatedStore::Lookup(const std::string& name) {
  const auto place = files_.find(name);
  return place == files_.end() ? nullptr : place->second.get();
}

// ---- crash ----

std::map<std::string, std::shared_ptr<SimulatedStore::File>> SimulatedStore::Crash(
    vesk::Random& random) const {
  std::map<std::string, std::shared_ptr<File>> files;
  for (const auto& [name, file] : files_) {
    auto after = std::make_shared<File>();
    after->inode = file->inode;
    after->modified = file->modified;
    after->bytes = file->durable;
    for (const Change& change : file->changes) {
      const std::uint64_t fate = random.Next() % 4;
      if (fate == 0) continue;
      if (change.is_size) {
        after->bytes.resize(change.offset, '\0');
      } else {
        const std::size_t there =
            fate == 1 ? random.Next() % (change.bytes.size() + 1) : change.bytes.size();
        Lay(after->bytes, change.offset, change.bytes.substr(0, there));
      }
    }
    after->durable = after->bytes;
    files[name] = std::move(after);
  }
  return files;
}

}  // namespace vesk_simulation
