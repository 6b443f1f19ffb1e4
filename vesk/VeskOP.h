// The description of one transfer: an operation code and its arguments by position.

#ifndef VESK_VESKOP_H_
#define VESK_VESKOP_H_

#include <cstddef>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace vesk {

// Read.  Arguments: file name (string), destination (ptr), byte count (int), file offset (ulong),
//        address of an unsigned 32-bit count that receives the bytes obtained (ptr).
constexpr unsigned int OPCODE_READ = 9;

// Write. Arguments: file name (string), source (ptr), byte count (ulong), file offset (ulong),
//        the constant 1 (int).
constexpr unsigned int OPCODE_WRITE = 10;

// Flag of a write that was requested in write mode; carried through to the dispatcher.
constexpr unsigned int OPFLAG_WRITE_MODE = 8;

// Built by the cache, then owned by its job and read by the dispatcher.
//   Owns     a copy of each string: the stream whose name was given may be gone before the job is.
//            Memory behind pointers is borrowed
//   Ends in  std::bad_alloc from an appender; std::out_of_range or std::bad_variant_access from a
//            reader that asks for an argument which is not there or has another type
//   Threads  none of its own: filled by one thread, then only read
class VeskOP {
 public:
  VeskOP(unsigned int opcode, unsigned int flags) : opcode_(opcode), flags_(flags) {
    arguments_.reserve(kUsualArguments);
  }

  void AddString(std::string& value) { arguments_.emplace_back(value); }
  void AddPtr(void* value) { arguments_.emplace_back(value); }
  void AddInt(int value) { arguments_.emplace_back(value); }
  void AddULong(unsigned long value) { arguments_.emplace_back(value); }

  // Memory that lives as long as the operation; read with GetPtr. The cache never uses it.
  void AddShared(std::shared_ptr<void> value) {
    arguments_.emplace_back(value.get());
    shared_ = std::move(value);
  }

  unsigned int GetOpcode() const { return opcode_; }
  unsigned int GetFlags() const { return flags_; }
  std::size_t GetArgumentCount() const { return arguments_.size(); }

  // Arguments count from 0.
  const std::string& GetString(std::size_t i) const { return Get<std::string>(i); }
  void* GetPtr(std::size_t i) const { return Get<void*>(i); }
  int GetInt(std::size_t i) const { return Get<int>(i); }
  unsigned long GetULong(std::size_t i) const { return Get<unsigned long>(i); }

  // Calls `visitor` with argument `i` in its own type and returns what it returns.
  template <typename Visitor>
  auto Visit(std::size_t i, Visitor&& visitor) const {
    return std::visit(visitor, arguments_.at(i));
  }

 private:
  static constexpr std::size_t kUsualArguments = 5;

  template <typename T>
  const T& Get(std::size_t i) const {
    return std::get<T>(arguments_.at(i));
  }

  const unsigned int opcode_;
  const unsigned int flags_;
  std::vector<std::variant<std::string, void*, int, unsigned long>> arguments_;
  std::shared_ptr<void> shared_;
};

}  // namespace vesk

#endif  // VESK_VESKOP_H_
