// A dispatcher whose jobs end when the test says.

#ifndef TESTS_SUPPORT_DISPATCHER_H_
#define TESTS_SUPPORT_DISPATCHER_H_

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/collaborators.h"
#include "vesk/VeskLock.h"

namespace vesk_test {

// One at a time: it receives what any VeskBundler is asked. It holds one reference to each
// submitted job until it is destroyed or Release is called, so a job can be looked at after the
// module has let go of it.
class ScriptedDispatcher {
 public:
  struct Wait {
    vesk::VeskJob* job;
    vesk::VeskLock* lock;
    std::string tag;
  };

  ScriptedDispatcher();
  ~ScriptedDispatcher();
  ScriptedDispatcher(const ScriptedDispatcher&) = delete;
  ScriptedDispatcher& operator=(const ScriptedDispatcher&) = delete;

  vesk::VeskBundler* bundler() { return bundler_.get(); }

  // Ends a job. `count`: the bytes that a read obtained, stored first.
  void FinishRead(vesk::VeskJob* job, unsigned int count, int return_value = 0);
  void FinishWrite(vesk::VeskJob* job, int return_value = 0);

  // Drops the dispatcher's references to all jobs and forgets them.
  void Release();

  std::vector<vesk::VeskJob*> submitted;  // in order
  std::vector<Wait> waits;                // in order

  // Called at the end of SubmitJob: lets a job end at once.
  std::function<void(vesk::VeskJob*)> on_submit;

  // Called inside WaitForJob; without it a wait returns at once, its job unfinished.
  std::function<void(vesk::VeskJob*)> on_wait;

 private:
  const std::shared_ptr<vesk::VeskBundler> bundler_;
};

}  // namespace vesk_test

#endif  // TESTS_SUPPORT_DISPATCHER_H_
