#include "runtime/plug.h"
#include "vesk/VeskLock.h"

namespace vesk {

void VeskLock::StartJobs() { Plug::OfThisThread().Release(); }

}  // namespace vesk
