#include <sstream>

#include "runtime/transfer.h"
#include "tests/support/collaborators.h"
#include "tests/support/stub_backend.h"

// The module's tests end jobs by hand: this takes the place of runtime/bundler.cpp, together with
// the operations that dispatcher.cpp defines.
namespace vesk {

class Dispatcher {};

VeskBundler::VeskBundler(VeskBackend& /*backend*/) {}
VeskBundler::~VeskBundler() = default;

}  // namespace vesk

namespace vesk_test {

namespace {

template <typename T>
std::string Text(const char* kind, const T& value) {
  std::ostringstream text;
  text << kind << ' ' << value;
  return text.str();
}

}  // namespace

Operation DescribeOperation(vesk::VeskJob* job) {
  const vesk::VeskOP& op = job->GetOP();
  Operation result;
  result.code = op.GetOpcode();
  result.flags = op.GetFlags();
  for (std::size_t i = 0; i < op.GetArgumentCount(); ++i) {
    result.arguments.push_back(op.Visit(i, [](const auto& value) {
      using T = std::decay_t<decltype(value)>;
      if constexpr (std::is_same_v<T, std::string>) return Text("string", value);
      if constexpr (std::is_same_v<T, void*>) return Text("ptr", value);
      if constexpr (std::is_same_v<T, int>) return Text("int", value);
      if constexpr (std::is_same_v<T, unsigned long>) return Text("ulong", value);
    }));
  }
  return result;
}

int JobType(vesk::VeskJob* job) { return job->GetType(); }
int References(vesk::VeskJob* job) { return job->GetRefCount(); }
void EndJob(vesk::VeskJob* job, int return_value) { job->Publish(return_value); }
unsigned int* CountAddress(vesk::VeskJob* job) { return vesk::Transfer(job->GetOP()).count; }

std::shared_ptr<vesk::VeskBundler> NewBundler() {
  static StubBackend backend;
  return std::make_shared<vesk::VeskBundler>(backend);
}

std::shared_ptr<vesk::VeskThreadPool> NewThreadPool() {
  return std::make_shared<vesk::VeskThreadPool>();
}

}  // namespace vesk_test
