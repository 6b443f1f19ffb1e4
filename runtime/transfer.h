// An operation's arguments by name: the one place that knows their positions.

#ifndef RUNTIME_TRANSFER_H_
#define RUNTIME_TRANSFER_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "vesk/VeskOP.h"

namespace vesk {

// A view of a read or write operation, which outlives it.
//   Units    bytes
//   Ends in  what VeskOP's readers throw when the operation is of another shape
struct Transfer {
  explicit Transfer(const VeskOP& op)
      : is_write(op.GetOpcode() == OPCODE_WRITE),
        name(op.GetString(0)),
        data(static_cast<unsigned char*>(op.GetPtr(1))),
        length(is_write ? op.GetULong(2) : static_cast<std::size_t>(op.GetInt(2))),
        offset(op.GetULong(3)),
        count(is_write ? nullptr : static_cast<unsigned int*>(op.GetPtr(4))) {}

  // The bytes that a read obtained; requests look at the field while the read is in flight.
  void StoreCount(std::size_t bytes) const {
    __atomic_store_n(count, static_cast<unsigned int>(bytes), __ATOMIC_RELAXED);
  }

  // Bytes moved by a transfer that ended well.
  std::size_t Moved() const { return is_write ? length : __atomic_load_n(count, __ATOMIC_RELAXED); }

  const bool is_write;
  const std::string& name;
  unsigned char* const data;
  const std::size_t length;
  const std::uint64_t offset;
  unsigned int* const count;  // null for a write
};

}  // namespace vesk

#endif  // RUNTIME_TRANSFER_H_
