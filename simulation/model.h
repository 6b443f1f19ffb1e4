// What the bytes of a file may be: now, for whoever reads them, and after a crash.

#ifndef SIMULATION_MODEL_H_
#define SIMULATION_MODEL_H_

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace vesk_simulation {

// Keeps for each byte of the file every value that it may have, with the time from which on and
// until which it may. A byte behind the end of the file has the value kNone, so the size is no
// matter of its own. Requests that run at the same time may take effect in any order, and each of
// their bytes for itself.
//
// A value is possible from the beginning of the request that writes it. It is impossible from the
// end of a request that has overwritten it, unless the two ran at the same time.
//   Units    bytes; times count the calls
class Model {
 public:
  using Tick = std::uint64_t;
  using Id = std::uint64_t;

  static constexpr std::uint64_t kMostBytes = 1200;  // what a file may grow to

  explicit Model(const std::string& bytes) { Reset(bytes); }

  // Everything is known: this, and it is durable.
  void Reset(const std::string& bytes);

  // ---- changes ----

  Id BeginWrite(std::uint64_t offset, const std::string& bytes);
  // The first `moved` bytes were written, the others were not touched.
  void EndWrite(Id id, std::size_t moved);

  Id BeginAppend(const std::string& bytes);
  // Nothing, or what is wrong.
  std::string EndAppend(Id id, std::uint64_t offset);
  void FailAppend(Id id);  // a part of it may be there

  Id BeginTruncate(std::uint64_t size);
  enum class Outcome { kDone, kNot, kPerhaps, kPerhapsLater };
  void EndTruncate(Id id, Outcome outcome);

  // What is not in the store has been given up: whatever may be in the store, or on its way there,
  // may be what the file has.
  void Discard();

  // ---- reads and syncs ----

  Tick BeginRead();
  // Nothing, or what is wrong with a read of `length` bytes that has ended well.
  std::string EndRead(Tick begin, std::uint64_t offset, std::size_t length,
                      const std::string& bytes);
  void FailRead(Tick begin) { readers_.erase(readers_.find(begin)); }

  // Nothing, or why the file cannot be so long.
  std::string CheckSize(std::uint64_t size) const;

  Tick BeginSync() { return ++tick_; }
  void EndSync(Tick begin);

  // Nothing, or why a crash may not leave these bytes.
  std::string CheckAfterCrash(const std::string& bytes) const;

  // Nothing, or why the file cannot be this at a moment at which no request runs.
  std::string CheckNow(const std::string& bytes) const;

  std::uint64_t verified() const { return verified_; }

 private:
  using Value = std::int16_t;
  static constexpr Value kNone = -1;
  static constexpr Tick kOpen = ~Tick{0};

  struct Possible {
    Value value;
    Id by;
    Tick ended = kOpen;    // of the request that wrote it
    Tick dropped = kOpen;  // it was overwritten for sure
    bool durable = true;   // a crash may bring it back
  };
  using Byte = std::vector<Possible>;

  struct Request {
    std::uint64_t begin = 0;  // bytes
    std::uint64_t end = 0;
    std::string bytes;
    Tick began = 0;
    bool truncates = false;
  };

  static Value At(const std::string& bytes, std::uint64_t offset) {
    return offset < bytes.size() ? static_cast<Value>(static_cast<unsigned char>(bytes[offset]))
                                 : kNone;
  }
  void Add(std::uint64_t offset, Value value, Id by);
  void Overwrite(std::uint64_t offset, const Request& request, Id by, bool only_none);
  void Withdraw(std::uint64_t offset, Id by);
  void Close(Id by, Tick ended);
  bool MayBe(std::uint64_t offset, Value value, Tick since) const;
  bool MayBeThere(std::uint64_t offset, Tick since) const;
  bool IsAppended(std::uint64_t offset, Value value, Tick since) const;
  std::string Wrong(const char* what, std::uint64_t offset, Value value) const;
  void Forget(Byte& byte) const;

  Tick tick_ = 0;
  std::vector<Byte> bytes_;
  std::map<Id, Request> running_;
  std::map<Id, Request> appends_;  // at places that are not known
  std::multiset<Tick> readers_;
  bool uncertain_ = false;  // a truncation may have taken place
  std::uint64_t verified_ = 0;
};

}  // namespace vesk_simulation

#endif  // SIMULATION_MODEL_H_
