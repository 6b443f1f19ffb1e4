#include "runtime/store.h"

#include "runtime/dispatcher.h"
#include "runtime/request.h"
#include "vesk/VeskBundler.h"

namespace vesk {

int Store::Await(VeskJob* job, const char* tag) {
  bundler_.SubmitJob(job);
  bundler_.WaitForJob(job, nullptr, tag);
  const bool ended = job->GetJobState() == JOB_STATE_DONE;
  const int result =
      ended ? job->GetReturnValue() : RequestScope::Exceeded(bundler_.dispatcher().clock());
  VeskJob::RefCountDec(job);
  return result;
}

int Store::Stat(const std::string& name, FileInfo* info) {
  const auto result = std::make_shared<FileInfo>();
  const int error = Await(NewNameJob(OPCODE_STAT, name, {}, 0, result), "Stat");
  if (error == 0) *info = *result;
  return error;
}

int Store::Open(const std::string& name, Access access) {
  return Await(NewNameJob(OPCODE_OPEN, name, {}, static_cast<unsigned long>(access)), "Open");
}

int Store::Create(const std::string& name, mode_t permissions) {
  return Await(NewNameJob(OPCODE_CREATE, name, {}, permissions), "Create");
}

int Store::SetPermissions(const std::string& name, mode_t permissions) {
  return Await(NewNameJob(OPCODE_SET_PERMISSIONS, name, {}, permissions), "SetPermissions");
}

int Store::Truncate(const std::string& name, std::uint64_t size) {
  return Await(NewNameJob(OPCODE_TRUNCATE, name, {}, size), "Truncate");
}

int Store::NextData(const std::string& name, std::uint64_t offset, Extent* extent) {
  const auto result = std::make_shared<Extent>();
  const int error = Await(NewNameJob(OPCODE_NEXT_DATA, name, {}, offset, result), "NextData");
  if (error == 0) *extent = *result;
  return error;
}

int Store::Sync(const std::string& name) { return Await(NewNameJob(OPCODE_SYNC, name), "Sync"); }

int Store::Rename(const std::string& from, const std::string& to) {
  return Await(NewNameJob(OPCODE_RENAME, from, to), "Rename");
}

int Store::Remove(const std::string& name) {
  return Await(NewNameJob(OPCODE_REMOVE, name), "Remove");
}

}  // namespace vesk
