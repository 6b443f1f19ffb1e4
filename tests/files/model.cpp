#include "tests/files/model.h"

#include <algorithm>
#include <sstream>
#include <utility>

namespace vesk_test {

namespace {

std::uint64_t Mixed(std::uint64_t value) {
  value *= 0x9e3779b97f4a7c15u;
  value ^= value >> 29;
  value *= 0xbf58476d1ce4e5b9u;
  return value >> 56;
}

// Widths of stripes: most of them share blocks with their neighbours, whatever the size of a block.
std::uint64_t AnyWidth(vesk::Random& random) {
  switch (Below(random, 10)) {
    case 0: return 1 + Below(random, 100);
    case 1: return 20000 + Below(random, 280000);
    default: return 1000 + Below(random, 6000);
  }
}

}  // namespace

std::uint64_t AnyLength(vesk::Random& random, std::uint64_t most) {
  unsigned bits = 0;
  while (bits < 63 && (most >> bits) > 1) ++bits;
  const std::uint64_t cap = std::uint64_t{2} << Below(random, bits + 1);
  return 1 + Below(random, std::min(cap, most));
}

ModelFile::ModelFile(std::uint64_t capacity, unsigned threads, vesk::Random& random)
    : capacity_(capacity),
      salt_(random.Next() >> 16),
      ended_(new std::atomic<Version>[capacity]),
      begun_(new std::atomic<Version>[capacity]) {
  for (std::uint64_t at = 0; at < capacity;) {
    const std::uint64_t end = std::min(capacity, at + AnyWidth(random));
    stripes_.push_back({at, end, static_cast<unsigned>(Below(random, threads))});
    at = end;
  }
  for (std::uint64_t at = 0; at < capacity; ++at) {
    ended_[at].store(1, std::memory_order_relaxed);
    begun_[at].store(1, std::memory_order_relaxed);
  }
}

// Never zero, and never the same for two versions that follow each other.
unsigned char ModelFile::ByteOf(std::uint64_t offset, Version version) const {
  if ((version & 1) != 0) return 0;
  return static_cast<unsigned char>(1 + (Mixed(offset + salt_) + version / 2) % 255);
}

unsigned char ModelFile::ByteOfPiece(std::uint64_t key, std::uint64_t index) {
  return static_cast<unsigned char>(1 + Mixed((key << 24) + index) % 255);
}

void ModelFile::Raise(std::atomic<std::uint64_t>* value, std::uint64_t least) {
  std::uint64_t old = value->load();
  while (old < least && !value->compare_exchange_weak(old, least)) {
  }
}

// ---- writes ----

void ModelFile::BeginWrite(std::uint64_t offset, std::size_t length, unsigned char* bytes) {
  for (std::size_t i = 0; i < length; ++i) {
    const Version version = NextWrite(ended_[offset + i].load(std::memory_order_relaxed));
    bytes[i] = ByteOf(offset + i, version);
    begun_[offset + i].store(version, std::memory_order_release);
  }
  Raise(&most_size_, offset + length);
}

void ModelFile::EndWrite(std::uint64_t offset, std::size_t length, std::size_t done) {
  for (std::size_t i = 0; i < done; ++i) {
    ended_[offset + i].store(begun_[offset + i].load(std::memory_order_relaxed),
                             std::memory_order_release);
  }
  for (std::size_t i = done; i < length; ++i) {
    begun_[offset + i].store(ended_[offset + i].load(std::memory_order_relaxed),
                             std::memory_order_release);
  }
  if (done > 0) Raise(&least_size_, offset + done);
}

// ---- appended pieces ----

std::vector<unsigned char> ModelFile::BeginAppend(std::uint64_t key, std::size_t length) {
  most_size_ += length;
  std::vector<unsigned char> bytes(length);
  for (std::size_t i = 0; i < length; ++i) bytes[i] = ByteOfPiece(key, i);
  return bytes;
}

void ModelFile::EndAppend(const Piece& piece) {
  {
    const vesk::MutexLock guard(mutex_);
    appended_.push_back(piece);
  }
  Raise(&least_size_, piece.offset + piece.length);
}

void ModelFile::FailAppend(const Piece& piece) {
  const vesk::MutexLock guard(mutex_);
  failed_.push_back(piece);
}

// ---- what was read ----

ModelFile::Before ModelFile::BeginRead(std::uint64_t offset, std::size_t length) const {
  Before before;
  before.size = least_size_;
  if (offset < capacity_) {
    const std::uint64_t end = std::min<std::uint64_t>(offset + length, capacity_);
    before.ended.reserve(end - offset);
    for (std::uint64_t at = offset; at < end; ++at) {
      before.ended.push_back(ended_[at].load(std::memory_order_acquire));
    }
  }
  const vesk::MutexLock guard(mutex_);
  before.pieces = appended_.size();
  return before;
}

std::string ModelFile::CheckRead(const Before& before, std::uint64_t offset, std::size_t length,
                                 const unsigned char* bytes, std::size_t moved, bool whole,
                                 std::uint64_t* where) const {
  const auto there = [&](std::uint64_t size) {
    return size <= offset ? 0 : std::min<std::uint64_t>(length, size - offset);
  };
  *where = offset + moved;
  if (moved > there(most_size_)) {
    return "read " + std::to_string(moved) + " bytes where the file has at most " +
           std::to_string(there(most_size_));
  }
  if (whole && moved < there(before.size)) {
    return "read " + std::to_string(moved) + " bytes where the file has at least " +
           std::to_string(there(before.size));
  }
  for (std::size_t i = 0; i < moved; ++i) {
    *where = offset + i;
    const auto wrong = CheckByte(*where, bytes[i], i < before.ended.size() ? before.ended[i] : 0);
    if (wrong) return *wrong;
  }
  const vesk::MutexLock guard(mutex_);
  for (std::size_t p = 0; p < before.pieces; ++p) {
    const Piece& piece = appended_[p];
    const std::uint64_t begin = std::max(piece.offset, offset);
    const std::uint64_t end = std::min(piece.offset + piece.length, offset + moved);
    for (*where = begin; *where < end; ++*where) {
      const unsigned char byte = bytes[*where - offset];
      const unsigned char expected = ByteOfPiece(piece.key, *where - piece.offset);
      if (byte == expected) continue;
      return "byte " + std::to_string(byte) + " instead of " + std::to_string(expected) +
             " in the piece appended at " + std::to_string(piece.offset);
    }
  }
  return "";
}

std::optional<std::string> ModelFile::CheckByte(std::uint64_t offset, unsigned char byte,
                                                Version ended) const {
  if (offset < capacity_) {
    const Version begun = begun_[offset].load(std::memory_order_acquire);
    if (byte == ByteOf(offset, begun)) return std::nullopt;
    for (Version version = ended; version < begun; version = NextWrite(version)) {
      if (byte == ByteOf(offset, version)) return std::nullopt;
    }
    return DescribeWrong(offset, byte, ended, begun);
  }
  const std::uint64_t index = offset - capacity_;
  if (index >= tail_.size() || byte == tail_[index]) return std::nullopt;
  return "byte " + std::to_string(byte) + " instead of " + std::to_string(tail_[index]) +
         " beyond the stripes";
}

std::string ModelFile::DescribeWrong(std::uint64_t offset, unsigned char byte, Version ended,
                                     Version begun) const {
  std::ostringstream text;
  text << "byte " << unsigned{byte} << " instead of " << unsigned{ByteOf(offset, ended)}
       << ", version " << ended;
  if (begun != ended) text << " to " << begun;
  if (byte == 0) {
    text << ": a zero";
  } else {
    const std::uint64_t write = (byte - 1 + 255 - Mixed(offset + salt_) % 255) % 255;
    text << ": it may be of version " << 2 * write << " modulo 510";
  }
  return text.str();
}

// ---- quiet ----

// True: the bytes are beginnings of some of `parts`, each used once, one after the other.
bool ModelFile::IsMadeOfParts(const unsigned char* bytes, std::size_t length,
                              std::vector<Piece> parts) const {
  if (length == 0) return true;
  for (std::size_t p = 0; p < parts.size(); ++p) {
    std::size_t same = 0;
    while (same < length && same < parts[p].length &&
           bytes[same] == ByteOfPiece(parts[p].key, same)) {
      ++same;
    }
    std::vector<Piece> others = parts;
    others.erase(others.begin() + static_cast<std::ptrdiff_t>(p));
    // One that goes on like the next by chance is shorter than it looks.
    for (std::size_t used = same; used > 0 && used + 3 > same; --used) {
      if (IsMadeOfParts(bytes + used, length - used, others)) return true;
    }
  }
  return false;
}

std::string ModelFile::TakeIn(std::uint64_t size, std::vector<unsigned char> rest) {
  const vesk::MutexLock guard(mutex_);
  if (appended_.empty() && failed_.empty() && size != least_size_) {
    return "the size is " + std::to_string(size) + " instead of " + std::to_string(least_size_);
  }
  if (size < least_size_ || size > most_size_) {
    return "the size is " + std::to_string(size) + ", neither " + std::to_string(least_size_) +
           " nor more, up to " + std::to_string(most_size_);
  }
  const std::uint64_t begin = capacity_ + tail_.size();
  std::sort(appended_.begin(), appended_.end(),
            [](const Piece& a, const Piece& b) { return a.offset < b.offset; });
  std::uint64_t at = begin;
  for (std::size_t p = 0; p <= appended_.size(); ++p) {
    const std::uint64_t next = p < appended_.size() ? appended_[p].offset : begin + rest.size();
    if (next < at || next > begin + rest.size()) {
      return "a piece was appended at " + std::to_string(next) + ", where others are";
    }
    if (!IsMadeOfParts(rest.data() + (at - begin), next - at, failed_)) {
      return "from " + std::to_string(at) + " to " + std::to_string(next) +
             " stands what nobody has appended";
    }
    if (p == appended_.size()) break;
    for (std::uint64_t i = 0; i < appended_[p].length; ++i) {
      if (rest[next + i - begin] == ByteOfPiece(appended_[p].key, i)) continue;
      return "the piece appended at " + std::to_string(next) + " is wrong from its byte " +
             std::to_string(i) + " on";
    }
    at = next + appended_[p].length;
  }
  tail_.insert(tail_.end(), rest.begin(), rest.end());
  appended_.clear();
  failed_.clear();
  quiet_size_ = size;
  least_size_ = most_size_ = size;
  return "";
}

std::vector<unsigned char> ModelFile::Fill(std::uint64_t size) {
  std::vector<unsigned char> bytes(size);
  for (std::uint64_t at = 0; at < size; ++at) {
    ended_[at].store(2, std::memory_order_relaxed);
    begun_[at].store(2, std::memory_order_relaxed);
    bytes[at] = ByteOf(at, 2);
  }
  quiet_size_ = size;
  least_size_ = most_size_ = size;
  return bytes;
}

void ModelFile::Truncate(std::uint64_t size) {
  for (std::uint64_t at = size; at < capacity_; ++at) {
    const Version hole = ended_[at].load(std::memory_order_relaxed) | 1;
    ended_[at].store(hole, std::memory_order_relaxed);
    begun_[at].store(hole, std::memory_order_relaxed);
  }
  tail_.resize(size > capacity_ ? size - capacity_ : 0);
  quiet_size_ = size;
  least_size_ = most_size_ = size;
}

unsigned char ModelFile::At(std::uint64_t offset) const {
  if (offset >= capacity_) return tail_[offset - capacity_];
  return ByteOf(offset, ended_[offset].load(std::memory_order_relaxed));
}

}  // namespace vesk_test
