#include "runtime/plug.h"
#include "vesk/VeskLock.h"

namespace vesk {

void VeskLock::lock() {
  mutex_.lock();
  Plug::OfThisThread().LockTaken();
}

void VeskLock::unlock() {
  Plug& plug = Plug::OfThisThread();
  plug.LockGivenUp();
  mutex_.unlock();
  plug.Release();  // after the unlock: starting jobs takes time that others can use
}

}  // namespace vesk
