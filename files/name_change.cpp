#include "files/name_change.h"

#include <cerrno>
#include <new>
#include <set>
#include <utility>

#include "runtime/name_operation.h"
#include "runtime/request.h"
#include "runtime/store.h"
#include "runtime/transient.h"
#include "vesk/VeskBundler.h"

namespace vesk {

int FileSystem::Private::Making::Begin() {
  while (!begun_) {
    if (const int error = files_.names_.Pass()) return error;
    {
      const MutexLock guard(files_.mutex_);
      ++files_.making_;
      begun_ = true;
    }
    if (files_.names_.IsTakenFrom(nullptr)) End();  // who has the turn may have looked before
  }
  return 0;
}

void FileSystem::Private::Making::End() {
  if (!begun_) return;
  const MutexLock guard(files_.mutex_);
  --files_.making_;
  begun_ = false;
  files_.made_.WakeAll();
}

// With the turn of names: no new one begins.
int FileSystem::Private::AwaitMakers() {
  const WakeOnCancel wake(mutex_, made_);
  const MutexLock guard(mutex_);
  while (making_ > 0) {
    if (const int error = RequestScope::Wait(made_, mutex_, services.clock)) return error;
  }
  return 0;
}

// Another name than `gone` that leads to the file; empty: there is none that we know.
int FileSystem::Private::OtherName(const Node& node, const std::string& gone, std::string* other) {
  std::set<std::string> names;
  {
    const MutexLock guard(mutex_);
    names = node.names;
  }
  names.erase(gone);
  for (const std::string& name : names) {
    FileInfo info;
    const int error = store.Stat(name, &info);
    if (error != 0 && error != ENOENT) return error;
    const bool leads = error == 0 && (info.inode == 0 || IsFile(node, info));
    if (leads && (other->empty() || name == node.name())) *other = name;
  }
  return 0;
}

// The open file of that name; where the store has none (null), one that has lost it there without
// our doing.
std::shared_ptr<Node> FileSystem::Private::FindOpen(const std::string& name,
                                                    const FileInfo* info) const {
  const MutexLock guard(mutex_);
  if (info != nullptr) return Find(name, *info);
  for (const std::shared_ptr<Node>& node : nodes_) {
    if (!node->removed() && node->name() == name) return node;
  }
  return nullptr;
}

FileSystem::Private::NameChange::~NameChange() {
  if (job_ != nullptr) VeskJob::RefCountDec(job_);
}

int FileSystem::Private::NameChange::Prepare() {
  // One at a time: two that hold one file each could wait for the other's.
  if (const int error = turn_.Take(&turn_)) return error;
  if (const int error = files_.AwaitMakers()) return error;
  {
    const MutexLock guard(files_.mutex_);
    ++files_.outdated_.names;
  }
  int error = files_.store.Stat(from_, &info_);
  if (error != 0 && error != ENOENT) return error;
  exists_ = error == 0;
  if (exists_) node_ = files_.FindOpen(from_, &info_);
  if (IsRemoval()) {
    loser_ = std::move(node_);
    return PrepareLoser();
  }
  FileInfo info;
  error = files_.store.Stat(*to_, &info);
  if (error != 0 && error != ENOENT) return error;
  loser_ = files_.FindOpen(*to_, error == 0 ? &info : nullptr);
  if (node_ == loser_) node_ = loser_ = nullptr;  // two names of one file, which keep being so
  if (node_ != nullptr) {
    quiet_.emplace(*node_, Node::Quiet::What::kDrained);
    if (quiet_->outcome().error != 0) return quiet_->outcome().error;
  }
  return PrepareLoser();
}

// What is on its way under the name must have arrived before: afterwards it may be another file's.
int FileSystem::Private::NameChange::PrepareLoser() {
  if (loser_ == nullptr) return 0;
  if (const int error = files_.OtherName(*loser_, lost_name(), &other_)) return error;
  const bool keeps_one = !other_.empty();
  loser_quiet_.emplace(*loser_,
                       keeps_one ? Node::Quiet::What::kDrained : Node::Quiet::What::kStopped);
  return loser_quiet_->outcome().error;
}

void FileSystem::Private::NameChange::Start() {
  if (node_ != nullptr) renaming_.emplace(*node_);
  if (loser_ != nullptr) loser_renaming_.emplace(*loser_);
  job_ = IsRemoval() ? NewNameJob(OPCODE_REMOVE, from_) : NewNameJob(OPCODE_RENAME, from_, *to_);
  files_.services.bundler.SubmitJob(job_);
}

bool FileSystem::Private::NameChange::Finish(int* error) {
  files_.services.bundler.WaitForJob(job_, nullptr, IsRemoval() ? "Remove" : "Rename");
  if (!Answered()) {
    *error = RequestScope::Exceeded(files_.services.clock);
    return false;
  }
  *error = job_->GetReturnValue();
  int unknown = 0;
  const bool has = *error == 0 || HasTakenPlace(&unknown);
  if (has && unknown == 0) unknown = FindOther();
  if (unknown == ESHUTDOWN) return true;  // nothing is stored any more, under whatever name
  if (unknown != 0) return WillNotBeKnown(unknown);
  if (!has) return true;
  const int untold = Take();
  // With that a second try ends, when the first one's answer was lost. Any other error stands, for
  // one, that the change may not be durable.
  if (*error == 0 || *error == ENOENT) *error = untold;
  return true;
}

// True: asking once more is of no use, so the files are of none.
bool FileSystem::Private::NameChange::WillNotBeKnown(int error) {
  if (RequestScope::Exceeded(files_.services.clock) != 0 || IsTransient(error)) return false;
  TakeOutOfService();
  return true;
}

// The name that the loser goes on with. What led to it before may have been another way to write
// the name that it has lost, or a link to that.
int FileSystem::Private::NameChange::FindOther() {
  if (other_.empty()) return 0;
  std::string other;
  const int error = files_.OtherName(*loser_, lost_name(), &other);
  if (error == 0) other_ = other;
  return error;
}

// A change may take place and end in an error: its answer was lost, and then it was tried again.
bool FileSystem::Private::NameChange::HasTakenPlace(int* unknown) {
  bool leads = false;
  if (!exists_) return false;
  if ((*unknown = Ask(from_, &leads)) != 0 || leads) return false;
  if (IsRemoval() || info_.inode == 0) return true;
  *unknown = Ask(*to_, &leads);  // somebody else may have taken it away
  return leads;
}

// Whether the name leads to the file now.
int FileSystem::Private::NameChange::Ask(const std::string& name, bool* leads) {
  FileInfo info;
  const int error = files_.store.Stat(name, &info);
  *leads = error == 0 && info.device == info_.device && info.inode == info_.inode;
  return error == ENOENT ? 0 : error;
}

// The store has done it. Without memory the files do not learn their names, but everything of them
// is stored.
int FileSystem::Private::NameChange::Take() {
  try {
    TakeLoser();
    if (node_ == nullptr) return 0;
    node_->SetName(*to_);
    const MutexLock guard(files_.mutex_);
    node_->names.insert(*to_);
    node_->names.erase(from_);
    return 0;
  } catch (const std::bad_alloc&) {
    TakeOutOfService();
    return ENOMEM;
  }
}

void FileSystem::Private::NameChange::TakeLoser() {
  if (loser_ == nullptr) return;
  {
    const MutexLock guard(files_.mutex_);
    loser_->names.erase(lost_name());
  }
  if (other_.empty()) {
    loser_->SetRemoved();
  } else {
    loser_->SetName(other_);
  }
}

void FileSystem::Private::NameChange::TakeOutOfService() {
  if (loser_ != nullptr) loser_->TakeOutOfService();
  if (node_ != nullptr) node_->TakeOutOfService();
}

std::uint64_t FileSystem::Private::NameChange::GiveUp() {
  if (loser_ == nullptr) return 0;
  const std::uint64_t unsaved = loser_->dirty();
  loser_->SetRemoved();
  return unsaved;
}

// False: it goes on by itself.
bool FileSystem::Private::Conclude(std::unique_ptr<NameChange> change, int* error) {
  try {
    if (change->Finish(error)) return true;
  } catch (const std::bad_alloc&) {
    *error = ENOMEM;
  }
  const MutexLock guard(mutex_);
  late_ = std::move(change);
  return false;
}

int FileSystem::Private::CarryOut(std::unique_ptr<NameChange> change) {
  if (const int error = change->Prepare()) return error;
  change->Start();
  int error = 0;
  (void)Conclude(std::move(change), &error);
  return error;
}

std::unique_ptr<FileSystem::Private::NameChange> FileSystem::Private::TakeLate() {
  const MutexLock guard(mutex_);
  return std::move(late_);
}

// Waits for what comes of a change that has outlasted its request.
void FileSystem::Private::SettleLate() {
  int error = 0;
  if (std::unique_ptr<NameChange> late = TakeLate()) (void)Conclude(std::move(late), &error);
}

// The same, but for one that the store has not answered.
void FileSystem::Private::SettleAnswered() {
  {
    const MutexLock guard(mutex_);
    if (late_ == nullptr || !late_->Answered()) return;
  }
  const RequestScope scope({services.clock.Now() + options.check_patience, nullptr});
  SettleLate();
}

Status FileSystem::Private::Rename(const std::string& from, const std::string& to) {
  const int error = CarryOut(std::make_unique<NameChange>(*this, from, to));
  return error == 0 ? Status() : Status(error, "renaming of '" + from + "' to '" + to + "'");
}

Status FileSystem::Private::Remove(const std::string& name) {
  const int error = CarryOut(std::make_unique<NameChange>(*this, name));
  return error == 0 ? Status() : Status(error, "removal of '" + name + "'");
}

}  // namespace vesk
