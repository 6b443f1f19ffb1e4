#include <new>
#include <sstream>

#include "tests/support/collaborators.h"

namespace vesk {

VeskEnv* gEnv = nullptr;

int VeskOP::live = 0;
bool VeskOP::allocate_null = false;
int VeskJob::live = 0;
bool VeskJob::allocate_null = false;

namespace {

void* AllocateOrNull(std::size_t bytes, bool* allocate_null) {
  if (*allocate_null) {
    *allocate_null = false;
    return nullptr;
  }
  return ::operator new(bytes, std::nothrow);
}

}  // namespace

void* VeskOP::operator new(std::size_t bytes) noexcept {
  return AllocateOrNull(bytes, &allocate_null);
}
void VeskOP::operator delete(void* memory) { ::operator delete(memory); }
void* VeskJob::operator new(std::size_t bytes) noexcept {
  return AllocateOrNull(bytes, &allocate_null);
}
void VeskJob::operator delete(void* memory) { ::operator delete(memory); }

}  // namespace vesk

namespace vesk_test {

Operation DescribeOperation(vesk::VeskJob* job) {
  Operation result;
  result.code = job->op->code;
  result.flags = job->op->flags;
  for (const vesk::VeskOP::Argument& argument : job->op->arguments) {
    std::ostringstream text;
    switch (argument.kind) {
      case 's': text << "string " << argument.text; break;
      case 'p': text << "ptr " << argument.pointer; break;
      case 'i': text << "int " << argument.integer; break;
      default: text << "ulong " << argument.number; break;
    }
    result.arguments.push_back(text.str());
  }
  return result;
}

int JobType(vesk::VeskJob* job) { return job->type; }
int References(vesk::VeskJob* job) { return job->references; }

void EndJob(vesk::VeskJob* job, int return_value) {
  job->return_value = return_value;
  job->state = vesk::JOB_STATE_DONE;
}

unsigned int* CountAddress(vesk::VeskJob* job) {
  return static_cast<unsigned int*>(job->op->arguments.at(4).pointer);
}

std::shared_ptr<vesk::VeskBundler> NewBundler() { return std::make_shared<vesk::VeskBundler>(); }

std::shared_ptr<vesk::VeskThreadPool> NewThreadPool() {
  const std::shared_ptr<vesk::VeskThreadPool> pool(new vesk::VeskThreadPool,
                                                   [](vesk::VeskThreadPool* done) {
                                                     pthread_cond_destroy(&done->tp_cond);
                                                     pthread_mutex_destroy(&done->tp_mutex);
                                                     delete done;
                                                   });
  pthread_mutex_init(&pool->tp_mutex, nullptr);
  pthread_cond_init(&pool->tp_cond, nullptr);
  return pool;
}

}  // namespace vesk_test
