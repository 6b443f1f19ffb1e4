// Operations on a store's names, as jobs: the one place that knows their codes and arguments.

#ifndef RUNTIME_NAME_OPERATION_H_
#define RUNTIME_NAME_OPERATION_H_

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

#include "vesk/VeskJob.h"

namespace vesk {

constexpr int JOB_TYPE_NAME = 2;

// Clear of the cache's own codes, 9 and 10.
constexpr unsigned int OPCODE_STAT = 101;       // result: FileInfo
constexpr unsigned int OPCODE_OPEN = 102;       // number: Access
constexpr unsigned int OPCODE_CREATE = 103;     // number: permissions
constexpr unsigned int OPCODE_TRUNCATE = 104;   // number: size
constexpr unsigned int OPCODE_NEXT_DATA = 105;  // number: offset; result: Extent
constexpr unsigned int OPCODE_SYNC = 106;
constexpr unsigned int OPCODE_RENAME = 107;  // other: the new name
constexpr unsigned int OPCODE_REMOVE = 108;
constexpr unsigned int OPCODE_SET_PERMISSIONS = 109;  // number: permissions

enum class Access : unsigned long { kRead, kWrite };

struct FileInfo {
  std::uint64_t size = 0;
  mode_t mode = 0;  // type and permissions, as stat(2) reports them
  dev_t device = 0;
  ino_t inode = 0;
  // The last change of the contents, in nanoseconds since the epoch; each change changes it, as far
  // as the store's clock is fine enough. 0: the store does not tell.
  std::int64_t modified_ns = 0;
};

// A run of a file that holds data; what lies before it reads as zeros.
struct Extent {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

// A view of an operation on a name, which outlives it.
//   Ends in  what VeskOP's readers throw when the operation is of another shape
struct NameOperation {
  explicit NameOperation(const VeskOP& op)
      : code(op.GetOpcode()),
        name(op.GetString(0)),
        other(op.GetString(1)),
        number(op.GetULong(2)),
        result(op.GetPtr(3)) {}

  template <typename Result>
  Result& ResultAs() const {
    return *static_cast<Result*>(result);
  }

  const unsigned int code;
  const std::string& name;
  const std::string& other;
  const std::uint64_t number;
  void* const result;
};

// A job with one reference, the caller's. It keeps the memory of its result: whoever waited may be
// gone before the store answers.
inline VeskJob* NewNameJob(unsigned int code, std::string name, std::string other = {},
                           std::uint64_t number = 0, std::shared_ptr<void> result = nullptr) {
  auto op = std::make_unique<VeskOP>(code, 0);
  op->AddString(name);
  op->AddString(other);
  op->AddULong(number);
  op->AddShared(std::move(result));
  auto* const job = new VeskJob(JOB_TYPE_NAME, op.get());
  (void)op.release();  // the job's
  return job;
}

}  // namespace vesk

#endif  // RUNTIME_NAME_OPERATION_H_
