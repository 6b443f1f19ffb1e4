#include "tests/support/dispatcher.h"

namespace vesk_test {

namespace {

ScriptedDispatcher* current = nullptr;

}  // namespace

ScriptedDispatcher::ScriptedDispatcher() : bundler_(NewBundler()) { current = this; }

ScriptedDispatcher::~ScriptedDispatcher() {
  Release();
  current = nullptr;
}

void ScriptedDispatcher::Release() {
  for (vesk::VeskJob* job : submitted) vesk::VeskJob::RefCountDec(job);
  submitted.clear();
}

void ScriptedDispatcher::FinishRead(vesk::VeskJob* job, unsigned int count, int return_value) {
  *CountAddress(job) = count;
  EndJob(job, return_value);
}

void ScriptedDispatcher::FinishWrite(vesk::VeskJob* job, int return_value) {
  EndJob(job, return_value);
}

}  // namespace vesk_test

namespace vesk {

void VeskBundler::SubmitJob(VeskJob* job) {
  job->RefCountInc();
  vesk_test::current->submitted.push_back(job);
  if (vesk_test::current->on_submit) vesk_test::current->on_submit(job);
}

void VeskBundler::WaitForJob(VeskJob* job, VeskLock* lock, const char* tag) {
  vesk_test::current->waits.push_back({job, lock, tag});
  if (vesk_test::current->on_wait) vesk_test::current->on_wait(job);
}

}  // namespace vesk
