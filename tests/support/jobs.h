// Jobs as the cache makes them, for tests of what stands below it.

#ifndef TESTS_SUPPORT_JOBS_H_
#define TESTS_SUPPORT_JOBS_H_

#include <string>
#include <utility>

#include "vesk/VeskJob.h"

namespace vesk_test {

// Each returned job carries one reference, the caller's.

inline vesk::VeskJob* NewRead(std::string name, void* memory, unsigned int length,
                              unsigned long offset, unsigned int* count) {
  auto* const op = new vesk::VeskOP(vesk::OPCODE_READ, 0);
  op->AddString(name);
  op->AddPtr(memory);
  op->AddInt(static_cast<int>(length));
  op->AddULong(offset);
  op->AddPtr(count);
  return new vesk::VeskJob(vesk::JOB_TYPE_IO, op);
}

inline vesk::VeskJob* NewWrite(std::string name, const void* memory, unsigned int length,
                               unsigned long offset) {
  auto* const op = new vesk::VeskOP(vesk::OPCODE_WRITE, 0);
  op->AddString(name);
  op->AddPtr(const_cast<void*>(memory));
  op->AddULong(length);
  op->AddULong(offset);
  op->AddInt(1);
  return new vesk::VeskJob(vesk::JOB_TYPE_IO, op);
}

// Drops the caller's reference at the end of the scope.
class JobHolder {
 public:
  explicit JobHolder(vesk::VeskJob* job) : job_(job) {}
  ~JobHolder() { vesk::VeskJob::RefCountDec(job_); }
  JobHolder(const JobHolder&) = delete;
  JobHolder& operator=(const JobHolder&) = delete;

  vesk::VeskJob* get() const { return job_; }
  vesk::VeskJob* operator->() const { return job_; }

 private:
  vesk::VeskJob* const job_;
};

}  // namespace vesk_test

#endif  // TESTS_SUPPORT_JOBS_H_
