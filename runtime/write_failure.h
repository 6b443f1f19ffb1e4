// News of a write-back that fails.

#ifndef RUNTIME_WRITE_FAILURE_H_
#define RUNTIME_WRITE_FAILURE_H_

#include <cstddef>
#include <cstdint>
#include <string>

namespace vesk {

//   Units    bytes
struct WriteFailure {
  const std::string& name;  // valid during the call
  std::uint64_t offset;
  std::size_t length;
  int error;          // a positive errno value
  bool transient;     // it may pass by itself
  unsigned attempts;  // so far
  bool given_up;      // the write ends with `error`: its file has the bytes; else it is tried again
};

}  // namespace vesk

#endif  // RUNTIME_WRITE_FAILURE_H_
