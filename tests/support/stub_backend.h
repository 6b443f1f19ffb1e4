// A backend without a store, for tests that bring their own way of ending jobs.

#ifndef TESTS_SUPPORT_STUB_BACKEND_H_
#define TESTS_SUPPORT_STUB_BACKEND_H_

#include "runtime/backend.h"

namespace vesk_test {

// Takes jobs in; they end when somebody says so.
class StubBackend : public vesk::VeskBackend {
 public:
  void Start(vesk::JobQueue& jobs) override {
    while (!jobs.Empty()) jobs.Pop();
  }
  void CancelAll(int /*error*/) override {}

  using VeskBackend::End;
};

}  // namespace vesk_test

#endif  // TESTS_SUPPORT_STUB_BACKEND_H_
