// The one exception of the cache module and its codes.

#ifndef VESK_VESKEXCEPTION_H_
#define VESK_VESKEXCEPTION_H_

namespace vesk {

// The request waited for a job, or dropped a stale block, and was abandoned: issue it again.
constexpr int ERR_WAIT = 1000;

// A check of the module's own consistency failed, a failed allocation included.
constexpr int ERR_ASSERT = 1001;

// What a failed call into the cache throws, by value. Any code but the two above is the return
// value of the job that failed; dispatchers never end a job with 1000 or 1001, so the three kinds
// cannot be confused.
//   Threads  a plain value: copied freely, no sharing
class VeskException {
 public:
  explicit VeskException(int error_code) : code(error_code) {}

  int code;
};

}  // namespace vesk

#endif  // VESK_VESKEXCEPTION_H_
