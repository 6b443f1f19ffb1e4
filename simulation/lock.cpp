#include "runtime/plug.h"
#include "vesk/VeskLock.h"

namespace vesk {

void VeskLock::lock() VESK_NO_THREAD_SAFETY_ANALYSIS {
  mutex_.lock();
  Plug::OfThisThread().LockTaken();
}

void VeskLock::unlock() VESK_NO_THREAD_SAFETY_ANALYSIS {
  Plug& plug = Plug::OfThisThread();
  plug.LockGivenUp();
  mutex_.unlock();
  plug.Release();
}

}  // namespace vesk
