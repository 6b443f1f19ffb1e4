#pragma once

#include <cstddef>

#include "vesk/VeskOP.h"

namespace vesk {

class VeskStream;

enum : int { JOB_TYPE_IO = 1, JOB_STATE_DONE = 4, RC_EOF = -2 };

struct VeskJob {
  VeskJob(int t, VeskOP* o) : type(t), op(o) { ++live; }
  VeskJob(const VeskJob&) = delete;
  VeskJob& operator=(const VeskJob&) = delete;

  int GetJobState() { return state; }
  int GetReturnValue() { return return_value; }
  void RefCountInc() { ++references; }
  static void RefCountDec(VeskJob* job) {
    if (--job->references == 0) delete job;
  }

  static void* operator new(std::size_t bytes) noexcept;
  static void operator delete(void* memory);

  VeskStream* owner_stream = nullptr;
  int type;
  VeskOP* op;
  int state = 0;
  int return_value = 0;
  int references = 1;

  static int live;
  static bool allocate_null;

 private:
  ~VeskJob() {
    delete op;
    --live;
  }
};

}  // namespace vesk
