#include "runtime/dispatcher.h"
#include "vesk/VeskBundler.h"

namespace vesk {

VeskBundler::VeskBundler(VeskBackend& backend) : VeskBundler(backend, Clock::System()) {}

VeskBundler::VeskBundler(VeskBackend& backend, Clock& clock)
    : dispatcher_(std::make_unique<Dispatcher>(backend, clock)) {}

VeskBundler::~VeskBundler() = default;

void VeskBundler::SubmitJob(VeskJob* job) { dispatcher_->Submit(job); }

void VeskBundler::WaitForJob(VeskJob* job, VeskLock* lock, const char* tag) {
  dispatcher_->Wait(job, lock, tag);
}

}  // namespace vesk
