// What the module's tests need of the collaborator headers in force: the project's own, or the
// minimal set of tests/collaborators. Each set has its own implementation of this file.

#ifndef TESTS_SUPPORT_COLLABORATORS_H_
#define TESTS_SUPPORT_COLLABORATORS_H_

#include <memory>
#include <string>
#include <vector>

#include "vesk/VeskBundler.h"
#include "vesk/VeskEnv.h"
#include "vesk/VeskJob.h"
#include "vesk/VeskThreadPool.h"

namespace vesk_test {

// An operation as a test compares it.
struct Operation {
  unsigned int code = 0;
  unsigned int flags = 0;
  std::vector<std::string> arguments;  // "string f", "ptr 0x55...", "int 4096", "ulong 0"
};

Operation DescribeOperation(vesk::VeskJob* job);

int JobType(vesk::VeskJob* job);

// References held, the scripted dispatcher's own one included.
int References(vesk::VeskJob* job);

// Makes the job's state JOB_STATE_DONE with this return value.
void EndJob(vesk::VeskJob* job, int return_value);

// The address that a read's count goes to.
unsigned int* CountAddress(vesk::VeskJob* job);

std::shared_ptr<vesk::VeskBundler> NewBundler();
std::shared_ptr<vesk::VeskThreadPool> NewThreadPool();

}  // namespace vesk_test

#endif  // TESTS_SUPPORT_COLLABORATORS_H_
