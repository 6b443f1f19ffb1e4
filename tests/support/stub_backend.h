// A backend without a store, for tests that bring their own way of ending jobs.

#ifndef TESTS_SUPPORT_STUB_BACKEND_H_
#define TESTS_SUPPORT_STUB_BACKEND_H_

#include <cerrno>
#include <cstdint>
#include <string>

#include "runtime/backend.h"

namespace vesk_test {

// No name exists in it; jobs are taken in and never end.
class StubBackend : public vesk::VeskBackend {
 public:
  void Start(vesk::VeskJob* /*job*/) override {}
  void Run(vesk::VeskJob* /*job*/) override {}
  int Stat(const std::string& /*name*/, FileInfo* /*info*/) override { return ENOENT; }
  int Open(const std::string& /*name*/, Access /*access*/) override { return ENOENT; }
  int Create(const std::string& /*name*/, mode_t /*permissions*/) override { return ENOSPC; }
  int Truncate(const std::string& /*name*/, std::uint64_t /*size*/) override { return ENOENT; }
  int NextData(const std::string& /*name*/, std::uint64_t /*offset*/, Extent* /*extent*/) override {
    return ENOENT;
  }
  int Sync(const std::string& /*name*/) override { return ENOENT; }
  int Rename(const std::string& /*from*/, const std::string& /*to*/) override { return ENOENT; }
  int Remove(const std::string& /*name*/) override { return ENOENT; }
};

}  // namespace vesk_test

#endif  // TESTS_SUPPORT_STUB_BACKEND_H_
