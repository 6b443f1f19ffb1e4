#include "simulation/model.h"

#include <algorithm>

namespace vesk_simulation {

namespace {

std::string Name(int value) { return value < 0 ? "no byte" : std::to_string(value); }

}  // namespace

void Model::Reset(const std::string& bytes) {
  ++tick_;
  running_.clear();
  appends_.clear();
  uncertain_ = false;
  bytes_.assign(kMostBytes + 1, {});
  for (std::uint64_t i = 0; i < bytes_.size(); ++i) {
    bytes_[i].push_back({At(bytes, i), 0, tick_});
  }
}

void Model::Add(std::uint64_t offset, Value value, Id by) {
  Byte& byte = bytes_[offset];
  Forget(byte);
  byte.push_back({value, by});
}

// What nobody asks for any more.
void Model::Forget(Byte& byte) const {
  const Tick oldest = readers_.empty() ? tick_ : *readers_.begin();
  byte.erase(std::remove_if(
                 byte.begin(), byte.end(),
                 [oldest](const Possible& one) { return !one.durable && one.dropped < oldest; }),
             byte.end());
}

// The request has taken effect: what was there before it began is not any more.
void Model::Overwrite(std::uint64_t offset, const Request& request, Id by, bool only_none) {
  for (Possible& one : bytes_[offset]) {
    const bool older = one.by != by && one.ended < request.began;
    if (older && one.dropped == kOpen && (!only_none || one.value == kNone)) one.dropped = tick_;
  }
}

void Model::Withdraw(std::uint64_t offset, Id by) {
  for (Possible& one : bytes_[offset]) {
    if (one.by != by) continue;
    one.dropped = one.ended = tick_;
    one.durable = false;
  }
}

void Model::Close(Id by, Tick ended) {
  for (Byte& byte : bytes_) {
    for (Possible& one : byte) {
      if (one.by == by) one.ended = std::min(one.ended, ended);
    }
  }
}

// ---- changes ----

Model::Id Model::BeginWrite(std::uint64_t offset, const std::string& bytes) {
  const Id id = ++tick_;
  const Request request{offset, offset + bytes.size(), bytes, id, false};
  for (std::uint64_t i = 0; i < offset; ++i) {
    if (MayBe(i, kNone, id)) Add(i, 0, id);
  }
  // A truncation in between leaves zeros before the pieces that are written after it.
  for (const auto& [other, truncate] : running_) {
    if (!truncate.truncates) continue;
    for (std::uint64_t i = truncate.begin; i < request.end; ++i) Add(i, 0, id);
  }
  for (std::uint64_t i = offset; i < request.end; ++i) Add(i, At(bytes, i - offset), id);
  running_[id] = request;
  return id;
}

void Model::EndWrite(Id id, std::size_t moved) {
  ++tick_;
  const Request request = running_.at(id);
  running_.erase(id);
  const std::uint64_t end = request.begin + moved;
  for (std::uint64_t i = 0; i < request.end; ++i) {
    if (moved == 0 || i >= end) {
      Withdraw(i, id);
    } else {
      Overwrite(i, request, id, i < request.begin);
    }
  }
  Close(id, tick_);
}

Model::Id Model::BeginAppend(const std::string& bytes) {
  const Id id = ++tick_;
  appends_[id] = {0, kMostBytes, bytes, id, false};
  return id;
}

std::string Model::EndAppend(Id id, std::uint64_t offset) {
  ++tick_;
  Request request = appends_.at(id);
  appends_.erase(id);
  request.begin = offset;
  request.end = offset + request.bytes.size();
  if (request.end > kMostBytes) return "an append lies beyond what the file can have";
  if (!MayBe(offset, kNone, request.began) && appends_.empty()) {
    return "an append has landed at " + std::to_string(offset) + ", before the end of the file";
  }
  for (std::uint64_t i = 0; i < offset; ++i) {
    // The store may have cut its file and said that it had not, and not have been heard since.
    if (uncertain_ && MayBe(i, kNone, request.began)) Add(i, 0, id);
    Overwrite(i, request, id, true);
  }
  for (std::uint64_t i = offset; i < request.end; ++i) {
    Add(i, At(request.bytes, i - offset), id);
    Overwrite(i, request, id, false);
  }
  for (const auto& [other, truncate] : running_) {
    if (!truncate.truncates) continue;
    for (std::uint64_t i = truncate.begin; i < request.end; ++i) Add(i, 0, id);
  }
  Close(id, tick_);
  return "";
}

// It may have begun wherever the file may have ended, behind others that are on their way too.
void Model::FailAppend(Id id) {
  ++tick_;
  const Request request = appends_.at(id);
  appends_.erase(id);
  std::uint64_t others = 0;
  for (const auto& [other, append] : appends_) others += append.bytes.size();
  std::set<std::uint64_t> places;
  for (std::uint64_t i = 0; i + request.bytes.size() <= kMostBytes; ++i) {
    const bool may_end =
        MayBe(i, kNone, request.began) && (i == 0 || MayBeThere(i - 1, request.began));
    for (std::uint64_t k = 0; may_end && k <= others; ++k) places.insert(i + k);
  }
  for (std::uint64_t i = 0; uncertain_ && i < kMostBytes; ++i) {
    if (MayBe(i, kNone, request.began)) Add(i, 0, id);
  }
  for (const std::uint64_t place : places) {
    for (std::uint64_t k = 0; k < request.bytes.size() && place + k < kMostBytes; ++k) {
      Add(place + k, At(request.bytes, k), id);
    }
  }
  Close(id, tick_);
}

Model::Id Model::BeginTruncate(std::uint64_t size) {
  const Id id = ++tick_;
  const Request request{size, kMostBytes, "", id, true};
  for (std::uint64_t i = 0; i < size; ++i) {
    if (MayBe(i, kNone, id)) Add(i, 0, id);
  }
  for (std::uint64_t i = size; i < bytes_.size(); ++i) Add(i, kNone, id);
  // The shorter one first, and zeros take the place of what it has cut.
  for (const auto& [other, running] : running_) {
    const std::uint64_t end = running.truncates ? std::max(running.begin, size) : running.end;
    for (std::uint64_t i = std::min(running.truncates ? running.begin : size, size); i < end; ++i) {
      Add(i, 0, id);
    }
  }
  for (std::uint64_t i = size; !appends_.empty() && i < kMostBytes; ++i) Add(i, 0, id);
  running_[id] = request;
  return id;
}

void Model::EndTruncate(Id id, Outcome outcome) {
  ++tick_;
  const Request request = running_.at(id);
  if (outcome == Outcome::kPerhaps || outcome == Outcome::kPerhapsLater) uncertain_ = true;
  if (outcome == Outcome::kPerhapsLater) return;
  running_.erase(id);
  for (std::uint64_t i = 0; i < bytes_.size(); ++i) {
    if (outcome == Outcome::kNot) Withdraw(i, id);
    if (outcome == Outcome::kDone) Overwrite(i, request, id, i < request.begin);
  }
  Close(id, tick_);
}

void Model::Discard() {
  const Id id = ++tick_;
  for (std::uint64_t i = 0; i < kMostBytes; ++i) {
    for (Possible& one : bytes_[i]) {
      if (!one.durable) continue;
      one.dropped = kOpen;
      if (one.ended != kOpen) one.ended = tick_;  // a write that runs may be what was given up
    }
    Add(i, 0, id);  // the file keeps its size, and nothing is there
  }
  Close(id, tick_);
}

// ---- reads and syncs ----

Model::Tick Model::BeginRead() {
  readers_.insert(++tick_);
  return tick_;
}

std::string Model::EndRead(Tick begin, std::uint64_t offset, std::size_t length,
                           const std::string& bytes) {
  FailRead(begin);
  for (std::uint64_t i = 0; i < bytes.size(); ++i) {
    const Value value = At(bytes, i);
    if (!MayBe(offset + i, value, begin)) return Wrong("a read has brought", offset + i, value);
    ++verified_;
  }
  if (bytes.size() < length && !MayBe(offset + bytes.size(), kNone, begin)) {
    return Wrong("a read has ended before", offset + bytes.size(), kNone);
  }
  return "";
}

std::string Model::CheckSize(std::uint64_t size) const {
  if (size > kMostBytes) return "the file is " + std::to_string(size) + " bytes long";
  if (!MayBe(size, kNone, tick_)) return Wrong("the size has no room for", size, kNone);
  if (size == 0) return "";
  if (MayBeThere(size - 1, tick_) || !appends_.empty()) return "";
  return "the size counts a byte that is not there: " + std::to_string(size);
}

void Model::EndSync(Tick begin) {
  for (Byte& byte : bytes_) {
    for (Possible& one : byte) {
      if (one.dropped < begin) one.durable = false;
    }
  }
}

bool Model::MayBe(std::uint64_t offset, Value value, Tick since) const {
  if (offset >= bytes_.size()) return value == kNone;
  for (const Possible& one : bytes_[offset]) {
    if (one.value == value && one.dropped >= since) return true;
  }
  return IsAppended(offset, value, since);
}

bool Model::MayBeThere(std::uint64_t offset, Tick since) const {
  return std::any_of(bytes_[offset].begin(), bytes_[offset].end(), [since](const Possible& one) {
    return one.value != kNone && one.dropped >= since;
  });
}

// A byte of an append whose place is not known.
bool Model::IsAppended(std::uint64_t offset, Value value, Tick since) const {
  if (value == kNone || appends_.empty()) return false;
  const Byte& byte = bytes_[offset];
  const bool may_end = std::any_of(byte.begin(), byte.end(), [since](const Possible& one) {
    return one.value == kNone && one.dropped >= since;
  });
  return may_end && std::any_of(appends_.begin(), appends_.end(), [value](const auto& append) {
           const std::string& bytes = append.second.bytes;
           return value == 0 || bytes.find(static_cast<char>(value)) != std::string::npos;
         });
}

std::string Model::CheckAfterCrash(const std::string& bytes) const {
  for (std::uint64_t i = 0; i < bytes_.size(); ++i) {
    const Value value = At(bytes, i);
    const Byte& byte = bytes_[i];
    const bool right = std::any_of(byte.begin(), byte.end(), [value](const Possible& one) {
      return one.durable && (one.value == value || (value == 0 && one.value == kNone));
    });
    if (!right && !IsAppended(i, value, 0)) return Wrong("the crash has left", i, value);
  }
  return "";
}

std::string Model::CheckNow(const std::string& bytes) const {
  if (bytes.size() > kMostBytes) return "the file is too long";
  for (std::uint64_t i = 0; i < bytes_.size(); ++i) {
    if (!MayBe(i, At(bytes, i), tick_)) return Wrong("there is", i, At(bytes, i));
  }
  return "";
}

std::string Model::Wrong(const char* what, std::uint64_t offset, Value value) const {
  std::string text = std::string(what) + " " + Name(value) + " at offset " +
                     std::to_string(offset) + "; possible:";
  if (offset >= bytes_.size()) return text + " no byte";
  for (const Possible& one : bytes_[offset]) {
    text += " " + Name(one.value) + (one.dropped != kOpen ? " (overwritten" : "") +
            (one.dropped != kOpen ? one.durable ? ")" : ", the new value is durable)" : "");
  }
  return text;
}

}  // namespace vesk_simulation
