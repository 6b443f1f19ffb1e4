#include "files/file_system.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <stdexcept>
#include <utility>

#include "files/file_handle_private.h"
#include "files/file_system_private.h"
#include "files/name_change.h"
#include "runtime/request.h"
#include "runtime/settings.h"
#include "runtime/store.h"
#include "vesk/VeskEnv.h"

namespace vesk {

namespace {

void Check(bool right, const char* what) {
  if (!right) throw std::invalid_argument(what);
}

const FileSystemOptions& Checked(const FileSystemOptions& options) {
  Check(options.memory > 0, "the memory for blocks is 0 bytes; at least 1 is needed");
  Check(options.block_size > 0 && options.block_size <= FileSystemOptions::kMaxBlockSize,
        "the block size is not between 1 byte and 100 MiB - 1");
  Check(options.read_ahead <= FileSystemOptions::kMaxReadAhead,
        "more than 99 blocks of read-ahead");
  Check(options.dirty_soft <= options.dirty_hard,
        "the soft limit for dirty bytes is above the hard one");
  return options;
}

// Half of the memory stays for readers.
std::uint64_t SoftLimit(const FileSystemOptions& options) {
  return std::max<std::uint64_t>(1, std::min(options.dirty_soft, options.memory / 2));
}

std::uint64_t HardLimit(const FileSystemOptions& options) {
  return std::max(SoftLimit(options), std::min(options.dirty_hard, options.memory));
}

// Often enough that dirty bytes do not get much older than they may.
Clock::Duration TendInterval(const FileSystemOptions& options) {
  return std::clamp<Clock::Duration>(options.dirty_age / 4, std::chrono::milliseconds(10),
                                     std::chrono::seconds(1));
}

// Bytes that became dirty a moment ago are left to their writer, who may be about to add to them.
constexpr Clock::Duration kMoment = std::chrono::milliseconds(20);

// Times that an open looks while names change, before it keeps them from changing.
constexpr int kTries = 3;

}  // namespace

FileSystem::Private::Private(const Services& file_services, Store& file_store,
                             const FileSystemOptions& file_options)
    : services(file_services),
      store(file_store),
      options(Checked(file_options)),
      memory(options.memory, services.clock),
      dirty(SoftLimit(options), HardLimit(options), services.clock),
      names_(services.clock, [this] { SettleAnswered(); }) {
  memory.OnShort([this] { WriteOut(Clock::Duration::zero()); });
  dirty.OnPressure([this](bool hard) {
    if (!hard) WriteOut(kMoment);
    if (hard || NothingInFlight()) WriteOut(Clock::Duration::zero());
  });
  if (options.background) {
    ticker_ = std::make_unique<Ticker>(services.clock, TendInterval(options), [this] { Tend(); });
  }
}

// Nothing here needs memory but to store what is left.
FileSystem::Private::~Private() {
  ticker_.reset();
  std::uint64_t left = 0;
  SettleLate();
  if (const std::unique_ptr<NameChange> late = TakeLate()) left = late->GiveUp();
  std::vector<std::shared_ptr<Node>> nodes;
  {
    const MutexLock guard(mutex_);
    nodes.swap(nodes_);
  }
  for (const std::shared_ptr<Node>& node : nodes) {
    try {
      const Node::Quiet quiet(*node, Node::Quiet::What::kDrained);
    } catch (const std::bad_alloc&) {
    }
    left += node->dirty();
  }
  if (left > 0) {
    gEnv->logger->Error({"FileSystem", 100}, "%llu bytes could not be stored in time\n",
                        static_cast<unsigned long long>(left));
  }
}

std::vector<std::shared_ptr<Node>> FileSystem::Private::Nodes() const {
  const MutexLock guard(mutex_);
  return nodes_;
}

// ---- open and close ----

// Finds or makes the file in the store.
int FileSystem::Private::Examine(const std::string& name, const OpenOptions& open, FileInfo* info,
                                 bool* made) {
  int error = store.Stat(name, info);
  if (error == ENOENT && open.create) {
    error = store.Create(name, open.permissions);
    if (error == 0) *made = true;
    if (error == EEXIST && open.exclusive) return EEXIST;
    if (error == 0 || error == EEXIST) error = store.Stat(name, info);
  } else if (error == 0 && open.create && open.exclusive) {
    return EEXIST;
  }
  if (error != 0) return error;
  if (S_ISDIR(info->mode)) return EISDIR;
  if (!S_ISREG(info->mode)) return EINVAL;
  error = store.Open(name, Access::kRead);
  if (error == 0 && open.write) error = store.Open(name, Access::kWrite);
  return error == ENOTSUP ? 0 : error;
}

// A removed file is found no more: the system may give its inode to another one.
std::shared_ptr<Node> FileSystem::Private::Find(const std::string& name,
                                                const FileInfo& info) const {
  std::shared_ptr<Node> named;
  for (const std::shared_ptr<Node>& node : nodes_) {
    if (node->removed()) continue;
    if (node->Is(info)) return node;
    if (node->names.count(name) > 0) named = node;
  }
  return named;
}

// Null: `info` may be older than a change of names, or than the last change that the file has met
// through a handle that is closed by now.
std::shared_ptr<Node> FileSystem::Private::Attach(const std::string& name, const FileInfo& info,
                                                  bool made, const Outdated& looked_at) {
  const MutexLock guard(mutex_);
  if (looked_at.names != outdated_.names) return nullptr;
  std::shared_ptr<Node> node = Find(name, info);
  const bool is_new = node == nullptr;
  if (is_new) {
    if (looked_at.files != outdated_.files) return nullptr;
    node = std::make_shared<Node>(services, store, memory, dirty, options, name, info,
                                  [this] { SettleAnswered(); });
  } else if (made || (info.inode != 0 && !node->Is(info))) {
    node->Doubt();  // another file has taken its place
  }
  node->names.insert(name);
  if (is_new) nodes_.push_back(node);  // in the table at last: what follows needs no memory
  node->device = info.device;
  node->inode = info.inode;
  ++node->handles;
  return node;
}

bool FileSystem::Private::IsFile(const Node& node, const FileInfo& info) const {
  const MutexLock guard(mutex_);
  return node.Is(info);
}

// A link to an open file may have become another file's name: then it is forgotten. Where the file
// itself was replaced, all of its names lead to the new one.
int FileSystem::Private::CheckLink(const std::string& name, const FileInfo& info) {
  std::shared_ptr<Node> node;
  {
    const MutexLock guard(mutex_);
    node = Find(name, info);
  }
  if (node == nullptr || IsFile(*node, info) || node->name() == name) return 0;
  FileInfo own;
  const int error = store.Stat(node->name(), &own);
  if (error != 0 && error != ENOENT) return error;
  if (error == 0 && own.device == info.device && own.inode == info.inode) return 0;
  const MutexLock guard(mutex_);
  node->names.erase(name);
  return 0;
}

FileSystem::Private::Outdated FileSystem::Private::OutdatedSoFar() const {
  const MutexLock guard(mutex_);
  return outdated_;
}

// The open file of that name, counted for one handle more.
int FileSystem::Private::FindOrMake(const std::string& name, OpenOptions open,
                                    std::shared_ptr<Node>* node) {
  Making making(*this);
  bool made = false;
  bool makes = open.exclusive;
  for (int tries = 0; *node == nullptr; open.exclusive = false) {
    const Outdated looked_at = OutdatedSoFar();
    // Once begun it stays so: who changes names waits for its end.
    makes = makes || ++tries > kTries;
    if (const int error = makes ? making.Begin() : names_.Pass()) return error;
    FileInfo info;
    if (const int error = Examine(name, open, &info, &made)) return error;
    if (const int error = CheckLink(name, info)) return error;
    *node = Attach(name, info, made, looked_at);
  }
  return 0;
}

Status FileSystem::Private::Open(const std::string& name, const OpenOptions& open,
                                 std::unique_ptr<FileHandle>* handle) {
  const std::string what = "open of '" + name + "'";
  if (!open.write && (open.create || open.truncate)) {
    return {EINVAL, what + ": to create or truncate it needs to be opened for writing"};
  }
  std::shared_ptr<Node> node;
  if (const int error = FindOrMake(name, open, &node)) return {error, what};
  // No more ahead than half of the memory: the other half holds what is being read.
  const auto block =
      static_cast<unsigned>(std::min<std::uint64_t>(options.block_size, options.memory));
  const std::uint64_t fitting = options.memory / 2 / block;
  const auto ahead = static_cast<unsigned>(std::min<std::uint64_t>(options.read_ahead, fitting));
  try {
    handle->reset(new FileHandle(
        std::make_unique<FileHandle::Private>(*this, node, name, open.write, block, ahead)));
  } catch (...) {
    LetGo(*node);  // it was counted for the handle
    throw;
  }
  if (!open.truncate) return {};
  Status status = (*handle)->Truncate(0);
  if (!status.ok()) handle->reset();
  return status;
}

Outcome FileSystem::Private::Close(Node& node, WriteFailures::Seen* seen) {
  const Outcome drained = node.Drain(seen);
  if (drained.error != 0) return drained;
  {
    const MutexLock guard(mutex_);
    if (node.handles > 1) {
      --node.handles;
      return {};
    }
  }
  const Node::Quiet quiet(node, Node::Quiet::What::kDrained);
  if (quiet.outcome().error != 0) return quiet.outcome();
  node.DropClean(0, node.size());
  const MutexLock guard(mutex_);
  if (--node.handles == 0) Drop(node);
  return {};
}

void FileSystem::Private::Drop(const Node& node) {
  if (node.written()) ++outdated_.files;
  nodes_.erase(std::find_if(nodes_.begin(), nodes_.end(),
                            [&node](const auto& other) { return other.get() == &node; }));
}

// A broken file can be opened afresh when nobody has it open any more.
void FileSystem::Private::LetGo(Node& node) {
  const MutexLock guard(mutex_);
  if (--node.handles == 0 && (node.broken() || node.idle())) Drop(node);
}

// Files that nobody has open any more and that could be stored at last.
void FileSystem::Private::DropIdle() {
  std::vector<std::shared_ptr<Node>> nodes;  // destroyed without the mutex
  const MutexLock guard(mutex_);
  nodes = nodes_;
  for (const std::shared_ptr<Node>& node : nodes) {
    if (node->handles == 0 && node->idle()) Drop(*node);
  }
}

// ---- all files ----

Status FileSystem::Private::SyncAll() {
  Status first;
  for (const std::shared_ptr<Node>& node : Nodes()) node->StartWrites();
  for (const std::shared_ptr<Node>& node : Nodes()) {
    WriteFailures::Seen seen(node->failures().count());
    const int failing = node->failures().Any();
    const Outcome outcome = failing != 0 ? Outcome{failing, true} : node->Sync(&seen);
    if (outcome.error != 0 && !node->removed() && first.ok()) {  // what is removed is not stored
      first = {outcome.error,
               (outcome.write_back ? "write-back of '" : "sync of '") + node->name() + "'"};
    }
  }
  return first;
}

void FileSystem::Private::WriteOut(Clock::Duration age) {
  try {
    const Clock::Time now = services.clock.Now();
    for (const std::shared_ptr<Node>& node : Nodes()) {
      if (node->dirty() > 0 || node->broken()) {
        node->WriteOut(age == Clock::Duration::zero() ? Clock::kNever : now - age);
      }
    }
  } catch (const std::bad_alloc&) {  // the next round comes
  }
}

bool FileSystem::Private::NothingInFlight() const {
  for (const std::shared_ptr<Node>& node : Nodes()) {
    if (node->in_flight() > 0) return false;
  }
  return true;
}

void FileSystem::Private::Tend() {
  SettleAnswered();
  WriteOut(dirty.AboveSoft() ? std::min(kMoment, options.dirty_age) : options.dirty_age);
  try {
    DropIdle();
  } catch (const std::bad_alloc&) {  // likewise
  }
}

// ---- the public face ----

FileSystem::FileSystem(const Services& services, Store& store, const FileSystemOptions& options)
    : self_(std::make_unique<Private>(services, store, options)) {}

FileSystem::~FileSystem() = default;

Status FileSystem::Open(const std::string& name, const OpenOptions& options,
                        std::unique_ptr<FileHandle>* handle) {
  try {
    return self_->Open(name, options, handle);
  } catch (const std::bad_alloc&) {
    return {ENOMEM, "open"};
  }
}

Status FileSystem::Rename(const std::string& from, const std::string& to) {
  try {
    return self_->Rename(from, to);
  } catch (const std::bad_alloc&) {
    return {ENOMEM, "renaming"};
  }
}

Status FileSystem::Remove(const std::string& name) {
  try {
    return self_->Remove(name);
  } catch (const std::bad_alloc&) {
    return {ENOMEM, "removal"};
  }
}

Status FileSystem::SyncAll() {
  try {
    return self_->SyncAll();
  } catch (const std::bad_alloc&) {
    return {ENOMEM, "sync of all"};
  }
}

void FileSystem::Tend() { self_->Tend(); }

std::vector<FileStats> FileSystem::GetFiles() const {
  std::vector<FileStats> files;
  for (const std::shared_ptr<Node>& node : self_->Nodes()) files.push_back(node->GetStats());
  std::sort(files.begin(), files.end(),
            [](const FileStats& a, const FileStats& b) { return a.name < b.name; });
  return files;
}

FileStats FileSystem::GetStats() const {
  FileStats sum;
  for (const FileStats& file : GetFiles()) {
    sum.size += file.size;
    sum.cached += file.cached;
    sum.dirty += file.dirty;
    sum.in_flight += file.in_flight;
    sum.parked += file.parked;
    sum.oldest_dirty = std::max(sum.oldest_dirty, file.oldest_dirty);
    if (file.last_error != 0) sum.last_error = file.last_error;
    sum.hits += file.hits;
    sum.misses += file.misses;
    sum.fetched += file.fetched;
    sum.returned += file.returned;
    sum.streams += file.streams;
    sum.turns += file.turns;
    sum.repeats = std::max(sum.repeats, file.repeats);
  }
  sum.throttled = self_->dirty.throttled();
  sum.throttled_time = self_->dirty.throttled_time();
  return sum;
}

std::uint64_t FileSystem::memory_used() const { return self_->memory.used(); }
std::uint64_t FileSystem::memory_peak() const { return self_->memory.peak(); }

FileSystemOptions OptionsFrom(const Settings& settings) {
  FileSystemOptions options;
  options.memory = settings.memory;
  options.block_size = settings.block_size;
  options.read_ahead = settings.read_ahead;
  options.dirty_soft = settings.dirty_soft;
  options.dirty_hard = settings.dirty_hard;
  options.dirty_age = std::chrono::milliseconds(settings.dirty_age_ms);
  options.when_unknown = settings.when_unknown;
  return options;
}

}  // namespace vesk
