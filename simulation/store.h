// A store of named files in memory, where every operation ends when and how the simulation says,
// and which can crash.

#ifndef SIMULATION_STORE_H_
#define SIMULATION_STORE_H_

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "runtime/backend.h"
#include "runtime/random.h"
#include "simulation/scenario.h"

namespace vesk_simulation {

// How a job ends.
enum class Ending {
  kWell,
  kFails,        // does not take place
  kTears,        // a write: only a part of it takes place, and it fails; others: as kFails
  kFailsBehind,  // takes place all the same
};

//   Units    bytes
//   Threads  the simulation's one
class SimulatedStore final : public vesk::VeskBackend {
 public:
  // A change that has not been made durable.
  struct Change {
    std::uint64_t offset;
    std::string bytes;
    bool is_size;  // the file is `offset` bytes long now
  };
  struct File {
    std::uint64_t inode = 0;
    std::int64_t modified = 0;
    std::string bytes;  // as everybody reads it now
    std::string durable;
    std::vector<Change> changes;  // since `durable`
  };

  // `withdraws`: gives jobs back that it has not begun.
  SimulatedStore(bool withdraws, Lie lie) : withdraws_(withdraws), lie_(lie) {}

  void Start(vesk::JobQueue& jobs) override;
  bool Withdraw(vesk::VeskJob* job) override;
  void CancelAll(int error) override;

  std::size_t waiting() const { return waiting_.size(); }
  const vesk::VeskJob& waiting(std::size_t index) const { return *waiting_[index]; }

  // The job of that index in the order of coming ends.
  void EndOne(std::size_t index, Ending how, int error);

  // A new machine is to start from what this one has stored: every change since the last sync of
  // its file is there or not, as chance has it; a write may be there in part.
  std::map<std::string, std::shared_ptr<File>> Crash(vesk::Random& random) const;
  void Restore(std::map<std::string, std::shared_ptr<File>> files) { files_ = std::move(files); }

  void Put(const std::string& name, const std::string& bytes);
  bool Has(const std::string& name) const { return files_.count(name) != 0; }

  // The file, whatever its name is now.
  const File& Find(std::uint64_t inode) const;

  // Two transfers that overlap were in the store at once, and one of them was a write: their order
  // is a matter of chance then.
  const std::string& overlap() const { return overlap_; }

  struct Counts {
    std::uint64_t jobs = 0;
    std::uint64_t failed = 0;
    std::uint64_t torn = 0;
    std::uint64_t failed_behind = 0;
  };
  const Counts& counts() const { return counts_; }

 private:
  bool Lies(Lie lie) const { return lie_ == lie && counts_.jobs % 3 == 0; }
  void Take(vesk::VeskJob* job);
  int Perform(const vesk::VeskJob& job);
  int Transfer(const vesk::VeskJob& job);
  int OnName(const vesk::VeskJob& job);
  void Tear(const vesk::VeskJob& job);
  void Write(File& file, std::uint64_t offset, const std::string& bytes);
  void Resize(File& file, std::uint64_t size);
  File* Lookup(const std::string& name);

  const bool withdraws_;
  const Lie lie_;
  int cancelled_ = 0;
  std::vector<vesk::VeskJob*> waiting_;
  std::map<std::string, std::shared_ptr<File>> files_;
  std::uint64_t inodes_ = 0;
  std::int64_t changes_ = 0;
  std::string overlap_;
  Counts counts_;
};

}  // namespace vesk_simulation

#endif  // SIMULATION_STORE_H_
