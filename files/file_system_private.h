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

  class Making;
  class NameChange;

  int Examine(const std::string& name, const OpenOptions& options, FileInfo* info, bool* made);
  std::shared_ptr<Node> Find(const std::string& name, const FileInfo& info) const
      VESK_REQUIRES(mutex_);
  // What may make wrong what a Stat has told, by how often it has happened.
  struct Outdated {
    std::uint64_t names = 0;  // names began to change
    std::uint64_t files = 0;  // a written file has left the table
  };

  std::shared_ptr<Node> Attach(const std::string& name, const FileInfo& info, bool made,
                               const Outdated& looked_at);
  bool IsFile(const Node& node, const FileInfo& info) const;
  int CheckLink(const std::string& name, const FileInfo& info);
  Outdated OutdatedSoFar() const;
  int FindOrMake(const std::string& name, OpenOptions open, std::shared_ptr<Node>* node);
  std::shared_ptr<Node> FindOpen(const std::string& name, const FileInfo* info) const;
  int OtherName(const Node& node, const std::string& gone, std::string* other);
  int AwaitMakers();
  bool Conclude(std::unique_ptr<NameChange> change, int* error);
  int CarryOut(std::unique_ptr<NameChange> change);
  std::unique_ptr<NameChange> TakeLate();
  void SettleLate();
  void SettleAnswered();
  void Drop(const Node& node) VESK_REQUIRES(mutex_);
  void DropIdle();
  bool NothingInFlight() const;

  Turn names_;  // of Rename and Remove; taken before a file's
  mutable Mutex mutex_;
  std::vector<std::shared_ptr<Node>> nodes_ VESK_GUARDED_BY(mutex_);
  Outdated outdated_ VESK_GUARDED_BY(mutex_);
  unsigned making_ VESK_GUARDED_BY(mutex_) = 0;  // exclusive opens under way
  Condition made_;
  std::unique_ptr<NameChange> late_ VESK_GUARDED_BY(mutex_);  // outlasts its request
  std::unique_ptr<Ticker> ticker_;                            // last: it uses all of the others
};

}  // namespace vesk

#endif  // FILES_FILE_SYSTEM_PRIVATE_H_
