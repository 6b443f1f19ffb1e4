// What the bytes of a file have to be, kept apart from whatever caches or stores them.

#ifndef TESTS_FILES_MODEL_H_
#define TESTS_FILES_MODEL_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "runtime/random.h"
#include "vesk/VeskMutex.h"

namespace vesk_test {

// What a byte was written with, last: 2n for its n-th write, and an odd number, one more than that
// of its last write, when a hole has taken its place. Each byte counts for itself.
using Version = std::uint32_t;

inline Version NextWrite(Version version) { return (version | 1) + 1; }

//   Units    a number from 0 on, below `below`, which is at least 1
inline std::uint64_t Below(vesk::Random& random, std::uint64_t below) {
  return random.Next() % below;
}
inline bool OneIn(vesk::Random& random, std::uint64_t times) { return Below(random, times) == 0; }

// From 1 to `most`; each order of magnitude is as likely as the others.
std::uint64_t AnyLength(vesk::Random& random, std::uint64_t most);

// The file has two parts. Below `capacity` it is divided into stripes, each of which one thread
// alone writes to; a byte holds a value that tells its offset and its version. Beyond, it only
// grows, by appended pieces, whose bytes tell who appended them.
//
// A request is compared with what was certain before it began and what was possible when it had
// ended: each byte is of a version from the last one whose write had ended to the last one whose
// write had begun. A thread that reads its own stripe finds these two to be the same.
//   Units    bytes
//   Threads  any; a stripe's writes by its owner. "quiet": no other thread is inside
class ModelFile {
 public:
  struct Stripe {
    std::uint64_t begin;
    std::uint64_t end;
    unsigned owner;
  };

  // A piece that a thread has appended, or tried to.
  struct Piece {
    std::uint64_t key;  // what its bytes are made of
    std::uint64_t length;
    std::uint64_t offset = 0;  // of one that has been appended
  };

  // What is certain when a read begins.
  struct Before {
    std::vector<Version> ended;  // of the bytes to be read, below the capacity
    std::uint64_t size = 0;
    std::size_t pieces = 0;
  };

  ModelFile(std::uint64_t capacity, unsigned threads, vesk::Random& random);

  std::uint64_t capacity() const { return capacity_; }
  const std::vector<Stripe>& stripes() const { return stripes_; }

  // Of the last quiet moment.
  std::uint64_t quiet_size() const { return quiet_size_; }

  // ---- writes, by the owner of the bytes ----

  // Fills `bytes` with what the next write of [offset, offset + length) is to put there.
  void BeginWrite(std::uint64_t offset, std::size_t length, unsigned char* bytes);
  // The first `done` of `length` bytes were written, the others were not touched.
  void EndWrite(std::uint64_t offset, std::size_t length, std::size_t done);

  // ---- appended pieces ----

  std::vector<unsigned char> BeginAppend(std::uint64_t key, std::size_t length);
  void EndAppend(const Piece& piece);
  void FailAppend(const Piece& piece);

  // ---- what was read ----

  Before BeginRead(std::uint64_t offset, std::size_t length) const;

  // Nothing, or what is wrong with the `moved` bytes that a read of `length` has brought; `whole`:
  // it has ended well, so only the end of the file may have cut it. `*where`: the first wrong byte.
  std::string CheckRead(const Before& before, std::uint64_t offset, std::size_t length,
                        const unsigned char* bytes, std::size_t moved, bool whole,
                        std::uint64_t* where) const;

  std::uint64_t least_size() const { return least_size_; }
  std::uint64_t most_size() const { return most_size_; }

  // ---- quiet ----

  // Takes in what was appended since the last quiet moment: `read` fetches bytes of the file, whose
  // size is `size`. Nothing, or what is wrong.
  template <typename Read>
  std::string Settle(std::uint64_t size, const Read& read) {
    std::vector<unsigned char> rest;
    const std::uint64_t from = capacity_ + tail_.size();
    if (size > from) rest = read(from, size - from);
    return TakeIn(size, std::move(rest));
  }

  // The bytes are version 2 from now on, as long as the file is.
  std::vector<unsigned char> Fill(std::uint64_t size);
  void Truncate(std::uint64_t size);

  // The byte at `offset`, below quiet_size().
  unsigned char At(std::uint64_t offset) const;

 private:
  unsigned char ByteOf(std::uint64_t offset, Version version) const;
  static unsigned char ByteOfPiece(std::uint64_t key, std::uint64_t index);
  static void Raise(std::atomic<std::uint64_t>* value, std::uint64_t least);

  std::string TakeIn(std::uint64_t size, std::vector<unsigned char> rest);
  bool IsMadeOfParts(const unsigned char* bytes, std::size_t length,
                     std::vector<Piece> parts) const;
  std::optional<std::string> CheckByte(std::uint64_t offset, unsigned char byte,
                                       Version ended) const;
  std::string DescribeWrong(std::uint64_t offset, unsigned char byte, Version ended,
                            Version begun) const;

  const std::uint64_t capacity_;
  const std::uint64_t salt_;
  std::vector<Stripe> stripes_;
  std::unique_ptr<std::atomic<Version>[]> ended_;  // of each byte below the capacity
  std::unique_ptr<std::atomic<Version>[]> begun_;
  std::vector<unsigned char> tail_;  // from the capacity on; changed in quiet moments alone
  std::uint64_t quiet_size_ = 0;
  std::atomic<std::uint64_t> least_size_{0};
  std::atomic<std::uint64_t> most_size_{0};

  mutable vesk::Mutex mutex_;
  std::vector<Piece> appended_ VESK_GUARDED_BY(mutex_);  // since the last quiet moment
  std::vector<Piece> failed_ VESK_GUARDED_BY(mutex_);
};

}  // namespace vesk_test

#endif  // TESTS_FILES_MODEL_H_
