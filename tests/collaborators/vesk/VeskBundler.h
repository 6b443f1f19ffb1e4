#pragma once

#include "vesk/VeskJob.h"
#include "vesk/VeskLock.h"

namespace vesk {

struct VeskBundler {
  void SubmitJob(VeskJob* job);
  void WaitForJob(VeskJob* job, VeskLock* lock, const char* tag);
};

}  // namespace vesk
