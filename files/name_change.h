// What keeps names and open files together while names change.

#ifndef FILES_NAME_CHANGE_H_
#define FILES_NAME_CHANGE_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "files/file_system_private.h"
#include "files/node.h"
#include "files/turn.h"
#include "vesk/VeskJob.h"

namespace vesk {

// The change of a name, or its removal, with all that it keeps from going on meanwhile. It may
// outlast its request: then nobody knows what the files are called until the store has answered.
class FileSystem::Private::NameChange {
 public:
  // No `to`: removal.
  NameChange(Private& files, std::string from, std::optional<std::string> to = std::nullopt)
      : files_(files), from_(std::move(from)), to_(std::move(to)), turn_(files.names_) {}
  ~NameChange();
  NameChange(const NameChange&) = delete;
  NameChange& operator=(const NameChange&) = delete;

  // 0: the store can do it now.
  int Prepare();

  // Has the store do it.
  //   Before   Prepare, with success
  //   Ends in  std::bad_alloc: it does not
  void Start();

  // True: it is known what has come of it, and the files know it. False: within the limits nobody
  // can tell. `*error` is what to answer; not 0: it may have taken place all the same.
  bool Finish(int* error);

  // Nobody will know: a file that may have lost its name is not stored any more. Returns the bytes
  // that are lost with it.
  std::uint64_t GiveUp();

  bool Answered() const { return job_->GetJobState() == JOB_STATE_DONE; }

 private:
  bool IsRemoval() const { return !to_.has_value(); }
  const std::string& lost_name() const { return to_.has_value() ? *to_ : from_; }
  int PrepareLoser();
  bool HasTakenPlace(int* unknown);
  int Ask(const std::string& name, bool* leads);
  int FindOther();
  bool WillNotBeKnown(int error);
  int Take();
  void TakeLoser();
  void TakeOutOfService();

  Private& files_;
  const std::string from_;
  const std::optional<std::string> to_;
  Turn::Holder turn_;
  FileInfo info_;                // of the store's file, before
  bool exists_ = false;          // there is one
  std::shared_ptr<Node> node_;   // that gets a name; null: it is not open
  std::shared_ptr<Node> loser_;  // that loses one; likewise
  std::string other_;            // of the loser's names
  std::optional<Node::Quiet> quiet_;
  std::optional<Node::Quiet> loser_quiet_;
  std::optional<Node::Renaming> renaming_;
  std::optional<Node::Renaming> loser_renaming_;
  VeskJob* job_ = nullptr;
};

// While one lives that has begun, no name is changed: the file of that name is the one just made.
class FileSystem::Private::Making {
 public:
  explicit Making(Private& files) : files_(files) {}
  ~Making() { End(); }
  Making(const Making&) = delete;
  Making& operator=(const Making&) = delete;

  // Returns when no name is being changed.
  int Begin();

 private:
  void End();

  Private& files_;
  bool begun_ = false;
};

}  // namespace vesk

#endif  // FILES_NAME_CHANGE_H_
