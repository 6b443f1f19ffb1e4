// The table of open files.

#ifndef FILES_FILE_SYSTEM_PRIVATE_H_
#define FILES_FILE_SYSTEM_PRIVATE_H_

#include <memory>
#include <string>
#include <vector>

#include "files/file_system.h"
#include "files/node.h"
#include "runtime/ticker.h"

namespace vesk {

// A file is in the table from its first open until it was closed by all handles and everything of
// it is stored: one that cannot be stored stays, and is found again by the next open.
//   Threads  any; `mutex_` is held for looking up only, and outside of all others
struct FileSystem::Private {
  Private(const Services& services, Store& store, const FileSystemOptions& options);
  ~Private();

  Status Open(const std::string& name, const OpenOptions& options,
              std::unique_ptr<FileHandle>* handle);

  // One handle less. Of the last one: nothing of the file is left.
  Outcome Close(Node& node, WriteFailures::Seen* seen);
  // One handle less, whatever is left.
  void LetGo(Node& node);

  Status Rename(const std::string& from, const std::string& to);
  Status Remove(const std::string& name);
  Status SyncAll();
  void Tend();
  void WriteOut(Clock::Duration age);

  std::vector<std::shared_ptr<Node>> Nodes() const;

  const Services services;
  Store& store;
  const FileSystemOptions options;
  MemoryBudget memory;
  DirtyLimit dirty;

 private:
  friend class Inspector;  // as Node's

  int Examine(const std::string& name, const OpenOptions& options, FileInfo* info);
  std::shared_ptr<Node> Find(const std::string& name, const FileInfo& info) const
      VESK_REQUIRES(mutex_);
  std::shared_ptr<Node> Attach(const std::string& name, const FileInfo& info,
                               std::uint64_t looked_at);
  std::uint64_t OutdatedSoFar() const;
  void Outdate();
  int FindOpen(const std::string& name, std::shared_ptr<Node>* node);
  int OtherName(const Node& node, const std::string& gone, std::string* other);
  void Drop(const Node& node) VESK_REQUIRES(mutex_);
  void DropIdle();
  bool NothingInFlight() const;

  class Losing;

  Turn names_;  // of Rename and Remove; taken before a file's
  mutable Mutex mutex_;
  std::vector<std::shared_ptr<Node>> nodes_ VESK_GUARDED_BY(mutex_);
  // Times that what a Stat has told may have become wrong: a written file has left the table, or
  // names began to change.
  std::uint64_t outdated_ VESK_GUARDED_BY(mutex_) = 0;
  std::unique_ptr<Ticker> ticker_;  // last: it uses all of the others
};

}  // namespace vesk

#endif  // FILES_FILE_SYSTEM_PRIVATE_H_
